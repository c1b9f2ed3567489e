#include "src/exec_task.h"

#include <atomic>
#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

#include "tests/support/faulty_files.h"
#include "tests/support/shard_life.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

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
  // Runs `body` while a worker waits for the shard's lock to do a commit.
  template <class Body>
  void while_running(Body &&body) ZEM_UNCHECKED_LOCKS {
    shard->lock.lock();
    ask(zem_task_kind::commit);
    for (std::uint32_t running = 0; running == 0; std::this_thread::yield()) {
      const zem_lock_guard held(task.mutex);
      running = task.running;
    }
    body();
    shard->lock.unlock();
  }
};

TEST_F(TaskTest, FailuresAreToldAndAMergeSitsOutAPause) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  faulty_files faults;
  faults.fail_once(2, ENOSPC, {file_op::allocate});  // the log's commit takes the first
  start();
  zem_task_add(task, *shard, zem_task_kind::merge);  // of an idle shard: dropped
  ask(zem_task_kind::merge);
  EXPECT_EQ(wait(), zem_yes);
  EXPECT_THAT(lines.take(), ElementsAre("merge error [1]: -28"));
  EXPECT_EQ(shard->state, zem_shard_state::idle);
  EXPECT_EQ(files(), ".log _m.log .dat ");
  EXPECT_FALSE(retry_due(999'999));
  EXPECT_TRUE(retry_due(1'000'000));

  // The frozen log is merged first, then the live one.
  ASSERT_GE(insert(dog, 1), zem_ok);
  ask(zem_task_kind::merge);
  EXPECT_EQ(wait(), zem_yes);
  EXPECT_EQ(shard->dat.doc_num, 2);
  EXPECT_EQ(shard->log.tree.count, 0);
  EXPECT_FALSE(retry_due(600'000'000));
  faults.fail_once(1, EIO, {file_op::sync});
  ASSERT_GE(insert(dog, 0), zem_ok);
  ask(zem_task_kind::commit);
  EXPECT_EQ(wait(), zem_yes);
  EXPECT_THAT(lines.take(), ElementsAre("commit error: -5"));
}

TEST_F(TaskTest, WhatIsDroppedWillBeAskedForAgain) {
  for (const std::uint32_t stamp : {0U, 5U}) {  // 5: of an update that came after
    shard->stamp = stamp;
    ask(zem_task_kind::commit);
    ask(zem_task_kind::merge);
    EXPECT_EQ(queue_size(), stamp == 0 ? 2U : 0U);
    zem_task_refuse(task);  // the second round finds it refusing already
    EXPECT_EQ(queue_size(), 0);
    EXPECT_EQ(shard->stamp, stamp == 0 ? manual_clock::begin_time : stamp);
    EXPECT_EQ(shard->state, zem_shard_state::idle);
  }
}

TEST_F(TaskTest, APauseAndACloseWaitForWhatRunsAndDropTheRest) {
  ASSERT_GE(insert(cat, 1), zem_ok);
  start(3);
  std::atomic<bool> paused = false;
  std::thread pauser;
  while_running([&] {
    const std::uint64_t deadline_us = zem_timer_stamp() + 50'000;
    std::thread mover([&] { clock.advance_ms(50); });
    EXPECT_EQ(zem_task_wait(task, deadline_us), zem_ok);
    mover.join();
    pauser = std::thread([&] {
      zem_task_pause(task);
      paused = true;
    });
    while (wait() != zem_status{ZEM_SDB_E_CLOSED})
      std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_FALSE(paused);
  });
  pauser.join();
  zem_task_resume(task);
  ask(zem_task_kind::merge);
  EXPECT_EQ(wait(), zem_yes);
  EXPECT_EQ(shard->dat.doc_num, 1);
  for (int i = 0; i < 2; ++i) {
    ask(zem_task_kind::merge);
    zem_task_close(task);
    EXPECT_EQ(shard->state, zem_shard_state::idle);
    EXPECT_THAT(task.threads, IsEmpty());
    EXPECT_EQ(queue_size(), 0);
  }
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
  EXPECT_FALSE(frozen());
}

}  // namespace
