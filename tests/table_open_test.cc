// How a table comes up, is emptied and goes down, and its list of shards.

#include <atomic>
#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/faulty_files.h"
#include "tests/support/table_fixture.h"

namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr zem_status closed{ZEM_SDB_E_CLOSED};
constexpr zem_status no_shard{ZEM_SDB_E_SHARD};

// ---- open and the list

TEST_F(TableTest, AFirstOpenMakesShardOne) {
  open();
  EXPECT_EQ(list(), "1");
  EXPECT_THAT(numbers(), ElementsAre(1));
  EXPECT_EQ(table->shard_seq, 1);
  EXPECT_THAT(table.lines.take(), IsEmpty());
}

TEST_F(TableTest, NumbersGoOnAfterTheHighestListed) {
  make_table(directory.path(), std::vector<postings>(12));
  put_list("3\n7\n12");
  open();
  EXPECT_THAT(numbers(), ElementsAre(3, 7, 12));
  EXPECT_EQ(table->shard_seq, 12);
}

TEST_F(TableTest, AListIsReadWithItsOddities) {
  make_table(directory.path(), std::vector<postings>(12));
  put_list("\n 12\r\n7\n\nseven\n0\n7\n-3\n3x\n99999999999\n2\t\n");
  open();
  EXPECT_THAT(numbers(), ElementsAre(2, 7, 12));
  const std::vector<std::string> lines = table.lines.take();
  EXPECT_THAT(lines, SizeIs(6));
  EXPECT_THAT(lines, Each(HasSubstr("is skipped")));
}

TEST_F(TableTest, AListOfManyShardsIsWrittenInTheirOrder) {
  open();
  const zem_lock_guard held(table->list_mutex);
  ASSERT_EQ(zem_table_write(*table, {3, 7, 12}), zem_ok);
  EXPECT_EQ(list(), "3\n7\n12");
  table->incomplete = true;
  EXPECT_EQ(zem_table_write(*table, {3}), no_shard);
  EXPECT_EQ(list(), "3\n7\n12");
}

TEST_F(TableTest, ASecondOpenerIsKeptOut) {
  open();
  zem_table second;
  second.path = directory.path();
  bool served = true;
  EXPECT_EQ(zem_table_open(second, served), -EWOULDBLOCK);
  EXPECT_FALSE(served);
  ASSERT_EQ(table.close(), zem_ok);
  EXPECT_EQ(zem_table_open(second, served), zem_ok);
}

// A shard that does not open must not cost the others their place in the list.
TEST_F(TableTest, ATableWithoutShardsKeepsListAndBatch) {
  make_table(directory.path(), {{at(9, 1)}, {at(19, 1)}});
  {
    faulty_files faults;
    faults.fail_once(1, EMFILE, {file_op::read});
    ASSERT_EQ(table.open(), -EMFILE);
  }
  EXPECT_THAT(table.lines.take(), ElementsAre(HasSubstr("opened without shards")));
  EXPECT_THAT(numbers(), IsEmpty());
  EXPECT_EQ(insert({at(5, 1)}), zem_ok);
  EXPECT_EQ(route(), no_shard);
  EXPECT_THAT(pending(), ElementsAre(at(5, 1)));
  EXPECT_EQ(table.close(), no_shard);
  EXPECT_EQ(list(), "1\n2");
  open();
  EXPECT_THAT(table.held(), ElementsAre(at(9, 1), at(19, 1)));
}

TEST_F(TableTest, AFrozenLogOfAnEarlierLifeIsMergedAtOnce) {
  make_table(directory.path(), {{at(9, 1)}});
  ASSERT_EQ(zem_file_rename(directory.path("sdb_1.log"), directory.path("sdb_1_m.log")), zem_ok);
  open();
  EXPECT_EQ(table.shard(1).dat.doc_num, 1);
  EXPECT_EQ(zem_file_exist(directory.path("sdb_1_m.log")), zem_ok);
}

// ---- clear and close

TEST_F(TableTest, AClearKeepsThePendingBatchForTheNewShard) {
  make({at(10, 5), at(20, 5)});
  ASSERT_EQ(insert({at(1, 1)}), zem_ok);
  ASSERT_EQ(zem_table_clear(*table), zem_ok);
  EXPECT_THAT(numbers(), ElementsAre(1));
  EXPECT_EQ(table->shard_seq, 1);
  EXPECT_EQ(list(), "1");
  EXPECT_THAT(table.held(), IsEmpty());
  ASSERT_EQ(route(), zem_ok);
  EXPECT_THAT(table.held(), ElementsAre(at(1, 1)));
  EXPECT_EQ(zem_file_exist(directory.path("sdb_2.log")), zem_ok);
}

TEST_F(TableTest, AClearWaitsForThoseWhoWorkOnShards) {
  make({at(10, 5), at(20, 5)});
  ASSERT_EQ(zem_table_wait_lock(*table, zem_table_role::reader), zem_ok);
  std::atomic<bool> cleared = false;
  std::thread clear([&] {
    EXPECT_EQ(zem_table_clear(*table), zem_ok);
    cleared = true;
  });
  while (table->open)
    std::this_thread::yield();
  EXPECT_EQ(zem_table_wait_lock(*table, zem_table_role::writer), closed);
  EXPECT_EQ(route(), closed);
  zem_keys keys;
  EXPECT_EQ(zem_table_shards(*table, keys), closed);
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_FALSE(cleared);
  zem_table_wait_clear(*table, zem_table_role::reader);
  clear.join();
  EXPECT_EQ(zem_table_shards(*table, keys), zem_ok);
}

// A close that waits for a clear gets no new work from its end.
TEST_F(TableTest, AClearDuringACloseLeavesTheQueueShut) {
  open();
  ASSERT_EQ(zem_table_wait_lock(*table, zem_table_role::reader), zem_ok);
  std::thread clear([&] { EXPECT_EQ(zem_table_clear(*table), zem_ok); });
  while (table->open)
    std::this_thread::yield();
  zem_table_close_begin(*table);
  zem_table_wait_clear(*table, zem_table_role::reader);
  clear.join();
  EXPECT_EQ(table.wait(), closed);
}

// Shards that did not open are cleared like others.
TEST_F(TableTest, AClearRemovesTheFilesOfShardsThatDidNotOpen) {
  make_table(directory.path(), {{at(9, 1)}, {at(19, 1)}});
  {
    faulty_files faults;
    faults.fail_once(1, EMFILE, {file_op::read});
    ASSERT_EQ(table.open(), -EMFILE);
  }
  EXPECT_EQ(zem_table_clear(*table), zem_ok);
  EXPECT_THAT(numbers(), ElementsAre(1));
  EXPECT_EQ(zem_file_exist(directory.path("sdb_2.log")), zem_ok);
}

TEST_F(TableTest, ACloseRoutesWhatIsPending) {
  open();
  ASSERT_EQ(insert({at(1, 1)}), zem_ok);
  ASSERT_EQ(table.close(), zem_ok);
  open();
  EXPECT_THAT(table.held(), ElementsAre(at(1, 1)));
}

TEST_F(TableTest, ACloseReturnsTheFirstFailureAndClosesTheRest) {
  make({at(10, 5), at(20, 5)});
  ASSERT_EQ(insert({at(1, 1), at(11, 1)}), zem_ok);
  {
    faulty_files faults;
    faults.fail_once(1, ENOSPC, {file_op::write});
    EXPECT_EQ(table.close(), -ENOSPC);
  }
  open();
  EXPECT_THAT(table.held(), ElementsAre(at(10, 5), at(11, 1), at(20, 5)));
}

}  // namespace
