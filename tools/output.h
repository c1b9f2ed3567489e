// Where a command's bulk of bytes goes: to the program's output, or to a file that appears under
// its name when it is whole.
#pragma once

#include <string>
#include <string_view>

#include "tools/tool.h"

// Where the program's own output does not take what was written.
inline constexpr const char *tool_output_lost =
    "cannot write the output: its reader has gone, or the disk is full";

struct tool_output {
  explicit tool_output(const tool_io &where) : io(where) {}
  ~tool_output();
  tool_output(const tool_output &) = delete;
  tool_output &operator=(const tool_output &) = delete;

  const tool_io &io;
  std::string path;     // empty: the program's output
  std::string written;  // name of the file until it is whole; empty: `path` itself, no regular file
  int fd = -1;
};

// An empty `path` or "-" means the program's output. A device or a pipe is written to directly.
tool_problem tool_output_open(tool_output &output, const std::string &path);

tool_problem tool_output_write(tool_output &output, std::string_view bytes);

// Everything written is at its place, durably, on return. An output that is not ended leaves no file.
tool_problem tool_output_end(tool_output &output);
