#include "tavrincommon/common/StringHelper.h"

#include <cstdio>

namespace tavrinCommon {
namespace stringHelper {

std::string format(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string text = formatWithVaList(fmt, args);
  va_end(args);
  return text;
}

std::string formatWithVaList(const char* fmt, va_list args) {
  va_list measure;
  va_copy(measure, args);
  const int length = std::vsnprintf(nullptr, 0, fmt, measure);
  va_end(measure);
  if (length <= 0) return std::string();
  std::string text(static_cast<size_t>(length), '\0');
  va_list write;
  va_copy(write, args);
  // C++17 gives a writable data(); the terminator goes into the string's own spare byte.
  std::vsnprintf(&text[0], text.size() + 1, fmt, write);
  va_end(write);
  return text;
}

std::vector<std::string> split(const std::string& text, const std::string& delimiter) {
  // An empty delimiter is a caller error; answering with the whole text avoids an endless loop.
  if (delimiter.empty()) return {text};
  std::vector<std::string> pieces;
  size_t start = 0;
  for (size_t found = text.find(delimiter); found != std::string::npos;
       found = text.find(delimiter, start)) {
    pieces.push_back(text.substr(start, found - start));
    start = found + delimiter.size();
  }
  pieces.push_back(text.substr(start));
  return pieces;
}

}  // namespace stringHelper
}  // namespace tavrinCommon
