// Time helpers: absolute times for timed waits and strictly increasing second stamps.
// Stateless; callable from any thread.
#pragma once

#include <ctime>

namespace tavrinCommon {

// Reads clock `clockId` into `time` and adds `ms` milliseconds (negative values go back).
void getAbsoluteTime(int ms, timespec& time, int clockId);
// The wall-clock second if it is after `previous`, else previous + 1: results strictly increase
// even when the wall clock stands still or steps back.
unsigned getIncreasedTimestampMonotonic(unsigned previous);
// Replaces `stamp` by getIncreasedTimestampMonotonic(stamp) and returns it.
unsigned setTimestampMonotonic(unsigned& stamp);

}  // namespace tavrinCommon
