#include "base/file.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <utility>

#include "base/file_impl.h"
#include "base/scope.h"

namespace {

constexpr std::uint64_t grow_step_bytes = std::uint64_t{8} << 20;
constexpr std::size_t copy_chunk_bytes = std::size_t{1} << 20;
constexpr std::size_t string_chunk_bytes = std::size_t{64} << 10;
constexpr mode_t file_mode = 0644;

constexpr zem_file_calls system_calls{
    .open = [](const char *path, int flags, mode_t mode) { return ::open(path, flags, mode); },
    .close = ::close,
    .pread = ::pread,
    .pwrite = ::pwrite,
    .fdatasync = ::fdatasync,
    .fsync = ::fsync,
    .posix_fallocate = ::posix_fallocate,
    .ftruncate = ::ftruncate,
    .lseek = ::lseek,
    .stat = [](const char *path, struct ::stat *into) { return ::stat(path, into); },
    .rename = std::rename,
    .unlink = ::unlink,
    .mkdir = ::mkdir,
    .rmdir = ::rmdir,
};

std::atomic<const zem_file_calls *> calls_in_use = &system_calls;

std::span<std::byte> writable_bytes(std::string &text) noexcept {
  return std::as_writable_bytes(std::span(text));
}

}  // namespace

const zem_file_calls &zem_file_system_calls() noexcept { return system_calls; }

void zem_file_use(const zem_file_calls *calls) noexcept {
  calls_in_use = calls != nullptr ? calls : &system_calls;
}

const zem_file_calls &zem_file_calls_in_use() noexcept { return *calls_in_use; }

zem_status zem_fd_open(zem_fd &fd, const char *path, int flags, mode_t mode) noexcept {
  const auto opened =
      zem_file_retry([&] { return zem_file_calls_in_use().open(path, flags | O_CLOEXEC, mode); });
  if (opened < 0) return zem_status_errno();
  fd.number = opened;
  return zem_ok;
}

zem_status zem_fd_close(zem_fd &fd) noexcept {
  const int number = fd.number.exchange(-1);
  if (number < 0) return zem_ok;
  // The system lets go of the descriptor even when a signal interrupts it: no second attempt.
  if (zem_file_calls_in_use().close(number) < 0 && errno != EINTR) return zem_status_errno();
  return zem_ok;
}

// Whoever shared the descriptor last has nobody left to tell of a failure.
zem_fd::~zem_fd() { std::ignore = zem_fd_close(*this); }

zem_status zem_fd_sync(const zem_fd &fd) noexcept {
  const int number = fd.number;
  if (zem_file_retry([&] { return zem_file_calls_in_use().fdatasync(number); }) < 0)
    return zem_status_errno();
  return zem_ok;
}

zem_status zem_file_open(zem_file &file, zem_file_mode mode) {
  if (zem_status st = zem_file_close(file); st < 0) return st;
  auto fd = std::make_shared<zem_fd>(-1);

  int flags = O_RDWR | O_CREAT;
  if (mode == zem_file_mode::fresh) {
    if (zem_status st = zem_file_remove_if_exists(file.name); st < 0) return st;
    flags |= O_EXCL;
  }
  if (zem_status st = zem_fd_open(*fd, file.name.c_str(), flags, file_mode); st < 0) return st;

  struct ::stat status {};
  if (::fstat(fd->number, &status) < 0) return zem_status_errno();
  file.fd = std::move(fd);
  file.size = static_cast<std::uint64_t>(status.st_size);
  return zem_ok;
}

zem_status zem_file_close(zem_file &file) noexcept {
  const std::shared_ptr<zem_fd> fd = std::exchange(file.fd, nullptr);
  file.size = 0;
  // A sync that shares the descriptor closes it when it ends.
  if (fd == nullptr || fd.use_count() > 1) return zem_ok;
  return zem_fd_close(*fd);
}

bool zem_file_is_open(const zem_file &file) noexcept { return file.fd != nullptr; }

zem_status zem_file_read(const zem_file &file, std::uint64_t offset, std::span<std::byte> into) {
  if (file.fd == nullptr) return zem_status{-EBADF};
  const int number = file.fd->number;
  while (!into.empty()) {
    const ssize_t got = zem_file_retry([&] {
      return zem_file_calls_in_use().pread(number, into.data(), into.size(),
                                           static_cast<off_t>(offset));
    });
    if (got < 0) return zem_status_errno();
    if (got == 0) break;
    into = into.subspan(static_cast<std::size_t>(got));
    offset += static_cast<std::uint64_t>(got);
  }
  std::fill(into.begin(), into.end(), std::byte{0});
  return zem_ok;
}

std::uint64_t zem_file_data(const zem_file &file, std::uint64_t offset) noexcept {
  if (file.fd == nullptr || offset >= file.size) return file.size;
  const off_t data =
      zem_file_calls_in_use().lseek(file.fd->number, static_cast<off_t>(offset), SEEK_DATA);
  if (data >= 0) return std::min(static_cast<std::uint64_t>(data), file.size);
  // ENXIO is the answer "none". A system that cannot tell leaves it to the caller to read on.
  return errno == ENXIO ? file.size : offset;
}

zem_status zem_file_write(zem_file &file, std::uint64_t offset, std::span<const std::byte> from) {
  if (file.fd == nullptr) return zem_status{-EBADF};
  const int number = file.fd->number;
  while (!from.empty()) {
    const ssize_t put = zem_file_retry([&] {
      return zem_file_calls_in_use().pwrite(number, from.data(), from.size(),
                                            static_cast<off_t>(offset));
    });
    if (put < 0) return zem_status_errno();
    if (put == 0) return zem_status{-EIO};
    from = from.subspan(static_cast<std::size_t>(put));
    offset += static_cast<std::uint64_t>(put);
    file.size = std::max(file.size, offset);
  }
  return zem_ok;
}

zem_status zem_file_expand(zem_file &file, std::uint64_t size) {
  if (file.fd == nullptr) return zem_status{-EBADF};
  if (size <= file.size) return zem_ok;
  const int number = file.fd->number;
  const auto begin = static_cast<off_t>(file.size);
  const auto added = static_cast<off_t>(size - file.size);

  int error = 0;
  do {
    error = zem_file_calls_in_use().posix_fallocate(number, begin, added);
  } while (error == EINTR);
  if (error != 0) {
    // A full disk may have granted a part. Giving that back is a favour to others: bytes left
    // behind `size` are zeros, which the next attempt takes over.
    std::ignore = zem_file_calls_in_use().ftruncate(number, begin);
    return zem_status{-error};
  }
  file.size = size;
  return zem_ok;
}

void zem_file_release(const zem_file &file, std::uint64_t offset) noexcept {
  if (file.fd == nullptr || offset >= file.size) return;
  std::ignore = ::fallocate(file.fd->number, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                            static_cast<off_t>(offset), static_cast<off_t>(file.size - offset));
}

zem_status zem_file_truncate(zem_file &file, std::uint64_t size) {
  if (file.fd == nullptr) return zem_status{-EBADF};
  const int number = file.fd->number;
  const int cut = zem_file_retry(
      [&] { return zem_file_calls_in_use().ftruncate(number, static_cast<off_t>(size)); });
  if (cut < 0) return zem_status_errno();
  file.size = size;
  return zem_ok;
}

zem_status zem_file_sync(const zem_file &file) noexcept {
  if (file.fd == nullptr) return zem_status{-EBADF};
  return zem_fd_sync(*file.fd);
}

void zem_file_start_sync(const zem_file &file, std::uint64_t offset, std::uint64_t size) noexcept {
  if (file.fd == nullptr) return;
  std::ignore = ::sync_file_range(file.fd->number, static_cast<off_t>(offset),
                                  static_cast<off_t>(size), SYNC_FILE_RANGE_WRITE);
}

void zem_file_swap(zem_file &a, zem_file &b) noexcept {
  std::swap(a.fd, b.fd);
  std::swap(a.size, b.size);
}

std::uint64_t zem_file_step(std::uint64_t end) noexcept {
  return (end + grow_step_bytes - 1) / grow_step_bytes * grow_step_bytes;
}

zem_status zem_file_exist(const std::string &name) {
  struct ::stat status {};
  if (zem_file_calls_in_use().stat(name.c_str(), &status) == 0) return zem_yes;
  return errno == ENOENT ? zem_ok : zem_status_errno();
}

zem_status zem_file_free_name(const std::string &name, std::string &free) {
  free = name;
  for (std::uint64_t number = 1;; ++number) {
    const zem_status found = zem_file_exist(free);
    if (found <= 0) return found;
    free = name + '.' + std::to_string(number);
  }
}

zem_status zem_file_rename(const std::string &from, const std::string &to) {
  if (zem_file_calls_in_use().rename(from.c_str(), to.c_str()) < 0) return zem_status_errno();
  return zem_ok;
}

zem_status zem_file_remove(const std::string &name) {
  if (zem_file_calls_in_use().unlink(name.c_str()) < 0) return zem_status_errno();
  return zem_ok;
}

zem_status zem_file_remove_if_exists(const std::string &name) {
  const zem_status st = zem_file_remove(name);
  if (st == -ENOENT) return zem_ok;
  return st < 0 ? st : zem_yes;
}

zem_status zem_file_get_string(const std::string &name, std::size_t limit, std::string &text) {
  zem_fd fd(-1);
  if (zem_status st = zem_fd_open(fd, name.c_str(), O_RDONLY, 0); st < 0) return st;

  std::string content;
  std::string chunk(string_chunk_bytes, '\0');
  while (true) {
    const ssize_t got = zem_file_retry([&] {
      return zem_file_calls_in_use().pread(fd.number, chunk.data(), chunk.size(),
                                           static_cast<off_t>(content.size()));
    });
    if (got < 0) return zem_status_errno();
    if (got == 0) break;
    if (static_cast<std::size_t>(got) > limit - content.size()) return zem_status{-EFBIG};
    content.append(chunk, 0, static_cast<std::size_t>(got));
  }
  text.swap(content);
  return zem_ok;
}

zem_status zem_file_set_string(const std::string &name, const std::string &text) {
  zem_file beside{.name = name + ".tmp"};
  zem_on_exit remove([&] { std::ignore = zem_file_remove_if_exists(beside.name); });
  if (zem_status st = zem_file_open(beside, zem_file_mode::fresh); st < 0) return st;
  if (zem_status st = zem_file_write(beside, 0, std::as_bytes(std::span(text))); st < 0) return st;
  if (zem_status st = zem_file_sync(beside); st < 0) return st;
  if (zem_status st = zem_file_close(beside); st < 0) return st;
  if (zem_status st = zem_file_rename(beside.name, name); st < 0) return st;
  remove.release();
  return zem_ok;
}

zem_status zem_file_copy(const std::string &from, const std::string &to) {
  zem_file source{.name = from, .fd = std::make_shared<zem_fd>(-1)};
  zem_file target{.name = to, .fd = std::make_shared<zem_fd>(-1)};
  std::string chunk(copy_chunk_bytes, '\0');

  if (zem_status st = zem_fd_open(*source.fd, from.c_str(), O_RDONLY, 0); st < 0) return st;
  struct ::stat status {};
  if (::fstat(source.fd->number, &status) < 0) return zem_status_errno();
  source.size = static_cast<std::uint64_t>(status.st_size);
  constexpr int new_only = O_RDWR | O_CREAT | O_EXCL;
  if (zem_status st = zem_fd_open(*target.fd, to.c_str(), new_only, file_mode); st < 0) return st;
  zem_on_exit remove([&] { std::ignore = zem_file_remove(to); });

  while (target.size < source.size) {
    const std::uint64_t left = source.size - target.size;
    const auto part = writable_bytes(chunk).first(
        static_cast<std::size_t>(std::min<std::uint64_t>(left, chunk.size())));
    if (zem_status st = zem_file_read(source, target.size, part); st < 0) return st;
    if (zem_status st = zem_file_write(target, target.size, part); st < 0) return st;
  }
  if (zem_status st = zem_file_sync(target); st < 0) return st;
  if (zem_status st = zem_file_close(target); st < 0) return st;
  remove.release();
  return zem_ok;
}
