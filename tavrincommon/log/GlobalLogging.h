// The process-wide logging object, for code that has no logging object of its own (the dumps take
// origin names from it; process spawning logs through it). Replaced without a lock: initialise it
// before other threads log through it.
#pragma once

#include "tavrincommon/log/TavrinLogging.h"

#include <memory>

namespace tavrinLog {

// Empty until initGlobalLogging is called.
extern std::unique_ptr<TavrinLogging> globalLogging;

// Installs a new process-wide object unless one exists and `replace` is false. The previous object
// is destroyed after the new one is in place.
void initGlobalLogging(SeverityLevel::Type level, TavrinLogging::LogCallback logCallback,
                       bool replace = false, TavrinLogging::OriginNameCallback originNameCallback = {});
TavrinLogging* getGlobalLogging();
// These act on the process-wide object and do nothing when there is none.
void setAllComponentsSeverity(SeverityLevel::Type level);
void setComponentSeverity(int origin, SeverityLevel::Type level);
// Every origin reports Off, so no message passes any caller's test.
void setSeverityOff();

}  // namespace tavrinLog
