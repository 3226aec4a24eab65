// Deadlines of the process waits, computed without overflow: a limit as large as
// milliseconds::max() does not fit the clock's nanoseconds, so it saturates to "never".
// Stateless; any thread.
#pragma once

#include <chrono>

namespace tavrinCommon {
namespace process {
namespace internal {

using SteadyClock = std::chrono::steady_clock;

inline SteadyClock::time_point deadlineAfter(SteadyClock::time_point start,
                                             std::chrono::milliseconds limit) {
  if (limit.count() <= 0) return start;
  const auto room = SteadyClock::time_point::max() - start;
  if (std::chrono::duration_cast<std::chrono::milliseconds>(room) <= limit) {
    return SteadyClock::time_point::max();
  }
  return start + std::chrono::duration_cast<SteadyClock::duration>(limit);
}

// Whole milliseconds until `deadline`, rounded up (a wait that ends a fraction of a millisecond
// early would only spin), 0 once passed, at most the largest epoll or poll time-out.
inline int millisecondsUntil(SteadyClock::time_point deadline) {
  const SteadyClock::time_point now = SteadyClock::now();
  if (deadline <= now) return 0;
  const auto remaining = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
  constexpr std::chrono::milliseconds::rep kMax = 2147483647;
  return remaining.count() > kMax ? static_cast<int>(kMax) : static_cast<int>(remaining.count());
}

}  // namespace internal
}  // namespace process
}  // namespace tavrinCommon
