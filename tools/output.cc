#include "tools/output.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <ostream>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace {

constexpr mode_t mode = 0666;  // less what the process's mask takes

tool_problem cannot_write(const tool_output &output) {
  const int error = errno;
  const std::string name = output.path.empty() ? "the output" : output.path;
  return tool_problem_errno("cannot write " + name, error);
}

tool_problem sync_directory(const tool_output &output) {
  const auto parent = std::filesystem::path(output.path).parent_path();
  const int fd = ::open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool done = fd >= 0 && ::fsync(fd) == 0;
  tool_problem problem = done ? tool_problem{} : cannot_write(output);
  if (fd >= 0) ::close(fd);
  return problem;
}

tool_problem open_part(tool_output &output) {
  int error = EEXIST;
  // Another run may write the same file, or an ended one have left its part.
  for (pid_t number = ::getpid(); output.fd < 0 && error == EEXIST; ++number) {
    output.written = output.path + '.' + std::to_string(number) + ".part";
    output.fd = ::open(output.written.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    error = errno;
  }
  if (output.fd >= 0) return {};
  output.written.clear();
  return tool_problem_errno("cannot write " + output.path, error);
}

}  // namespace

tool_output::~tool_output() {
  if (fd >= 0) ::close(fd);
  if (!written.empty()) std::remove(written.c_str());
}

tool_problem tool_output_open(tool_output &output, const std::string &path) {
  if (path.empty() || path == "-") return {};
  output.path = path;
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  // To put a file in the place of a device would take the device away.
  const bool direct = std::filesystem::exists(status) && !std::filesystem::is_regular_file(status);
  if (!direct) return open_part(output);
  output.fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  return output.fd < 0 ? cannot_write(output) : tool_problem{};
}

tool_problem tool_output_write(tool_output &output, std::string_view bytes) {
  if (output.fd < 0) {
    output.io.out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return output.io.out ? tool_problem{} : tool_problem{tool_output_lost};
  }
  while (!bytes.empty()) {
    const ssize_t done = ::write(output.fd, bytes.data(), bytes.size());
    if (done < 0 && errno != EINTR) return cannot_write(output);
    if (done > 0) bytes.remove_prefix(static_cast<std::size_t>(done));
  }
  return {};
}

tool_problem tool_output_end(tool_output &output) {
  if (output.fd < 0) {
    output.io.out.flush();
    return tool_output_write(output, {});
  }
  const bool durable = output.written.empty() || ::fsync(output.fd) == 0;
  if (!durable || ::close(std::exchange(output.fd, -1)) != 0) return cannot_write(output);
  if (output.written.empty()) return {};
  if (std::rename(output.written.c_str(), output.path.c_str()) != 0) return cannot_write(output);
  output.written.clear();
  return sync_directory(output);
}
