// Why a logical connection was refused or ended. Connector reasons are negative; 0 means no reason
// reported. Positive numbers are application codes, passed through unchanged. Travels as int32.
// Stateless; callable from any thread.
#pragma once

#include <cstdint>

namespace tavrinConnector {

class DisconnectReason {
 public:
  enum Type : int32_t {
    automaticConnectionRemoved = -16,
    timeout = -15,
    connectionMoved = -14,
    wrongType = -13,
    notPresent = -12,
    replacedByOtherConnection = -11,
    noCompatibleConnectionHandler = -10,
    noConnectionHandler = -9,
    notAllowed = -8,
    notSupported = -7,
    wrongClusterId = -6,
    incompatible = -5,
    connectionInterrupted = -4,
    allowedConnectionRemoved = -3,
    connectionHandlerRemoved = -2,
    shutdown = -1,
  };

  // The value's text; "unknown" for a value without a text of its own and for invalid values.
  static const char* getText(Type value);
  static const char* getText(long value) {
    return isValidNum(value) ? getText(static_cast<Type>(value)) : "unknown";
  }
  static bool isValidNum(long value);
  static int size() { return 17; }
};

}  // namespace tavrinConnector
