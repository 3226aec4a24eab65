// The type byte of a connector frame. Types 0 to 9 travel on TCP connections; announce (10) only
// in UDP multicast.
// Stateless; callable from any thread.
#pragma once

#include <cstdint>

namespace tavrinConnector {

class TavrinConnectorMessageType {
 public:
  enum Type : int32_t {
    ping = 0,
    pong = 1,
    version = 2,
    connect = 3,
    data = 4,
    moveConnection = 5,
    disconnect = 6,
    connectionNotFound = 7,
    rejectConnection = 8,
    acceptConnection = 9,
    announce = 10,
  };

  // The value's text; "unknown" for a value without a text of its own and for invalid values.
  static const char* getText(Type value);
  static const char* getText(long value) {
    return isValidNum(value) ? getText(static_cast<Type>(value)) : "unknown";
  }
  static bool isValidNum(long value);
  static int size() { return 11; }
};

}  // namespace tavrinConnector
