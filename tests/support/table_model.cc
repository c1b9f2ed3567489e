#include "tests/support/table_model.h"

#include <array>

namespace {

enum class place : std::uint8_t { none, inserted, deleted };
enum class phase : std::uint8_t { idle, asked, frozen };

struct posting_state {
  place log = place::none;
  place frozen_log = place::none;
  bool data = false;
  phase at = phase::idle;
};

constexpr std::size_t state_count = 3 * 3 * 2 * 3;

constexpr std::size_t number_of(const posting_state &state) {
  const auto log = static_cast<std::size_t>(state.log);
  const auto frozen = static_cast<std::size_t>(state.frozen_log);
  return ((static_cast<std::size_t>(state.at) * 3 + log) * 3 + frozen) * 2 + (state.data ? 1 : 0);
}

constexpr posting_state state_of(std::size_t number) {
  return {static_cast<place>(number / 6 % 3), static_cast<place>(number / 2 % 3), number % 2 != 0,
          static_cast<phase>(number / 18)};
}
static_assert(number_of(state_of(53)) == 53);

constexpr std::uint64_t bit(const posting_state &state) {
  return std::uint64_t{1} << number_of(state);
}

// The states that one step of background work leads to.
std::uint64_t work_on(posting_state state, bool restless) {
  std::uint64_t next = 0;
  switch (state.at) {
    case phase::idle:
      state.at = phase::asked;
      return restless ? bit(state) : 0;
    case phase::asked:
      return bit({place::none, state.log, state.data, phase::frozen});
    case phase::frozen:
      if (state.frozen_log == place::none) {
        state.at = phase::idle;
        return bit(state);
      }
      return bit({state.log, place::none, state.frozen_log == place::inserted, phase::frozen});
  }
  return next;
}

// Every state that background work may lead to from each one, itself included.
std::array<std::uint64_t, state_count> reach_of(bool restless) {
  std::array<std::uint64_t, state_count> reach{};
  for (std::size_t begin = 0; begin < state_count; ++begin) {
    std::uint64_t seen = 0;
    std::uint64_t next = std::uint64_t{1} << begin;
    while (next != seen) {
      seen = next;
      for (std::size_t i = 0; i < state_count; ++i) {
        if ((seen >> i & 1) != 0) next |= work_on(state_of(i), restless);
      }
    }
    reach[begin] = seen;
  }
  return reach;
}

// Maps each state of a set; `step` gives a set.
template <class Step>
std::uint64_t map_states(std::uint64_t set, Step &&step) {
  std::uint64_t mapped = 0;
  for (; set != 0; set &= set - 1)
    mapped |= step(static_cast<std::size_t>(__builtin_ctzll(set)));
  return mapped;
}

std::uint64_t work(std::uint64_t set, bool restless) {
  static const std::array reach{reach_of(false), reach_of(true)};
  return map_states(set, [&](std::size_t i) { return reach[restless ? 1 : 0][i]; });
}

bool found_in(const posting_state &state) {
  return state.log != place::none || state.frozen_log != place::none || state.data;
}

std::uint64_t only(std::uint64_t set, bool (*holds)(const posting_state &)) {
  return map_states(set,
                    [&](std::size_t i) { return holds(state_of(i)) ? std::uint64_t{1} << i : 0; });
}

std::uint64_t idle_of(std::uint64_t set) {
  return only(set, [](const posting_state &state) { return state.at == phase::idle; });
}

model_range range_of(std::uint64_t set) {
  const std::uint64_t found = only(set, found_in);
  return {found == set ? 1U : 0U, found != 0 ? 1U : 0U};
}

bool comes_after(const host_posting &a, const host_posting &b) {
  return a.term != b.term ? a.term > b.term : a.id < b.id;
}

void raise(host_posting &key, const host_posting &posting) {
  if (comes_after(posting, key)) key = posting;
}

// A span that wraps around leaves out even the item's own term.
bool counts(const host_item &item) {
  const host_term &low = item.term;
  const host_term high{low[0] + item.span01, low[1] + item.span01, low[2] + item.span2};
  return low <= high && low[1] <= high[1] && low[2] <= high[2];
}

std::string words(const host_posting &posting) {
  const host_term &term = posting.term;
  return std::to_string(term[0]) + '.' + std::to_string(term[1]) + '.' + std::to_string(term[2]) +
         ':' + std::to_string(posting.id);
}

std::string judge_range(const std::string &what, std::uint64_t seen, const model_range &range) {
  if (seen >= range.least && seen <= range.most) return {};
  return what + ": " + std::to_string(seen) + " instead of " + std::to_string(range.least) +
         " to " + std::to_string(range.most);
}

}  // namespace

table_model::states table_model::after_work(states set) const {
  return working_ ? work(set, restless_) : set;
}

void table_model::map_all(const std::function<states(states)> &step) {
  untouched_ = step(untouched_);
  for (auto &[term, ids] : held_) {
    for (auto &[id, set] : ids)
      set = step(set);
  }
}

void table_model::add(const std::vector<host_posting> &postings, bool inserts) {
  for (const host_posting &posting : postings)
    pending_.try_emplace(posting, inserts);
  pending_count_ += postings.size();
  if (pending_count_ >= commit_num_) route();
}

void table_model::update(const changes &batch, std::uint32_t count) {
  for (const auto &[posting, flag] : batch)
    pending_.try_emplace(posting, flag != 0);
  pending_count_ += count;
  if (pending_count_ >= commit_num_) route();
}

std::optional<host_posting> table_model::update_with_keys(const changes &batch) {
  std::map<host_posting, bool> first;
  for (const auto &[posting, flag] : batch)
    first.try_emplace(posting, flag != 0);
  const host_posting before = key_most_;
  for (const auto &[posting, inserts] : first)
    apply(posting, inserts);
  return key_most_ == before ? std::nullopt : std::optional(key_most_);
}

void table_model::route() {
  for (const auto &[posting, inserts] : pending_)
    apply(posting, inserts);
  pending_.clear();
  pending_count_ = 0;
}

void table_model::apply(const host_posting &posting, bool inserts) {
  states &set = held_[posting.term].try_emplace(posting.id, untouched_).first->second;
  set = map_states(after_work(set), [&](std::size_t i) {
    posting_state state = state_of(i);
    if (inserts && state.log == place::none) state.log = place::inserted;
    if (!inserts && state.log != place::none) state.log = place::deleted;
    return bit(state);
  });
  if (!inserts) return;
  raise(key_least_, posting);
  raise(key_most_, posting);
}

void table_model::ask_for_merge() {
  route();
  map_all([&](states set) {
    return map_states(after_work(set), [](std::size_t i) {
      posting_state state = state_of(i);
      if (state.at == phase::idle) state.at = phase::asked;
      return bit(state);
    });
  });
}

void table_model::become_idle() {
  map_all([&](states set) { return idle_of(after_work(set)); });
}

void table_model::clear() {
  held_.clear();
  untouched_ = bit({});
  key_least_ = key_most_ = {};
}

void table_model::close_and_open() {
  // A merge that waits is given up, one that runs is ended; the batch is routed after that.
  map_all([&](states set) {
    return idle_of(map_states(after_work(set), [](std::size_t i) {
      posting_state state = state_of(i);
      if (state.at == phase::asked) state.at = phase::idle;
      return bit(state);
    }));
  });
  working_ = false;
  route();
  working_ = true;

  key_least_ = key_most_ = {};
  for (const auto &[term, ids] : held_) {
    for (const auto &[id, set] : ids) {
      const model_range found = range_of(set);
      if (found.least > 0) raise(key_least_, {term, id});
      if (found.most > 0) raise(key_most_, {term, id});
    }
  }
}

std::string table_model::judge(const std::vector<host_item> &items, const host_answer &answer) {
  std::map<std::uint64_t, model_range> expected;
  for (const host_item &item : items) {
    if (!counts(item)) continue;
    for (auto &[id, set] : held_[item.term]) {
      set = after_work(set);
      const model_range range = range_of(set);
      expected[id].least += range.least;
      expected[id].most += range.most;
    }
  }
  expected.erase(0);  // never found
  for (const auto &[id, tag] : answer.ids) {
    const auto found = expected.find(id);
    const model_range range = found == expected.end() ? model_range{} : found->second;
    if (std::string wrong = judge_range("id " + std::to_string(id), tag, range); !wrong.empty())
      return wrong;
  }
  for (const auto &[id, range] : expected) {
    if (range.least > 0 && !answer.ids.contains(id)) return "id " + std::to_string(id) + " is lost";
  }
  if (items.size() != 1 || !counts(items[0])) return {};
  for (auto &[id, set] : held_[items[0].term]) {
    const std::uint64_t found = only(set, found_in);
    if (id != 0) set = answer.ids.contains(id) ? found : set & ~found;
  }
  return {};
}

std::string table_model::judge_key(const host_posting &key) {
  if (comes_after(key_least_, key) || comes_after(key, key_most_))
    return "high key " + words(key) + " instead of " + words(key_least_) + " to " +
           words(key_most_);
  key_least_ = key_most_ = key;
  return {};
}

std::string table_model::judge_counts(std::uint64_t postings, std::uint64_t terms) const {
  model_range postings_held;
  model_range terms_held;
  for (const auto &[term, ids] : held_) {
    model_range of_term;
    for (const auto &[id, set] : ids) {
      const model_range range = range_of(set);
      postings_held.least += range.least;
      postings_held.most += range.most;
      of_term = {of_term.least | range.least, of_term.most | range.most};
    }
    terms_held.least += of_term.least;
    terms_held.most += of_term.most;
  }
  const std::string wrong = judge_range("postings", postings, postings_held);
  return wrong.empty() ? judge_range("terms", terms, terms_held) : wrong;
}

std::vector<host_term> table_model::terms() const {
  std::vector<host_term> found;
  for (const auto &[term, ids] : held_)
    found.push_back(term);
  return found;
}
