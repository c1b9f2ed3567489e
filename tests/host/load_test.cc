// Bulk loads as a host sees them: the lent first shard and new ones, both destinations, their end by
// close, cancel, clear and table close, and loads beside everything else.

#include <algorithm>
#include <atomic>
#include <gmock/gmock.h>
#include <random>
#include <thread>

#include "tests/support/host.h"

namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr int to_log = 0;
constexpr int to_dat = 1;

class LoadTest : public HostTest {
 protected:
  struct load {
    std::uint64_t handle = 0;
    std::uint32_t shard = 0;
  };
  load begin() const {
    load begun;
    EXPECT_EQ(zem_sdb_exec_open(sdb.get(), table, &begun.handle, &begun.shard), 0);
    return begun;
  }
  std::int32_t add(const load &to, const host_changes &changes, int where) const {
    const host_doc batch = host_batch(changes, 0);
    return zem_sdb_exec_load(sdb.get(), to.handle, batch.get(), where);
  }
  std::int32_t add(const load &to, const host_term &term, std::uint64_t first, std::uint64_t last,
                   int where) const {
    host_changes changes;
    for (std::uint64_t id = first; id <= last; ++id)
      changes.push_back({{term, id}, 1});
    return add(to, changes, where);
  }
  std::int32_t commit(const load &of, int where) const {
    return zem_sdb_exec_commit(sdb.get(), of.handle, where);
  }
  std::int32_t finish(const load &of, host_posting &key) const {
    return zem_sdb_exec_close(sdb.get(), of.handle, &key.id, key.term.data());
  }
  host_posting finish(const load &of) const {
    host_posting key;
    EXPECT_EQ(finish(of, key), 0);
    return key;
  }
  std::int32_t cancel(const load &of) const { return zem_sdb_exec_cancel(sdb.get(), of.handle); }
  void expect_ended(const load &of) const {
    host_posting key;
    EXPECT_EQ(add(of, cat, 1, 1, to_dat), ZEM_SDB_E_HANDLE);
    EXPECT_EQ(commit(of, to_log), ZEM_SDB_E_HANDLE);
    EXPECT_EQ(finish(of, key), ZEM_SDB_E_HANDLE);
    EXPECT_EQ(cancel(of), ZEM_SDB_E_HANDLE);
  }
  static std::vector<std::uint64_t> range(std::uint64_t first, std::uint64_t last) {
    std::vector<std::uint64_t> ids;
    for (std::uint64_t id = first; id <= last; ++id)
      ids.push_back(id);
    return ids;
  }
};

TEST_F(LoadTest, TheFirstLoadFillsTheEmptyShardAndTheNextMakesOne) {
  const load first = begin();
  EXPECT_EQ(first.shard, 1U);
  EXPECT_EQ(add(first, cat, 1, 20'000, to_dat), 0);
  EXPECT_EQ(commit(first, to_dat), 0);
  EXPECT_THAT(find(cat), IsEmpty());  // not before the close
  EXPECT_EQ(finish(first), (host_posting{cat, 1}));
  expect_ended(first);
  EXPECT_EQ(find(cat), range(1, 20'000));
  EXPECT_THAT(shards(), ElementsAre(host_row{{cat, 1}, 1}));

  const load second = begin();
  EXPECT_EQ(second.shard, 2U);
  EXPECT_EQ(add(second, dog, 1, 9, to_dat), 0);
  EXPECT_EQ(add(second, dog, 10, 12, to_log), 0);  // the key that they raise it to is dog:1
  EXPECT_EQ(add(second, {9, 0, 0}, 5, 5, to_log), 1);
  EXPECT_EQ(finish(second), (host_posting{{9, 0, 0}, 5}));  // commits both
  EXPECT_THAT(shards(), ElementsAre(host_row{{cat, 1}, 1}, host_row{{{9, 0, 0}, 5}, 2}));

  reopen();
  EXPECT_EQ(find(cat), range(1, 20'000));
  EXPECT_EQ(find(dog), range(1, 12));
  EXPECT_THAT(files(), UnorderedElementsAre("sdb.xml", "sdb.lst", "sdb_1.log", "sdb_1.dat",
                                            "sdb_2.log", "sdb_2.dat"));
  EXPECT_EQ(begin().shard, 3U);
  EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(LoadTest, DataComesInOrderAndMayGoOnAfterACommit) {
  const load it = begin();
  EXPECT_EQ(commit(it, to_dat), 0);  // a data file without blocks
  EXPECT_EQ(add(it, cat, 5'000, 9'000, to_dat), 0);
  EXPECT_EQ(add(it, cat, 4'000, 5'000, to_dat), 0);  // 5000 again
  EXPECT_EQ(add(it, cat, 1, 4'001, to_dat), -EINVAL);
  EXPECT_EQ(add(it, ant, 1, 1, to_dat), -EINVAL);
  EXPECT_EQ(commit(it, to_dat), 0);
  EXPECT_EQ(add(it, {{{cat, 3'999}, 0}, {{cat, 1}, 1}}, to_dat), 0);  // flags mean nothing here
  EXPECT_EQ(commit(it, to_dat), 0);
  EXPECT_EQ(commit(it, to_dat), 0);
  for (std::uint32_t word = 2; word < 40'000; ++word) {  // several index blocks, written over
    EXPECT_EQ(word % 20'000 == 0 ? commit(it, to_dat) : 0, 0);
    EXPECT_EQ(add(it, {word, 0, 0}, 1, word % 3 + 1, to_dat), 0);
  }
  finish(it);
  reopen();
  EXPECT_EQ(key_count().second, 39'999U);
  for (std::uint32_t word = 2; word < 40'000; word += 97)
    EXPECT_EQ(find({word, 0, 0}), range(1, word % 3 + 1));
  std::vector<std::uint64_t> expected = range(4'000, 9'000);
  expected.insert(expected.begin(), {1, 3'999});
  EXPECT_EQ(find(cat), expected);
}

TEST_F(LoadTest, CancelLeavesNothingBehindButWhatOthersWrote) {
  const load lent = begin();
  EXPECT_EQ(add(lent, cat, 1, 9, to_dat), 0);
  EXPECT_EQ(add(lent, dog, 1, 4, to_log), 1);
  EXPECT_EQ(add(lent, {{{dog, 2}, 0}, {{dog, 9}, 0}}, to_log), 0);
  EXPECT_EQ(commit(lent, to_log), 0);
  EXPECT_EQ(find(dog), range(1, 4));  // a lent shard's log is the table's
  EXPECT_EQ(cancel(lent), 0);
  expect_ended(lent);
  EXPECT_THAT(find(dog), IsEmpty());
  EXPECT_THAT(files(), UnorderedElementsAre("sdb.xml", "sdb.lst", "sdb_1.log", "sdb_1.dat"));
  insert(cat, 77);
  merge();  // no longer lent
  EXPECT_THAT(find(cat), ElementsAre(77));

  const load made = begin();
  EXPECT_EQ(made.shard, 2U);
  EXPECT_EQ(add(made, dog, 1, 9'000, to_dat), 0);
  EXPECT_EQ(cancel(made), 0);
  EXPECT_THAT(files(), UnorderedElementsAre("sdb.xml", "sdb.lst", "sdb_1.log", "sdb_1.dat"));
  EXPECT_EQ(begin().shard, 3U);
  reopen();  // cancels that one
  EXPECT_THAT(find(dog), IsEmpty());
  EXPECT_THAT(shards(), ElementsAre(host_row{{cat, 77}, 1}));
}

TEST_F(LoadTest, ALentShardIsNotMergedAndKeepsTheLogThatOthersWroteTo) {
  const load lent = begin();
  EXPECT_EQ(add(lent, dog, 1, 4, to_log), 1);
  EXPECT_EQ(add(lent, cat, 1, 4, to_dat), 0);
  insert(ant, 7);
  merge();
  EXPECT_THAT(log.infos(), IsEmpty());
  EXPECT_THAT(find(ant), ElementsAre(7));
  EXPECT_EQ(cancel(lent), 0);
  EXPECT_EQ(find(dog), range(1, 4));
  EXPECT_THAT(find(cat), IsEmpty());
  EXPECT_THAT(shards(), ElementsAre(host_row{{dog, 1}, 1}));
  merge();
  EXPECT_EQ(log.infos().size(), 2U);
  reopen();
  EXPECT_EQ(find(dog), range(1, 4));
  EXPECT_THAT(find(ant), ElementsAre(7));
}

TEST_F(LoadTest, LoadedRangesRouteWhatComesLater) {
  const load low = begin();
  const load high = begin();
  const load middle = begin();
  EXPECT_EQ(add(high, {30, 0, 0}, 1, 9, to_dat), 0);
  EXPECT_EQ(add(middle, {20, 0, 0}, 1, 9, to_log), 1);
  EXPECT_EQ(add(low, {10, 0, 0}, 1, 9, to_dat), 0);
  finish(high), finish(low), finish(middle);
  for (const std::uint32_t word : {5U, 15U, 25U, 35U})
    insert({word, 0, 0}, 1);
  sync();
  EXPECT_THAT(shards(), ElementsAre(host_row{{{10, 0, 0}, 1}, 1}, host_row{{{35, 0, 0}, 1}, 2},
                                    host_row{{{20, 0, 0}, 1}, 3}));
  for (const std::uint32_t word : {5U, 15U, 25U, 35U})
    EXPECT_THAT(find({word, 0, 0}), ElementsAre(1));
  EXPECT_THAT(log.errors(), IsEmpty());

  const load across = begin();
  EXPECT_EQ(add(across, {12, 0, 0}, 1, 1, to_dat), 0);
  EXPECT_EQ(add(across, {22, 0, 0}, 1, 1, to_dat), 0);
  finish(across);
  EXPECT_THAT(log.errors(), ElementsAre(HasSubstr("meets other shards")));
}

TEST_F(LoadTest, ClearAndCloseEndLoadsAndNoHandleSurvives) {
  const load lent = begin();
  const load made = begin();
  EXPECT_EQ(add(lent, cat, 1, 9, to_log), 1);
  EXPECT_EQ(add(made, dog, 1, 9, to_dat), 0);
  EXPECT_EQ(zem_sdb_table_clear(sdb.get(), table), 0);
  expect_ended(lent);
  expect_ended(made);
  EXPECT_THAT(find(cat), IsEmpty());
  EXPECT_THAT(files(), UnorderedElementsAre("sdb.xml", "sdb.lst", "sdb_1.log", "sdb_1.dat"));

  const load left_open = begin();
  EXPECT_EQ(left_open.shard, 2U);  // a table lends once in its life
  EXPECT_EQ(add(left_open, cat, 1, 9, to_dat), 0);
  close();
  expect_ended(left_open);
  EXPECT_THAT(files(), UnorderedElementsAre("sdb.xml", "sdb.lst", "sdb_1.log", "sdb_1.dat"));
  std::uint64_t handle = 77;
  std::uint32_t shard = 77;
  EXPECT_EQ(zem_sdb_exec_open(sdb.get(), 99, &handle, &shard), ZEM_SDB_E_HANDLE);
  EXPECT_EQ(zem_sdb_exec_open(sdb.get(), 99, nullptr, &shard), -EINVAL);
  EXPECT_EQ(handle + shard, 77U + 77);
}

// A shard that did not open must not fall off the list.
TEST_F(LoadTest, ATableWithoutAListedShardTakesNoLoad) {
  close();
  write_file("sdb.lst", "1\n2");
  std::filesystem::create_directory(path("sdb_2.log"));
  std::filesystem::create_directory(path("sdb_2.dat"));
  open();
  std::uint64_t handle = 0;
  std::uint32_t shard = 0;
  EXPECT_EQ(zem_sdb_exec_open(sdb.get(), table, &handle, &shard), ZEM_SDB_E_SHARD);
}

// Loads of ranges of their own beside inserts, queries, merges, splits and, at the end, a clear.
TEST_F(LoadTest, LoadsBesideEverythingElse) {
  configure({{"merge_num", 1}, {"split_num", 1}, {"commit_num", 500}, {"commit_time", 0}});
  std::atomic<bool> stop = false;
  std::thread writer([&] {
    for (std::uint64_t id = 1; !stop; ++id) {
      const std::int32_t st =
          zem_sdb_insert(sdb.get(), table, id, host_head({static_cast<std::uint32_t>(id % 50)}), 0);
      EXPECT_TRUE(st == 0 || st == ZEM_SDB_E_CLOSED) << st;
    }
  });
  std::thread reader([&] {
    while (!stop)
      std::ignore = query({{{25, 0, 0}}, {{5'000, 0, 0}}});
  });
  std::vector<std::uint32_t> loaded;
  for (std::uint32_t word = 1'000; word < 1'040; ++word) {
    const load it = begin();
    EXPECT_EQ(add(it, {word, 0, 0}, 1, 2'000, word % 2), word % 2 == 0 ? 1 : 0);
    if (word % 4 == 3) {
      EXPECT_EQ(cancel(it), 0);
      continue;
    }
    finish(it);
    loaded.push_back(word);
  }
  for (const std::uint32_t word : loaded)
    EXPECT_EQ(find({word, 0, 0}), range(1, 2'000)) << word;

  std::thread clear([&] { EXPECT_EQ(zem_sdb_table_clear(sdb.get(), table), 0); });
  for (int i = 0; i < 20; ++i) {  // each ends somehow: by its close, or by the clear
    load it;
    if (zem_sdb_exec_open(sdb.get(), table, &it.handle, &it.shard) < 0) continue;
    std::ignore = add(it, {2'000, 0, 0}, 1, 2'000, i % 2);
    host_posting key;
    if (finish(it, key) < 0) std::ignore = cancel(it);
  }
  stop = true;
  writer.join();
  reader.join();
  clear.join();
  reopen();
  EXPECT_THAT(log.errors(), Each(EndsWith("-903")));
}

}  // namespace
