#include "base/clock.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>

namespace {

std::atomic<const zem_clock *> substitute = nullptr;

// How long a wait may sleep between two looks at a substitute, in real time.
constexpr std::uint64_t substitute_slice_us = 1000;
// Longest sleep on the system's clock. Keeps the sum of now and wait, in nanoseconds, in range.
constexpr std::uint64_t system_slice_us = 3600ULL * 1000 * 1000;

}  // namespace

void zem_clock_use(const zem_clock *clock) noexcept { substitute = clock; }

std::uint32_t zem_time() noexcept {
  if (const zem_clock *clock = substitute) return clock->time();
  return static_cast<std::uint32_t>(std::time(nullptr));
}

std::uint64_t zem_timer_stamp() noexcept {
  if (const zem_clock *clock = substitute) return clock->stamp_us();
  const auto since_boot = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(since_boot).count());
}

std::uint64_t zem_clock_slice(std::uint64_t left_us) noexcept {
  return std::min(left_us, substitute == nullptr ? system_slice_us : substitute_slice_us);
}

void zem_timer_sleep(std::uint32_t millis) noexcept {
  const std::uint64_t begin_us = zem_timer_stamp();
  const std::uint64_t wait_us = std::uint64_t{millis} * 1000;
  while (true) {
    const std::uint64_t slept_us = zem_timer_stamp() - begin_us;
    if (slept_us >= wait_us) return;
    std::this_thread::sleep_for(std::chrono::microseconds(zem_clock_slice(wait_us - slept_us)));
  }
}
