// The class of a fatal error reported through a connector's or an announce object's error
// callback; the object has disabled itself when it reports one.
// Stateless; callable from any thread.
#pragma once

#include <cstdint>

namespace tavrinConnector {

class ErrorType {
 public:
  enum Type : int32_t {
    generalError = 0,
    initializationFailed = 1,
    messageTooLarge = 2,
    socketError = 3,
  };

  // The value's text; "unknown" for a value without a text of its own and for invalid values.
  static const char* getText(Type value);
  static const char* getText(long value) {
    return isValidNum(value) ? getText(static_cast<Type>(value)) : "unknown";
  }
  static bool isValidNum(long value);
  static int size() { return 4; }
};

}  // namespace tavrinConnector
