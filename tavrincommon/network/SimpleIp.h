// An IPv4 address kept in network byte order, exactly as the socket structures carry it; all ones
// (255.255.255.255) is the marker for "no address". A plain copyable value that owns nothing;
// usable from any thread.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <string>

namespace tavrinNetwork {

class SimpleIp {
 public:
  // Dotted-decimal text: 15 characters and the terminator. Built on the stack for log lines.
  class CharString {
   public:
    explicit CharString(const SimpleIp& ip);
    const char* c_str() const { return text; }

   private:
    char text[16];
  };

  static constexpr uint32_t kNoIp = 0xFFFFFFFFu;

  // The no-address value.
  SimpleIp() = default;
  // `networkOrder` as it stands in a sockaddr_in.
  explicit SimpleIp(uint32_t networkOrder) : ip(networkOrder) {}
  // "a.b.c.d", read number by number; anything after the fourth number is ignored. Text with fewer
  // than four numbers gives the no-address value.
  explicit SimpleIp(const char* text);
  explicit SimpleIp(const std::string& text) : SimpleIp(text.c_str()) {}

  uint32_t getIp() const { return ip; }
  void setIp(uint32_t networkOrder) { ip = networkOrder; }
  uint32_t getHostOrder() const { return ntohl(ip); }
  // True for 224.0.0.0 to 239.255.255.255.
  bool isMulticast() const;
  // False for the no-address value.
  bool isValid() const { return ip != kNoIp; }
  std::string toString() const { return CharString(*this).c_str(); }

  bool operator==(const SimpleIp& other) const { return ip == other.ip; }
  bool operator!=(const SimpleIp& other) const { return ip != other.ip; }
  // Numeric order: compares the host-order values.
  bool operator<(const SimpleIp& other) const { return getHostOrder() < other.getHostOrder(); }

 private:
  uint32_t ip = kNoIp;
};

}  // namespace tavrinNetwork
