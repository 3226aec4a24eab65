#include "tavrincommon/log/SeverityLevel.h"

#include <cstring>

namespace tavrinLog {

namespace {
const char* const kTexts[] = {"Emergency", "Error", "Warning", "Info",
                              "Service",   "Debug", "Detailed", "Maximum"};
}  // namespace

const char* SeverityLevel::getText(Type level) {
  if (!isValidNum(level)) return "invalid";
  return kTexts[level];
}

SeverityLevel::Type SeverityLevel::parse(const char* text) {
  // Only the levels up to Debug are recognised by name; anything else asks for detail.
  static const struct {
    const char* text;
    Type level;
  } kParsed[] = {{"Off", Off},   {"Emergency", Emergency}, {"Error", Error}, {"Warning", Warning},
                 {"Info", Info}, {"Service", Service},     {"Debug", Debug}};
  for (const auto& entry : kParsed) {
    if (std::strcmp(text, entry.text) == 0) return entry.level;
  }
  return Detailed;
}

}  // namespace tavrinLog
