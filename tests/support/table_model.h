// What a table of one shard may hold, by the documented rules, while it merges in the background at
// moments of its own choice.
//
// A posting is in the live log (inserted or deleted) or not, in the frozen log likewise, and in the
// data file or not; and the shard is idle, waits to freeze its log, or has frozen it. The model keeps
// for every posting the set of all such states that are possible. An update maps the set, background
// work widens it, and a wait, or what the table is seen to hold, narrows it down. So nothing is assumed
// of when a merge ran, and everything is certain once the table is idle and was asked.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/host.h"

struct model_range {
  std::uint64_t least = 0;
  std::uint64_t most = 0;
};

class table_model {
 public:
  using changes = std::vector<std::pair<host_posting, std::uint32_t>>;

  // restless: a merge may begin at any time, not only when one is asked for.
  table_model(std::uint32_t commit_num, bool restless)
      : commit_num_(commit_num), restless_(restless) {}

  // ---- what the host does

  void add(const std::vector<host_posting> &postings, bool inserts);
  void update(const changes &batch, std::uint32_t count);
  // Gives the high key that the call tells of, if any. The high key must be known.
  std::optional<host_posting> update_with_keys(const changes &batch);
  void route();
  void ask_for_merge();
  void become_idle();  // a wait has succeeded
  void clear();
  void close_and_open();

  // ---- what the host sees: each returns what is wrong, or nothing

  // An answer to one item narrows down what is possible.
  std::string judge(const std::vector<host_item> &items, const host_answer &answer);
  std::string judge_key(const host_posting &key);  // from here on it is known
  // Of an idle table whose log is empty.
  std::string judge_counts(std::uint64_t postings, std::uint64_t terms) const;

  std::vector<host_term> terms() const;  // of all postings that it ever heard of

 private:
  using states = std::uint64_t;  // one bit a state
  void apply(const host_posting &posting, bool inserts);
  states after_work(states set) const;
  void map_all(const std::function<states(states)> &step);

  const std::uint32_t commit_num_;
  const bool restless_;
  bool working_ = true;                   // there are workers
  std::map<host_posting, bool> pending_;  // true inserts
  std::uint64_t pending_count_ = 0;
  std::map<host_term, std::map<std::uint64_t, states>> held_;
  states untouched_ = 1;  // of every other posting; state 0 is in no file and idle
  host_posting key_least_, key_most_;
};
