// The program `sdb`, run in this process, with what it printed.
#pragma once

#include <atomic>
#include <sstream>
#include <string>
#include <vector>

#include "tools/tool.h"

struct tool_run_result {
  tool_exit end = tool_exit::failed;
  std::string out, err;
};

// Runs `sdb ARGUMENT...`.
inline tool_run_result run_tool(const std::vector<std::string> &arguments,
                                const std::atomic<bool> &stop) {
  std::vector<const char *> argv{"sdb"};
  for (const std::string &argument : arguments)
    argv.push_back(argument.c_str());
  std::ostringstream out, err;
  const tool_io io{.out = out, .err = err, .terminal = false, .stop = stop};
  const int end = tool_run(static_cast<int>(argv.size()), argv.data(), io);
  return {.end = static_cast<tool_exit>(end), .out = out.str(), .err = err.str()};
}
