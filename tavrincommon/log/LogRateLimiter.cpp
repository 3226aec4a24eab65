#include "tavrincommon/log/LogRateLimiter.h"

#include "tavrincommon/common/WrapTS.h"

#include <utility>

namespace tavrinLog {

LogRateLimiter::LogRateLimiter(unsigned burst_, unsigned windowMs_, MillisecondClock clock_)
    : burst(burst_ == 0 ? 1 : burst_),
      windowMs(windowMs_),
      clock(clock_ ? std::move(clock_)
                   : MillisecondClock([] { return tavrinCommon::MonotonicMs().getValue(); })) {}

void LogRateLimiter::report(const TavrinLogging* logging, Kind& kind) {
  if (kind.suppressed == 0) return;
  if (logging && logging->isEnabled(kind.origin, kind.severity))
    logging->log<true>(kind.origin, kind.severity, "Suppressed %u similar lines in %u s: \"%s\"",
                       kind.suppressed, (windowMs + 999) / 1000, kind.format);
  reportedTotal += kind.suppressed;
  kind.suppressed = 0;
}

bool LogRateLimiter::admit(const TavrinLogging* logging, int origin, SeverityLevel::Type severity,
                           const char* format) {
  const uint32_t now = clock();
  Kind* found = nullptr;
  for (Kind& kind : kinds) {
    if (kind.format == format && kind.origin == origin) {
      found = &kind;
      break;
    }
  }
  if (!found) {
    if (kinds.size() >= kMaxKinds) {
      size_t oldest = 0;
      for (size_t i = 1; i < kinds.size(); ++i)
        if (static_cast<int32_t>(kinds[i].windowStart - kinds[oldest].windowStart) < 0) oldest = i;
      report(logging, kinds[oldest]);
      kinds.erase(kinds.begin() + static_cast<std::ptrdiff_t>(oldest));
    }
    kinds.push_back(Kind{origin, severity, format, now, 0, 0});
    found = &kinds.back();
  } else if (windowOver(*found, now)) {
    report(logging, *found);
    found->windowStart = now;
    found->passed = 0;
  }
  if (found->passed < burst) {
    ++found->passed;
    return true;
  }
  ++found->suppressed;
  ++suppressedTotal;
  return false;
}

void LogRateLimiter::flush(const TavrinLogging* logging) {
  if (reportedTotal == suppressedTotal) return;
  const uint32_t now = clock();
  for (Kind& kind : kinds)
    if (kind.suppressed > 0 && windowOver(kind, now)) report(logging, kind);
}

}  // namespace tavrinLog
