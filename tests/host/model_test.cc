// Long random lives of a table, each step compared with a model of what it holds.

#include <algorithm>
#include <gmock/gmock.h>
#include <limits>
#include <random>

#include "tests/support/host.h"

namespace {

// A table of one shard by the documented rules.
struct table_model {
  std::uint32_t commit_num;
  std::map<host_posting, bool> pending, log;  // true: inserted, false: deleted
  std::set<host_posting> data;
  std::uint64_t pending_count = 0;

  static void apply(const std::map<host_posting, bool> &changes,
                    std::map<host_posting, bool> &log) {
    for (const auto &[posting, inserts] : changes) {
      if (inserts) log.try_emplace(posting, true);
      if (!inserts && log.contains(posting)) log[posting] = false;
    }
  }
  void update(const host_changes &changes, std::uint64_t count, bool at_once = false) {
    std::map<host_posting, bool> batch;
    for (const auto &[posting, flag] : changes)
      batch.try_emplace(posting, flag != 0);
    if (at_once) return apply(batch, log);
    pending.merge(batch);
    pending_count += count;
    if (pending_count >= commit_num) route();
  }
  void route() {
    apply(std::exchange(pending, {}), log);
    pending_count = 0;
  }
  void merge() {
    route();
    for (const auto &[posting, inserts] : log)
      inserts ? void(data.insert(posting)) : void(data.erase(posting));
    log.clear();
  }
  // Deleted postings show until a merge, id 0 never, and nothing of a span that wraps around.
  std::map<std::uint64_t, std::uint32_t> query(const std::vector<host_item> &items) const {
    std::map<std::uint64_t, std::uint32_t> counts;
    for (const host_item &item : items) {
      const host_term &low = item.term;
      const host_term high{low[0] + item.span01, low[1] + item.span01, low[2] + item.span2};
      if (high < low || high[1] < low[1] || high[2] < low[2]) continue;
      std::set<std::uint64_t> ids;
      for (auto it = log.lower_bound({low, 1}); it != log.end() && it->first.term == low; ++it)
        ids.insert(it->first.id);
      for (auto it = data.lower_bound({low, 1}); it != data.end() && it->term == low; ++it)
        ids.insert(it->id);
      for (const std::uint64_t id : ids)
        ++counts[id];
    }
    return counts;
  }
};

struct life {
  const char *name;
  std::map<std::string, std::uint32_t> settings;
  std::uint32_t commit_num;  // among these, or the default
  std::size_t steps;
  std::size_t most_postings;  // of one step
  std::uint64_t ids;          // to choose from
};
void PrintTo(const life &each, std::ostream *out) { *out << each.name; }

class HostModelTest : public HostTest, public ::testing::WithParamInterface<life> {
 protected:
  void SetUp() override { configure(GetParam().settings); }

  std::uint64_t below(std::uint64_t limit) { return random() % limit; }
  // Few terms and ids, so that changes meet; the ends of their ranges among them.
  host_term random_term() {
    constexpr std::array<std::uint32_t, 4> words{0, 1, 2, 0xffffffff};
    return {words[below(4)], words[below(2)], words[below(4)]};
  }
  void update() {
    const std::size_t most = GetParam().most_postings;
    host_changes changes;
    std::vector<host_posting> postings;
    const bool inserts = below(3) > 0;
    const std::uint64_t road = below(5);
    host_term term = random_term();
    for (std::uint64_t count = 1 + below(below(4) == 0 ? most : 8); count > 0; --count) {
      if (below(8) == 0) term = random_term();
      std::uint64_t id = below(GetParam().ids);
      if (id % 16 == 15) id = std::numeric_limits<std::uint64_t>::max() - id;
      postings.push_back({term, id});
      // Of a batch each posting has a flag of its own; any but 0 inserts.
      changes.emplace_back(postings.back(), road < 2 ? below(3) : inserts ? 1 : 0);
    }
    if (road < 2) {
      const auto count = static_cast<std::uint32_t>(below(changes.size() + 1));
      const host_doc batch = host_batch(changes, count);
      const host_keys keys(zem_sdb_keys_new());
      zem_keys *const wanted = road == 0 ? keys.get() : nullptr;
      EXPECT_EQ(zem_sdb_update(sdb.get(), table, batch.get(), wanted), 0);
      return model.update(changes, count, road == 0);
    }
    if (road == 2) {
      inserts ? insert(term, postings.back().id) : remove(term, postings.back().id);
      return model.update({changes.back()}, 1);
    }
    inserts ? insert_all(postings) : remove_all(postings);
    model.update(changes, changes.size());
  }
  void ask() {
    std::vector<host_item> items;
    for (std::uint64_t i = below(6); i > 0; --i)
      items.push_back({.term = random_term(),
                       .span01 = static_cast<std::uint32_t>(below(4) == 0 ? below(3) : 0),
                       .span2 = static_cast<std::uint32_t>(below(4) == 0 ? random() : 0)});
    EXPECT_EQ(query(items).ids, model.query(items));
  }
  void step() {
    const std::uint64_t drawn = below(500);
    if (drawn == 0) {
      EXPECT_EQ(zem_sdb_table_clear(sdb.get(), table), 0);
      model.log.clear();
      model.data.clear();
    } else if (drawn < 20) {
      if (drawn < 4) {
        reopen();
      } else {
        EXPECT_EQ((drawn < 12 ? zem_sdb_commit : zem_sdb_sync)(sdb.get(), table), 0);
      }
      model.route();
    } else if (drawn < 30) {
      merge_and_ask();
    } else {
      drawn < 350 ? update() : ask();
    }
  }
  // While a merge runs, each posting is found as before it or as after it.
  void merge_and_ask() {
    const host_term term = random_term();
    model.route();
    const auto before = model.query({{term}});
    EXPECT_EQ(zem_sdb_merge(sdb.get(), table), 0);
    const auto between = query({{term}}).ids;
    wait_idle();
    model.merge();
    const auto after = model.query({{term}});
    EXPECT_TRUE(std::includes(between.begin(), between.end(), after.begin(), after.end()));
    EXPECT_TRUE(std::includes(before.begin(), before.end(), between.begin(), between.end()));
    EXPECT_EQ(totals().xcount, model.data.size());
  }

  std::mt19937_64 random{1};
  table_model model{.commit_num = GetParam().commit_num, .pending = {}, .log = {}, .data = {}};
};

TEST_P(HostModelTest, TableHoldsWhatTheModelHolds) {
  for (std::size_t i = 0; i < GetParam().steps && !HasFailure(); ++i) {
    SCOPED_TRACE("step " + std::to_string(i));
    step();
  }
  EXPECT_THAT(log.errors(), ::testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Lives, HostModelTest,
    ::testing::Values(
        life{
            "eager", {{"commit_num", 16}, {"commit_time", 0}, {"merge_time", 0}}, 16, 6000, 40, 60},
        life{"hasty", {{"commit_num", 1}, {"thread_num", 4}}, 1, 2000, 12, 30},
        life{"defaults", {}, 8192, 1500, 1000, 3000}),
    [](const auto &each) { return std::string(each.param.name); });

}  // namespace
