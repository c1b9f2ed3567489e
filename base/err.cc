#include "base/err.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <new>
#include <string_view>

namespace {

constexpr std::size_t line_bytes = 1024;  // with the NUL; what is longer is cut
constexpr int info_level = -1;

void write_line(zem_err &log, int level, const char *format, std::va_list arguments) {
  std::array<char, line_bytes> line{};
  if (std::vsnprintf(line.data(), line.size(), format, arguments) < 0) return;
  std::size_t length = std::string_view(line.data()).size();
  while (length > 0 && (line[length - 1] == '\n' || line[length - 1] == '\r'))
    --length;
  line[length] = '\0';

  const zem_lock_guard held(log.mutex);
  log.sink(log.context, level, line.data());
}

}  // namespace

zem_err *zem_err_new(zem_err_sink sink, void *context) {
  if (sink == nullptr) return nullptr;
  auto *const log = new (std::nothrow) zem_err;
  if (log == nullptr) return nullptr;
  log->sink = sink;
  log->context = context;
  return log;
}

void zem_err_free(zem_err *log) { delete log; }

void zem_err_log(zem_err *log, int level, const char *format, ...) {
  if (log == nullptr || format == nullptr) return;
  std::va_list arguments;
  va_start(arguments, format);
  write_line(*log, level, format, arguments);
  va_end(arguments);
}

void zem_err_info(zem_err *log, const char *format, ...) {
  if (log == nullptr || format == nullptr) return;
  std::va_list arguments;
  va_start(arguments, format);
  write_line(*log, info_level, format, arguments);
  va_end(arguments);
}
