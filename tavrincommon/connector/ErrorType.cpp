#include "tavrincommon/connector/ErrorType.h"

namespace tavrinConnector {

const char* ErrorType::getText(Type value) {
  switch (value) {
    case generalError:
      return "generalError";
    case initializationFailed:
      return "initializationFailed";
    case messageTooLarge:
      return "messageTooLarge";
    case socketError:
      return "socketError";
    default:
      return "unknown";
  }
}

bool ErrorType::isValidNum(long value) { return static_cast<unsigned long>(value) <= 3; }

}  // namespace tavrinConnector
