// The printf formatting of log lines, without the C library's stream set-up for each call. The
// conversions that log calls use (d i u x X o c s p %%, with flags, width, precision and the length
// modifiers hh h l ll j z t) are written here, and so is %f of most doubles; any other
// floating-point conversion is handed alone to snprintf, and anything else (positional arguments,
// wide characters, %n, the C library's own flags and conversions) hands the rest of the format to
// vsnprintf. Either way the result is byte for byte what vsnprintf writes into a buffer of the
// same size. No state; any thread.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace tavrinLog {
namespace internal {

// Writes at most size - 1 characters and a terminator (size >= 1). Returns the characters stored,
// not the length the whole text would have had. Formatting stops where the buffer is full, so the
// arguments past that point are not read, and a %n stores only what vsnprintf itself wrote (no
// log call uses it). `args` is left for va_end only.
size_t formatLine(char* buffer, size_t size, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

}  // namespace internal
}  // namespace tavrinLog
