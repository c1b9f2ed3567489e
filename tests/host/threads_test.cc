// Many threads on one table while it merges, is cleared, opened and closed.

#include <algorithm>
#include <atomic>
#include <functional>
#include <gmock/gmock.h>
#include <random>
#include <thread>

#include "tests/support/host.h"

namespace {

using ::testing::AnyOf;
using ::testing::IsEmpty;

class HostThreadsTest : public HostTest {
 protected:
  HostThreadsTest() {
    configure({{"commit_num", 64}, {"merge_num", 1}, {"commit_time", 1}, {"merge_time", 0}});
  }

  using body = std::function<void()>;
  // Runs all of `first` to their ends, and beside them each of `beside` again and again.
  static void run(const std::vector<body> &first, const std::vector<body> &beside) {
    std::atomic<bool> over = false;
    std::vector<std::thread> workers, others;
    for (const body &each : beside) {
      others.emplace_back([&] {
        while (!over)
          each();
      });
    }
    for (const body &each : first)
      workers.emplace_back(each);
    for (std::thread &worker : workers)
      worker.join();
    over = true;
    for (std::thread &other : others)
      other.join();
  }

  // Writer w's posting n: ids tell both, terms are shared by all.
  static constexpr std::uint64_t writers = 3;
  static constexpr std::uint32_t terms = 97;
  static std::uint64_t id_of(std::uint64_t writer, std::uint64_t n) {
    return n * writers + writer + 1;
  }
  static host_term term_of(std::uint64_t id) {
    return {static_cast<std::uint32_t>(id * 2654435761U % terms), 7, 0};
  }
  static std::vector<std::uint64_t> ids_of(const host_term &term, std::uint64_t most) {
    std::vector<std::uint64_t> ids;
    for (std::uint64_t id = 1; id <= most; ++id)
      if (term_of(id) == term) ids.push_back(id);
    return ids;
  }
};

TEST_F(HostThreadsTest, NothingIsLostOrDoubledThroughContinuousMerges) {
  constexpr std::uint64_t each = 20'000;
  std::array<std::atomic<std::uint64_t>, writers> synced{};  // that many of a writer's are routed
  std::atomic<std::uint64_t> merges = 0;

  std::vector<body> inserters;
  for (std::uint64_t writer = 0; writer < writers; ++writer) {
    inserters.emplace_back([&, writer] {
      for (std::uint64_t n = 0; n < each; ++n) {
        const std::uint64_t id = id_of(writer, n);
        insert(term_of(id), id);
        if (n % 500 != 499) continue;
        sync();
        synced[writer] = n + 1;
      }
    });
  }
  std::atomic<unsigned> seed = 1;
  const body ask = [&] {
    thread_local std::mt19937 random(seed++);
    const host_term term{static_cast<std::uint32_t>(random() % terms), 7, 0};
    const std::uint64_t writer = random() % writers;
    const std::uint64_t known = synced[writer];
    const host_answer answer = query({{term}});
    EXPECT_EQ(answer.status, 0);
    for (const auto &[id, tag] : answer.ids)
      EXPECT_TRUE(term_of(id) == term && tag == 1) << id;
    for (std::uint64_t n = 0; n < known; ++n) {
      const std::uint64_t id = id_of(writer, n);
      EXPECT_TRUE(term_of(id) != term || answer.ids.contains(id)) << id << " of " << known;
    }
  };
  run(inserters, {ask, ask, [&] {
                    merge();
                    ++merges;
                  }});
  EXPECT_GT(merges, 5U);
  for (int life = 0; life < 2; ++life) {
    for (std::uint32_t i = 0; i < terms; ++i)
      ASSERT_EQ(find({i, 7, 0}), ids_of({i, 7, 0}, each * writers));
    reopen();
  }
  merge();
  EXPECT_EQ(totals().xcount, each * writers);
  EXPECT_THAT(log.errors(), IsEmpty());
}

// Updates, queries and waits on a handle that others close under them, on a table that is cleared,
// while another table comes and goes.
TEST_F(HostThreadsTest, ClosesAndClearsBesideCallsLeaveATableThatWorks) {
  close();
  std::atomic<std::uint64_t> handle = 0;
  std::atomic<std::uint64_t> next = 1;
  const auto expect_fair = [](std::int32_t result) {
    EXPECT_THAT(result, AnyOf(0, 1, ZEM_SDB_E_HANDLE, ZEM_SDB_E_CLOSED));
  };
  const body open_and_close = [&] {
    for (int i = 0; i < 60; ++i) {
      const std::uint64_t opened = zem_sdb_table_open(sdb.get(), "t");
      handle = opened;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      expect_fair(zem_sdb_table_clear(sdb.get(), opened));
      EXPECT_EQ(zem_sdb_table_close(sdb.get(), opened), 0);
    }
  };
  const body update = [&] {
    const std::uint64_t id = next++;
    expect_fair(zem_sdb_insert(sdb.get(), handle, id, host_head(term_of(id)), 0));
    if (id % 64 == 0) expect_fair(zem_sdb_merge(sdb.get(), handle));
  };
  const body wait_long = [&] { expect_fair(zem_sdb_wait(sdb.get(), handle, 60'000)); };
  const body ask = [&] {
    const host_list heads = host_longs({host_head(term_of(5))});
    const host_list ids = host_longs({});
    expect_fair(zem_sdb_query(sdb.get(), handle, heads.get(), host_longs({0}).get(), ids.get()));
    for (std::int64_t i = 0; i < zem_var_size(ids.get()); ++i)
      EXPECT_EQ(term_of(zem_var_get_long(ids.get(), i)), term_of(5));
  };
  const body create_and_drop = [&] {
    const std::int32_t created = zem_sdb_table_create(sdb.get(), "u");
    EXPECT_THAT(created, AnyOf(0, ZEM_SDB_E_NAME));
    const std::uint64_t opened = zem_sdb_table_open(sdb.get(), "u");
    expect_fair(zem_sdb_insert(sdb.get(), opened, 1, 1, 1));
    expect_fair(zem_sdb_table_close(sdb.get(), opened));
    EXPECT_THAT(zem_sdb_table_drop(sdb.get(), "u"), AnyOf(0, ZEM_SDB_E_NAME));
  };
  run({open_and_close, open_and_close},
      {update, update, wait_long, ask, create_and_drop, create_and_drop});
  open();
  sync();  // what the clears left pending
  EXPECT_EQ(zem_sdb_table_clear(sdb.get(), table), 0);
  insert(cat, 7);
  merge();
  reopen();
  EXPECT_THAT(find(cat), ::testing::ElementsAre(7));
  EXPECT_EQ(totals().xcount, 1U);
}

}  // namespace
