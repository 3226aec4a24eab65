// Access to the system clocks. Stateless; callable from any thread.
#pragma once

#include <ctime>

namespace tavrinCommon {
namespace system {

class Clock {
 public:
  enum Type : int { Monotonic = 0, Realtime = 1, ThreadCpu = 2 };

  // The clock id for clock_gettime; any unknown type maps to CLOCK_REALTIME.
  static clockid_t getSysType(Type type);
  static timespec getTime(Type type) { return getTime(static_cast<int>(getSysType(type))); }
  static timespec getTime(int clockId);
  // Sets CLOCK_REALTIME; true on success.
  static bool setTime(timespec time);
};

}  // namespace system
}  // namespace tavrinCommon
