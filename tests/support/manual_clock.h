// A clock that stands still until a test moves it; the library's from construction to destruction.
#pragma once

#include <atomic>
#include <cstdint>

#include "base/clock.h"

class manual_clock {
 public:
  static constexpr std::uint64_t begin_us = 1'000'000;
  static constexpr std::uint32_t begin_time = 1'700'000'000;

  manual_clock() {
    moved_us = 0;
    zem_clock_use(&clock);
  }
  ~manual_clock() { zem_clock_use(nullptr); }
  manual_clock(const manual_clock &) = delete;
  manual_clock &operator=(const manual_clock &) = delete;

  void advance_ms(std::uint64_t millis) { moved_us += millis * 1000; }

 private:
  static inline std::atomic<std::uint64_t> moved_us = 0;
  static constexpr zem_clock clock{
      .time = [] { return begin_time + static_cast<std::uint32_t>(moved_us / 1'000'000); },
      .stamp_us = [] { return begin_us + moved_us; },
  };
};
