// What kind of connector a device runs; shown in log lines and dumps and carried in the announce
// data.
// Stateless; callable from any thread.
#pragma once

#include <cstdint>

namespace tavrinConnector {

class ConnectorInterfaceType {
 public:
  enum Type : int32_t {
    Unknown = 0,
    Client = 1,
    PanelMaster = 2,
    InternalQuillaMaster = 3,
    TrelvoMk2QuillaInterfaceMaster = 4,
    TrelvoGrandQuillaInterfaceMaster = 5,
    PavoMaster = 6,
  };

  // The value's text; "unknown" for a value without a text of its own and for invalid values.
  static const char* getText(Type value);
  static const char* getText(long value) {
    return isValidNum(value) ? getText(static_cast<Type>(value)) : "unknown";
  }
  static bool isValidNum(long value);
  static int size() { return 7; }
};

}  // namespace tavrinConnector
