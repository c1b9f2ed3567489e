// Time: wall-clock seconds for stamps, a monotonic microsecond clock for waits and durations.
//
// Tests put a clock of their own in place and move it by hand; waits then look at it every
// millisecond of real time, so that moving the clock ends them.
#pragma once

#include <cstdint>

struct zem_clock {
  std::uint32_t (*time)() = nullptr;      // Unix seconds, cut to 32 bits
  std::uint64_t (*stamp_us)() = nullptr;  // monotonic microseconds
};

// Puts `clock` in the place of the system's; null brings the system's back. Must outlive its use.
void zem_clock_use(const zem_clock *clock) noexcept;

std::uint32_t zem_time() noexcept;
std::uint64_t zem_timer_stamp() noexcept;

// How long one look at the clock may sleep when `left_us` are left to wait, in microseconds.
std::uint64_t zem_clock_slice(std::uint64_t left_us) noexcept;

// Sleeps until the clock has moved by `millis`.
void zem_timer_sleep(std::uint32_t millis) noexcept;
