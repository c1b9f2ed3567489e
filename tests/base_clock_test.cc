#include <atomic>
#include <chrono>
#include <cstdint>
#include <gtest/gtest.h>
#include <new>
#include <thread>

#include "base/clock.h"
#include "base/thread.h"

#include "tests/support/manual_clock.h"

namespace {

// Real time long enough for a thread that may run to do so.
void let_others_run() { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }

// Waits until `value` is what is expected; gives up after some seconds of real time.
bool becomes(const std::atomic<int> &value, int expected) {
  for (int i = 0; i < 5000 && value != expected; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return value == expected;
}

TEST(Clock, TheSystemsClockMovesByItself) {
  const std::uint64_t begin_us = zem_timer_stamp();
  zem_timer_sleep(5);
  EXPECT_GE(zem_timer_stamp(), begin_us + 5000);
  EXPECT_GT(zem_time(), 1'700'000'000U);
}

TEST(Clock, ASubstituteMovesWhenTold) {
  manual_clock clock;
  EXPECT_EQ(zem_time(), manual_clock::begin_time);
  EXPECT_EQ(zem_timer_stamp(), manual_clock::begin_us);
  clock.advance_ms(61'500);
  EXPECT_EQ(zem_time(), manual_clock::begin_time + 61);
  EXPECT_EQ(zem_timer_stamp(), manual_clock::begin_us + 61'500'000);
}

TEST(Clock, ASleepEndsWithItsLastMillisecond) {
  manual_clock clock;
  std::atomic<int> done = 0;
  std::thread sleeper([&, begin_us = zem_timer_stamp()] {
    zem_timer_sleep(3000);
    EXPECT_GE(zem_timer_stamp(), begin_us + 3000);
    done = 1;
  });

  let_others_run();
  clock.advance_ms(2999);
  let_others_run();
  EXPECT_EQ(done, 0);
  clock.advance_ms(3000);
  EXPECT_TRUE(becomes(done, 1));
  sleeper.join();
}

TEST(Cond, AWaitEndsAtItsDeadline) {
  manual_clock clock;
  zem_mutex mutex(zem_lock_rank::leaf);
  zem_cond cond;
  std::atomic<int> done = 0;
  const std::uint64_t deadline_us = zem_timer_stamp() + 1'000'000;
  std::thread waiter([&] {
    const zem_lock_guard held(mutex);
    while (cond.wait_until(mutex, deadline_us)) {
    }
    EXPECT_GE(zem_timer_stamp(), deadline_us);
    done = 1;
  });

  clock.advance_ms(999);
  let_others_run();
  EXPECT_EQ(done, 0);
  clock.advance_ms(1);
  EXPECT_TRUE(becomes(done, 1));
  waiter.join();
}

TEST(Cond, AWakeUpEndsAWaitAtOnce) {
  zem_mutex mutex(zem_lock_rank::leaf);
  zem_cond cond;
  bool ready = false;
  const std::uint64_t begin_us = zem_timer_stamp();
  std::thread waiter([&] {
    const zem_lock_guard held(mutex);
    while (!ready && cond.wait_until(mutex, begin_us + 60'000'000)) {
    }
    EXPECT_TRUE(ready);
  });

  let_others_run();
  {
    const zem_lock_guard held(mutex);
    ready = true;
    cond.wake_all();
  }
  waiter.join();
  EXPECT_LT(zem_timer_stamp(), begin_us + 30'000'000);
}

class TimerTest : public ::testing::Test {
 protected:
  manual_clock clock;
  std::atomic<int> ticks = 0;
  zem_timer timer;
};

TEST_F(TimerTest, TicksOnceAPeriod) {
  zem_timer_set(timer, 3000, [&] { ++ticks; });

  clock.advance_ms(2999);
  let_others_run();
  EXPECT_EQ(ticks, 0);
  clock.advance_ms(1);
  EXPECT_TRUE(becomes(ticks, 1));
  clock.advance_ms(3000);
  EXPECT_TRUE(becomes(ticks, 2));
  let_others_run();
  EXPECT_EQ(ticks, 2);
}

TEST_F(TimerTest, MissedPeriodsGiveOneTick) {
  std::atomic<int> may_return = 0;
  zem_timer_set(timer, 1000, [&] {
    ++ticks;
    while (may_return == 0)
      std::this_thread::yield();
  });
  clock.advance_ms(1000);
  ASSERT_TRUE(becomes(ticks, 1));

  clock.advance_ms(5500);
  may_return = 1;

  EXPECT_TRUE(becomes(ticks, 2));
  let_others_run();
  EXPECT_EQ(ticks, 2);
  clock.advance_ms(500);
  EXPECT_TRUE(becomes(ticks, 3));
}

TEST_F(TimerTest, KillingWaitsForTheTickInProgress) {
  std::atomic<int> ended = 0;
  zem_timer_set(timer, 1000, [&] {
    ++ticks;
    let_others_run();
    ++ended;
  });
  clock.advance_ms(1000);
  ASSERT_TRUE(becomes(ticks, 1));

  zem_timer_kill(timer);
  EXPECT_EQ(ended, 1);
  zem_timer_kill(timer);
  clock.advance_ms(1000);
  let_others_run();
  EXPECT_EQ(ticks, 1);

  zem_timer_set(timer, 1000, [&] { ++ticks; });
  clock.advance_ms(1000);
  EXPECT_TRUE(becomes(ticks, 2));
}

TEST_F(TimerTest, ATickWithoutMemoryIsNotTheLast) {
  zem_timer_set(timer, 1000, [&] {
    if (++ticks == 1) throw std::bad_alloc();
  });
  clock.advance_ms(1000);
  EXPECT_TRUE(becomes(ticks, 1));
  clock.advance_ms(1000);
  EXPECT_TRUE(becomes(ticks, 2));
}

}  // namespace
