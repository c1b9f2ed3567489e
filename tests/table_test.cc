#include "src/table.h"

#include <atomic>
#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>
#include <tuple>
#include <vector>

#include "tests/support/faulty_files.h"
#include "tests/support/table_fixture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr zem_status closed{ZEM_SDB_E_CLOSED};

// ---- the gate

TEST_F(TableTest, WritersAreHeldBackBeforeReadersAre) {
  open();
  zem_shard &shard = table.shard(1);
  const auto enters = [&](zem_table_role role) {
    zem_status st = zem_ok;
    const std::uint64_t waited_ms =
        time_of([&] { st = zem_table_wait_lock(*table, role); }, 60'000);
    if (st >= 0) zem_table_wait_clear(*table, role);
    EXPECT_TRUE(st == zem_ok || (st == -EBUSY && waited_ms >= 300'000)) << st << ' ' << waited_ms;
    return st == zem_ok;
  };
  for (const auto &[state, writers, readers] : {std::tuple{zem_shard_state::merging, true, true},
                                                {zem_shard_state::splitting, true, true},
                                                {zem_shard_state::holding_writers, false, true},
                                                {zem_shard_state::holding_readers, false, false}}) {
    shard.state = state;
    EXPECT_EQ(enters(zem_table_role::writer), writers);
    EXPECT_EQ(enters(zem_table_role::reader), readers);
  }
  shard.state = zem_shard_state::idle;
}

TEST_F(TableTest, ABarredCallerGoesOnAsSoonAsTheStateFalls) {
  open();
  zem_shard &shard = table.shard(1);
  shard.state = zem_shard_state::holding_readers;
  std::atomic<zem_status> st = closed;
  std::thread reader([&] { st.store(zem_table_wait_lock(*table, zem_table_role::reader)); });
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(st, closed);
  {
    const zem_lock_guard held(table->wait_mutex);
    shard.state = zem_shard_state::idle;
    table->gate.wake_all();
  }
  reader.join();
  EXPECT_EQ(st, zem_ok);
  zem_table_wait_clear(*table, zem_table_role::reader);
}

TEST_F(TableTest, ABarredBatchGoesBackAndACloseDoesNotWait) {
  open();
  zem_shard &shard = table.shard(1);
  shard.state = zem_shard_state::holding_writers;
  ASSERT_EQ(insert({at(1, 1)}), zem_ok);
  zem_status st = zem_ok;
  std::thread writer([&] { st = route(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  zem_table_close_begin(*table);
  writer.join();
  EXPECT_EQ(st, -EBUSY);
  EXPECT_THAT(pending(), ElementsAre(at(1, 1)));
  shard.state = zem_shard_state::idle;
  ASSERT_EQ(table.close(), zem_ok);
  open();
  EXPECT_THAT(table.held(), ElementsAre(at(1, 1)));
}

// ---- the timer, commits and merges

TEST_F(TableTest, AQuietBatchIsRoutedAfterFlushTimeAndNotBefore) {
  open();
  zem_timer_kill(table->timer);  // it would tick too when the clock is moved
  ASSERT_EQ(insert({at(1, 1)}), zem_ok);
  table.clock.advance_ms(30'000);
  ASSERT_EQ(insert({at(1, 2)}), zem_ok);
  table.clock.advance_ms(60'000);
  zem_table_timer(*table);
  EXPECT_THAT(table.held(), IsEmpty());
  table.clock.advance_ms(1000);
  zem_table_timer(*table);
  EXPECT_THAT(table.held(), SizeIs(2));
}

TEST_F(TableTest, AQuietBatchThatMeetsAClearIsRoutedLater) {
  open();
  zem_timer_kill(table->timer);  // it would tick too when the clock is moved
  ASSERT_EQ(insert({at(1, 1)}), zem_ok);
  table.clock.advance_ms(61'000);
  ASSERT_EQ(zem_table_wait_lock(*table, zem_table_role::reader), zem_ok);
  table->routing.lock();
  std::thread tick([&] { zem_table_timer(*table); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // until it waits to route
  std::thread clear([&] { EXPECT_EQ(zem_table_clear(*table), zem_ok); });
  while (table->open)
    std::this_thread::yield();
  table->routing.unlock();
  tick.join();
  zem_table_wait_clear(*table, zem_table_role::reader);
  clear.join();
  table.clock.advance_ms(61'000);
  zem_table_timer(*table);
  EXPECT_THAT(table.held(), ElementsAre(at(1, 1)));
}

TEST_F(TableTest, AQuietShardIsCommittedOnceAfterFlushTime) {
  make({at(10, 5), at(20, 5)});
  stop_workers();
  const std::vector<posting> one = {at(1, 1)};
  ASSERT_EQ(table.route(one, 1), zem_ok);
  table.clock.advance_ms(60'000);
  zem_table_timer(*table);
  EXPECT_THAT(queued(), IsEmpty());
  table.clock.advance_ms(1000);
  zem_table_timer(*table);
  EXPECT_THAT(queued(), ElementsAre(zem_task_kind::commit));
  zem_table_timer(*table);
  EXPECT_THAT(queued(), SizeIs(1));
}

TEST_F(TableTest, ACommitRequestCoversTheShardsThatWereWrittenTo) {
  make({at(10, 5), at(20, 5), at(30, 5)});
  stop_workers();
  ASSERT_EQ(insert({at(1, 1), at(21, 1)}), zem_ok);
  ASSERT_EQ(zem_table_commit(*table), zem_ok);
  EXPECT_THAT(queued(), ElementsAre(zem_task_kind::commit, zem_task_kind::commit));
  EXPECT_EQ(table.shard(1).stamp, 0);
  ASSERT_EQ(zem_table_commit(*table), zem_ok);
  EXPECT_THAT(queued(), SizeIs(2));
}

TEST_F(TableTest, AMergeRequestPassesOverBusyShards) {
  make({at(10, 5), at(20, 5), at(30, 5)});
  stop_workers();
  table.shard(2).state = zem_shard_state::merging;
  ASSERT_EQ(zem_table_merge(*table), zem_ok);
  EXPECT_THAT(queued(), ElementsAre(zem_task_kind::merge, zem_task_kind::merge));
  ASSERT_EQ(zem_table_merge(*table), zem_ok);
  EXPECT_THAT(queued(), SizeIs(2));
  table.shard(2).state = zem_shard_state::idle;
}

TEST_F(TableTest, TheTimerAsksAgainForAMergeThatFailed) {
  open();
  ASSERT_EQ(insert({at(1, 1)}), zem_ok);
  {
    faulty_files faults;
    faults.fail_once(1, ENOSPC, {file_op::rename});
    EXPECT_EQ(table.merge(), zem_yes);
  }
  EXPECT_THAT(table.lines.take(), ElementsAre("merge error [1]: -28"));
  table.clock.advance_ms(999);
  zem_table_timer(*table);
  ASSERT_EQ(table.wait(), zem_yes);
  EXPECT_EQ(table.shard(1).dat.doc_num, 0);
  table.clock.advance_ms(1);
  zem_table_timer(*table);
  ASSERT_EQ(table.wait(), zem_yes);
  EXPECT_EQ(table.shard(1).dat.doc_num, 1);
  EXPECT_THAT(table.lines.take(), IsEmpty());
}

// The batch cannot be routed before the log has been merged, however often the timer tries.
TEST_F(TableTest, TheTimerAsksForMergesAlsoWhenABatchCannotBeRouted) {
  table.cfg.flush_time = 0;
  open();
  {
    zem_shard &shard = table.shard(1);
    const zem_write_guard held(shard.lock);
    zem_shard_merge_settle(shard, zem_status{-ENOSPC});
    shard.log.blk_no = 16 * 16 * table.cfg.merge_num;  // so far behind that updates are refused
  }
  stop_workers();
  ASSERT_EQ(insert({at(1, 1)}), zem_ok);
  for (int tick = 0; tick < 3; ++tick) {
    table.clock.advance_ms(3000);
    zem_table_timer(*table);
  }
  EXPECT_THAT(pending(), SizeIs(1));
  EXPECT_THAT(queued(), ElementsAre(zem_task_kind::merge));
}

TEST_F(TableTest, ASyncIsDurableOnReturn) {
  make({at(10, 5), at(20, 5)});
  ASSERT_EQ(insert({at(1, 1), at(11, 1)}), zem_ok);
  ASSERT_EQ(table.sync(), zem_ok);
  table.kill();
  open();
  EXPECT_THAT(table.held(), ElementsAre(at(1, 1), at(10, 5), at(11, 1), at(20, 5)));
}

// ---- all at once, for the thread sanitizer

TEST_F(TableTest, WritersReadersMergesAndClearsGetAlong) {
  table.cfg.thread_num = 3;
  table.cfg.commit_num = 50;
  make({at(10, 5), at(20, 5), at(30, 5)});
  std::atomic<bool> stop = false;
  std::vector<std::thread> threads;
  for (std::uint32_t writer = 0; writer < 2; ++writer) {
    threads.emplace_back([&, writer] {
      for (std::uint64_t id = 1; id <= 400; ++id) {
        const posting one{{static_cast<std::uint32_t>(id % 35), writer, 0}, id};
        const zem_status st = table.insert({&one, 1});
        EXPECT_TRUE(st == zem_ok || st == closed) << st;
      }
      stop = true;
    });
  }
  threads.emplace_back([&] {
    zem_keys keys;
    while (!stop) {
      const zem_status st = zem_table_shards(*table, keys);
      EXPECT_TRUE(st == zem_ok || st == closed) << st;
      zem_table_totals totals;
      std::ignore = zem_table_count(*table, totals);
    }
  });
  for (int i = 0; i < 10; ++i) {
    std::ignore = zem_table_merge(*table);
    zem_table_timer(*table);
    std::ignore = table.sync();
    if (i == 5) {
      EXPECT_EQ(zem_table_clear(*table), zem_ok);
    }
  }
  for (std::thread &thread : threads)
    thread.join();
  ASSERT_EQ(table.sync(), zem_ok);
  const postings before = table.held();
  ASSERT_EQ(table.close(), zem_ok);
  open();
  EXPECT_EQ(table.held(), before);
}

}  // namespace
