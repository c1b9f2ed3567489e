// The program `sdb`: indexes text files into tables and finds them by their words, and moves and shows
// postings.
#include <atomic>
#include <csignal>
#include <iostream>
#include <unistd.h>

#include "tools/tool.h"

namespace {

std::atomic<bool> stop_wanted = false;
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler stores it");

void want_stop(int) { stop_wanted = true; }

}  // namespace

int main(int argc, char **argv) {
  struct sigaction action = {};
  action.sa_handler = &want_stop;
  // A second Ctrl-C ends the program at once: the database is made for that.
  action.sa_flags = static_cast<int>(SA_RESETHAND) | SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  // A reader of our output that goes away ends the output, not the program.
  std::signal(SIGPIPE, SIG_IGN);

  const tool_io io{.out = std::cout,
                   .err = std::cerr,
                   .terminal = ::isatty(STDERR_FILENO) == 1,
                   .stop = stop_wanted};
  return tool_run(argc, argv, io);
}
