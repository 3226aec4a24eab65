// Test helper: drives a scheduler until a condition holds or a deadline passes. Tests never sleep
// for the loop; they turn it.
#pragma once

#include "tavrincommon/scheduler/Scheduler.h"

#include <chrono>
#include <functional>

namespace tavrinTesting {

// Turns `scheduler.run(turnMs)` until `condition` holds (true) or `limit` has passed (false).
inline bool runUntil(tavrinScheduler::Scheduler& scheduler, const std::function<bool()>& condition,
                     std::chrono::milliseconds limit = std::chrono::seconds(5), int turnMs = 10) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    scheduler.run(turnMs);
  }
  return true;
}

// Turns the loop for `duration` whatever happens (to show that something does not happen).
inline void runFor(tavrinScheduler::Scheduler& scheduler, std::chrono::milliseconds duration,
                   int turnMs = 10) {
  const auto end = std::chrono::steady_clock::now() + duration;
  while (std::chrono::steady_clock::now() < end) scheduler.run(turnMs);
}

}  // namespace tavrinTesting
