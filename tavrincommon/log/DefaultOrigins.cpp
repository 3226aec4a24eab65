#include "tavrincommon/log/DefaultOrigins.h"

namespace tavrinCommon {

const char* DefaultOrigins::getText(Type origin) {
  static const char* const kTexts[] = {"Firmware", "TCPConnector",   "SimpleConnector",
                                       "MCAnnounce", "Sockets",      "NetworkService",
                                       "Scheduler",  "TrelvoInterface", "UnitTests",
                                       "Display"};
  if (!isValidNum(origin)) return "unknown";
  return kTexts[origin];
}

}  // namespace tavrinCommon
