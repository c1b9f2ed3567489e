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

constexpr zem_status failed{-EIO};

TEST_F(ShardTest, AFailedUpdateKeepsWhatCameBeforeTheFailure) {
  while (shard->log.blk_pos + 2 * 9 + 14 + 13 <= zem_block_size)
    ASSERT_GE(insert(ant, ++next_id), zem_ok);
  shard->stamp = 0;
  const std::vector<posting> some = {{cat, 4}, {cat, 3}, {cat, 2}, {cat, 1}};
  faulty_files faults;
  faults.fail_from(1, ENOSPC, {file_op::write, file_op::allocate});
  EXPECT_EQ(insert(some), -ENOSPC);
  EXPECT_EQ(shard->stamp, 0);
  const std::size_t before = applied;
  EXPECT_LT(before, some.size());
  EXPECT_EQ(held().size(), next_id + before);

  faults.fail_none();
  EXPECT_GE(insert(std::span(some).subspan(before)), zem_ok);
  EXPECT_EQ(shard->stamp, manual_clock::begin_time);
  ASSERT_EQ(close(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(held().size(), next_id + some.size());
}

TEST_F(ShardTest, AFullLogAsksForOneMergeWhichIsClaimedOnce) {
  const auto fill = [&](std::uint32_t blocks) {
    while (shard->log.blk_no < blocks)
      ASSERT_GE(insert(dog, ++next_id), zem_ok);
  };
  fill(15);
  EXPECT_THAT(queued(), IsEmpty());
  EXPECT_FALSE(zem_shard_claim(*shard, zem_shard_state::merging));
  fill(16);
  ASSERT_GE(insert(cat, 1), zem_ok);
  EXPECT_THAT(queued(), ElementsAre(zem_task_kind::merge));
  EXPECT_EQ(shard->state, zem_shard_state::queued);
  fill(17);
  EXPECT_THAT(queued(), IsEmpty());
  EXPECT_TRUE(zem_shard_claim(*shard, zem_shard_state::merging));
  EXPECT_FALSE(zem_shard_claim(*shard, zem_shard_state::merging));

  // In the pause after a failure updates ask for nothing; a request does, if the queue accepts.
  shard->state = zem_shard_state::idle;
  settle(failed);
  fill(18);
  EXPECT_THAT(queued(), IsEmpty());
  request();
  EXPECT_THAT(queued(), ElementsAre(zem_task_kind::merge));
  shard->state = zem_shard_state::idle;
  zem_task_refuse(task);
  request();
  EXPECT_EQ(shard->state, zem_shard_state::idle);
}

TEST_F(ShardTest, ThePauseDoublesFromOneSecondToTenMinutes) {
  std::uint64_t length_us = 1'000'000;
  for (int i = 0; i < 12; ++i) {
    settle(failed);
    EXPECT_FALSE(retry_due(length_us - 1)) << i;
    EXPECT_TRUE(retry_due(length_us)) << i;
    length_us = std::min<std::uint64_t>(2 * length_us, 600'000'000);
  }
  settle(zem_ok);
  EXPECT_FALSE(retry_due(600'000'000));
  settle(failed);
  EXPECT_TRUE(retry_due(1'000'000));
}

// What the system lost in a failed sync is in no file; the map still has it.
TEST_F(ShardTest, AFailedCommitIsTriedAgainAndAFailedSyncNeedsAMerge) {
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

  ASSERT_EQ(insert(cat, 0), zem_yes);
  {
    faulty_files faults;
    faults.fail_once(1, EIO, {file_op::sync});
    EXPECT_EQ(zem_shard_commit(*shard), failed);
  }
  EXPECT_THAT(queued(), ElementsAre(zem_task_kind::merge));
  EXPECT_EQ(zem_shard_commit(*shard), failed);
  ASSERT_EQ(insert(dog, 0), zem_yes);
  merge();
  EXPECT_EQ(zem_shard_commit(*shard), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(held(), ElementsAre(posting{cat, 1}, posting{cat, 0}, posting{dog, 0}));
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
  {
    faulty_files faults;
    faults.fail_once(1, EIO, {file_op::read});
    EXPECT_EQ(reopen(), failed);  // and is no damage
  }
  EXPECT_THAT(lines.take(), IsEmpty());
  {
    constexpr std::array wrong{std::byte{0x55}};
    zem_file log{.name = zem_shard_fname(dir.path(), 1, zem_suffix::log)};
    ASSERT_EQ(zem_file_open(log, zem_file_mode::existing), zem_ok);
    ASSERT_EQ(zem_file_write(log, 30, wrong), zem_ok);
  }
  EXPECT_EQ(reopen(), ZEM_SDB_E_CHECKSUM);
  EXPECT_THAT(lines.take(), ElementsAre(HasSubstr("sdb_1.log, block 0")));
  EXPECT_TRUE(frozen());
  EXPECT_EQ(shard->mkey.term, cat);
  EXPECT_THAT(held(), ElementsAre(posting{ant, 1}, posting{cat, 1}));
  ASSERT_EQ(insert(dog, 2), zem_yes);
  merge();
  EXPECT_THAT(held(), ElementsAre(posting{ant, 1}, posting{cat, 1}, posting{dog, 2}));
}

// The sync before the head of a committed block is replaced; the update itself loses nothing.
TEST_F(ShardTest, ASyncThatFailsInAnUpdateAsksForAMergeAtOnce) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  ASSERT_EQ(zem_shard_commit(*shard), zem_ok);
  faulty_files faults;
  faults.fail_once(1, EIO, {file_op::sync});
  for (std::uint64_t id = 2; shard->log.blk_no < 1; ++id)
    ASSERT_GE(insert(dog, id), zem_ok);
  EXPECT_TRUE(faults.has_failed());
  EXPECT_THAT(queued(), ElementsAre(zem_task_kind::merge));
}

}  // namespace
