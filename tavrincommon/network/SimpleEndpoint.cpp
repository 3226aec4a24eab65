#include "tavrincommon/network/SimpleEndpoint.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace tavrinNetwork {

static_assert(std::is_standard_layout<SimpleEndpoint>::value, "SimpleEndpoint must stay plain");
static_assert(sizeof(SimpleEndpoint) == sizeof(sockaddr_in), "SimpleEndpoint is a sockaddr_in");
static_assert(offsetof(sockaddr_in, sin_family) == 0 && offsetof(sockaddr_in, sin_port) == 2 &&
                  offsetof(sockaddr_in, sin_addr) == 4,
              "sockaddr_in layout this type relies on");

SimpleEndpoint::CharString::CharString(const SimpleEndpoint& endpoint) {
  std::snprintf(text, sizeof text, "%s:%u", SimpleIp::CharString(endpoint.ip).c_str(),
                static_cast<unsigned>(endpoint.getPort()));
}

SimpleEndpoint::SimpleEndpoint(const SimpleIp& ip_, unsigned short port_) {
  clear();
  ip = ip_;
  setPort(port_);
}

SimpleEndpoint::SimpleEndpoint(const sockaddr_in& address) {
  clear();
  port = address.sin_port;
  ip = SimpleIp(static_cast<uint32_t>(address.sin_addr.s_addr));
}

void SimpleEndpoint::clear() {
  family = AF_INET;
  port = 0;
  ip = SimpleIp(0u);
  std::memset(zero, 0, sizeof zero);
}

void SimpleEndpoint::setPort(unsigned short port_) { port = htons(port_); }

}  // namespace tavrinNetwork
