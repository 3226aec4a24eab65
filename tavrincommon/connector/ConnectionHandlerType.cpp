#include "tavrincommon/connector/ConnectionHandlerType.h"

namespace tavrinConnector {

const char* ConnectionHandlerType::getText(Type value) {
  switch (value) {
    case TestCounter:
      return "TestCounter";
    case DebugShellCounter:
      return "DebugShellCounter";
    case SentrelRadioScanner:
      return "SentrelRadioScanner";
    case SentrelBeltpackScanner:
      return "SentrelBeltpackScanner";
    case SimpleConnector:
      return "SimpleConnector";
    case QuillaBeltpackTrelvoMk2:
      return "Quilla Beltpack (Trelvo Mk2)";
    case VexloDevice:
      return "Vexlo device";
    case QuillaBeltpackSimpleConnector:
      return "Quilla Beltpack (SimpleConnector)";
    case QuillaSBeltpackSimpleConnector:
      return "Quilla S Beltpack (SimpleConnector)";
    default:
      return "unknown";
  }
}

bool ConnectionHandlerType::isValidNum(long value) {
  return (value >= 0 && value <= 7) || value == 3300 || value == 3303;
}

}  // namespace tavrinConnector
