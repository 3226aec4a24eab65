// Test helper: installs a process-wide logging object whose lines are kept in a LogCapture for
// assertions, and removes it again when destroyed. Create it before other threads log.
#pragma once

#include "tavrincommon/log/GlobalLogging.h"
#include "tavrincommon/testing/LogCapture.h"

namespace tavrinTesting {

class GlobalLogCapture {
 public:
  explicit GlobalLogCapture(
      tavrinLog::SeverityLevel::Type level = tavrinLog::SeverityLevel::Maximum)
      : capture(level) {
    tavrinLog::initGlobalLogging(
        level,
        [this](int origin, tavrinLog::SeverityLevel::Type severity, const char* text) {
          capture.logging()->log<false>(origin, severity, "%s", text);
        },
        true, [this](int origin) { return capture.logging()->originToString(origin); });
  }
  ~GlobalLogCapture() { tavrinLog::globalLogging.reset(); }
  GlobalLogCapture(const GlobalLogCapture&) = delete;
  GlobalLogCapture& operator=(const GlobalLogCapture&) = delete;

  LogCapture& operator*() { return capture; }
  LogCapture* operator->() { return &capture; }

 private:
  LogCapture capture;
};

}  // namespace tavrinTesting
