// What every command of the program `sdb` shares: where it prints, how it fails, how it ends.
#pragma once

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

// What the program ends with, so that scripts can tell "nothing found" from "did not work".
enum class tool_exit : int {
  done = 0,
  nothing = 1,  // a look that found nothing
  usage = 2,    // the arguments make no sense; the message says which
  failed = 3,   // a sentence on the error stream says what went wrong and what to do
  damaged = 4,  // a look at a table's files found damage; it is listed
};

// Where a command reads and prints. The caller owns the streams; they outlive the command.
struct tool_io {
  std::ostream &out;              // results alone, so that they can be piped
  std::ostream &err;              // progress, notes and failures
  bool terminal;                  // `err` is a terminal: progress may redraw its line
  const std::atomic<bool> &stop;  // raised by Ctrl-C: end soon, and cleanly
};

// A failure in words for the person at the keyboard; empty when there is none.
struct [[nodiscard]] tool_problem {
  std::string sentence;
  explicit operator bool() const noexcept { return !sentence.empty(); }
};

// "WHAT: words of the system for `error`", as a problem.
tool_problem tool_problem_errno(std::string_view what, int error);

// Prints the sentence as the program's own and gives the exit code for it.
tool_exit tool_fail(const tool_io &io, const tool_problem &problem);

// `text` with control characters replaced, so that a file's content or name cannot steer a terminal.
std::string tool_printable(std::string_view text);

// Runs the program with its arguments, the first being its name.
int tool_run(int argc, const char *const *argv, const tool_io &io);
