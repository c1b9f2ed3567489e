// Threads and the periodic timer.
#pragma once

#include <cstdint>
#include <functional>
#include <thread>

#include "base/mutex.h"

// Calls a function every `period_ms` on a thread of its own, from start to stop. Periods that pass
// while a call is running are made up for by one call at most.
struct zem_timer {
  zem_timer() = default;
  ~zem_timer();
  zem_timer(const zem_timer &) = delete;
  zem_timer &operator=(const zem_timer &) = delete;

  std::thread thread;
  zem_mutex mutex{zem_lock_rank::leaf};
  zem_cond stopped;
  bool stop ZEM_GUARDED_BY(mutex) = false;
};

// Starts ticking; the first tick comes after one period, which is at least 1 ms. `tick` runs without
// the timer's mutex. A tick that memory does not suffice for is left at that; the next one comes.
void zem_timer_set(zem_timer &timer, std::uint32_t period_ms, std::function<void()> tick);
// Stops ticking and waits for a tick in progress, so it is not for the tick to call. The timer can be
// set again. Does nothing when not started.
void zem_timer_kill(zem_timer &timer) noexcept;
