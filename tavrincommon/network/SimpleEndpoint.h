// An IPv4 address and port, laid out byte for byte as struct sockaddr_in (16 bytes) so that a
// pointer to it goes straight to bind, connect, sendto, recvfrom, accept and getsockname. A plain
// copyable value, the key of every endpoint map; usable from any thread.
#pragma once

#include "tavrincommon/network/SimpleIp.h"

#include <cstdint>
#include <string>

struct sockaddr;
struct sockaddr_in;

namespace tavrinNetwork {

class SimpleEndpoint {
 public:
  // "a.b.c.d:port"; every log line that shows an endpoint uses this form.
  class CharString {
   public:
    explicit CharString(const SimpleEndpoint& endpoint);
    const char* c_str() const { return text; }

   private:
    char text[64];
  };

  // The cleared endpoint: family AF_INET, address 0.0.0.0, port 0.
  SimpleEndpoint() { clear(); }
  // `port` in host order.
  SimpleEndpoint(const SimpleIp& ip_, unsigned short port_);
  explicit SimpleEndpoint(const sockaddr_in& address);

  void clear();
  SimpleIp getIp() const { return ip; }
  void setIp(const SimpleIp& ip_) { ip = ip_; }
  // Host order.
  unsigned short getPort() const { return ntohs(port); }
  void setPort(unsigned short port_);
  std::string toString() const { return CharString(*this).c_str(); }

  // For the socket calls, with length sizeof(SimpleEndpoint) == 16.
  sockaddr* sockAddr() { return reinterpret_cast<sockaddr*>(this); }
  const sockaddr* sockAddr() const { return reinterpret_cast<const sockaddr*>(this); }
  static constexpr unsigned kSockAddrLength = 16;

  bool operator==(const SimpleEndpoint& other) const {
    return ip == other.ip && port == other.port;
  }
  bool operator!=(const SimpleEndpoint& other) const { return !(*this == other); }
  // By address, then by port, both numerically. Inline: the connector looks its TCP connections
  // up by endpoint on every frame.
  bool operator<(const SimpleEndpoint& other) const {
    if (ip != other.ip) return ip < other.ip;
    return getPort() < other.getPort();
  }

 private:
  uint16_t family;
  uint16_t port;  // network order
  SimpleIp ip;
  uint8_t zero[8];
};

static_assert(sizeof(SimpleEndpoint) == 16, "SimpleEndpoint must have the size of sockaddr_in");

}  // namespace tavrinNetwork
