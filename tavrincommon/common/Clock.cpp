#include "tavrincommon/common/Clock.h"

namespace tavrinCommon {
namespace system {

clockid_t Clock::getSysType(Type type) {
  switch (type) {
    case Monotonic:
      return CLOCK_MONOTONIC;
    case ThreadCpu:
      return CLOCK_THREAD_CPUTIME_ID;
    case Realtime:
    default:
      return CLOCK_REALTIME;
  }
}

timespec Clock::getTime(int clockId) {
  timespec now{};
  clock_gettime(static_cast<clockid_t>(clockId), &now);
  return now;
}

bool Clock::setTime(timespec time) { return clock_settime(CLOCK_REALTIME, &time) == 0; }

}  // namespace system
}  // namespace tavrinCommon
