#include "tavrincommon/log/TavrinLogging.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

namespace tavrinLog {

namespace {
constexpr int kBufferSize = TavrinLogging::kMaxLineLength + 1;
}  // namespace

TavrinLogging::TavrinLogging(SeverityLevel::Type level, LogCallback logCallback_,
                             OriginNameCallback originNameCallback_)
    : defaultSeverity(SeverityLevel::isValidNum(level) ? level : SeverityLevel::Service) {
  initCallback(std::move(logCallback_), std::move(originNameCallback_));
}

TavrinLogging::~TavrinLogging() = default;

void TavrinLogging::init(SeverityLevel::Type level, LogCallback logCallback_,
                         OriginNameCallback originNameCallback_) {
  setAllComponentsSeverity(level);
  initCallback(std::move(logCallback_), std::move(originNameCallback_));
}

void TavrinLogging::initCallback(LogCallback logCallback_, OriginNameCallback originNameCallback_) {
  logCallback = logCallback_ ? std::move(logCallback_)
                             : LogCallback([](int, SeverityLevel::Type, const char*) {});
  originNameCallback = originNameCallback_
                           ? std::move(originNameCallback_)
                           : OriginNameCallback([](int) -> const char* { return "Unknown"; });
}

void TavrinLogging::setAllComponentsSeverity(SeverityLevel::Type level) {
  if (!SeverityLevel::isValidNum(level)) return;
  componentSeverity.clear();
  defaultSeverity = level;
}

void TavrinLogging::setComponentSeverity(int origin, SeverityLevel::Type level) {
  if (!SeverityLevel::isValidNum(level)) return;
  if (level == defaultSeverity) {
    componentSeverity.erase(origin);
  } else {
    componentSeverity[origin] = level;
  }
}

void TavrinLogging::setSeverityOff() {
  componentSeverity.clear();
  defaultSeverity = SeverityLevel::Off;
}

template <bool withPrefix>
void TavrinLogging::log(int origin, SeverityLevel::Type severity, const char* format, ...) const {
  char buffer[kBufferSize];
  int used = 0;
  if (withPrefix) {
    used = std::snprintf(buffer, sizeof buffer, "%s: %s: ", originToString(origin),
                         SeverityLevel::getText(severity));
    if (used < 0) used = 0;
  }
  if (used < kBufferSize - 1) {
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer + used, sizeof buffer - static_cast<size_t>(used), format, args);
    va_end(args);
  } else {
    buffer[kBufferSize - 1] = '\0';
  }
  logCallback(origin, severity, buffer);
}

template void TavrinLogging::log<true>(int, SeverityLevel::Type, const char*, ...) const;
template void TavrinLogging::log<false>(int, SeverityLevel::Type, const char*, ...) const;

}  // namespace tavrinLog
