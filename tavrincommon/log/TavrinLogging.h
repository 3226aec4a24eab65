// The logging front end: per-origin severity levels and a callback of the application that
// receives every formatted line as (origin, severity, text). Keeps no lock: configure it on one
// thread before others log; log, getComponentSeverity and originToString may then be called from
// any thread as long as no setter runs at the same time.
//
// Calling convention: test the level first, format only what is logged. Use TAVRIN_LOG, which
// evaluates the arguments only when the line passes the test.
#pragma once

#include "tavrincommon/log/SeverityLevel.h"

#include <functional>
#include <unordered_map>

namespace tavrinLog {

class TavrinLogging {
 public:
  using LogCallback = std::function<void(int, SeverityLevel::Type, const char*)>;
  using OriginNameCallback = std::function<const char*(int)>;

  // Lines are cut to this many characters, prefix included.
  static constexpr int kMaxLineLength = 2047;

  // A level outside Emergency..Maximum (Off included) gives the default level Service.
  TavrinLogging(SeverityLevel::Type level, LogCallback logCallback,
                OriginNameCallback originNameCallback = {});
  ~TavrinLogging();
  TavrinLogging(const TavrinLogging&) = delete;
  TavrinLogging& operator=(const TavrinLogging&) = delete;

  void init(SeverityLevel::Type level, LogCallback logCallback,
            OriginNameCallback originNameCallback = {});
  // An empty log callback becomes one that drops the line; an empty name callback one that
  // names every origin "Unknown".
  void initCallback(LogCallback logCallback, OriginNameCallback originNameCallback = {});

  // A level outside Emergency..Maximum is ignored. Clears every per-origin level.
  void setAllComponentsSeverity(SeverityLevel::Type level);
  // A level outside Emergency..Maximum is ignored; the default level removes the origin's entry.
  void setComponentSeverity(int origin, SeverityLevel::Type level);
  SeverityLevel::Type getComponentSeverity(int origin) const {
    if (componentSeverity.empty()) return defaultSeverity;
    auto it = componentSeverity.find(origin);
    return it == componentSeverity.end() ? defaultSeverity : it->second;
  }
  bool isEnabled(int origin, SeverityLevel::Type severity) const {
    return getComponentSeverity(origin) >= severity;
  }
  // The name callback's text, or the origin's number where the callback returns null.
  const char* originToString(int origin) const;

  // Formats one line (printf conventions) and hands it to the log callback. With the prefix the
  // line starts with "<origin name>: <severity name>: ". Does not test the level.
  template <bool withPrefix>
  void log(int origin, SeverityLevel::Type severity, const char* format, ...) const
      __attribute__((format(printf, 4, 5)));

  // Switches every origin off (used by the process-wide object's setSeverityOff).
  void setSeverityOff();

 private:
  LogCallback logCallback;
  OriginNameCallback originNameCallback;
  std::unordered_map<int, SeverityLevel::Type> componentSeverity;
  SeverityLevel::Type defaultSeverity;
};

// The origin's name from a possibly null logging object: "Unknown" without one.
inline const char* originName(const TavrinLogging* logging, int origin) {
  return logging ? logging->originToString(origin) : "Unknown";
}

}  // namespace tavrinLog

// Logs one line with the prefix if `logging` is set and `origin` is enabled at `severity`; the
// format arguments are evaluated only then.
#define TAVRIN_LOG(logging, origin, severity, ...)                                     \
  do {                                                                                 \
    const ::tavrinLog::TavrinLogging* tavrinLogObject_ = (logging);                    \
    if (tavrinLogObject_ && tavrinLogObject_->isEnabled((origin), (severity)))         \
      tavrinLogObject_->log<true>((origin), (severity), __VA_ARGS__);                  \
  } while (false)
