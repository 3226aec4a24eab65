#include "tavrincommon/network/TCPSocketHelper.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/network/IPSocketHelper.h"
#include "tavrincommon/network/TCPSocket.h"

#include <cerrno>
#include <cstring>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tavrinNetwork {

using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;

#define SOCKET_ERROR(logging, ...) \
  TAVRIN_LOG(logging, DefaultOrigins::Sockets, SeverityLevel::Error, __VA_ARGS__)

namespace {

// An outgoing connection that names its peer when the attempt fails: refused or unreachable when
// the connect completes, or reset before the peer sent a byte. The second is what a peer's
// overflowing listening queue looks like from here: the handshake seemed to complete and the
// first frames are answered with a reset. Said once per socket, at Warning: the application
// retries, but someone looking at a hall where some devices did not come up needs the line.
class OutgoingTCPSocket final : public TCPSocket {
 public:
  OutgoingTCPSocket(tavrinLog::TavrinLogging* logging_, int descriptor,
                    const SimpleEndpoint& remote_)
      : TCPSocket(logging_, descriptor), logging(logging_), remote(remote_) {}

  int send(const void* data, int length) override {
    const int sent = TCPSocket::send(data, length);
    if (sent < 0) failed(errno);
    return sent;
  }
  int receive(void* buffer, int length) override {
    const int received = TCPSocket::receive(buffer, length);
    if (received > 0) {
      heardFromPeer = true;
    } else if (received < 0) {
      failed(errno);
    }
    return received;
  }
  bool hasError() const override {
    int pending = 0;
    socklen_t length = sizeof pending;
    if (getsockopt(getFd(), SOL_SOCKET, SO_ERROR, &pending, &length) < 0)
      return TCPSocket::hasError();  // logs why the question failed
    if (pending == 0) return false;
    SOCKET_ERROR(logging, "Failed to connect TCP socket to endpoint %s: %d (%s)!",
                 SimpleEndpoint::CharString(remote).c_str(), pending, std::strerror(pending));
    return true;
  }

 private:
  void failed(int error) {
    if (heardFromPeer || resetLogged || error == EAGAIN || error == EWOULDBLOCK || error == EINTR)
      return;
    resetLogged = true;
    TAVRIN_LOG(logging, DefaultOrigins::Sockets, SeverityLevel::Warning,
               "Connection to endpoint %s ended before the peer sent anything: %d (%s)!",
               SimpleEndpoint::CharString(remote).c_str(), error, std::strerror(error));
    errno = error;
  }

  tavrinLog::TavrinLogging* logging;
  SimpleEndpoint remote;
  bool heardFromPeer = false;
  bool resetLogged = false;
};

void enableMptcp(int fd, const SimpleEndpoint& endpoint, tavrinLog::TavrinLogging* logging) {
  if (!TCPSocket::setMptcp(fd, logging)) {
    const int error = errno;
    SOCKET_ERROR(logging, "Failed to Enable MPTCP Connection at %s (%d (%s))!",
                 SimpleEndpoint::CharString(endpoint).c_str(), error, std::strerror(error));
  }
}

}  // namespace

std::unique_ptr<TCPSocketInterface> TCPSocketHelper::createListenSocket(
    const SimpleEndpoint& at, bool mptcp, tavrinLog::TavrinLogging* logging, int backlog) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    const int error = errno;
    SOCKET_ERROR(logging, "Failed to create server socket (%d (%s))!", error, std::strerror(error));
    return nullptr;
  }
  if (mptcp) enableMptcp(fd, at, logging);
  IPSocketHelper::setLingerZero(fd);
  const SimpleEndpoint address(at.getIp(), at.getPort());  // family forced to AF_INET
  if (bind(fd, address.sockAddr(), SimpleEndpoint::kSockAddrLength) < 0) {
    const int error = errno;
    SOCKET_ERROR(logging, "Failed to bind server socket to %s (%d (%s))!",
                 SimpleEndpoint::CharString(at).c_str(), error, std::strerror(error));
    ::close(fd);
    return nullptr;
  }
  if (listen(fd, backlog > 0 ? backlog : kDefaultListenBacklog) < 0) {
    const int error = errno;
    SOCKET_ERROR(logging, "Failed to listen to server socket at %s (%d (%s))!",
                 SimpleEndpoint::CharString(at).c_str(), error, std::strerror(error));
    ::close(fd);
    return nullptr;
  }
  if (!TCPSocket::setNonblock(fd, logging)) {
    SOCKET_ERROR(logging, "Failed to setup server socket at %s (NonBlock)!",
                 SimpleEndpoint::CharString(at).c_str());
    ::close(fd);
    return nullptr;
  }
  return std::make_unique<TCPSocket>(logging, fd);
}

std::unique_ptr<TCPSocketInterface> TCPSocketHelper::acceptClient(
    TCPSocketInterface* server, SimpleEndpoint& peer, tavrinLog::TavrinLogging* logging) {
  SimpleEndpoint address;
  socklen_t length = SimpleEndpoint::kSockAddrLength;
  // Close-on-exec from the start: a child spawned by another thread right after accept() would
  // otherwise inherit the connection (and keep it open after this side closes it).
  const int fd = server ? accept4(server->getFd(), address.sockAddr(), &length, SOCK_CLOEXEC) : -1;
  if (fd < 0) {
    const int error = server ? errno : EBADF;
    SOCKET_ERROR(logging, "Failed to accept client on server socket %s (%d (%s))!",
                 SimpleEndpoint::CharString(server ? server->getBoundEndpoint() : SimpleEndpoint())
                     .c_str(),
                 error, std::strerror(error));
    peer.clear();
    // The caller decides by errno (out of descriptors, say); the log callback may have changed it.
    errno = error;
    return nullptr;
  }
  peer = address;
  if (!TCPSocket::setNonblock(fd, logging)) {
    SOCKET_ERROR(logging, "Failed to setup client socket %s (NonBlock), aborting connection attempt!",
                 SimpleEndpoint::CharString(peer).c_str());
    ::close(fd);
    return nullptr;
  }
  return std::make_unique<TCPSocket>(logging, fd);
}

std::unique_ptr<TCPSocketInterface> TCPSocketHelper::connectToServer(
    const SimpleEndpoint& remote, const SimpleIp& localIp, bool& connectedNow, bool mptcp,
    tavrinLog::TavrinLogging* logging) {
  connectedNow = false;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    const int error = errno;
    SOCKET_ERROR(logging, "Failed to create TCP socket to endpoint %s: %d (%s)!",
                 SimpleEndpoint::CharString(remote).c_str(), error, std::strerror(error));
    return nullptr;
  }
  if (mptcp) enableMptcp(fd, remote, logging);
  IPSocketHelper::setLingerZero(fd);
  const SimpleEndpoint local(localIp, 0);
  if (bind(fd, local.sockAddr(), SimpleEndpoint::kSockAddrLength) < 0) {
    const int error = errno;
    SOCKET_ERROR(logging,
                 "Failed to bind client socket connecting to endpoint %s to local IP %s (%d (%s))!",
                 SimpleEndpoint::CharString(remote).c_str(), SimpleIp::CharString(localIp).c_str(),
                 error, std::strerror(error));
    ::close(fd);
    return nullptr;
  }
  if (!TCPSocket::setNonblock(fd, logging)) {
    SOCKET_ERROR(logging,
                 "Failed to setup client socket (NonBlock) to endpoint %s, aborting connection "
                 "attempt!",
                 SimpleEndpoint::CharString(remote).c_str());
    ::close(fd);
    return nullptr;
  }
  const SimpleEndpoint address(remote.getIp(), remote.getPort());
  if (connect(fd, address.sockAddr(), SimpleEndpoint::kSockAddrLength) == 0) {
    connectedNow = true;
  } else if (errno != EINPROGRESS) {
    const int error = errno;
    SOCKET_ERROR(logging, "Failed to connect TCP socket to endpoint %s: %d (%s)!",
                 SimpleEndpoint::CharString(remote).c_str(), error, std::strerror(error));
    ::close(fd);
    return nullptr;
  }
  return std::make_unique<OutgoingTCPSocket>(logging, fd, remote);
}

bool TCPSocketHelper::isMptcpEnabled(int fd, tavrinLog::TavrinLogging* logging) {
  return TCPSocket::getMptcp(fd, logging);
}

}  // namespace tavrinNetwork
