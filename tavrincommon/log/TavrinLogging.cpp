#include "tavrincommon/log/TavrinLogging.h"

#include "tavrincommon/log/internal/LineFormatter.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

namespace tavrinLog {

namespace {
constexpr size_t kBufferSize = TavrinLogging::kMaxLineLength + 1;
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

const char* TavrinLogging::originToString(int origin) const {
  const char* name = originNameCallback(origin);
  if (name) return name;
  // A few buffers per thread, so that several numbers in one log call stay apart.
  static thread_local char numbers[4][12];
  static thread_local unsigned next = 0;
  char* text = numbers[next++ % 4];
  std::snprintf(text, sizeof numbers[0], "%d", origin);
  return text;
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

namespace {

// Appends `text` at `used`, never past the last byte kept for the terminator.
size_t append(char* buffer, size_t used, const char* text) {
  size_t length = std::strlen(text);
  const size_t room = kBufferSize - 1 - used;
  if (length > room) length = room;
  std::memcpy(buffer + used, text, length);
  return used + length;
}

}  // namespace

template <bool withPrefix>
void TavrinLogging::log(int origin, SeverityLevel::Type severity, const char* format, ...) const {
  char buffer[kBufferSize];
  size_t used = 0;
  if (withPrefix) {
    // "<origin>: <severity>: " put together by hand: a printf pass over the prefix would cost as
    // much as formatting a short message.
    used = append(buffer, used, originToString(origin));
    used = append(buffer, used, ": ");
    used = append(buffer, used, SeverityLevel::getText(severity));
    used = append(buffer, used, ": ");
  }
  va_list args;
  va_start(args, format);
  internal::formatLine(buffer + used, kBufferSize - used, format, args);
  va_end(args);
  logCallback(origin, severity, buffer);
}

template void TavrinLogging::log<true>(int, SeverityLevel::Type, const char*, ...) const;
template void TavrinLogging::log<false>(int, SeverityLevel::Type, const char*, ...) const;

}  // namespace tavrinLog
