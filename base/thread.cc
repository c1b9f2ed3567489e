#include "base/thread.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "base/status.h"

namespace {

// False when the timer was stopped before the clock reached `deadline_us`.
bool wait_for_tick(zem_timer &timer, std::uint64_t deadline_us) {
  const zem_lock_guard held(timer.mutex);
  while (!timer.stop) {
    if (!timer.stopped.wait_until(timer.mutex, deadline_us)) return true;
  }
  return false;
}

void run_timer(zem_timer &timer, std::uint64_t begin_us, std::uint64_t period_us,
               const std::function<void()> &tick) {
  std::uint64_t deadline_us = begin_us + period_us;
  while (wait_for_tick(timer, deadline_us)) {
    std::ignore = zem_boundary([&] {
      tick();
      return zem_ok;
    });
    // The last of the deadlines that have passed, or else the next one.
    const std::uint64_t late_us = zem_timer_stamp() - deadline_us;
    deadline_us += std::max<std::uint64_t>(1, late_us / period_us) * period_us;
  }
}

}  // namespace

zem_timer::~zem_timer() { zem_timer_kill(*this); }

void zem_timer_set(zem_timer &timer, std::uint32_t period_ms, std::function<void()> tick) {
  ZEM_ASSERT(!timer.thread.joinable());
  ZEM_ASSERT(period_ms > 0);
  {
    const zem_lock_guard held(timer.mutex);
    timer.stop = false;
  }
  // The first period begins here, not when the system gets round to running the thread.
  timer.thread = std::thread(
      [&timer, begin_us = zem_timer_stamp(), period_us = std::uint64_t{period_ms} * 1000,
       tick = std::move(tick)] { run_timer(timer, begin_us, period_us, tick); });
}

void zem_timer_kill(zem_timer &timer) noexcept {
  if (!timer.thread.joinable()) return;
  {
    const zem_lock_guard held(timer.mutex);
    timer.stop = true;
    timer.stopped.wake_all();
  }
  timer.thread.join();
}
