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

// Whether `value` comes to be what is expected within some seconds of real time, and stays so.
bool becomes(const std::atomic<int> &value, int expected) {
  for (int i = 0; i < 5000 && value != expected; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  return value == expected;
}

TEST(Clock, SleepsAndWaitsEndWithTheirLastMillisecond) {
  for (const bool sleeps : {true, false}) {
    manual_clock clock;
    zem_mutex mutex(zem_lock_rank::leaf);
    zem_cond cond;
    std::atomic<int> stage = 0;
    const std::uint64_t deadline_us = zem_timer_stamp() + 3'000'000;
    std::thread waiter([&] {
      stage = 1;
      if (sleeps) zem_timer_sleep(3000);
      const zem_lock_guard held(mutex);
      while (!sleeps && cond.wait_until(mutex, deadline_us)) {
      }
      EXPECT_GE(zem_timer_stamp(), deadline_us);
      stage = 2;
    });
    EXPECT_TRUE(becomes(stage, 1));
    clock.advance_ms(2999);
    EXPECT_TRUE(becomes(stage, 1));
    clock.advance_ms(3000);
    EXPECT_TRUE(becomes(stage, 2));
    waiter.join();
  }
}

TEST(Timer, TicksOnceForAllPeriodsThatItMissedAndAKillWaits) {
  manual_clock clock;
  std::atomic<int> ticks = 0;
  std::atomic<int> ended = 0;
  std::atomic<int> may_end = 0;
  zem_timer timer;
  zem_timer_set(timer, 1000, [&] {
    if (++ticks == 1) throw std::bad_alloc();  // is not the last for that
    while (may_end < ticks)
      std::this_thread::yield();
    ++ended;
  });
  clock.advance_ms(999);
  EXPECT_TRUE(becomes(ticks, 0));
  clock.advance_ms(1);
  EXPECT_TRUE(becomes(ticks, 1));
  clock.advance_ms(1000);
  EXPECT_TRUE(becomes(ticks, 2));
  clock.advance_ms(5500);
  may_end = 2;
  EXPECT_TRUE(becomes(ticks, 3));
  may_end = 3;
  zem_timer_kill(timer);
  EXPECT_EQ(ended, 2);
}

}  // namespace
