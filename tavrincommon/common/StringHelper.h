// printf-style formatting into std::string and splitting at a delimiter. Stateless; callable from
// any thread.
#pragma once

#include <cstdarg>
#include <string>
#include <vector>

namespace tavrinCommon {
namespace stringHelper {

// Exactly as long as the text needs.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string formatWithVaList(const char* fmt, va_list args) __attribute__((format(printf, 1, 0)));
// One piece more than there are occurrences of `delimiter`, which must not be empty; an empty
// delimiter gives the whole text as the only piece.
std::vector<std::string> split(const std::string& text, const std::string& delimiter);

}  // namespace stringHelper
}  // namespace tavrinCommon
