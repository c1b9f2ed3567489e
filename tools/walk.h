// The content of an open table, shard by shard, in key order.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <span>
#include <vector>

#include "tools/database.h"
#include "tools/posting.h"
#include "tools/progress.h"

struct tool_shard {
  std::uint32_t number = 0;
  tool_posting high;  // greatest key that it has held
  std::uint64_t log_terms = 0;
  std::uint64_t data_terms = 0;
};

// The shards of the open table in the order of their ranges. The last takes what lies above its key.
tool_problem tool_shards(const tool_database &database, std::vector<tool_shard> &shards);

// Merges every log into its data file, so that deletes are carried out and all of the table lies in
// data files, and waits for it. A raised `stop` ends the wait, with a problem.
tool_problem tool_settle(tool_database &database, tool_progress &progress);

// Terms from the first to the last of these, both included.
struct tool_range {
  static constexpr std::uint32_t most = std::numeric_limits<std::uint32_t>::max();
  tool_key_term from{0, 0, 0};
  tool_key_term to{most, most, most};
};

// Takes some ids of a term, descending; a term of many ids comes in several calls.
using tool_ids_visitor =
    std::function<tool_problem(const tool_key_term &term, std::span<const std::uint64_t> ids)>;

// Visits the postings of a settled shard. The reserved document id 0 is passed over. Ends early,
// without a problem, when `stop` is raised.
tool_problem tool_walk(const tool_database &database, std::uint32_t shard, const tool_range &range,
                       const std::atomic<bool> &stop, const tool_ids_visitor &visit);

// A page of terms as the library lists them.
struct tool_term_page {
  tool_list heads = tool_list_new();
  tool_list thirds = tool_list_new(1);
  tool_lists ids = tool_lists_new();
};
