#include "tavrincommon/network/MACAddress.h"

#include "tavrincommon/common/Utilities.h"

#include <cstdio>
#include <cstring>

namespace tavrinNetwork {

MACAddress::CharString::CharString(const unsigned char* bytes, bool withColons) {
  char* out = text;
  for (unsigned i = 0; i < kSize; ++i) {
    if (withColons && i > 0) *out++ = ':';
    std::snprintf(out, 3, "%02X", static_cast<unsigned>(bytes[i]));
    out += 2;
  }
  *out = '\0';
}

MACAddress::MACAddress(const unsigned char* bytes) { std::memcpy(mac, bytes, kSize); }

void MACAddress::clear() { std::memset(mac, 0, kSize); }

bool MACAddress::readMac(const char* text) {
  unsigned values[kSize];
  if (!text || std::sscanf(text, "%02X%02X%02X%02X%02X%02X", &values[0], &values[1], &values[2],
                           &values[3], &values[4], &values[5]) != 6) {
    clear();
    return false;
  }
  for (unsigned i = 0; i < kSize; ++i) mac[i] = static_cast<unsigned char>(values[i]);
  return true;
}

bool MACAddress::fromString(const char* text) {
  if (!text) {
    clear();
    return false;
  }
  const char* cursor = text;
  for (unsigned i = 0; i < kSize; ++i) {
    const auto parsed = tavrinCommon::stringToLong(cursor, 16);
    if (!parsed.first) return readMac(text);
    mac[i] = static_cast<unsigned char>(parsed.second & 0xFF);
    if (i == kSize - 1) break;  // trailing text after the sixth component is ignored
    const char* colon = std::strchr(cursor, ':');
    if (!colon) {
      clear();
      return false;
    }
    cursor = colon + 1;
  }
  return true;
}

bool MACAddress::operator==(const MACAddress& other) const {
  return std::memcmp(mac, other.mac, kSize) == 0;
}

bool MACAddress::operator<(const MACAddress& other) const {
  return std::memcmp(mac, other.mac, kSize) < 0;
}

}  // namespace tavrinNetwork
