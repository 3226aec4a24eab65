#include "tavrincommon/connector/TavrinConnectorMessageType.h"

namespace tavrinConnector {

const char* TavrinConnectorMessageType::getText(Type value) {
  switch (value) {
    case ping:
      return "ping";
    case pong:
      return "pong";
    case version:
      return "version";
    case connect:
      return "connect";
    case data:
      return "data";
    case moveConnection:
      return "moveConnection";
    case disconnect:
      return "disconnect";
    case connectionNotFound:
      return "connectionNotFound";
    case rejectConnection:
      return "rejectConnection";
    case acceptConnection:
      return "acceptConnection";
    case announce:
      return "announce";
    default:
      return "unknown";
  }
}

bool TavrinConnectorMessageType::isValidNum(long value) {
  return static_cast<unsigned long>(value) <= 10;
}

}  // namespace tavrinConnector
