// A six-byte Ethernet hardware address, byte 0 first on the wire and in text. A plain copyable
// value that owns nothing; usable from any thread.
#pragma once

#include <cstdint>
#include <string>

namespace tavrinNetwork {

class MACAddress {
 public:
  // "00:0E:A1:12:34:56" or "000EA1123456", upper-case hexadecimal. Built on the stack.
  class CharString {
   public:
    CharString(const unsigned char* bytes, bool withColons);
    explicit CharString(const MACAddress& address, bool withColons = true)
        : CharString(address.mac, withColons) {}
    const char* c_str() const { return text; }

   private:
    char text[18];
  };

  static constexpr unsigned kSize = 6;

  // All zero.
  MACAddress() = default;
  explicit MACAddress(const unsigned char* bytes);

  // Exactly twelve hexadecimal digits, two per byte, no separators. On failure all bytes are zero.
  bool readMac(const char* text);
  // The colon-separated form, each component one or two hexadecimal digits ("0:e:a1:12:34:56").
  // Text that does not start with a hexadecimal number is tried as readMac's form instead.
  bool fromString(const char* text);

  const unsigned char* getBytes() const { return mac; }
  unsigned char operator[](unsigned index) const { return mac[index]; }
  void clear();
  std::string toString(bool withColons = true) const {
    return CharString(mac, withColons).c_str();
  }

  bool operator==(const MACAddress& other) const;
  bool operator!=(const MACAddress& other) const { return !(*this == other); }
  bool operator<(const MACAddress& other) const;

  // Transmission order.
  unsigned char mac[kSize] = {0, 0, 0, 0, 0, 0};
};

}  // namespace tavrinNetwork
