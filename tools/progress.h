// How far a long command has come: a line that is redrawn on a terminal, a line every tenth of the
// way elsewhere. Where the whole is not known, the terminal's line counts, and nothing is said
// elsewhere.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "tools/tool.h"

struct tool_progress {
  const tool_io &io;
  std::uint64_t total = 0;  // bytes, or whatever `unit` says, to do; 0: not known
  std::uint64_t done = 0;
  std::uint32_t tenths = 0;                       // last said, without a terminal
  std::chrono::steady_clock::time_point drawn{};  // last, on a terminal
  bool visible = false;                           // the terminal's line holds a bar
  std::string_view unit = "bytes";
};

// `more` units are done, `doing` names what is in hand.
void tool_progress_step(tool_progress &progress, std::uint64_t more, std::string_view doing);

// Takes the bar away, so that other lines can be printed.
void tool_progress_clear(tool_progress &progress);

// The line of a bar that fills `columns`: the bar, the percentage and the end of `doing`.
std::string tool_progress_line(std::uint64_t done, std::uint64_t total, std::string_view doing,
                               std::size_t columns);
