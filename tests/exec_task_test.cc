#include "src/exec_task.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/faulty_files.h"
#include "tests/support/shard_life.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

class TaskTest : public ShardTest {
 protected:
  TaskTest() { task.err_log = lines.err; }
  ~TaskTest() override { zem_task_close(task); }

  void start(std::uint32_t workers = 1) { ASSERT_EQ(zem_task_open(task, workers), zem_ok); }
  void ask(zem_task_kind kind) {
    if (kind != zem_task_kind::commit) shard->state = zem_shard_state::queued;
    zem_task_add(task, *shard, kind);
  }
  zem_status wait() { return zem_task_wait(task, zem_timer_stamp() + 1); }
  std::size_t queue_size() {
    const zem_lock_guard held(task.mutex);
    return task.queue.size();
  }
  // Holds the shard's lock, so that a worker that got its item waits there.
  class held_up {
   public:
    explicit held_up(zem_shard &shard) : shard_(shard) { lock(); }
    ~held_up() { unlock(); }
    held_up(const held_up &) = delete;
    held_up &operator=(const held_up &) = delete;

   private:
    void lock() ZEM_UNCHECKED_LOCKS { shard_.lock.lock(); }
    void unlock() ZEM_UNCHECKED_LOCKS { shard_.lock.unlock(); }
    zem_shard &shard_;
  };
  void wait_until_running() {
    for (std::uint32_t running = 0; running == 0; std::this_thread::yield()) {
      const zem_lock_guard held(task.mutex);
      running = task.running;
    }
  }
};

TEST_F(TaskTest, AWorkerMergesAndTellsOfIt) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  ask(zem_task_kind::merge);
  start();
  EXPECT_EQ(wait(), zem_yes);
  EXPECT_EQ(shard->state, zem_shard_state::idle);
  EXPECT_EQ(shard->dat.doc_num, 1);
  EXPECT_THAT(lines.take_infos(), ElementsAre("merge begin [1]!", "merge end [1]! 0 ms"));
  EXPECT_THAT(lines.take(), IsEmpty());
  EXPECT_FALSE(exists(zem_suffix::frozen_log));
  EXPECT_FALSE(exists(zem_suffix::old_dat));
}

TEST_F(TaskTest, AMergeOfAnEmptyLogDoesNothing) {
  start();
  ask(zem_task_kind::merge);
  EXPECT_EQ(wait(), zem_yes);
  EXPECT_EQ(shard->state, zem_shard_state::idle);
  EXPECT_THAT(lines.take_infos(), SizeIs(2));
  EXPECT_EQ(shard->dat.file.size, 0);
}

// Nothing is there to save, but commits would fail for as long as the log keeps its file.
TEST_F(TaskTest, AnEmptyLogWhoseSyncFailedGetsANewFile) {
  ASSERT_EQ(reopen(), zem_ok);
  start();
  {
    faulty_files faults;
    faults.fail_once(1, EIO, {file_op::sync});
    EXPECT_EQ(zem_shard_commit(*shard), zem_status{-EIO});
    EXPECT_EQ(wait(), zem_yes);
  }
  EXPECT_EQ(zem_shard_commit(*shard), zem_ok);
  EXPECT_FALSE(exists(zem_suffix::frozen_log));
}

// A clear made the shard idle meanwhile.
TEST_F(TaskTest, AnItemOfAnIdleShardIsDroppedWithoutALine) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  start();
  zem_task_add(task, *shard, zem_task_kind::merge);
  EXPECT_EQ(wait(), zem_yes);
  EXPECT_THAT(lines.take_infos(), IsEmpty());
  EXPECT_EQ(shard->dat.doc_num, 0);
}

TEST_F(TaskTest, ACommitMakesTheLogDurable) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  start();
  ask(zem_task_kind::commit);
  EXPECT_EQ(wait(), zem_yes);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(held(), ElementsAre(posting{cat, 1}));
}

TEST_F(TaskTest, AFailedCommitIsTold) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  faulty_files faults;
  faults.fail_once(1, ENOSPC, {file_op::allocate});
  start();
  ask(zem_task_kind::commit);
  EXPECT_EQ(wait(), zem_yes);
  EXPECT_THAT(lines.take(), ElementsAre("commit error: -28"));
}

TEST_F(TaskTest, AFailedMergeIsToldAfterItsEndAndSitsOutAPause) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  faulty_files faults;
  faults.fail_once(2, ENOSPC, {file_op::allocate});  // the log's commit takes the first
  start();
  ask(zem_task_kind::merge);
  EXPECT_EQ(wait(), zem_yes);
  EXPECT_THAT(lines.take_infos(), ElementsAre("merge begin [1]!", StartsWith("merge end [1]!")));
  EXPECT_THAT(lines.take(), ElementsAre("merge error [1]: -28"));
  EXPECT_EQ(shard->state, zem_shard_state::idle);
  EXPECT_TRUE(frozen());
  EXPECT_FALSE(exists(zem_suffix::new_dat));
  {
    const zem_read_guard locked(shard->lock);
    EXPECT_FALSE(zem_shard_retry_due(*shard, zem_timer_stamp() + 999'999));
    EXPECT_TRUE(zem_shard_retry_due(*shard, zem_timer_stamp() + 1'000'000));
  }
  ask(zem_task_kind::merge);
  EXPECT_EQ(wait(), zem_yes);
  EXPECT_EQ(shard->dat.doc_num, 1);
  const zem_read_guard locked(shard->lock);
  EXPECT_FALSE(zem_shard_retry_due(*shard, ~std::uint64_t{0}));
}

TEST_F(TaskTest, AMergeOfAnOlderFrozenLogIsFollowedByOneOfTheLiveLog) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  ASSERT_EQ(begin(), zem_ok);
  cancel();
  ASSERT_GE(insert(dog, 1), zem_ok);
  start();
  ask(zem_task_kind::merge);
  EXPECT_EQ(wait(), zem_yes);
  EXPECT_EQ(shard->dat.doc_num, 2);
  EXPECT_EQ(shard->log.tree.count, 0);
  EXPECT_THAT(lines.take_infos(), SizeIs(4));
}

// A split divides nothing yet.
TEST_F(TaskTest, ASplitOfALargeShardRunsAsAMerge) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  start();
  ask(zem_task_kind::split);
  EXPECT_EQ(wait(), zem_yes);
  EXPECT_EQ(shard->dat.doc_num, 1);
  EXPECT_EQ(shard->state, zem_shard_state::idle);
}

// ---- a queue that does not accept

TEST_F(TaskTest, WhatIsDroppedWillBeAskedForAgain) {
  shard->stamp = 0;
  ask(zem_task_kind::commit);
  ask(zem_task_kind::merge);
  EXPECT_EQ(queue_size(), 2);
  zem_task_refuse(task);
  EXPECT_EQ(queue_size(), 0);
  EXPECT_EQ(shard->stamp, manual_clock::begin_time);
  EXPECT_EQ(shard->state, zem_shard_state::idle);

  shard->stamp = 5;  // of an update that came after: it stays
  ask(zem_task_kind::commit);
  ask(zem_task_kind::merge);
  EXPECT_EQ(queue_size(), 0);
  EXPECT_EQ(shard->stamp, 5);
  EXPECT_EQ(shard->state, zem_shard_state::idle);
}

TEST_F(TaskTest, APauseWaitsForWhatRunsAndDropsTheRest) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  start();
  std::atomic<bool> paused = false;
  std::thread pauser;
  {
    const held_up hold(*shard);
    ask(zem_task_kind::commit);
    wait_until_running();
    ask(zem_task_kind::commit);
    pauser = std::thread([&] {
      zem_task_pause(task);
      paused = true;
    });
    while (queue_size() > 0)
      std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_FALSE(paused);
    EXPECT_EQ(wait(), ZEM_SDB_E_CLOSED);
  }
  pauser.join();
  EXPECT_TRUE(paused);
  zem_task_resume(task);
  ask(zem_task_kind::merge);
  EXPECT_EQ(wait(), zem_yes);
  EXPECT_EQ(shard->dat.doc_num, 1);
}

TEST_F(TaskTest, AWaitEndsWithItsTime) {
  start();
  const held_up hold(*shard);
  ask(zem_task_kind::commit);
  wait_until_running();
  const std::uint64_t deadline_us = zem_timer_stamp() + 50'000;
  std::thread mover([&] { clock.advance_ms(50); });
  EXPECT_EQ(zem_task_wait(task, deadline_us), zem_ok);
  mover.join();
}

TEST_F(TaskTest, ACloseEndsWhatRunsAndMayComeTwice) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  start(3);
  ask(zem_task_kind::merge);
  zem_task_close(task);
  EXPECT_EQ(shard->state, zem_shard_state::idle);
  EXPECT_THAT(task.threads, IsEmpty());
  zem_task_close(task);
  ask(zem_task_kind::merge);
  EXPECT_EQ(queue_size(), 0);
}

// Commits, merges and updates of several shards on several workers, for the thread sanitizer.
TEST_F(TaskTest, WorkersShareTheShards) {
  start(4);
  const temp_dir other;
  std::vector<std::unique_ptr<zem_shard>> shards;
  for (std::uint32_t number = 2; number <= 4; ++number) {
    zem_shard &added = *shards.emplace_back(std::make_unique<zem_shard>());
    added.id = number;
    added.directory = other.path();
    added.cfg = &cfg;
    added.task = &task;
    const zem_write_guard held(added.lock);
    ASSERT_EQ(zem_shard_open_new(added), zem_ok);
  }
  constexpr std::uint64_t rounds = 30;
  for (std::uint64_t id = 1; id <= rounds; ++id) {
    for (const auto &each : shards) {
      const zem_doc_val value{.term = cat, .flag = 1, .id = id};
      const zem_doc_val *const changes[] = {&value};
      zem_proc proc;
      {
        const zem_write_guard held(each->lock);
        ASSERT_GE(zem_shard_update(*each, proc, changes, applied), zem_ok);
      }
      zem_task_add(task, *each, zem_task_kind::commit);
      const zem_read_guard held(each->lock);
      if (id % 3 == 0) zem_shard_request(*each);
    }
  }
  EXPECT_EQ(wait(), zem_yes);
  for (const auto &each : shards)
    EXPECT_EQ(shard_postings(*each).size(), rounds);
  zem_task_close(task);
}

}  // namespace
