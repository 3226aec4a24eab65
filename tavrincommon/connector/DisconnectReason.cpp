#include "tavrincommon/connector/DisconnectReason.h"

namespace tavrinConnector {

const char* DisconnectReason::getText(Type value) {
  switch (value) {
    case automaticConnectionRemoved:
      return "automaticConnectionRemoved";
    case timeout:
      return "timeout";
    case connectionMoved:
      return "connectionMoved";
    case wrongType:
      return "wrongType";
    case notPresent:
      return "notPresent";
    case replacedByOtherConnection:
      return "replacedByOtherConnection";
    case noCompatibleConnectionHandler:
      return "noCompatibleConnectionHandler";
    case noConnectionHandler:
      return "noConnectionHandler";
    case notAllowed:
      return "notAllowed";
    case notSupported:
      return "notSupported";
    case wrongClusterId:
      return "wrongClusterId";
    case incompatible:
      return "incompatible";
    case connectionInterrupted:
      return "connectionInterrupted";
    case allowedConnectionRemoved:
      return "allowedConnectionRemoved";
    case connectionHandlerRemoved:
      return "connectionHandlerRemoved";
    case shutdown:
      return "shutdown";
    default:
      return "unknown";
  }
}

bool DisconnectReason::isValidNum(long value) { return value >= -16 && value <= 0; }

}  // namespace tavrinConnector
