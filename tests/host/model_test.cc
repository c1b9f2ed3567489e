// Long random lives of a table, each step compared with a model of what it may hold.

#include <algorithm>
#include <gmock/gmock.h>
#include <limits>
#include <random>

#include "tests/support/host.h"
#include "tests/support/table_model.h"

namespace {

struct life {
  const char *name;
  std::map<std::string, std::uint32_t> settings;
  std::uint32_t commit_num;  // among these, or the default
  std::size_t steps;
  std::size_t most_postings;  // of one step
  std::uint64_t ids;          // to choose from
  bool restless;              // large enough for merges that nobody asked for
  unsigned seed;
};

void PrintTo(const life &each, std::ostream *out) { *out << each.name << " seed " << each.seed; }

class HostModelTest : public HostTest, public ::testing::WithParamInterface<life> {
 protected:
  void SetUp() override {
    configure(GetParam().settings);
    RecordProperty("seed", static_cast<int>(GetParam().seed));
  }

  std::uint64_t below(std::uint64_t limit) { return random() % limit; }

  // Few terms and ids, so that changes meet; the ends of their ranges among them.
  host_term random_term() {
    constexpr std::array<std::uint32_t, 4> words{0, 1, 2, 0xffffffff};
    return {words[below(4)], words[below(2)], words[below(4)]};
  }
  std::uint64_t random_id() {
    constexpr std::uint64_t last = std::numeric_limits<std::uint64_t>::max();
    const std::uint64_t id = below(GetParam().ids);
    return id % 16 == 15 ? last - id : id;
  }
  std::vector<host_posting> random_postings(std::size_t count) {
    std::vector<host_posting> postings;
    host_term term = random_term();
    while (postings.size() < count) {
      if (below(8) == 0) term = random_term();
      postings.push_back({term, random_id()});
    }
    return postings;
  }
  std::size_t random_count() {
    const std::size_t most = GetParam().most_postings;
    return 1 + below(below(4) == 0 ? most : std::min<std::size_t>(most, 8));
  }
  table_model::changes random_changes() {
    table_model::changes changes;
    for (const host_posting &posting : random_postings(random_count()))
      changes.emplace_back(posting, static_cast<std::uint32_t>(below(3)));  // any but 0 inserts
    return changes;
  }

  // ---- steps

  void change_one() {
    const host_posting posting = random_postings(1)[0];
    const bool inserts = below(3) > 0;
    inserts ? insert(posting.term, posting.id) : remove(posting.term, posting.id);
    model.add({posting}, inserts);
  }
  void change_many() {
    const std::vector<host_posting> postings = random_postings(random_count());
    const bool inserts = below(3) > 0;
    inserts ? insert_all(postings) : remove_all(postings);
    model.add(postings, inserts);
  }
  void update() {
    const table_model::changes changes = random_changes();
    const auto count = static_cast<std::uint32_t>(below(changes.size() + 1));
    const host_doc batch = host_batch(changes, count);
    EXPECT_EQ(zem_sdb_update(sdb.get(), table, batch.get(), nullptr), 0);
    model.update(changes, count);
  }
  void update_with_keys() {
    look_at_key();
    const table_model::changes changes = random_changes();
    const host_doc batch = host_batch(changes, 0);
    const host_keys keys(zem_sdb_keys_new());
    EXPECT_EQ(zem_sdb_update(sdb.get(), table, batch.get(), keys.get()), 0);
    std::vector<host_row> rows;
    if (const auto key = model.update_with_keys(changes)) rows.push_back({*key, 1});
    EXPECT_EQ(host_rows(keys.get()), rows);
  }
  void commit() {
    EXPECT_EQ(zem_sdb_commit(sdb.get(), table), 0);
    model.route();
  }
  void sync_all() {
    sync();
    model.route();
  }
  void ask_for_merge() {
    EXPECT_EQ(zem_sdb_merge(sdb.get(), table), 0);
    model.ask_for_merge();
  }
  void await() {
    wait_idle();
    model.become_idle();
  }
  void clear() {
    EXPECT_EQ(zem_sdb_table_clear(sdb.get(), table), 0);
    model.clear();
  }
  void close_and_open() {
    reopen();
    model.close_and_open();
  }
  void ask(const std::vector<host_item> &items) {
    const host_answer answer = query(items);
    EXPECT_EQ(answer.status, 0);
    EXPECT_EQ(model.judge(items, answer), "");
  }
  void ask_anything() {
    std::vector<host_item> items;
    for (std::uint64_t i = 1 + below(below(2) == 0 ? 1 : 6); i > 0; --i) {
      host_item item{random_term()};
      if (below(4) == 0) item.span01 = static_cast<std::uint32_t>(below(3));
      if (below(4) == 0) item.span2 = static_cast<std::uint32_t>(random());
      items.push_back(item);
    }
    ask(items);
  }
  void look_at_key() {
    const std::vector<host_row> rows = shards();
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows[0].attribute, 1U);
    EXPECT_EQ(model.judge_key(rows[0].key), "");
  }
  // Once the table has merged all it holds and was asked for every term, all is known.
  void look_at_everything() {
    await();
    ask_for_merge();
    await();
    for (const host_term &term : model.terms())
      ask({{term}});
    const auto [in_log, in_data] = key_count();
    EXPECT_EQ(in_log, 0U);
    EXPECT_EQ(model.judge_counts(totals().xcount, in_data), "");
    EXPECT_EQ(totals().count, in_data);
    look_at_key();
  }

  void step() {
    using verb = void (HostModelTest::*)();
    struct chance {
      unsigned parts;
      verb what;
    };
    constexpr std::array<chance, 13> chances{{{300, &HostModelTest::change_one},
                                              {200, &HostModelTest::change_many},
                                              {50, &HostModelTest::update},
                                              {50, &HostModelTest::update_with_keys},
                                              {20, &HostModelTest::commit},
                                              {20, &HostModelTest::sync_all},
                                              {30, &HostModelTest::ask_for_merge},
                                              {20, &HostModelTest::await},
                                              {3, &HostModelTest::clear},
                                              {10, &HostModelTest::close_and_open},
                                              {270, &HostModelTest::ask_anything},
                                              {20, &HostModelTest::look_at_key},
                                              {7, &HostModelTest::look_at_everything}}};
    std::uint64_t drawn = below(1000);
    for (const chance &each : chances) {
      if (drawn < each.parts) return (this->*each.what)();
      drawn -= each.parts;
    }
  }

  std::mt19937_64 random{GetParam().seed};
  table_model model{GetParam().commit_num, GetParam().restless};
};

TEST_P(HostModelTest, TableHoldsWhatTheModelAllows) {
  for (std::size_t i = 0; i < GetParam().steps && !HasFailure(); ++i) {
    SCOPED_TRACE("step " + std::to_string(i));
    step();
  }
  look_at_everything();
  close_and_open();
  look_at_everything();
  EXPECT_THAT(log.errors(), ::testing::IsEmpty());
}

const std::map<std::string, std::uint32_t> eager{
    {"commit_num", 16}, {"merge_num", 1}, {"commit_time", 0}, {"merge_time", 0}};
const std::map<std::string, std::uint32_t> hasty{
    {"commit_num", 1}, {"merge_num", 1}, {"commit_time", 1}, {"thread_num", 4}};

INSTANTIATE_TEST_SUITE_P(Lives, HostModelTest,
                         ::testing::Values(life{"eager", eager, 16, 3000, 40, 60, false, 1},
                                           life{"eager", eager, 16, 3000, 40, 60, false, 2},
                                           life{"hasty", hasty, 1, 2000, 12, 30, false, 3},
                                           life{"defaults", {}, 8192, 1500, 1000, 3000, false, 4},
                                           life{"large", eager, 16, 200, 50'000, 30'000, true, 5}),
                         [](const auto &each) {
                           return each.param.name + std::string("Seed") +
                                  std::to_string(each.param.seed);
                         });

}  // namespace
