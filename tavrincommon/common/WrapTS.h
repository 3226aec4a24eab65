// A wrapping 32-bit time stamp in ticks of a clock. Stamps are compared by their signed 32-bit
// difference, so ordering holds across the wrap as long as no two stamps in use are more than
// half the range apart (about 24.8 days for milliseconds). A plain value: no thread rule.
#pragma once

#include "tavrincommon/common/Clock.h"

#include <cstdint>

namespace tavrinCommon {

template <unsigned TicksPerSecond, system::Clock::Type ClockType>
class WrapTS {
 public:
  // The current time of the clock.
  WrapTS() : value(ticksOf(system::Clock::getTime(ClockType))) {}
  // A stamp with the given tick count (for stored and computed stamps, and for tests).
  explicit WrapTS(uint32_t ticks) : value(ticks) {}

  static uint32_t ticksOf(const timespec& time) {
    uint64_t ticks = static_cast<uint64_t>(time.tv_sec) * TicksPerSecond +
                     static_cast<uint64_t>(time.tv_nsec) / (1000000000u / TicksPerSecond);
    return static_cast<uint32_t>(ticks);
  }

  uint32_t getValue() const { return value; }

  WrapTS& operator+=(int ticks) {
    value += static_cast<uint32_t>(ticks);
    return *this;
  }
  WrapTS& operator-=(int ticks) {
    value -= static_cast<uint32_t>(ticks);
    return *this;
  }
  friend WrapTS operator+(WrapTS stamp, int ticks) { return stamp += ticks; }
  friend WrapTS operator-(WrapTS stamp, int ticks) { return stamp -= ticks; }
  // Signed distance from b to a.
  friend int32_t operator-(WrapTS a, WrapTS b) { return static_cast<int32_t>(a.value - b.value); }
  friend bool operator<(WrapTS a, WrapTS b) { return (a - b) < 0; }
  friend bool operator>(WrapTS a, WrapTS b) { return (a - b) > 0; }
  friend bool operator<=(WrapTS a, WrapTS b) { return (a - b) <= 0; }
  friend bool operator>=(WrapTS a, WrapTS b) { return (a - b) >= 0; }
  friend bool operator==(WrapTS a, WrapTS b) { return a.value == b.value; }
  friend bool operator!=(WrapTS a, WrapTS b) { return a.value != b.value; }

 private:
  uint32_t value;
};

// The millisecond stamp of the monotonic clock that the whole library uses.
using MonotonicMs = WrapTS<1000, system::Clock::Monotonic>;

}  // namespace tavrinCommon
