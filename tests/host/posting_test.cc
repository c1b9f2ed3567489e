// What a host sees of its postings: batches, deletes, merges, queries, counts and messages.

#include <gmock/gmock.h>
#include <limits>

#include "tests/support/file_reader.h"
#include "tests/support/host.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

constexpr std::uint64_t last_id = std::numeric_limits<std::uint64_t>::max();

// ---- batches

class HostBatchTest : public HostTest {
 protected:
  HostBatchTest() { configure({{"commit_num", 4}}); }

  std::vector<host_row> update(const host_doc &batch) {
    const host_keys keys(zem_sdb_keys_new());
    EXPECT_EQ(zem_sdb_update(sdb.get(), table, batch.get(), keys.get()), 0);
    return host_rows(keys.get());
  }
};

TEST_F(HostBatchTest, ListsReachAsFarAsTheShortest) {
  const host_list ids = host_longs({1, 2, 3, 4, 5});
  const host_list heads = host_longs({9, 9, 9});
  const host_list thirds = host_longs({0, 0, 0, 0});
  EXPECT_EQ(zem_sdb_inserts(sdb.get(), table, ids.get(), heads.get(), thirds.get()), 0);
  EXPECT_THAT(find({9, 0, 0}), IsEmpty());  // three of four
  EXPECT_EQ(zem_sdb_deletes(sdb.get(), table, ids.get(), heads.get(), host_longs({}).get()), 0);
  EXPECT_THAT(find({9, 0, 0}), IsEmpty());
  insert({8, 0, 0}, 1);
  EXPECT_THAT(find({9, 0, 0}), ElementsAre(1, 2, 3));
}

TEST_F(HostBatchTest, RepeatedPostingCountsTowardsARoutingAndIsStoredOnce) {
  for (int i = 0; i < 4; ++i)
    insert(cat, 7);
  EXPECT_THAT(find(cat), ElementsAre(7));
  EXPECT_EQ(totals().xcount, 1U);
}

TEST_F(HostBatchTest, FirstChangeOfAPostingInABatchWins) {
  insert(cat, 1), remove(cat, 1), remove(cat, 2), insert(cat, 2);
  EXPECT_THAT(find(cat), ElementsAre(1));
  merge();
  EXPECT_THAT(find(cat), ElementsAre(1));
}

TEST_F(HostBatchTest, UpdateWithKeysIsRoutedAtOnceAndTellsTheKeyThatGrew) {
  insert(dog, 1);  // pending all the while
  EXPECT_THAT(update(host_batch({{{cat, 5}, 1}, {{cat, 3}, 1}}, 0)),
              ElementsAre(host_row{{cat, 3}, 1}));
  EXPECT_THAT(find(cat), ElementsAre(3, 5));
  EXPECT_THAT(update(host_batch({{{cat, 4}, 1}, {{ant, 1}, 1}}, 99)), IsEmpty());
  EXPECT_THAT(update(host_batch({{{dog, 2}, 0}}, 1)), IsEmpty());  // deletes what is not there
  EXPECT_THAT(find(dog), IsEmpty());
  EXPECT_THAT(shards(), ElementsAre(host_row{{cat, 3}, 1}));
}

TEST_F(HostBatchTest, UpdateWithoutKeysCountsWhatTheBatchSays) {
  const host_doc silent = host_batch({{{cat, 1}, 1}, {{cat, 2}, 1}, {{cat, 3}, 1}}, 0);
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(zem_sdb_update(sdb.get(), table, silent.get(), nullptr), 0);
  EXPECT_THAT(find(cat), IsEmpty());
  const host_doc loud = host_batch({{{dog, 1}, 1}}, 4);
  EXPECT_EQ(zem_sdb_update(sdb.get(), table, loud.get(), nullptr), 0);
  EXPECT_THAT(find(cat), ElementsAre(1, 2, 3));
  EXPECT_THAT(find(dog), ElementsAre(1));
  EXPECT_EQ(zem_sdb_doc_get_val(loud.get(), 1), 4U);  // the host keeps its batch
}

TEST_F(HostBatchTest, BatchOfCountZeroIsRoutedByWhateverRoutes) {
  using step = std::int32_t (*)(zem_sdb *, std::uint64_t);
  std::uint64_t id = 0;
  for (const step route : {step{zem_sdb_commit}, step{zem_sdb_merge}, step{zem_sdb_sync}}) {
    const host_doc silent = host_batch({{{cat, ++id}, 1}}, 0);
    EXPECT_EQ(zem_sdb_update(sdb.get(), table, silent.get(), nullptr), 0);
    EXPECT_THAT(find(cat), SizeIs(id - 1));
    EXPECT_EQ(route(sdb.get(), table), 0);
    EXPECT_THAT(find(cat), SizeIs(id));
  }
  const host_doc silent = host_batch({{{cat, ++id}, 1}}, 0);
  EXPECT_EQ(zem_sdb_update(sdb.get(), table, silent.get(), nullptr), 0);
  reopen();
  EXPECT_THAT(find(cat), SizeIs(id));
}

// ---- deletes and merges

class HostMergeTest : public HostTest {
 protected:
  HostMergeTest() { configure({{"commit_num", 1}}); }
};

TEST_F(HostMergeTest, DeletedPostingShowsUntilAMergeHasDroppedIt) {
  insert(cat, 1), insert(cat, 2);
  remove(cat, 1);
  EXPECT_THAT(find(cat), ElementsAre(1, 2));
  insert(cat, 1);  // ignored: the log holds the posting, if only as deleted
  reopen();
  EXPECT_THAT(find(cat), ElementsAre(1, 2));
  merge();
  EXPECT_THAT(find(cat), ElementsAre(2));
  EXPECT_EQ(totals().xcount, 1U);
}

TEST_F(HostMergeTest, DeleteReachesTheDataFileOnlyThroughTheLog) {
  insert(cat, 1);
  merge();
  remove(cat, 1);
  merge();
  EXPECT_THAT(find(cat), ElementsAre(1));
  insert(cat, 1), remove(cat, 1);
  merge();
  EXPECT_THAT(find(cat), IsEmpty());
  EXPECT_THAT(key_count(), Pair(0, 0));
  reopen();
  EXPECT_THAT(find(cat), IsEmpty());
}

TEST_F(HostMergeTest, PostingInLogAndDataFileIsFoundAndKeptOnce) {
  insert(cat, 1), insert(cat, 3);
  merge();
  insert(cat, 1), insert(cat, 2);
  EXPECT_THAT(find(cat), ElementsAre(1, 2, 3));
  EXPECT_EQ(totals().xcount, 4U);  // as recorded
  merge();
  EXPECT_THAT(find(cat), ElementsAre(1, 2, 3));
  EXPECT_EQ(totals().xcount, 3U);
}

TEST_F(HostMergeTest, MergesTellWhatTheyDo) {
  log.forget();
  merge();  // of an empty log
  insert(cat, 1);
  merge();
  EXPECT_THAT(log.infos(),
              ElementsAre("merge begin [1]!", MatchesRegex("merge end \\[1\\]! [0-9]+ ms"),
                          "merge begin [1]!", MatchesRegex("merge end \\[1\\]! [0-9]+ ms")));
  EXPECT_THAT(log.errors(), IsEmpty());
  EXPECT_THAT(files(), UnorderedElementsAre("sdb.xml", "sdb.lst", "sdb_1.log", "sdb_1.dat"));
}

TEST_F(HostMergeTest, ShardThatIsBusyTakesUpdatesAndNoSecondMerge) {
  insert(cat, 1);
  log.forget();
  {
    const host_hold merging(log, "merge begin");
    EXPECT_EQ(zem_sdb_merge(sdb.get(), table), 0);
    EXPECT_EQ(zem_sdb_wait(sdb.get(), table, 20), 0);
    insert(cat, 2);
    EXPECT_THAT(find(cat), ElementsAre(1, 2));
    EXPECT_EQ(zem_sdb_merge(sdb.get(), table), 0);
  }
  wait_idle();
  EXPECT_EQ(zem_sdb_wait(sdb.get(), table, 0), 1);
  EXPECT_THAT(log.infos(), SizeIs(2));
  EXPECT_THAT(find(cat), ElementsAre(1, 2));
}

TEST_F(HostMergeTest, ClearEmptiesTheTableAndKeepsThePendingBatch) {
  configure({{"commit_num", 100}});
  insert(cat, 1);
  merge();
  insert(cat, 2);
  sync();
  insert(cat, 3);  // pending
  EXPECT_EQ(zem_sdb_table_clear(sdb.get(), table), 0);
  EXPECT_THAT(find(cat), IsEmpty());
  EXPECT_EQ(totals().xcount, 0U);
  EXPECT_THAT(shards(), ElementsAre(host_row{{}, 1}));
  EXPECT_EQ(read_whole(path("sdb.lst")), "1");
  sync();
  EXPECT_THAT(find(cat), ElementsAre(3));
  reopen();
  EXPECT_THAT(find(cat), ElementsAre(3));
}

// ---- queries and counts

class HostQueryTest : public HostTest {
 protected:
  HostQueryTest() { configure({{"commit_num", 1}}); }
  using found = std::map<std::uint64_t, std::uint32_t>;
};

TEST_F(HostQueryTest, IdsAreTaggedWithTheNumberOfItemsThatFoundThem) {
  insert_all({{cat, 1}, {cat, 2}, {dog, 2}, {dog, 3}, {ant, 9}});
  EXPECT_EQ(query({{cat}, {dog}}).ids, (found{{1, 1}, {2, 2}, {3, 1}}));
  EXPECT_EQ(query({{cat}, {cat}}).ids, (found{{1, 2}, {2, 2}}));
  EXPECT_EQ(query({{cat}, {{77, 0, 0}}}).ids, (found{{1, 1}, {2, 1}}));
  EXPECT_EQ(query({}).ids, found{});
}

TEST_F(HostQueryTest, ItemFindsItsOwnTermUnlessItsSpanWrapsAround) {
  const host_term high{0xffffffff, 5, 0xfffffff0};
  insert_all({{high, 1}, {{0xffffffff, 5, 0xfffffff1}, 2}, {{0, 6, 0}, 3}});
  EXPECT_EQ(query({{high, 0, 0}}).ids, (found{{1, 1}}));
  EXPECT_EQ(query({{high, 0, 15}}).ids, (found{{1, 1}}));  // not the neighbour's
  EXPECT_EQ(query({{high, 1, 0}}).ids, found{});           // word 0 wraps
  EXPECT_EQ(query({{high, 0, 16}}).ids, found{});          // word 2 wraps
  EXPECT_EQ(query({{{0, 6, 0}, 1000, 1000}}).ids, (found{{3, 1}}));
}

TEST_F(HostQueryTest, IdZeroIsReservedAndTheLastIdIsNot) {
  for (int i = 0; i < 2; ++i) {
    insert_all({{cat, 0}, {cat, 1}, {cat, last_id}, {{0, 0, 0}, 5}, {{0, 0, 0}, last_id}});
    EXPECT_THAT(find(cat), ElementsAre(1, last_id));
    EXPECT_THAT(find({0, 0, 0}), ElementsAre(5, last_id));
    merge();
    EXPECT_THAT(find(cat), ElementsAre(1, last_id));
    EXPECT_THAT(find({0, 0, 0}), ElementsAre(5, last_id));
  }
}

TEST_F(HostQueryTest, AnswersAreAppendedToAnyKindOfList) {
  insert_all({{cat, 1}, {dog, 2}});
  const host_list heads = host_longs({host_head(cat)});
  const host_list ids = host_longs({42});
  EXPECT_EQ(zem_sdb_query(sdb.get(), table, heads.get(), host_longs({cat[2]}).get(), ids.get()), 0);
  EXPECT_EQ(zem_sdb_query(sdb.get(), table, heads.get(), host_longs({dog[2]}).get(), ids.get()), 0);
  ASSERT_EQ(zem_var_size(ids.get()), 3);
  EXPECT_EQ(zem_var_get_long(ids.get(), 0), 42U);
  EXPECT_EQ(zem_var_get_long(ids.get(), 1), 1U);
  EXPECT_EQ(zem_var_get_long(ids.get(), 2), 2U);
}

TEST_F(HostQueryTest, CountsAddUp) {
  EXPECT_EQ(totals().count, 0U);
  insert_all({{cat, 1}, {cat, 2}, {dog, 1}});
  EXPECT_EQ(totals().count, 2U);
  EXPECT_EQ(totals().xcount, 3U);
  EXPECT_THAT(key_count(), Pair(2, 0));
  merge();
  insert_all({{ant, 1}});
  EXPECT_THAT(key_count(), Pair(1, 2));
  EXPECT_EQ(totals().count, 3U);
  EXPECT_EQ(totals().xcount, 4U);
  EXPECT_GE(totals().fsize, read_whole(path("sdb_1.dat")).size());
  EXPECT_GT(totals().msize, 0U);
}

TEST_F(HostQueryTest, UnknownShardHasNoCounts) {
  std::uint64_t a = 1, b = 2;
  EXPECT_EQ(zem_sdb_key_count(sdb.get(), table, 2, &a, &b), ZEM_SDB_E_SHARD);
  EXPECT_EQ(a + b, 0U);
  EXPECT_THAT(log.errors(), ElementsAre("term count error: -904"));
}

}  // namespace
