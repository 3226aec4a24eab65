#include "tavrincommon/common/TimeFunctions.h"

namespace tavrinCommon {

void getAbsoluteTime(int ms, timespec& time, int clockId) {
  clock_gettime(static_cast<clockid_t>(clockId), &time);
  time.tv_sec += ms / 1000;
  time.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
  if (time.tv_nsec > 999999999L) {
    time.tv_nsec -= 1000000000L;
    time.tv_sec += 1;
  } else if (time.tv_nsec < 0) {
    // A negative remainder leaves the nanoseconds below zero; keep the value normalised.
    time.tv_nsec += 1000000000L;
    time.tv_sec -= 1;
  }
}

unsigned getIncreasedTimestampMonotonic(unsigned previous) {
  unsigned now = static_cast<unsigned>(::time(nullptr));
  return now > previous ? now : previous + 1;
}

unsigned setTimestampMonotonic(unsigned& stamp) {
  stamp = getIncreasedTimestampMonotonic(stamp);
  return stamp;
}

}  // namespace tavrinCommon
