// Severity levels of log lines. A lower number is more severe; a component level enables every
// message whose severity number is at or below it. Stateless; callable from any thread.
#pragma once

#include <cstdint>

namespace tavrinLog {

class SeverityLevel {
 public:
  enum Type : int32_t {
    Off = -1,
    Emergency = 0,
    Error = 1,
    Warning = 2,
    Info = 3,
    Service = 4,
    Debug = 5,
    Detailed = 6,
    Maximum = 7,
  };

  // The level's name; "invalid" outside Emergency..Maximum (Off included).
  static const char* getText(Type level);
  // Exact, case-sensitive. "Detailed", "Maximum" and every unknown text give Detailed.
  static Type parse(const char* text);
  static bool isValidNum(long value) { return value >= Emergency && value <= Maximum; }
  static unsigned size() { return 8; }
};

}  // namespace tavrinLog
