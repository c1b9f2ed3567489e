// Tables whose shards divide, here and with a peer, as a host sees them.

#include <algorithm>
#include <array>
#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/file_reader.h"
#include "tests/support/host.h"

namespace {

using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;

constexpr std::uint32_t terms = 64;
constexpr std::size_t mib_of_postings = 120'000;  // more than a log of 1 MiB takes

host_term term_of(std::uint64_t id) { return {static_cast<std::uint32_t>(id * 7 % terms), 0, 0}; }

// Posting n of the table has id n, from 1 on.
class HostSplitTest : public HostTest {
 protected:
  HostSplitTest() {
    configure({{"merge_num", 1}, {"split_num", 1}, {"commit_time", 0}, {"merge_time", 0}});
  }

  void insert_ids(std::uint64_t first, std::uint64_t count) const {
    std::vector<host_posting> postings;
    for (std::uint64_t id = first; id < first + count; ++id)
      postings.push_back({term_of(id), id});
    insert_all(postings);
  }
  void insert_some() {
    insert_ids(held + 1, mib_of_postings);
    held += mib_of_postings;
    sync();
    wait_idle();
  }

  using id_lists = std::vector<std::vector<std::uint64_t>>;
  id_lists ids_held() const {
    id_lists ids;
    for (std::uint32_t term = 0; term < terms; ++term)
      ids.push_back(find({term, 0, 0}));
    return ids;
  }
  static id_lists ids_up_to(std::uint64_t count) {
    id_lists ids(terms);
    for (std::uint64_t id = 1; id <= count; ++id)
      ids[term_of(id)[0]].push_back(id);
    return ids;
  }
  // The shards' files are there, and no others.
  void expect_files() const {
    std::set<std::string> wanted{"sdb.xml", "sdb.lst"};
    for (const host_row &row : shards()) {
      wanted.insert("sdb_" + std::to_string(row.attribute) + ".log");
      wanted.insert("sdb_" + std::to_string(row.attribute) + ".dat");
    }
    EXPECT_EQ(files(), wanted);
  }

  // Every posting of a data file lies above the key of the shard before and not above its own, by the
  // reader that knows nothing of the library. Nothing may be running.
  void expect_ranges() const {
    const auto posting_of = [](const host_row &row) {
      return file_posting{row.key.term, row.key.id};
    };
    std::vector<host_row> rows = shards();
    std::sort(rows.begin(), rows.end(), [&](const host_row &a, const host_row &b) {
      return file_key_before(posting_of(a), posting_of(b));
    });
    for (std::size_t i = 0; i < rows.size(); ++i) {
      const file_content data =
          read_data_file(path("sdb_" + std::to_string(rows[i].attribute) + ".dat"));
      EXPECT_THAT(data.faults, IsEmpty());
      ASSERT_FALSE(data.records.empty());
      EXPECT_TRUE(i == 0 || file_key_before(posting_of(rows[i - 1]), data.records.front().posting));
      EXPECT_FALSE(file_key_before(posting_of(rows[i]), data.records.back().posting));
    }
  }

  std::uint64_t held = 0;
};

TEST_F(HostSplitTest, AGrowingTableSplitsAndKeepsEverything) {
  for (int round = 0; round < 8; ++round) {
    insert_some();
    expect_files();
    expect_ranges();
    EXPECT_TRUE(ids_held() == ids_up_to(held));
  }
  EXPECT_THAT(shards().size(), Ge(3));
  EXPECT_THAT(log.infos(), IsSupersetOf({"split begin [1]!", "split rest [1]!",
                                         "split notify (0) [1]!", "split notify (1) [1]!"}));
  reopen();
  wait_idle();
  expect_files();
  EXPECT_TRUE(ids_held() == ids_up_to(held));
  EXPECT_THAT(log.errors(), IsEmpty());
}

// One thread inserts, and deletes some of it at once, which reaches what the live log still holds; two
// look for all that was synced.
TEST_F(HostSplitTest, WritersAndReadersGoOnThroughSplits) {
  constexpr std::uint64_t last = 10 * mib_of_postings;
  constexpr std::uint64_t step = 20'000;
  constexpr std::uint64_t fleeting = last * terms;  // ids from here on may be deleted or not
  std::atomic<std::uint64_t> synced = 0;
  const auto lasting = [&](std::uint32_t word) {
    std::vector<std::uint64_t> ids = find({word, 0, 0});
    EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end()) << "an id twice";
    ids.erase(std::lower_bound(ids.begin(), ids.end(), fleeting), ids.end());
    return ids;
  };
  std::thread writer([&] {
    for (std::uint64_t first = 1; first <= last; first += step) {
      insert_ids(first, step);
      insert_ids(fleeting + first, 64);
      sync();
      for (std::uint64_t id = fleeting + first; id < fleeting + first + 64; ++id)
        remove(term_of(id), id);
      sync();
      synced = first + step - 1;
    }
  });
  std::vector<std::thread> readers;
  for (unsigned seed = 1; seed <= 2; ++seed) {
    readers.emplace_back([&, seed] {
      std::mt19937 random(seed);
      while (synced < last) {
        const id_lists wanted = ids_up_to(synced);
        const std::uint32_t word = random() % terms;
        const std::vector<std::uint64_t> found = lasting(word);
        EXPECT_TRUE(
            std::includes(found.begin(), found.end(), wanted[word].begin(), wanted[word].end()));
      }
    });
  }
  writer.join();
  for (std::thread &reader : readers)
    reader.join();
  wait_idle();
  expect_files();
  EXPECT_THAT(shards().size(), Ge(3));
  const id_lists wanted = ids_up_to(last);
  for (const bool again : {false, true}) {
    if (again) reopen();
    for (std::uint32_t word = 0; word < terms; ++word)
      EXPECT_TRUE(lasting(word) == wanted[word]) << word;
  }
  EXPECT_THAT(log.errors(), IsEmpty());
}

// A host that takes the upper half of the first shard that is split, into table "u".
class HostPeerTest : public HostSplitTest {
 protected:
  HostPeerTest() {
    host = this;
    EXPECT_EQ(zem_sdb_table_create(sdb.get(), "u"), 0);
    taken = zem_sdb_table_open(sdb.get(), "u");
    fill_slot<zem_sdb_split_open>(
        ZEM_SDB_SPLIT_OPEN,
        [](const char *name, std::uint32_t shard, std::uint64_t *peer, std::uint64_t *target) {
          EXPECT_STREQ(name, "t");
          host->splits.push_back(shard);
          *peer = host->takes ? 7 : 0;
          *target = 8;
        });
    fill_slot<zem_sdb_peer_load>(ZEM_SDB_PEER_LOAD, [](std::uint64_t peer, std::uint64_t target,
                                                       std::uint64_t *load, std::uint32_t *shard) {
      EXPECT_EQ(peer, 7U);
      EXPECT_EQ(target, 8U);
      *load = 9;
      *shard = 77;
      return host->call(ZEM_SDB_PEER_LOAD);
    });
    fill_slot<zem_sdb_peer_batch>(
        ZEM_SDB_PEER_BATCH, [](std::uint64_t, std::uint64_t load, zem_doc *batch, int destination) {
          EXPECT_EQ(load, 9U);
          host->batches.push_back(destination);
          EXPECT_EQ(zem_sdb_update(host->sdb.get(), host->taken, batch, nullptr), 0);
          return host->failing == ZEM_SDB_PEER_BATCH ? -5 : 0;
        });
    fill_slot<zem_sdb_peer_commit>(ZEM_SDB_PEER_COMMIT, [](std::uint64_t, std::uint64_t, int) {
      EXPECT_EQ(zem_sdb_sync(host->sdb.get(), host->taken), 0);
      return host->call(ZEM_SDB_PEER_COMMIT);
    });
    fill_slot<zem_sdb_peer_close>(ZEM_SDB_PEER_CLOSE, [](std::uint64_t, std::uint64_t,
                                                         std::uint64_t *id, std::uint32_t *term) {
      *id = 1;
      term[0] = terms;
      return host->call(ZEM_SDB_PEER_CLOSE);
    });
    fill_slot<zem_sdb_peer_cancel>(
        ZEM_SDB_PEER_CANCEL,
        [](const char *, std::uint64_t, std::uint64_t, std::uint64_t, std::uint32_t shard) {
          EXPECT_EQ(shard, host->splits.back());
          return host->call(ZEM_SDB_PEER_CANCEL);
        });
    fill_slot<zem_sdb_split_notify>(
        ZEM_SDB_SPLIT_NOTIFY,
        [](const char *, std::uint32_t, std::uint32_t) { host->call(ZEM_SDB_SPLIT_NOTIFY); });
    fill_slot<zem_sdb_split_wait>(ZEM_SDB_SPLIT_WAIT,
                                  [](const char *, std::uint32_t, std::uint32_t *done) {
                                    host->call(ZEM_SDB_SPLIT_WAIT);
                                    *done = 1;
                                  });
    fill_slot<zem_sdb_split_done>(ZEM_SDB_SPLIT_DONE, [](const char *, std::uint64_t, std::uint64_t,
                                                         const zem_var *ids, const zem_var *keys) {
      EXPECT_EQ(zem_var_size(ids), 3);
      EXPECT_EQ(zem_var_size(keys), 3);
      for (std::int64_t i = 0; i < 3; ++i)
        host->ranges.push_back(zem_var_get_buf(ids, i));
      host->call(ZEM_SDB_SPLIT_DONE);
    });
  }

  template <class Function>
  void fill_slot(std::uint32_t slot, Function function) {
    zem_sdb_callback(sdb.get(), slot, reinterpret_cast<zem_sdb_function>(function));
  }
  std::int32_t call(std::uint32_t slot) {
    calls.push_back(slot);
    return slot == failing ? -5 : 0;
  }
  id_lists ids_of_both() {
    id_lists all = ids_held();
    std::swap(table, taken);
    const id_lists upper = ids_held();
    std::swap(table, taken);
    for (std::uint32_t term = 0; term < terms; ++term) {
      all[term].insert(all[term].end(), upper[term].begin(), upper[term].end());
      std::sort(all[term].begin(), all[term].end());
    }
    return all;
  }

  static inline HostPeerTest *host = nullptr;
  std::uint64_t taken = 0;
  bool takes = true;
  std::uint32_t failing = 0;          // the slot that returns a failure
  std::vector<std::uint32_t> calls;   // slots but the one of batches
  std::vector<std::uint32_t> splits;  // shards
  std::vector<std::uint32_t> ranges;  // shards of the ranges that were told
  std::vector<int> batches;           // their destinations
};

TEST_F(HostPeerTest, AnUpperHalfMovesToThePeer) {
  insert_some();
  insert_some();
  ASSERT_THAT(splits, ElementsAre(1));
  EXPECT_THAT(calls, ElementsAre(ZEM_SDB_PEER_LOAD, ZEM_SDB_PEER_COMMIT, ZEM_SDB_SPLIT_NOTIFY,
                                 ZEM_SDB_SPLIT_WAIT, ZEM_SDB_PEER_COMMIT, ZEM_SDB_SPLIT_NOTIFY,
                                 ZEM_SDB_SPLIT_WAIT, ZEM_SDB_PEER_CLOSE, ZEM_SDB_SPLIT_DONE));
  EXPECT_THAT(ranges, ElementsAre(1, 2, 77));
  EXPECT_TRUE(ids_of_both() == ids_up_to(held));
  EXPECT_LT(totals().xcount, held);
  EXPECT_EQ(shards().size(), 1U);
  expect_files();
  reopen();
  EXPECT_TRUE(ids_of_both() == ids_up_to(held));
  EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(HostPeerTest, ASplitWhoseCallbackFailsCostsNothing) {
  insert_some();
  for (const std::uint32_t slot :
       {ZEM_SDB_PEER_LOAD, ZEM_SDB_PEER_BATCH, ZEM_SDB_PEER_COMMIT, ZEM_SDB_PEER_CLOSE}) {
    failing = slot;
    calls.clear();
    splits.clear();
    for (int i = 0; i < 4 && splits.empty(); ++i)
      insert_some();
    ASSERT_THAT(splits, ElementsAre(1));
    EXPECT_EQ(calls.back(), ZEM_SDB_PEER_CANCEL);
    EXPECT_THAT(log.errors(), Contains("split error [1]: -5"));
    log.forget();
    EXPECT_TRUE(ids_held() == ids_up_to(held));
    merge();  // ends the pause
    expect_files();
  }
}

TEST_F(HostPeerTest, APeerWithoutCallbacksIsRefusedAndALocalSplitNeedsNone) {
  insert_some();
  zem_sdb_callback(sdb.get(), ZEM_SDB_PEER_CLOSE, nullptr);
  insert_some();
  EXPECT_THAT(log.errors(), ElementsAre("split error [1]: -22"));
  EXPECT_THAT(calls, ElementsAre(ZEM_SDB_PEER_CANCEL));
  merge();
  takes = false;
  insert_some();
  EXPECT_THAT(calls, ElementsAre(ZEM_SDB_PEER_CANCEL, ZEM_SDB_SPLIT_DONE));
  EXPECT_THAT(ranges, ElementsAre(1, 3, 4));  // number 2 was the cancelled split's
  EXPECT_TRUE(ids_held() == ids_up_to(held));
}

}  // namespace
