#include "tavrincommon/network/UDPSocket.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/network/IPSocketHelper.h"

#include <cerrno>

#include <sys/socket.h>
#include <unistd.h>

namespace tavrinNetwork {

UDPSocket::UDPSocket(tavrinLog::TavrinLogging* logging_) : logging(logging_) { setClosedState(); }

UDPSocket::~UDPSocket() { close(); }

void UDPSocket::setClosedState() {
  fd = -1;
  endpoint = SimpleEndpoint(SimpleIp(), 0);
  ethInterface.clear();
  nonblock = false;
}

bool UDPSocket::open(SimpleIp ip, unsigned short port, const std::string& interfaceName,
                     bool nonblocking) {
  close();
  endpoint = SimpleEndpoint(ip, port);
  ethInterface = interfaceName;
  nonblock = nonblocking;
  fd = IPSocketHelper::openUdp(endpoint, ethInterface, nonblocking, logging);
  if (fd < 0) {
    TAVRIN_LOG(logging, tavrinCommon::DefaultOrigins::Sockets, tavrinLog::SeverityLevel::Error,
               "Failed to open UDP socket (IP: %s, interface: '%s'): Open failed!",
               SimpleEndpoint::CharString(endpoint).c_str(), ethInterface.c_str());
    setClosedState();
    return false;
  }
  return true;
}

void UDPSocket::close() {
  // Descriptor 0 is a valid socket when the process runs without stdin, so it is closed too.
  if (fd >= 0) {
    IPSocketHelper::setLingerZero(fd);
    ::close(fd);
  }
  setClosedState();
}

bool UDPSocket::setNonblock() {
  if (!IPSocketHelper::setNonblock(fd, logging)) return false;
  nonblock = true;
  return true;
}

bool UDPSocket::setDSCP(int dscp) { return IPSocketHelper::setDSCP(fd, dscp, logging); }

bool UDPSocket::setMulticastTTL(int ttl) {
  return IPSocketHelper::setMulticastTTL(fd, ttl, logging);
}

bool UDPSocket::setMulticastLoop(bool on) {
  return IPSocketHelper::setMulticastLoop(fd, on, logging);
}

int UDPSocket::sendTo(const SimpleEndpoint& to, const void* data, int length) {
  if (length < 0) {
    errno = EINVAL;
    return -1;
  }
  return static_cast<int>(::sendto(fd, data, static_cast<size_t>(length), 0, to.sockAddr(),
                                   SimpleEndpoint::kSockAddrLength));
}

int UDPSocket::receive(void* buffer, int length) {
  SimpleEndpoint from;
  return receiveFrom(from, buffer, length);
}

int UDPSocket::receiveFrom(SimpleEndpoint& from, void* buffer, int length) {
  return receiveFrom(fd, nonblock, from, buffer, length);
}

int UDPSocket::receiveFrom(int fd_, bool nonblocking, SimpleEndpoint& from, void* buffer,
                           int length) {
  if (length < 0) {
    errno = EINVAL;
    return -1;
  }
  socklen_t addressLength = SimpleEndpoint::kSockAddrLength;
  const ssize_t result = ::recvfrom(fd_, buffer, static_cast<size_t>(length), MSG_TRUNC,
                                    from.sockAddr(), &addressLength);
  if (result < 0 && nonblocking && (errno == EAGAIN || errno == EWOULDBLOCK)) return 0;
  return static_cast<int>(result);
}

}  // namespace tavrinNetwork
