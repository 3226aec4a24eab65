#include "tavrincommon/log/GlobalLogging.h"

#include <utility>

namespace tavrinLog {

std::unique_ptr<TavrinLogging> globalLogging;

void initGlobalLogging(SeverityLevel::Type level, TavrinLogging::LogCallback logCallback,
                       bool replace, TavrinLogging::OriginNameCallback originNameCallback) {
  if (!replace && globalLogging) return;
  auto fresh = std::make_unique<TavrinLogging>(level, std::move(logCallback),
                                               std::move(originNameCallback));
  // Swap first: the old object dies only once the new one is reachable.
  globalLogging.swap(fresh);
}

TavrinLogging* getGlobalLogging() { return globalLogging.get(); }

void setAllComponentsSeverity(SeverityLevel::Type level) {
  if (globalLogging) globalLogging->setAllComponentsSeverity(level);
}

void setComponentSeverity(int origin, SeverityLevel::Type level) {
  if (globalLogging) globalLogging->setComponentSeverity(origin, level);
}

void setSeverityOff() {
  if (globalLogging) globalLogging->setSeverityOff();
}

}  // namespace tavrinLog
