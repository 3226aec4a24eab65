#include "tavrincommon/log/internal/LineFormatter.h"

#include <algorithm>
#include <cfenv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include <langinfo.h>

namespace tavrinLog {
namespace internal {

namespace {

// A width or precision past this goes to vsnprintf, which knows how to fail on a huge one; a log
// line is far shorter.
constexpr int kMaxField = 4096;

struct Output {
  char* next;
  char* end;  // the terminator's place

  size_t room() const { return static_cast<size_t>(end - next); }
  void put(const char* text, size_t length) {
    if (length > room()) length = room();
    std::memcpy(next, text, length);
    next += length;
  }
  void fill(char c, size_t count) {
    if (count > room()) count = room();
    std::memset(next, c, count);
    next += count;
  }
  // After snprintf or vsnprintf wrote at `next` with room() + 1 bytes; `written` is its result.
  void advance(int written) {
    next += written < 0 ? std::strlen(next) : std::min(static_cast<size_t>(written), room());
  }
};

// One conversion's flags, width and precision, as read from the format.
struct Directive {
  bool left = false;
  bool plus = false;
  bool space = false;
  bool alternate = false;
  bool zero = false;
  int width = 0;
  int precision = -1;  // none
};

enum class Length { None, Char, Short, Long, LongLong, Max, Size, Difference, LongDouble };

constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// Digits of `value` written backwards, ending just before `end`; returns the first digit.
char* writeDigits(char* end, uintmax_t value, unsigned base, bool upper) {
  if (base == 10) {
    // 32-bit division where the value allows it: a 64-bit one is a library call on 32-bit ARM.
    while (value > UINT32_MAX) {
      *--end = static_cast<char>('0' + value % 10);
      value /= 10;
    }
    auto small = static_cast<uint32_t>(value);
    while (small >= 100) {
      const char* pair = kDigitPairs + 2 * (small % 100);
      small /= 100;
      *--end = pair[1];
      *--end = pair[0];
    }
    if (small >= 10) {
      *--end = kDigitPairs[2 * small + 1];
      *--end = kDigitPairs[2 * small];
    } else {
      *--end = static_cast<char>('0' + small);
    }
    return end;
  }
  const char* set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  const unsigned shift = base == 16 ? 4 : 3;
  do {
    *--end = set[value & (base - 1)];
    value >>= shift;
  } while (value != 0);
  return end;
}

unsigned decimalLength(uint32_t value) {
  if (value < 100000) {
    if (value < 100) return value < 10 ? 1 : 2;
    return value < 1000 ? 3 : value < 10000 ? 4 : 5;
  }
  if (value < 10000000) return value < 1000000 ? 6 : 7;
  return value < 100000000 ? 8 : value < 1000000000 ? 9 : 10;
}

// The digits go straight to the output where they fit, as they nearly always do.
void putDecimal(Output& out, uintmax_t magnitude, bool negative) {
  if (magnitude <= UINT32_MAX) {
    const size_t length = decimalLength(static_cast<uint32_t>(magnitude)) + negative;
    if (length <= out.room()) {
      out.next += length;
      char* first = writeDigits(out.next, magnitude, 10, false);
      if (negative) first[-1] = '-';
      return;
    }
  }
  char text[21];  // a sign and 20 digits
  char* const end = text + sizeof text;
  char* first = writeDigits(end, magnitude, 10, false);
  if (negative) *--first = '-';
  out.put(first, static_cast<size_t>(end - first));
}

void putPadded(Output& out, const Directive& directive, const char* text, size_t length) {
  const size_t padding = static_cast<size_t>(directive.width) > length
                             ? static_cast<size_t>(directive.width) - length
                             : 0;
  if (!directive.left) out.fill(' ', padding);
  out.put(text, length);
  if (directive.left) out.fill(' ', padding);
}

// An integer conversion: sign or prefix, zeros for the precision (or the width with the 0 flag),
// the digits, spaces for the width.
void putInteger(Output& out, const Directive& directive, uintmax_t magnitude, char sign,
                unsigned base, bool upper) {
  char text[24];  // 22 octal digits of 64 bits
  char* const end = text + sizeof text;
  char* first = end;
  if (magnitude != 0 || directive.precision != 0) first = writeDigits(end, magnitude, base, upper);
  const size_t digits = static_cast<size_t>(end - first);

  char prefix[3];  // a sign, or 0x
  size_t prefixLength = 0;
  if (sign) prefix[prefixLength++] = sign;
  if (directive.alternate && base == 16 && magnitude != 0) {
    prefix[prefixLength++] = '0';
    prefix[prefixLength++] = upper ? 'X' : 'x';
  }
  size_t zeros = directive.precision > 0 && static_cast<size_t>(directive.precision) > digits
                     ? static_cast<size_t>(directive.precision) - digits
                     : 0;
  // The alternate octal form starts with a zero, also for the value 0 at precision 0.
  if (directive.alternate && base == 8 && zeros == 0 && (digits == 0 || *first != '0')) zeros = 1;

  const size_t length = prefixLength + zeros + digits;
  size_t padding = static_cast<size_t>(directive.width) > length
                       ? static_cast<size_t>(directive.width) - length
                       : 0;
  const bool zeroPadding = directive.zero && !directive.left && directive.precision < 0;
  if (zeroPadding) {
    zeros += padding;
    padding = 0;
  }
  if (!directive.left) out.fill(' ', padding);
  out.put(prefix, prefixLength);
  out.fill('0', zeros);
  out.put(first, digits);
  if (directive.left) out.fill(' ', padding);
}

// %f of a double whose digits come out exactly with 64-bit integers: at most 64 integer bits and
// at most 60 fraction bits (every double from 2^-8 to 2^64, and shorter binary fractions below),
// and a precision up to kMaxFixedPrecision; false for anything else. Rounds the exact binary value
// half to even, as the C library does in the default rounding mode, which is checked; a locale
// whose decimal point is not '.' is left to the C library.
constexpr int kMaxFixedPrecision = 40;

bool putFixed(Output& out, const Directive& directive, double value) {
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  const bool negative = (bits >> 63) != 0;
  const auto exponentBits = static_cast<int>((bits >> 52) & 0x7ff);
  uint64_t mantissa = bits & ((uint64_t{1} << 52) - 1);
  if (exponentBits == 0x7ff) return false;  // infinite or not a number
  int exponent = -1074;                     // value = mantissa * 2^exponent
  if (exponentBits != 0) {
    mantissa |= uint64_t{1} << 52;
    exponent = exponentBits - 1075;
  }
  const int precision = directive.precision < 0 ? 6 : directive.precision;
  if (precision > kMaxFixedPrecision) return false;
  uint64_t integer = 0;
  uint64_t fraction = 0;  // of 2^shift
  int shift = 0;
  if (mantissa != 0) {
    const int trailingZeros = __builtin_ctzll(mantissa);
    mantissa >>= trailingZeros;
    exponent += trailingZeros;
    if (exponent >= 0) {
      if (exponent + (64 - __builtin_clzll(mantissa)) > 64) return false;
      integer = mantissa << exponent;
    } else {
      shift = -exponent;
      if (shift > 60) return false;
      integer = mantissa >> shift;
      fraction = mantissa & ((uint64_t{1} << shift) - 1);
    }
  }
  const char* radix = nl_langinfo(RADIXCHAR);
  if (radix[0] != '.' || radix[1] != '\0' || std::fegetround() != FE_TONEAREST) return false;

  char digits[kMaxFixedPrecision];
  for (int i = 0; i < precision; ++i) {
    fraction *= 10;  // below 2^64: fraction < 2^60
    digits[i] = static_cast<char>('0' + (fraction >> shift));
    fraction &= (uint64_t{1} << shift) - 1;
  }
  if (shift > 0) {
    const uint64_t half = uint64_t{1} << (shift - 1);
    const bool lastOdd = precision > 0 ? (digits[precision - 1] & 1) != 0 : (integer & 1) != 0;
    if (fraction > half || (fraction == half && lastOdd)) {
      int i = precision - 1;
      for (; i >= 0 && digits[i] == '9'; --i) digits[i] = '0';
      if (i >= 0) {
        ++digits[i];
      } else {
        ++integer;  // below 2^53 here
      }
    }
  }

  char integerText[20];
  char* const integerEnd = integerText + sizeof integerText;
  const char* integerFirst = writeDigits(integerEnd, integer, 10, false);
  const auto integerLength = static_cast<size_t>(integerEnd - integerFirst);
  const char sign = negative ? '-' : directive.plus ? '+' : directive.space ? ' ' : '\0';
  const bool point = precision > 0 || directive.alternate;
  const size_t length =
      (sign ? 1 : 0) + integerLength + (point ? 1 : 0) + static_cast<size_t>(precision);
  const size_t padding = static_cast<size_t>(directive.width) > length
                             ? static_cast<size_t>(directive.width) - length
                             : 0;
  const bool zeroPadding = directive.zero && !directive.left;
  if (!directive.left && !zeroPadding) out.fill(' ', padding);
  if (sign) out.put(&sign, 1);
  if (zeroPadding) out.fill('0', padding);
  out.put(integerFirst, integerLength);
  if (point) out.put(".", 1);
  out.put(digits, static_cast<size_t>(precision));
  if (directive.left) out.fill(' ', padding);
  return true;
}

// "%<flags><width>.<precision><L><conversion>" for snprintf, with the numbers of '*' resolved.
void buildFloatFormat(char* format, const Directive& parsed, bool longDouble, char conversion) {
  char* p = format;
  *p++ = '%';
  if (parsed.left) *p++ = '-';
  if (parsed.plus) *p++ = '+';
  if (parsed.space) *p++ = ' ';
  if (parsed.alternate) *p++ = '#';
  if (parsed.zero) *p++ = '0';
  char digits[12];
  char* const digitsEnd = digits + sizeof digits;
  if (parsed.width > 0) {
    const char* first = writeDigits(digitsEnd, static_cast<unsigned>(parsed.width), 10, false);
    while (first != digitsEnd) *p++ = *first++;
  }
  if (parsed.precision >= 0) {
    *p++ = '.';
    const char* first = writeDigits(digitsEnd, static_cast<unsigned>(parsed.precision), 10, false);
    while (first != digitsEnd) *p++ = *first++;
  }
  if (longDouble) *p++ = 'L';
  *p++ = conversion;
  *p = '\0';
}

// Reads the digits of a width or precision; one past kMaxField stands for any larger number.
const char* parseNumber(const char* p, int& number) {
  number = 0;
  while (*p >= '0' && *p <= '9') {
    if (number <= kMaxField) number = number * 10 + (*p - '0');
    ++p;
  }
  if (number > kMaxField) number = kMaxField + 1;
  return p;
}

// The rest of the format from a conversion of the C library's own on: a part of the checked
// format, with the arguments that remain.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
int formatRest(const Output& out, const char* rest, va_list args) {
  return std::vsnprintf(out.next, out.room() + 1, rest, args);
}
#pragma GCC diagnostic pop

}  // namespace

size_t formatLine(char* buffer, size_t size, const char* format, va_list args) {
  Output out{buffer, buffer + size - 1};
  const char* p = format;
  while (out.next != out.end) {
    const char* literal = p;
    p = strchrnul(p, '%');
    out.put(literal, static_cast<size_t>(p - literal));
    if (*p == '\0' || out.next == out.end) break;

    // The conversions that most log calls are made of, without flags, width or precision.
    switch (p[1]) {
      case 's': {
        const char* text = va_arg(args, const char*);
        if (text == nullptr) text = "(null)";
        out.put(text, std::strlen(text));
        p += 2;
        continue;
      }
      case 'd':
      case 'i': {
        const int value = va_arg(args, int);
        putDecimal(out,
                   value < 0 ? 0u - static_cast<unsigned>(value) : static_cast<unsigned>(value),
                   value < 0);
        p += 2;
        continue;
      }
      case 'u':
        putDecimal(out, va_arg(args, unsigned), false);
        p += 2;
        continue;
      case 'z':
        if (p[2] != 'u') break;
        putDecimal(out, va_arg(args, size_t), false);
        p += 3;
        continue;
      default:
        break;
    }

    const char* const conversionStart = p++;
    Directive directive;
    bool handled = true;
    for (bool flags = true; flags;) {
      switch (*p) {
        case '-':
          directive.left = true;
          ++p;
          break;
        case '+':
          directive.plus = true;
          ++p;
          break;
        case ' ':
          directive.space = true;
          ++p;
          break;
        case '#':
          directive.alternate = true;
          ++p;
          break;
        case '0':
          directive.zero = true;
          ++p;
          break;
        default:
          flags = false;
      }
    }
    // A '*' is read only once the conversion is known to be ours, so that vsnprintf may still
    // take the whole conversion with its arguments.
    const bool widthArgument = *p == '*';
    if (widthArgument) {
      ++p;
    } else {
      p = parseNumber(p, directive.width);
      handled = directive.width <= kMaxField;
    }
    bool precisionArgument = false;
    const bool precisionGiven = *p == '.';
    if (precisionGiven) {
      ++p;
      precisionArgument = *p == '*';
      if (precisionArgument) {
        ++p;
      } else {
        p = parseNumber(p, directive.precision);
        handled = handled && directive.precision <= kMaxField;
      }
    }
    Length length = Length::None;
    switch (*p) {
      case 'h':
        ++p;
        length = *p == 'h' ? (++p, Length::Char) : Length::Short;
        break;
      case 'l':
        ++p;
        length = *p == 'l' ? (++p, Length::LongLong) : Length::Long;
        break;
      case 'j':
        ++p;
        length = Length::Max;
        break;
      case 'z':
        ++p;
        length = Length::Size;
        break;
      case 't':
        ++p;
        length = Length::Difference;
        break;
      case 'L':
        ++p;
        length = Length::LongDouble;
        break;
      default:
        break;
    }
    const char conversion = *p;
    const bool plainFlags =
        !directive.plus && !directive.space && !directive.alternate && !directive.zero;
    switch (conversion) {
      case 'd':
      case 'i':
      case 'u':
      case 'x':
      case 'X':
      case 'o':
        handled = handled && length != Length::LongDouble;
        break;
      case 'c':
      case 's':
      case 'p':
        handled = handled && length == Length::None && plainFlags &&
                  (conversion == 's' || !precisionGiven);
        break;
      case 'f':
      case 'F':
      case 'e':
      case 'E':
      case 'g':
      case 'G':
      case 'a':
      case 'A':
        handled = handled && (length == Length::None || length == Length::Long ||
                              length == Length::LongDouble);
        break;
      case '%':
        handled = handled && p == conversionStart + 1;
        break;
      default:
        handled = false;
    }
    if (!handled) {
      out.advance(formatRest(out, conversionStart, args));
      break;
    }
    if (widthArgument || precisionArgument) {
      va_list before;
      va_copy(before, args);
      if (widthArgument) {
        const int width = va_arg(args, int);
        directive.left = directive.left || width < 0;
        // Negated as unsigned: INT_MIN has no positive int.
        const unsigned magnitude =
            width < 0 ? 0u - static_cast<unsigned>(width) : static_cast<unsigned>(width);
        handled = magnitude <= kMaxField;
        directive.width = handled ? static_cast<int>(magnitude) : 0;
      }
      if (precisionArgument) {
        const int precision = va_arg(args, int);
        directive.precision = precision < 0 ? -1 : precision;
        handled = handled && precision <= kMaxField;
      }
      if (!handled) out.advance(formatRest(out, conversionStart, before));
      va_end(before);
      if (!handled) break;
    }
    ++p;

    switch (conversion) {
      case 'd':
      case 'i': {
        intmax_t value;
        switch (length) {
          case Length::Char:
            value = static_cast<signed char>(va_arg(args, int));
            break;
          case Length::Short:
            value = static_cast<short>(va_arg(args, int));
            break;
          case Length::Long:
            value = va_arg(args, long);
            break;
          case Length::LongLong:
            value = va_arg(args, long long);
            break;
          case Length::Max:
            value = va_arg(args, intmax_t);
            break;
          case Length::Size:
            value = va_arg(args, std::make_signed_t<size_t>);
            break;
          case Length::Difference:
            value = va_arg(args, ptrdiff_t);
            break;
          default:
            value = va_arg(args, int);
            break;
        }
        const uintmax_t magnitude =
            value < 0 ? 0 - static_cast<uintmax_t>(value) : static_cast<uintmax_t>(value);
        const char sign = value < 0 ? '-' : directive.plus ? '+' : directive.space ? ' ' : '\0';
        putInteger(out, directive, magnitude, sign, 10, false);
        break;
      }
      case 'u':
      case 'x':
      case 'X':
      case 'o': {
        uintmax_t value;
        switch (length) {
          case Length::Char:
            value = static_cast<unsigned char>(va_arg(args, unsigned));
            break;
          case Length::Short:
            value = static_cast<unsigned short>(va_arg(args, unsigned));
            break;
          case Length::Long:
            value = va_arg(args, unsigned long);
            break;
          case Length::LongLong:
            value = va_arg(args, unsigned long long);
            break;
          case Length::Max:
            value = va_arg(args, uintmax_t);
            break;
          case Length::Size:
            value = va_arg(args, size_t);
            break;
          case Length::Difference:
            value = static_cast<std::make_unsigned_t<ptrdiff_t>>(va_arg(args, ptrdiff_t));
            break;
          default:
            value = va_arg(args, unsigned);
            break;
        }
        const unsigned base = conversion == 'u' ? 10 : conversion == 'o' ? 8 : 16;
        putInteger(out, directive, value, '\0', base, conversion == 'X');
        break;
      }
      case 'c': {
        const char c = static_cast<char>(static_cast<unsigned char>(va_arg(args, int)));
        putPadded(out, directive, &c, 1);
        break;
      }
      case 's': {
        const char* text = va_arg(args, const char*);
        size_t textLength;
        if (text == nullptr) {
          // What the C library prints for a null string: "(null)", or nothing when the precision
          // cuts it.
          const bool fits = directive.precision < 0 || directive.precision >= 6;
          text = fits ? "(null)" : "";
          textLength = fits ? 6 : 0;
        } else if (directive.precision >= 0) {
          textLength = strnlen(text, static_cast<size_t>(directive.precision));
        } else {
          textLength = std::strlen(text);
        }
        putPadded(out, directive, text, textLength);
        break;
      }
      case 'p': {
        const void* pointer = va_arg(args, const void*);
        if (pointer == nullptr) {
          putPadded(out, directive, "(nil)", 5);
        } else {
          char text[2 + 2 * sizeof(uintptr_t)];
          char* const end = text + sizeof text;
          char* first = writeDigits(end, reinterpret_cast<uintptr_t>(pointer), 16, false);
          *--first = 'x';
          *--first = '0';
          putPadded(out, directive, first, static_cast<size_t>(end - first));
        }
        break;
      }
      case '%':
        out.put("%", 1);
        break;
      default: {  // floating point
        char floatFormat[32];
        const auto directiveLength = static_cast<size_t>(p - conversionStart);
        if (!widthArgument && !precisionArgument && directiveLength < sizeof floatFormat) {
          std::memcpy(floatFormat, conversionStart, directiveLength);
          floatFormat[directiveLength] = '\0';
        } else {
          buildFloatFormat(floatFormat, directive, length == Length::LongDouble, conversion);
        }
        // This conversion's format comes from a checked format: it matches the argument.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        if (length == Length::LongDouble) {
          out.advance(
              std::snprintf(out.next, out.room() + 1, floatFormat, va_arg(args, long double)));
        } else {
          const double value = va_arg(args, double);
          if ((conversion != 'f' && conversion != 'F') || !putFixed(out, directive, value)) {
            out.advance(std::snprintf(out.next, out.room() + 1, floatFormat, value));
          }
        }
#pragma GCC diagnostic pop
        break;
      }
    }
  }
  *out.next = '\0';
  return static_cast<size_t>(out.next - buffer);
}

}  // namespace internal
}  // namespace tavrinLog
