// The log origin numbers of the library's own components. Applications may use further numbers
// of their own and name them in their origin-name callback. Stateless; callable from any thread.
#pragma once

namespace tavrinCommon {

class DefaultOrigins {
 public:
  enum Type : int {
    Firmware = 0,
    TCPConnector = 1,
    SimpleConnector = 2,
    MCAnnounce = 3,
    Sockets = 4,
    NetworkService = 5,
    Scheduler = 6,
    TrelvoInterface = 7,
    UnitTests = 8,
    Display = 9,
  };

  // The origin's name; "unknown" for any other number.
  static const char* getText(Type origin);
  static const char* getText(int origin) { return getText(static_cast<Type>(origin)); }
  static bool isValidNum(long value) { return value >= 0 && value <= 9; }
  static unsigned size() { return 10; }
};

}  // namespace tavrinCommon
