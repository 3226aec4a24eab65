#include "tavrincommon/network/MulticastSocket.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/network/IPSocketHelper.h"

#include <cerrno>
#include <cstring>

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tavrinNetwork {

using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;

#define SOCKET_ERROR(...) TAVRIN_LOG(logging, DefaultOrigins::Sockets, SeverityLevel::Error, __VA_ARGS__)

MulticastSocket::MulticastSocket(tavrinLog::TavrinLogging* logging_)
    : logging(logging_), mcEndpoint(SimpleIp(), 0), unicastSocket(logging_) {}

MulticastSocket::~MulticastSocket() { close(); }

bool MulticastSocket::open(SimpleIp mcIp, unsigned short mcPort, SimpleIp sendIp,
                           unsigned short sendPort, const std::string& interfaceName,
                           bool nonblocking, bool joinGroup, bool multicastLoop) {
  close();
  const SimpleIp::CharString groupText(mcIp);
  const SimpleIp::CharString sendText(sendIp);
  const unsigned groupPort = mcPort;
  const unsigned ownPort = sendPort;
  if (!mcIp.isMulticast()) {
    SOCKET_ERROR(
        "Failed to open multicast %s:%u socket (SendIP: %s:%u, interface: '%s'): Not a multicast "
        "address!",
        groupText.c_str(), groupPort, sendText.c_str(), ownPort, interfaceName.c_str());
    return false;
  }
  if (!unicastSocket.open(sendIp, sendPort, interfaceName, nonblocking)) {
    SOCKET_ERROR(
        "Failed to open multicast %s:%u socket (SendIP: %s:%u, interface: '%s'): Failed to open "
        "unicast send socket!",
        groupText.c_str(), groupPort, sendText.c_str(), ownPort, interfaceName.c_str());
    return false;
  }
  mcEndpoint = SimpleEndpoint(mcIp, mcPort);
  fd = IPSocketHelper::openUdp(mcEndpoint, interfaceName, nonblocking, logging);
  if (fd < 0) {
    SOCKET_ERROR(
        "Failed to open multicast %s:%u socket (SendIP: %s:%u, interface: '%s'): Failed to open "
        "multicast receive socket!",
        groupText.c_str(), groupPort, sendText.c_str(), ownPort, interfaceName.c_str());
    close();
    return false;
  }
  if (!setMulticastLoop(multicastLoop)) {
    SOCKET_ERROR(
        "Failed to initialize multicast %s:%u socket (SendIP: %s:%u, interface: '%s'): Failed to "
        "%s multicast loop!",
        groupText.c_str(), groupPort, sendText.c_str(), ownPort, interfaceName.c_str(),
        multicastLoop ? "enable" : "disable");
    close();
    return false;
  }
  if (joinGroup && !joinOrLeaveMcGroup(true)) {
    SOCKET_ERROR(
        "Failed to initialize multicast %s:%u socket (SendIP: %s:%u, interface: '%s'): Failed to "
        "join multicast group!",
        groupText.c_str(), groupPort, sendText.c_str(), ownPort, interfaceName.c_str());
    close();
    return false;
  }
  return true;
}

void MulticastSocket::close() {
  // Descriptor 0 is a valid socket when the process runs without stdin, so it is closed too.
  if (fd >= 0) {
    joinOrLeaveMcGroup(false);
    IPSocketHelper::setLingerZero(fd);
    ::close(fd);
  }
  unicastSocket.close();
  fd = -1;
  mcEndpoint = SimpleEndpoint(SimpleIp(), 0);
  joined = false;
}

bool MulticastSocket::joinOrLeaveMcGroup(bool join) {
  if (joined == join) return true;
  ip_mreqn request;
  std::memset(&request, 0, sizeof request);
  request.imr_multiaddr.s_addr = mcEndpoint.getIp().getIp();
  request.imr_address.s_addr = unicastSocket.getEndpoint().getIp().getIp();
  request.imr_ifindex = 0;
  const std::string& interfaceName = unicastSocket.getEthInterface();
  const SimpleIp::CharString groupText(mcEndpoint.getIp());
  if (!interfaceName.empty()) {
    const unsigned index = if_nametoindex(interfaceName.c_str());
    if (index == 0) {
      if (join) {
        SOCKET_ERROR("Failed to join MC group %s with socket %d (interface: '%s'): Interface not "
                     "found!",
                     groupText.c_str(), fd, interfaceName.c_str());
        return false;
      }
      SOCKET_ERROR("Leave MC group %s with socket %d (interface: '%s'): Interface not found, "
                   "continuing anyway on all interfaces!",
                   groupText.c_str(), fd, interfaceName.c_str());
    }
    request.imr_ifindex = static_cast<int>(index);
  }
  if (setsockopt(fd, IPPROTO_IP, join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &request,
                 sizeof request) < 0) {
    const int error = errno;
    SOCKET_ERROR("Failed to %s MC group %s with socket %d (interface: '%s'): %d (%s)!",
                 join ? "join" : "leave", groupText.c_str(), fd, interfaceName.c_str(), error,
                 std::strerror(error));
    return false;
  }
  joined = join;
  return true;
}

bool MulticastSocket::setNonblock() {
  return IPSocketHelper::setNonblock(fd, logging) && unicastSocket.setNonblock();
}

bool MulticastSocket::setDSCP(int dscp) {
  return IPSocketHelper::setDSCP(fd, dscp, logging) && unicastSocket.setDSCP(dscp);
}

bool MulticastSocket::setMulticastTTL(int ttl) {
  return IPSocketHelper::setMulticastTTL(fd, ttl, logging) && unicastSocket.setMulticastTTL(ttl);
}

bool MulticastSocket::setMulticastLoop(bool on) {
  return IPSocketHelper::setMulticastLoop(fd, on, logging) && unicastSocket.setMulticastLoop(on);
}

int MulticastSocket::sendTo(const SimpleEndpoint& to, const void* data, int length) {
  return unicastSocket.sendTo(to, data, length);
}

int MulticastSocket::sendMulticast(const void* data, int length) {
  return unicastSocket.sendTo(mcEndpoint, data, length);
}

int MulticastSocket::receive(void* buffer, int length) {
  SimpleEndpoint from;
  return receiveFrom(from, buffer, length);
}

int MulticastSocket::receiveFrom(SimpleEndpoint& from, void* buffer, int length) {
  return UDPSocket::receiveFrom(fd, unicastSocket.isNonblock(), from, buffer, length);
}

int MulticastSocket::unicastReceive(void* buffer, int length) {
  return unicastSocket.receive(buffer, length);
}

int MulticastSocket::unicastReceiveFrom(SimpleEndpoint& from, void* buffer, int length) {
  return unicastSocket.receiveFrom(from, buffer, length);
}

}  // namespace tavrinNetwork
