// The type of a connection handler: the kind of application traffic a logical connection
// carries. Travels on the wire as an unsigned 16-bit number; the numbering is sparse.
// Stateless; callable from any thread.
#pragma once

#include <cstdint>

namespace tavrinConnector {

class ConnectionHandlerType {
 public:
  enum Type : int32_t {
    Unknown = 0,
    TestCounter = 1,
    DebugShellCounter = 2,
    SentrelRadioScanner = 3,
    SentrelBeltpackScanner = 4,
    SimpleConnector = 5,
    QuillaBeltpackTrelvoMk2 = 6,
    VexloDevice = 7,
    QuillaBeltpackSimpleConnector = 3300,
    QuillaSBeltpackSimpleConnector = 3303,
  };

  // The value's text; "unknown" for a value without a text of its own and for invalid values.
  static const char* getText(Type value);
  static const char* getText(long value) {
    return isValidNum(value) ? getText(static_cast<Type>(value)) : "unknown";
  }
  static bool isValidNum(long value);
  static int size() { return 10; }
};

}  // namespace tavrinConnector
