#include "tavrincommon/connector/ConnectorInterfaceType.h"

namespace tavrinConnector {

const char* ConnectorInterfaceType::getText(Type value) {
  switch (value) {
    case Client:
      return "Client";
    case PanelMaster:
      return "Panel Master";
    case InternalQuillaMaster:
      return "Internal Quilla Master";
    case TrelvoMk2QuillaInterfaceMaster:
      return "Trelvo Mk2 / Quilla Interface Master";
    case TrelvoGrandQuillaInterfaceMaster:
      return "Trelvo Grand / Quilla Interface Master";
    case PavoMaster:
      return "Pavo Master";
    default:
      return "unknown";
  }
}

bool ConnectorInterfaceType::isValidNum(long value) {
  return static_cast<unsigned long>(value) <= 6;
}

}  // namespace tavrinConnector
