// What file.cc and dir.cc share: the calls in use, interrupted calls, descriptors.
#pragma once

#include <cerrno>
#include <sys/types.h>

#include "base/file.h"

const zem_file_calls &zem_file_calls_in_use() noexcept;

// Repeats a call that reports failure by -1 for as long as signals interrupt it.
template <class Call>
auto zem_file_retry(Call &&call) noexcept {
  while (true) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

// Opens `path` into `fd`, which holds no descriptor yet. Descriptors are not passed on to programs
// that the host starts.
zem_status zem_fd_open(zem_fd &fd, const char *path, int flags, mode_t mode) noexcept;

// Closes the descriptor, if any, and reports what the system says of it.
zem_status zem_fd_close(zem_fd &fd) noexcept;
