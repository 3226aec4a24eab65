#include "tavrincommon/log/internal/LineFormatter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfenv>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <random>
#include <string>
#include <vector>

namespace {

using tavrinLog::internal::formatLine;

// Formats with vsnprintf and with formatLine into buffers of every size from 1 to one past the
// whole text; the characters, the terminator, the count stored and the bytes past the buffer's
// end (never to be touched) must agree.
::testing::AssertionResult matchesCLibrary(const char* format, ...)
    __attribute__((format(printf, 1, 2)));

::testing::AssertionResult matchesCLibrary(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list measure;
  va_copy(measure, args);
  const int whole = std::vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  const size_t guard = 8;
  ::testing::AssertionResult result = ::testing::AssertionSuccess();
  if (whole < 0) result = ::testing::AssertionFailure() << "vsnprintf failed on " << format;
  for (size_t size = 1; whole >= 0 && size <= static_cast<size_t>(whole) + 1; ++size) {
    std::vector<char> expected(size + guard, '\x55');
    std::vector<char> actual(size + guard, '\x55');
    va_list ours, theirs;
    va_copy(theirs, args);
    va_copy(ours, args);
    std::vsnprintf(expected.data(), size, format, theirs);
    const size_t stored = formatLine(actual.data(), size, format, ours);
    va_end(ours);
    va_end(theirs);
    const size_t expectedStored = std::min(static_cast<size_t>(whole), size - 1);
    if (expected != actual || stored != expectedStored) {
      result = ::testing::AssertionFailure()
               << "format \"" << format << "\", buffer of " << size << ": vsnprintf \""
               << std::string(expected.data(), strnlen(expected.data(), size)) << "\" ("
               << expectedStored << "), ours \""
               << std::string(actual.data(), strnlen(actual.data(), size)) << "\" (" << stored
               << ")"
               << (std::memcmp(expected.data() + size, actual.data() + size, guard) != 0
                       ? ", written past the buffer"
                       : "");
      break;
    }
  }
  va_end(args);
  return result;
}

TEST(LineFormatterTest, MatchesTheCLibraryOnCommonConversionsAtEveryBufferSize) {
  EXPECT_TRUE(matchesCLibrary("plain text, no conversion"));
  EXPECT_TRUE(matchesCLibrary("conn %d from %s:%d state %s ratio %.2f", 17, "127.0.0.1", 5555,
                              "open", 0.75));
  EXPECT_TRUE(matchesCLibrary("%02X:%02X %08X %#010x %-#8x| %#.5o", 0x0au, 0xffu, 0xc0ffeeu, 0xabu,
                              0x1u, 9u));
  EXPECT_TRUE(matchesCLibrary("100%% of %d%%", 3));
}

TEST(LineFormatterTest, FixedPointRoundsTheExactValueHalfToEvenLikeTheCLibrary) {
  EXPECT_TRUE(matchesCLibrary("%.0f %.0f %.0f %.0f %.1f %.2f %.2f %.2f %.3f", 0.5, 1.5, 2.5, 3.5,
                              0.25, 0.125, 0.375, 9.995, 99.9995));
  EXPECT_TRUE(matchesCLibrary("%f %.2f %.1f %.0f %#.0f %.20f %.40f", -0.0, -0.001, -0.04, 0.4999,
                              7.0, 1.0 / 3, 0.0009765625));
  EXPECT_TRUE(matchesCLibrary("%f %.3f %f %.2f|%-+12.3f|%012.3f|% 09.1f|%+f|%F",
                              9223372036854775808.0, 1.8e19, 1e20, 4.9e-324, 3.14159, -3.14159,
                              2.75, 0.1, 1e-5));
  EXPECT_TRUE(matchesCLibrary("%.2f %.0f %.1f", 999.995, 999.5, 9.96));
  // Another rounding mode moves the ties: the C library follows it.
  ASSERT_EQ(std::fesetround(FE_UPWARD), 0);
  const bool upward = matchesCLibrary("%.0f %.2f %.1f", 0.5, 0.125, -0.25);
  std::fesetround(FE_TONEAREST);
  EXPECT_TRUE(upward);
}

TEST(LineFormatterTest, FloatingPointAndUnknownConversionsGoToTheCLibrary) {
  const wchar_t* wide = L"wide";
  EXPECT_TRUE(matchesCLibrary("%.2f ms at %s, %5.1f%%, %e %g %G %a %-12.3E| %Lf %lf %f %f %f",
                              1.005, "here", 99.95, 12345.678, 1e-10, 1e300, 0.5, 3.0, 2.5L, 7.25,
                              HUGE_VAL, -NAN, 1e300));
  EXPECT_TRUE(
      matchesCLibrary("%05.1f|%-8.2f|% .3f|%#.0f|%*.*f|%d", 2.25, -1.5, 3.0, 4.0, 9, 3, 1.0, 12));
  EXPECT_TRUE(matchesCLibrary("wide %ls then %d and %lc", wide, 4, static_cast<wint_t>(L'x')));
  EXPECT_TRUE(matchesCLibrary("%d %4097d|%.4097d", 1, 2, 3));
  EXPECT_TRUE(matchesCLibrary("%d %*d|%.*d", 1, 4097, 2, 4097, 3));

  // Formats that -Wformat would refuse in code: positional arguments, flags that the C library
  // ignores.
  const std::string positional = "%2$s, %1$d";
  const std::string ignoredFlags = "%-05d|%05.3d|%+u|% x|%#d|%05s";
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  EXPECT_TRUE(matchesCLibrary(positional.c_str(), 7, "second first"));
  EXPECT_TRUE(matchesCLibrary(ignoredFlags.c_str(), 1, 2, 3u, 4u, 5, "s"));
#pragma GCC diagnostic pop
}

// A random directive for the given length and conversion: flags (also ones the C library ignores
// or treats in its own way), a width and a precision as digits, as '*' or absent.
struct RandomDirective {
  std::string text;
  int stars = 0;
};

RandomDirective randomDirective(std::mt19937& random, const std::string& lengthAndConversion) {
  auto chance = [&random](unsigned percent) { return random() % 100 < percent; };
  RandomDirective directive{"%"};
  for (char flag : std::string("-+ #0")) {
    if (chance(20)) directive.text += flag;
  }
  if (chance(20)) {
    directive.text += '*';
    ++directive.stars;
  } else if (chance(50)) {
    directive.text += std::to_string(random() % 25);
  }
  if (chance(20)) {
    directive.text += ".*";
    ++directive.stars;
  } else if (chance(40)) {
    directive.text += '.';
    if (chance(80)) directive.text += std::to_string(random() % 25);
  }
  directive.text += lengthAndConversion;
  return directive;
}

std::string randomLiteral(std::mt19937& random) {
  static const char kCharacters[] = "ab :%=\t";
  std::string literal;
  for (unsigned n = random() % 6; n > 0; --n) {
    const char c = kCharacters[random() % (sizeof kCharacters - 1)];
    literal += c == '%' ? std::string("%%") : std::string(1, c);
  }
  return literal;
}

// The format consumes two ints before the value: stars of the directive, or "%.0d" conversions that
// print nothing for 0.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
template <typename Value>
::testing::AssertionResult checkRandom(std::mt19937& random, const std::string& lengthAndConversion,
                                       Value value) {
  const RandomDirective directive = randomDirective(random, lengthAndConversion);
  std::string format = randomLiteral(random);
  for (int i = directive.stars; i < 2; ++i) format += "%.0d";
  format += randomLiteral(random) + directive.text + randomLiteral(random);
  auto star = [&random] { return static_cast<int>(random() % 40) - 15; };
  const int first = directive.stars == 2 ? star() : 0;
  const int second = directive.stars >= 1 ? star() : 0;
  return matchesCLibrary(format.c_str(), first, second, value);
}
#pragma GCC diagnostic pop

// An integer conversion gets its value as the signed or the unsigned type of its length.
template <typename Signed, typename Unsigned>
::testing::AssertionResult checkInteger(std::mt19937& random, const std::string& conversion,
                                        bool isSigned, long long value) {
  return isSigned ? checkRandom(random, conversion, static_cast<Signed>(value))
                  : checkRandom(random, conversion, static_cast<Unsigned>(value));
}

TEST(LineFormatterTest, MatchesTheCLibraryOnRandomFormats) {
  std::mt19937 random(20260523);
  auto integer = [&random]() -> long long {
    static const long long kEdges[] = {0,         1,          -1,        INT32_MIN,
                                       INT32_MAX, UINT32_MAX, LLONG_MIN, LLONG_MAX};
    if (random() % 3 == 0) return kEdges[random() % (sizeof kEdges / sizeof kEdges[0])];
    const long long wide = static_cast<long long>((uint64_t{random()} << 32) | random());
    return random() % 2 ? wide : wide % 100000;
  };
  static const char* const kTexts[] = {"", "x", "hello world", nullptr, "a much longer text here"};
  static const char* const kLengths[] = {"", "hh", "h", "l", "ll", "j", "z", "t"};
  int object = 0;
  for (int iteration = 0; iteration < 5000; ++iteration) {
    const unsigned kind = random() % 11;
    const std::string length = kLengths[random() % 8];
    const long long value = integer();
    ::testing::AssertionResult matched = ::testing::AssertionSuccess();
    if (kind < 6) {
      const bool isSigned = kind < 2;
      const std::string conversion = length + "diuxXo"[kind];
      if (length == "l") {
        matched = checkInteger<long, unsigned long>(random, conversion, isSigned, value);
      } else if (length == "ll") {
        matched = checkInteger<long long, unsigned long long>(random, conversion, isSigned, value);
      } else if (length == "j") {
        matched = checkInteger<intmax_t, uintmax_t>(random, conversion, isSigned, value);
      } else if (length == "z" || length == "t") {
        matched = checkInteger<ptrdiff_t, size_t>(random, conversion, isSigned, value);
      } else {
        matched = checkInteger<int, unsigned>(random, conversion, isSigned, value);
      }
    } else if (kind < 8) {
      matched = checkRandom(random, "s", kTexts[random() % 5]);
    } else if (kind == 8) {
      matched = checkRandom(random, "c", static_cast<int>(value));
    } else if (kind == 9) {
      void* const pointers[] = {nullptr, &object, reinterpret_cast<void*>(value)};
      matched = checkRandom(random, "p", pointers[random() % 3]);
    } else {
      // Exact binary fractions, ordinary doubles of 53 bits, and any bit pattern at all.
      const int scale = static_cast<int>(random() % 80);
      double number = std::ldexp(static_cast<double>(value >> (random() % 12)), -scale);
      if (random() % 4 == 0) std::memcpy(&number, &value, sizeof number);
      matched = checkRandom(random, std::string(1, "fffFeg"[random() % 6]), number);
    }
    ASSERT_TRUE(matched) << "iteration " << iteration;
  }
}

}  // namespace
