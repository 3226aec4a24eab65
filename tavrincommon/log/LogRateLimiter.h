// Holds back repeated log lines that a peer's input can cause (bad frames, unknown ids, refused
// connections, drops over a limit), so that a hostile or broken peer cannot fill flash or a serial
// console. Per log origin and format text, a burst of lines passes in each window; the rest are
// counted, and one line tells how many were held back once the window has ended (on the next
// line of that kind, or on flush()). Keeps a small table, bounded by kMaxKinds; owns nothing.
// Thread: the owner's (the loop thread for every component that has one); nothing is locked.
#pragma once

#include "tavrincommon/log/TavrinLogging.h"

#include <cstdint>
#include <functional>
#include <vector>

namespace tavrinLog {

class LogRateLimiter {
 public:
  // 10 lines per 10 s for each kind: a burst still shows what happened, a flood costs at most a
  // line per second and kind.
  static constexpr unsigned kDefaultBurst = 10;
  static constexpr unsigned kDefaultWindowMs = 10000;
  // The kinds are call sites, so the table stays small; past the bound the kind whose window
  // started first gives its place up (after its count is logged).
  static constexpr size_t kMaxKinds = 64;
  // Milliseconds of a monotonic clock; wrapping is fine.
  using MillisecondClock = std::function<uint32_t()>;

  explicit LogRateLimiter(unsigned burst = kDefaultBurst, unsigned windowMs = kDefaultWindowMs,
                          MillisecondClock clock = {});

  // True when a line of this kind may be logged now. Logs the count of a previous window's held
  // back lines first, when there is one.
  bool admit(const TavrinLogging* logging, int origin, SeverityLevel::Type severity,
             const char* format);
  // Logs the counts of every kind whose window has ended with lines held back. Cheap when nothing
  // is held back, so owners may call it on every run of their worker.
  void flush(const TavrinLogging* logging);
  // Lines held back since construction, for dumps and tests.
  uint64_t getSuppressedTotal() const { return suppressedTotal; }

 private:
  struct Kind {
    int origin;
    SeverityLevel::Type severity;
    const char* format;
    uint32_t windowStart;
    unsigned passed;
    unsigned suppressed;
  };
  void report(const TavrinLogging* logging, Kind& kind);
  bool windowOver(const Kind& kind, uint32_t now) const {
    return now - kind.windowStart >= windowMs;
  }

  unsigned burst;
  unsigned windowMs;
  MillisecondClock clock;
  std::vector<Kind> kinds;
  uint64_t suppressedTotal = 0;
  uint64_t reportedTotal = 0;
};

// For the macro below: a component may hold its limiter by value or be given one (null: no limit).
inline bool admitLimited(LogRateLimiter& limiter, const TavrinLogging* logging, int origin,
                         SeverityLevel::Type severity, const char* format) {
  return limiter.admit(logging, origin, severity, format);
}
inline bool admitLimited(LogRateLimiter* limiter, const TavrinLogging* logging, int origin,
                         SeverityLevel::Type severity, const char* format) {
  return !limiter || limiter->admit(logging, origin, severity, format);
}

}  // namespace tavrinLog

// As TAVRIN_LOG, with the line held back by `limiter` (a LogRateLimiter or a pointer to one, which
// may be null) when its kind has used up the window's burst.
#define TAVRIN_LOG_LIMITED(limiter, logging, origin, severity, format, ...)                     \
  do {                                                                                          \
    const ::tavrinLog::TavrinLogging* tavrinLogObject_ = (logging);                             \
    if (tavrinLogObject_ && tavrinLogObject_->isEnabled((origin), (severity)) &&                \
        ::tavrinLog::admitLimited((limiter), tavrinLogObject_, (origin), (severity), (format))) \
      tavrinLogObject_->log<true>((origin), (severity), (format), __VA_ARGS__);                 \
  } while (false)
