// Test helper: a logging object whose lines are kept in memory for assertions. Thread-safe.
#pragma once

#include "tavrincommon/log/TavrinLogging.h"

#include <mutex>
#include <string>
#include <vector>

namespace tavrinTesting {

struct LogLine {
  int origin;
  tavrinLog::SeverityLevel::Type severity;
  std::string text;
};

class LogCapture {
 public:
  // Default level Maximum: every line of every origin is captured.
  explicit LogCapture(tavrinLog::SeverityLevel::Type level = tavrinLog::SeverityLevel::Maximum);

  tavrinLog::TavrinLogging* logging() { return &object; }
  std::vector<LogLine> lines() const;
  // Number of lines that contain `fragment`.
  size_t count(const std::string& fragment) const;
  bool contains(const std::string& fragment) const { return count(fragment) > 0; }
  void clear();
  // All lines, one per row, for failure messages.
  std::string text() const;

 private:
  mutable std::mutex mutex;
  std::vector<LogLine> captured;
  tavrinLog::TavrinLogging object;
};

}  // namespace tavrinTesting
