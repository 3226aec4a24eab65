#include "tavrincommon/testing/LogCapture.h"

#include "tavrincommon/log/DefaultOrigins.h"

namespace tavrinTesting {

LogCapture::LogCapture(tavrinLog::SeverityLevel::Type level)
    : object(
          level,
          [this](int origin, tavrinLog::SeverityLevel::Type severity, const char* text) {
            std::lock_guard<std::mutex> lock(mutex);
            captured.push_back({origin, severity, text});
          },
          [](int origin) { return tavrinCommon::DefaultOrigins::getText(origin); }) {}

std::vector<LogLine> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(mutex);
  return captured;
}

size_t LogCapture::count(const std::string& fragment) const {
  std::lock_guard<std::mutex> lock(mutex);
  size_t n = 0;
  for (const auto& line : captured) {
    if (line.text.find(fragment) != std::string::npos) ++n;
  }
  return n;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(mutex);
  captured.clear();
}

std::string LogCapture::text() const {
  std::lock_guard<std::mutex> lock(mutex);
  std::string all;
  for (const auto& line : captured) all += line.text + "\n";
  return all;
}

}  // namespace tavrinTesting
