// A test that runs the program `sdb` and looks at what the last run printed.
#pragma once

#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/tool_run.h"

class tool_host {
 public:
  using words = std::vector<std::string>;
  enum end { done, nothing, usage, failed };

  // Runs `sdb ARGUMENT...`; `out` and `err` hold what it printed.
  end sdb(const words &arguments) {
    tool_run_result run = run_tool(arguments, stop);
    out = std::move(run.out);
    err = std::move(run.err);
    return static_cast<end>(run.end);
  }

  std::atomic<bool> stop = false;
  std::string out, err;
};
