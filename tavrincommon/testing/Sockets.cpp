#include "tavrincommon/testing/Sockets.h"

#include "tavrincommon/network/SimpleEndpoint.h"

#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tavrinTesting {

using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

bool waitFor(int fd, short events, int ms) {
  pollfd entry{fd, events, 0};
  return poll(&entry, 1, ms) == 1;
}

bool loopbackDeliversMulticast(const SimpleIp& group, unsigned short port) {
  const SimpleIp loopback("127.0.0.1");
  const int receiver = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int one = 1;
  const unsigned char ttl = 0;
  const SimpleEndpoint groupEndpoint(group, port);
  const SimpleEndpoint local(loopback, 0);
  ip_mreqn request{};
  request.imr_multiaddr.s_addr = group.getIp();
  request.imr_address.s_addr = loopback.getIp();
  request.imr_ifindex = static_cast<int>(if_nametoindex("lo"));
  const bool delivered =
      receiver >= 0 && sender >= 0 &&
      setsockopt(receiver, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == 0 &&
      bind(receiver, groupEndpoint.sockAddr(), SimpleEndpoint::kSockAddrLength) == 0 &&
      setsockopt(receiver, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == 0 &&
      bind(sender, local.sockAddr(), SimpleEndpoint::kSockAddrLength) == 0 &&
      setsockopt(sender, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) == 0 &&
      sendto(sender, "probe", 5, 0, groupEndpoint.sockAddr(), SimpleEndpoint::kSockAddrLength) ==
          5 &&
      waitFor(receiver, POLLIN, 2000);
  if (receiver >= 0) ::close(receiver);
  if (sender >= 0) ::close(sender);
  return delivered;
}

}  // namespace tavrinTesting
