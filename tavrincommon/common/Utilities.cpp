#include "tavrincommon/common/Utilities.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace tavrinCommon {

namespace {

template <typename Value, typename Parse>
std::pair<bool, Value> parseNumber(const char* text, Parse parse) {
  if (!text) return {false, Value(0)};
  char* end = nullptr;
  const auto value = parse(text, &end);
  if (end == text) return {false, Value(0)};
  return {true, static_cast<Value>(value)};
}

unsigned long long swap64(unsigned long long value) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  return value;
#else
  return __builtin_bswap64(value);
#endif
}

constexpr const char* kWhiteSpaces = " \t\r\n";

}  // namespace

std::pair<bool, long> stringToLong(const char* text, int base) {
  return parseNumber<long>(text, [base](const char* t, char** e) { return std::strtol(t, e, base); });
}

std::pair<bool, uint32_t> stringToUInt32(const char* text, int base) {
  return parseNumber<uint32_t>(text,
                               [base](const char* t, char** e) { return std::strtoll(t, e, base); });
}

std::pair<bool, int64_t> stringToInt64(const char* text, int base) {
  return parseNumber<int64_t>(text,
                              [base](const char* t, char** e) { return std::strtoll(t, e, base); });
}

std::pair<bool, uint64_t> stringToUint64(const char* text, int base) {
  return parseNumber<uint64_t>(
      text, [base](const char* t, char** e) { return std::strtoull(t, e, base); });
}

unsigned long long htonll(unsigned long long value) { return swap64(value); }
long long htonll(long long value) {
  return static_cast<long long>(swap64(static_cast<unsigned long long>(value)));
}
unsigned long long ntohll(unsigned long long value) { return swap64(value); }
long long ntohll(long long value) {
  return static_cast<long long>(swap64(static_cast<unsigned long long>(value)));
}

void toLower(std::string& text) {
  for (auto& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

bool beginsWith(const std::string& text, const char* prefix) {
  if (!prefix) return true;
  const size_t length = std::strlen(prefix);
  return length <= text.size() && text.compare(0, length, prefix) == 0;
}

bool endsWith(const std::string& text, const char* suffix) {
  if (!suffix) return true;
  const size_t length = std::strlen(suffix);
  return length <= text.size() && text.compare(text.size() - length, length, suffix) == 0;
}

std::string trimWhiteSpaces(const std::string& text) {
  const size_t first = text.find_first_not_of(kWhiteSpaces);
  if (first == std::string::npos) return std::string();
  const size_t last = text.find_last_not_of(kWhiteSpaces);
  return text.substr(first, last - first + 1);
}

char uint8ToCharacter(unsigned char value, char replacement) {
  return value >= 32 && value <= 126 ? static_cast<char>(value) : replacement;
}

tavrinNetwork::MACAddress multicastIp2Mac(const tavrinNetwork::SimpleIp& group) {
  const uint32_t host = group.getHostOrder();
  const unsigned char bytes[tavrinNetwork::MACAddress::kSize] = {
      0x01, 0x00, 0x5E, static_cast<unsigned char>((host >> 16) & 0x7F),
      static_cast<unsigned char>((host >> 8) & 0xFF), static_cast<unsigned char>(host & 0xFF)};
  return tavrinNetwork::MACAddress(bytes);
}

uint32_t getMacLower4Bytes(const tavrinNetwork::MACAddress& mac) {
  return static_cast<uint32_t>(mac.mac[2]) << 24 | static_cast<uint32_t>(mac.mac[3]) << 16 |
         static_cast<uint32_t>(mac.mac[4]) << 8 | static_cast<uint32_t>(mac.mac[5]);
}

uint16_t getMacHigher2Bytes(const tavrinNetwork::MACAddress& mac) {
  return static_cast<uint16_t>(mac.mac[0] << 8 | mac.mac[1]);
}

}  // namespace tavrinCommon
