#include "tavrincommon/network/SimpleIp.h"

#include <cstdio>
#include <cstring>

#include <arpa/inet.h>

namespace tavrinNetwork {

SimpleIp::CharString::CharString(const SimpleIp& address) {
  const uint32_t raw = address.getIp();
  if (!inet_ntop(AF_INET, &raw, text, sizeof text)) text[0] = '\0';
}

SimpleIp::SimpleIp(const char* text) {
  unsigned char b[4];
  if (text && std::sscanf(text, "%hhu.%hhu.%hhu.%hhu", &b[0], &b[1], &b[2], &b[3]) == 4) {
    // b[0] is the first dotted number and goes to the lowest-addressed byte.
    std::memcpy(&ip, b, sizeof ip);
  }
}

bool SimpleIp::isMulticast() const { return (getHostOrder() >> 24 & 0xF0u) == 0xE0u; }

}  // namespace tavrinNetwork
