// The road of a batch to its shards, and what holds writers up.

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <thread>
#include <vector>

#include "tests/support/faulty_files.h"
#include "tests/support/table_fixture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// ---- routing

TEST_F(TableTest, APostingGoesToTheFirstShardThatDoesNotEndBeforeIt) {
  make({at(10, 5), at(20, 5), at(30, 5)});
  ASSERT_EQ(insert({at(1, 1), at(10, 6), at(10, 5), at(10, 4), at(20, 5), at(20, 0), at(99, 9)}),
            zem_ok);
  ASSERT_EQ(route(), zem_ok);
  EXPECT_THAT(in_shard(1), ElementsAre(at(1, 1), at(10, 6), at(10, 5)));
  EXPECT_THAT(in_shard(2), ElementsAre(at(10, 4), at(20, 5)));
  EXPECT_THAT(in_shard(3), ElementsAre(at(20, 0), at(30, 5), at(99, 9)));
  EXPECT_THAT(pending(), IsEmpty());
}

TEST_F(TableTest, AShardThatGetsNothingIsNotTouched) {
  make({at(10, 5), at(20, 5), at(30, 5)});
  for (zem_shard *shard : table.shards())
    shard->stamp = 0;
  ASSERT_EQ(insert({at(11, 1), at(12, 1)}), zem_ok);
  ASSERT_EQ(route(), zem_ok);
  EXPECT_EQ(table.shard(1).stamp, 0);
  EXPECT_NE(table.shard(2).stamp, 0);
  EXPECT_EQ(table.shard(3).stamp, 0);
}

TEST_F(TableTest, RandomBatchesLieWhereTheirKeysBelong) {
  constexpr std::uint64_t seed = 3;
  std::mt19937_64 random(seed);
  const std::vector<posting> ends = {at(10, 5), at(10, 2), at(11, 7), at(40, 1)};
  make(ends);
  postings all(ends.begin(), ends.end());
  for (int batch = 0; batch < 40; ++batch) {
    std::vector<posting> some;
    for (std::size_t i = random() % 30; i > 0; --i)
      some.push_back(at(static_cast<std::uint32_t>(8 + random() % 6), random() % 10));
    ASSERT_EQ(batch % 2 == 0 ? insert(some) : table.route(some, 1), zem_ok);
    all.insert(some.begin(), some.end());
  }
  ASSERT_EQ(route(), zem_ok);
  EXPECT_EQ(table.held(), all) << seed;
  for (std::uint32_t number = 1; number <= ends.size(); ++number) {
    for (const posting &p : in_shard(number)) {
      EXPECT_TRUE(number == 1 || ends[number - 2] < p) << p;
      EXPECT_TRUE(number == ends.size() || !(ends[number - 1] < p)) << p;
    }
  }
}

// A run of many slices, and one row for each shard whose high key grew.
TEST_F(TableTest, ARoutedBatchTellsOfTheHighKeysThatGrew) {
  make({at(10, 5), at(20, 5)});
  zem_doc doc;
  for (std::uint64_t id = 1; id <= 2000; ++id) {
    zem_doc_load_term(doc, id, {10, 0, 0}, 1);
    zem_doc_load_term(doc, id, {30, 0, 0}, 1);
  }
  zem_keys keys;
  ASSERT_EQ(zem_table_update_x(*table, doc, &keys), zem_ok);
  ASSERT_EQ(zem_keys_size(keys), 1);
  EXPECT_EQ(keys.attrs[0], 2);
  EXPECT_EQ(keys.term0[0], 30);
  EXPECT_EQ(keys.ids[0], 1);
  EXPECT_EQ(doc.tree.count, 4000);
  EXPECT_EQ(in_shard(1).size() + in_shard(2).size(), 4001);
}

// The part of a run that was applied before a failure has raised the key, in its first slice too.
TEST_F(TableTest, ARunThatFailsTellsOfTheHighKeyItReached) {
  open();
  faulty_files files;
  std::vector<posting> most;
  for (std::uint32_t word0 = 1; word0 <= 2840; ++word0)
    most.push_back(at(word0, 1));
  ASSERT_EQ(table.route(most, 1), zem_ok);
  files.fail_from(1, ENOSPC, {file_op::write, file_op::allocate});
  zem_doc rest;
  for (std::uint32_t word0 = 2841; word0 <= 2900; ++word0)
    zem_doc_load_term(rest, 1, {word0, 0, 0}, 1);
  zem_keys keys;
  ASSERT_EQ(zem_table_update_x(*table, rest, &keys), -ENOSPC);
  ASSERT_EQ(zem_keys_size(keys), 1);
  EXPECT_EQ(keys.term0[0], table.shard(1).mkey.term[0]);
}

TEST_F(TableTest, AFullBatchIsRoutedAndAnEmptyOneIsNot) {
  table.cfg.commit_num = 3;
  open();
  ASSERT_EQ(insert({at(1, 1), at(1, 1)}), zem_ok);
  EXPECT_EQ(pending_count(), 2);  // a posting that is there already counts
  EXPECT_THAT(table.held(), IsEmpty());
  ASSERT_EQ(insert({at(1, 2)}), zem_ok);
  EXPECT_EQ(pending_count(), 0);
  EXPECT_THAT(table.held(), SizeIs(2));
  const faulty_files files;
  EXPECT_EQ(route(), zem_ok);
  EXPECT_EQ(files.count(file_op::write), 0);
}

// ---- routings that fail

TEST_F(TableTest, WhatIsNotAppliedComesBackAndTheOtherRunsGoOn) {
  make({at(10, 5), at(20, 5), at(30, 5)});
  {
    zem_shard &second = table.shard(2);
    const zem_write_guard held(second.lock);
    second.log.refused = zem_status{-ENOSPC};
  }
  table.clock.advance_ms(5000);
  ASSERT_EQ(insert({at(1, 1), at(11, 1), at(12, 1), at(21, 1)}), zem_ok);
  EXPECT_EQ(route(), -ENOSPC);
  EXPECT_TRUE(in_shard(1).contains(at(1, 1)));
  EXPECT_TRUE(in_shard(3).contains(at(21, 1)));
  EXPECT_THAT(pending(), ElementsAre(at(11, 1), at(12, 1)));
  EXPECT_EQ(pending_count(), 0);
  EXPECT_EQ(pending_time(), manual_clock::begin_time + 5);

  {
    zem_shard &second = table.shard(2);
    const zem_write_guard held(second.lock);
    second.log.refused = zem_ok;
  }
  EXPECT_EQ(route(), zem_ok);
  EXPECT_THAT(pending(), IsEmpty());
  EXPECT_TRUE(in_shard(2).contains(at(12, 1)));
}

// The change that came first wins, also when it had been on its way meanwhile.
TEST_F(TableTest, AChangeThatComesBackKeepsItsFlag) {
  open();
  ASSERT_EQ(insert({at(1, 1)}), zem_ok);
  ASSERT_EQ(route(), zem_ok);
  zem_shard &shard = table.shard(1);
  {
    const zem_write_guard held(shard.lock);
    shard.log.refused = zem_status{-ENOSPC};
  }
  const std::vector<posting> one = {at(1, 1)};
  ASSERT_EQ(table.remove(one), zem_ok);
  EXPECT_EQ(route(), -ENOSPC);
  ASSERT_EQ(insert(one), zem_ok);
  {
    const zem_write_guard held(shard.lock);
    shard.log.refused = zem_ok;
  }
  EXPECT_EQ(route(), zem_ok);
  EXPECT_THAT(table.held(), IsEmpty());
}

TEST_F(TableTest, AStuckTableTakesNoMoreThanItCanApply) {
  table.cfg.commit_num = 2;
  make({at(10, 5), at(20, 5)});
  zem_shard &first = table.shard(1);
  {
    const zem_write_guard held(first.lock);
    first.log.refused = zem_status{-ENOSPC};
  }
  for (std::uint64_t id = 1; id <= 32; ++id)
    EXPECT_EQ(insert({at(1, id)}), id % 2 == 0 ? zem_status{-ENOSPC} : zem_ok) << id;
  EXPECT_EQ(insert({at(1, 33), at(15, 1)}), -ENOSPC);
  EXPECT_THAT(pending(), SizeIs(32));
  EXPECT_FALSE(pending().contains(at(1, 33)));
  EXPECT_TRUE(in_shard(2).contains(at(15, 1)));
  EXPECT_EQ(insert({at(15, 2)}), zem_ok);
  {
    const zem_write_guard held(first.lock);
    first.log.refused = zem_ok;
  }
  EXPECT_EQ(insert({at(1, 34)}), zem_ok);
  EXPECT_EQ(route(), zem_ok);
  EXPECT_THAT(in_shard(1), SizeIs(1 + 32 + 1));
}

// The log's disk is lost while updates fill a block, and no commit is asked for that would notice.
TEST_F(TableTest, UpdatesThatLoseTheLogAskForAMergeThemselves) {
  open();
  ASSERT_EQ(table.close(), zem_ok);
  open();
  std::vector<posting> many;
  for (std::uint32_t i = 1; i <= 4000; ++i)
    many.push_back({{i, 0, 0}, 1});
  {
    faulty_files faults;
    faults.fail_once(1, EIO, {file_op::sync});
    ASSERT_EQ(insert(many), zem_ok);
    EXPECT_EQ(route(), -EIO);
    EXPECT_EQ(table.wait(), zem_yes);
  }
  table.clock.advance_ms(61'000);
  zem_table_timer(*table);
  ASSERT_EQ(table.wait(), zem_yes);
  EXPECT_EQ(route(), zem_ok);
  EXPECT_THAT(pending(), IsEmpty());
  EXPECT_THAT(table.held(), SizeIs(many.size()));
}

// ---- the slow-down

TEST_F(TableTest, AWriterIsHeldUpByHowFarItsLogHasGrown) {
  constexpr std::uint32_t nap_ms = 1000;
  constexpr std::uint64_t mib = std::uint64_t{1} << 20;
  table.cfg.commit_time = nap_ms;
  table.cfg.merge_num = 8;
  open();
  zem_shard &shard = table.shard(1);
  const auto naps_of_insert = [&](zem_shard_state state, std::uint64_t log_bytes) {
    shard.state = state;
    {
      const zem_write_guard held(shard.lock);
      shard.log.file.size = log_bytes;
    }
    const std::vector<posting> one = {at(1, 1)};
    const std::uint64_t moved_ms = time_of([&] { EXPECT_EQ(table.route(one, 1), zem_ok); }, 100);
    return (moved_ms + nap_ms / 2) / nap_ms;
  };
  EXPECT_EQ(naps_of_insert(zem_shard_state::idle, 20 * mib), 0);
  EXPECT_EQ(naps_of_insert(zem_shard_state::queued, 1 * mib), 1);
  EXPECT_EQ(naps_of_insert(zem_shard_state::merging, 8 * mib), 1);
  EXPECT_EQ(naps_of_insert(zem_shard_state::merging, 16 * mib), 5);
  EXPECT_EQ(naps_of_insert(zem_shard_state::merging, 20 * mib), 10);
  EXPECT_EQ(naps_of_insert(zem_shard_state::splitting, 16 * mib), 9);
  shard.state = zem_shard_state::idle;
}

TEST_F(TableTest, AHeldUpWriterGoesOnWhenTheLogIsSmallAgain) {
  table.cfg.commit_time = 1000;
  open();
  zem_shard &shard = table.shard(1);
  shard.state = zem_shard_state::merging;
  {
    const zem_write_guard held(shard.lock);
    shard.log.file.size = std::uint64_t{800} << 20;  // 10,001 naps
  }
  std::thread merge([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    shard.state = zem_shard_state::idle;
  });
  const std::vector<posting> one = {at(1, 1)};
  EXPECT_LT(time_of([&] { EXPECT_EQ(table.route(one, 1), zem_ok); }, 100), 60'000);
  merge.join();
}

TEST_F(TableTest, AClosingTableHoldsNobodyUp) {
  table.cfg.commit_time = 1'000'000;
  open();
  table.shard(1).state = zem_shard_state::merging;
  const std::vector<posting> one = {at(1, 1)};
  std::thread writer([&] { EXPECT_EQ(table.route(one, 1), zem_ok); });
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  zem_table_close_begin(*table);
  writer.join();
  table.shard(1).state = zem_shard_state::idle;
}

}  // namespace
