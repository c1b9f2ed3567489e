#include "src/shard.h"

#include <array>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vector>

#include "tests/support/faulty_files.h"
#include "tests/support/shard_life.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr zem_status failed{-EIO};

// ---- updates

TEST_F(ShardTest, AnUpdateTellsWhetherTheHighKeyGrew) {
  EXPECT_EQ(insert(cat, 7), zem_yes);
  EXPECT_EQ(insert(cat, 9), zem_ok);  // within a term, greater ids come first
  EXPECT_EQ(insert(cat, 7), zem_ok);  // there already
  EXPECT_EQ(remove(dog, 1), zem_ok);  // not there
  EXPECT_EQ(insert(cat, 6), zem_yes);
  EXPECT_EQ(shard->mkey.term, cat);
  EXPECT_EQ(shard->mkey.id, 6);
  EXPECT_THAT(held(), ElementsAre(posting{cat, 9}, posting{cat, 7}, posting{cat, 6}));
}

TEST_F(ShardTest, AFailedUpdateKeepsWhatCameBeforeTheFailure) {
  while (shard->log.blk_pos + 2 * 9 + 14 + 13 <= zem_block_size)
    ASSERT_GE(insert(ant, ++next_id), zem_ok);
  const std::uint32_t begun = shard->log.blk_no;
  shard->stamp = 0;
  const std::vector<posting> some = {{cat, 4}, {cat, 3}, {cat, 2}, {cat, 1}};

  faulty_files faults;
  faults.fail_from(1, ENOSPC, {file_op::write, file_op::allocate});
  EXPECT_EQ(insert(some), -ENOSPC);
  EXPECT_EQ(shard->stamp, 0);
  const std::size_t before = applied;
  EXPECT_LT(before, some.size());
  EXPECT_EQ(shard->log.blk_no, begun);
  EXPECT_EQ(held().size(), next_id + before);

  faults.fail_none();
  EXPECT_GE(insert(std::span(some).subspan(before)), zem_ok);
  EXPECT_EQ(applied, some.size() - before);
  EXPECT_EQ(shard->stamp, manual_clock::begin_time);
  ASSERT_EQ(close(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(held().size(), next_id + some.size());
}

// ---- when work is asked for

TEST_F(ShardTest, SizesDecideWhatIsDue) {
  const zem_cfg settings{.merge_num = 8, .split_num = 4095};
  constexpr std::uint64_t mib = std::uint64_t{1} << 20;
  EXPECT_EQ(zem_shard_due_by(settings, 8 * mib - 1, 0), zem_shard_due::nothing);
  EXPECT_EQ(zem_shard_due_by(settings, 8 * mib - 1, 5000 * mib), zem_shard_due::nothing);
  EXPECT_EQ(zem_shard_due_by(settings, 8 * mib, 4095 * mib - 1), zem_shard_due::merge);
  EXPECT_EQ(zem_shard_due_by(settings, 8 * mib, 4095 * mib), zem_shard_due::split);
  EXPECT_EQ(zem_shard_due_by(settings, 8192 * mib, 4096 * mib), zem_shard_due::split);
}

TEST_F(ShardTest, AFullLogAsksForOneMerge) {
  fill_blocks(15);
  EXPECT_THAT(queued(), IsEmpty());
  EXPECT_EQ(shard->state, zem_shard_state::idle);
  fill_blocks(16);
  ASSERT_GE(insert(cat, 1), zem_ok);
  EXPECT_THAT(queued(), ElementsAre(zem_task_kind::merge));
  EXPECT_EQ(shard->state, zem_shard_state::queued);
  fill_blocks(17);
  EXPECT_THAT(queued(), IsEmpty());
}

TEST_F(ShardTest, OnlyAQueuedShardIsClaimedAndOnlyOnce) {
  EXPECT_FALSE(zem_shard_claim(*shard, zem_shard_state::merging));
  {
    const zem_read_guard locked(shard->lock);
    zem_shard_request(*shard);
  }
  EXPECT_TRUE(zem_shard_claim(*shard, zem_shard_state::merging));
  EXPECT_FALSE(zem_shard_claim(*shard, zem_shard_state::merging));
  EXPECT_EQ(shard->state, zem_shard_state::merging);
}

TEST_F(ShardTest, AQueueThatDoesNotAcceptLeavesTheShardIdle) {
  zem_task_refuse(task);
  const zem_read_guard locked(shard->lock);
  zem_shard_request(*shard);
  EXPECT_EQ(shard->state, zem_shard_state::idle);
}

// ---- after a merge that failed

TEST_F(ShardTest, ThePauseDoublesFromOneSecondToTenMinutes) {
  std::uint64_t length_ms = 1000;
  for (int i = 0; i < 12; ++i) {
    settle(failed);
    const zem_read_guard locked(shard->lock);
    const std::uint64_t now_us = zem_timer_stamp();
    EXPECT_FALSE(zem_shard_retry_due(*shard, now_us + length_ms * 1000 - 1)) << i;
    EXPECT_TRUE(zem_shard_retry_due(*shard, now_us + length_ms * 1000)) << i;
    length_ms = std::min<std::uint64_t>(2 * length_ms, 600'000);
  }
  settle(zem_ok);
  {
    const zem_read_guard locked(shard->lock);
    EXPECT_FALSE(zem_shard_retry_due(*shard, ~std::uint64_t{0}));
  }
  settle(failed);
  const zem_read_guard locked(shard->lock);
  EXPECT_TRUE(zem_shard_retry_due(*shard, zem_timer_stamp() + 1'000'000));
}

TEST_F(ShardTest, InThePauseUpdatesAskForNothingAndARequestDoes) {
  settle(failed);
  fill_blocks(17);
  EXPECT_THAT(queued(), IsEmpty());
  {
    const zem_read_guard locked(shard->lock);
    EXPECT_EQ(zem_shard_level(*shard).state, zem_shard_state::merging);
    zem_shard_request(*shard);
  }
  EXPECT_THAT(queued(), ElementsAre(zem_task_kind::merge));
}

TEST_F(ShardTest, AStuckShardRefusesUpdatesFromSixteenTimesItsLogOn) {
  constexpr std::uint32_t limit = 16 * 16;  // blocks
  shard->log.blk_no = limit - 1;
  settle(failed);
  EXPECT_EQ(insert(cat, 1), zem_yes);
  shard->log.blk_no = limit;
  EXPECT_EQ(insert(cat, 2), failed);
  EXPECT_EQ(applied, 0);
  settle(zem_ok);
  EXPECT_EQ(insert(cat, 2), zem_ok);
}

// ---- commits

TEST_F(ShardTest, ACommitMakesUpdatesDurableAndAFailedOneIsTriedAgain) {
  ASSERT_EQ(insert(cat, 1), zem_yes);
  shard->stamp = 0;  // as when a commit is queued
  {
    faulty_files faults;
    faults.fail_once(1, ENOSPC, {file_op::allocate});
    EXPECT_EQ(zem_shard_commit(*shard), -ENOSPC);
  }
  EXPECT_EQ(shard->stamp, manual_clock::begin_time);
  EXPECT_THAT(queued(), IsEmpty());
  EXPECT_EQ(zem_shard_commit(*shard), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(held(), ElementsAre(posting{cat, 1}));
}

// What the system lost in a failed sync is in no file; the map still has it.
TEST_F(ShardTest, AFailedSyncEndsCommitsUntilAMerge) {
  ASSERT_EQ(insert(cat, 1), zem_yes);
  {
    faulty_files faults;
    faults.fail_once(1, EIO, {file_op::sync});
    EXPECT_EQ(zem_shard_commit(*shard), failed);
  }
  EXPECT_THAT(queued(), ElementsAre(zem_task_kind::merge));
  EXPECT_EQ(zem_shard_commit(*shard), failed);
  ASSERT_EQ(insert(cat, 0), zem_yes);
  merge();
  EXPECT_EQ(zem_shard_commit(*shard), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(held(), ElementsAre(posting{cat, 1}, posting{cat, 0}));
}

// The sync before the head of a committed block is replaced; the update itself loses nothing.
TEST_F(ShardTest, ASyncThatFailsInAnUpdateAsksForAMergeAtOnce) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  ASSERT_EQ(zem_shard_commit(*shard), zem_ok);
  faulty_files faults;
  faults.fail_once(1, EIO, {file_op::sync});
  fill_blocks(1);
  EXPECT_TRUE(faults.has_failed());
  EXPECT_THAT(queued(), ElementsAre(zem_task_kind::merge));
}

TEST_F(ShardTest, ACloseWritesWhatIsNotCommittedAndNothingElse) {
  ASSERT_EQ(insert(cat, 1), zem_yes);
  shard->stamp = 0;  // a commit was queued and will not run
  ASSERT_EQ(close(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(held(), ElementsAre(posting{cat, 1}));
  ASSERT_EQ(zem_shard_commit(*shard), zem_ok);
  const faulty_files files;
  EXPECT_EQ(close(), zem_ok);
  EXPECT_EQ(files.count(file_op::write), 0);
  EXPECT_EQ(files.count(file_op::sync), 0);
}

TEST_F(ShardTest, ACloseGoesOnPastAFailure) {
  ASSERT_EQ(insert(cat, 1), zem_yes);
  faulty_files faults;
  faults.fail_from(1, EIO, {file_op::write, file_op::close});
  EXPECT_EQ(close(), failed);
  EXPECT_EQ(faults.count(file_op::close), 2);
  EXPECT_FALSE(zem_file_is_open(shard->log.file));
  EXPECT_FALSE(zem_file_is_open(shard->dat.file));
}

TEST_F(ShardTest, AClearRemovesEveryFile) {
  ASSERT_EQ(insert(cat, 1), zem_yes);
  ASSERT_EQ(begin(), zem_ok);
  {
    const zem_write_guard locked(shard->lock);
    EXPECT_EQ(zem_shard_clear(*shard), zem_ok);
  }
  for (const char *suffix : zem_suffix::all)
    EXPECT_FALSE(exists(suffix)) << suffix;
}

// ---- loading

TEST_F(ShardTest, ALoadFindsFrozenLogAndHighKey) {
  ASSERT_EQ(insert(dog, 4), zem_yes);
  ASSERT_EQ(begin(), zem_ok);
  ASSERT_GE(insert(cat, 1), zem_ok);
  ASSERT_EQ(zem_shard_commit(*shard), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_TRUE(frozen());
  EXPECT_EQ(shard->mkey.term, dog);
  EXPECT_THAT(held(), ElementsAre(posting{cat, 1}, posting{dog, 4}));
}

// The other stores are loaded whatever one of them gives.
TEST_F(ShardTest, DamageInOneStoreLeavesTheOthers) {
  ASSERT_EQ(insert(ant, 1), zem_yes);
  merge();
  ASSERT_EQ(insert(cat, 1), zem_yes);
  ASSERT_EQ(begin(), zem_ok);
  cancel();
  ASSERT_EQ(insert(dog, 1), zem_yes);
  ASSERT_EQ(close(), zem_ok);
  constexpr std::array wrong{std::byte{0x55}};
  zem_file log{.name = zem_shard_fname(dir.path(), 1, zem_suffix::log)};
  ASSERT_EQ(zem_file_open(log, zem_file_mode::existing), zem_ok);
  ASSERT_EQ(zem_file_write(log, 30, wrong), zem_ok);

  EXPECT_EQ(reopen(), ZEM_SDB_E_CHECKSUM);
  EXPECT_THAT(lines.take(), ElementsAre(HasSubstr("sdb_1.log, block 0")));
  EXPECT_THAT(held(), ElementsAre(posting{ant, 1}, posting{cat, 1}));
  ASSERT_EQ(insert(dog, 2), zem_yes);
  merge();
  EXPECT_THAT(held(), ElementsAre(posting{ant, 1}, posting{cat, 1}, posting{dog, 2}));
}

TEST_F(ShardTest, ALogThatCannotBeSavedIsReadAndNotWritten) {
  ASSERT_EQ(insert(cat, 1), zem_yes);
  ASSERT_EQ(close(), zem_ok);
  constexpr std::array wrong{std::byte{0x55}};
  zem_file log{.name = zem_shard_fname(dir.path(), 1, zem_suffix::log)};
  ASSERT_EQ(zem_file_open(log, zem_file_mode::existing), zem_ok);
  ASSERT_EQ(zem_file_write(log, 30, wrong), zem_ok);
  {
    faulty_files faults;
    faults.fail_from(1, ENOSPC, {file_op::write});
    EXPECT_EQ(reopen(), ZEM_SDB_E_CHECKSUM);
  }
  EXPECT_EQ(insert(cat, 2), -ENOSPC);
  EXPECT_EQ(begin(), -ENOSPC);
  EXPECT_EQ(reopen(), ZEM_SDB_E_CHECKSUM);
  EXPECT_EQ(insert(cat, 2), zem_yes);
  EXPECT_EQ(begin(), zem_ok);
}

TEST_F(ShardTest, AReadThatFailsIsNoDamage) {
  ASSERT_EQ(insert(cat, 1), zem_yes);
  ASSERT_EQ(close(), zem_ok);
  {
    faulty_files faults;
    faults.fail_once(1, EIO, {file_op::read});
    EXPECT_EQ(reopen(), failed);
  }
  EXPECT_THAT(lines.take(), IsEmpty());
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(held(), ElementsAre(posting{cat, 1}));
}

// ---- counters

TEST_F(ShardTest, CountersAddTheFrozenLogWhileItIsThere) {
  ASSERT_GE(insert(std::vector<posting>{{ant, 2}, {ant, 1}, {cat, 1}, {dog, 1}}), zem_ok);
  merge();
  ASSERT_GE(insert(std::vector<posting>{{ant, 3}, {cat, 3}}), zem_ok);
  const auto count = [&] {
    const zem_read_guard locked(shard->lock);
    return std::array{zem_shard_count(*shard), zem_shard_xcount(*shard)};
  };
  const auto bytes = [&] {
    const zem_read_guard locked(shard->lock);
    return std::array{zem_shard_fsize(*shard), zem_shard_msize(*shard)};
  };
  EXPECT_THAT(count(),
              ElementsAre(2 + 3, 2 + 4));  // a source counts when it exceeds the sum so far
  ASSERT_EQ(zem_shard_commit(*shard), zem_ok);
  const auto unfrozen = bytes();
  ASSERT_EQ(begin(), zem_ok);
  EXPECT_THAT(count(), ElementsAre(2 + 3, 2 + 4));
  EXPECT_EQ(bytes()[0], unfrozen[0]);
  ASSERT_GE(insert(dog, 9), zem_ok);
  EXPECT_THAT(count(), ElementsAre(1 + 2, 1 + 2 + 4));
  EXPECT_GT(bytes()[1], unfrozen[1]);
  ASSERT_EQ(pass(), zem_ok);
  ASSERT_EQ(end(), zem_ok);
  EXPECT_THAT(count(), ElementsAre(1 + 3, 1 + 6));
}

TEST_F(ShardTest, TheLevelTellsHowFarWorkLagsBehind) {
  ASSERT_EQ(insert(cat, 1), zem_yes);
  ASSERT_EQ(zem_shard_commit(*shard), zem_ok);
  const zem_read_guard locked(shard->lock);
  EXPECT_EQ(zem_shard_level(*shard).state, zem_shard_state::idle);
  EXPECT_EQ(zem_shard_level(*shard).log_bytes, std::uint64_t{8} << 20);  // a step of growth
  zem_shard_request(*shard);
  EXPECT_EQ(zem_shard_level(*shard).state, zem_shard_state::queued);
}

}  // namespace
