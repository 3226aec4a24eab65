#include "tavrincommon/network/TCPSocket.h"

#include "tavrincommon/network/IPSocketHelper.h"

#include <cerrno>

#include <sys/socket.h>
#include <unistd.h>

namespace tavrinNetwork {

TCPSocket::TCPSocket(tavrinLog::TavrinLogging* logging_, int fd_) : logging(logging_), fd(fd_) {}

TCPSocket::~TCPSocket() { close(); }

bool TCPSocket::setCloexec(int fd_, tavrinLog::TavrinLogging* logging_) {
  return IPSocketHelper::setCloexec(fd_, logging_);
}
bool TCPSocket::setNonblock(int fd_, tavrinLog::TavrinLogging* logging_) {
  return IPSocketHelper::setNonblock(fd_, logging_);
}
bool TCPSocket::setDSCP(int fd_, int dscp, tavrinLog::TavrinLogging* logging_) {
  return IPSocketHelper::setDSCP(fd_, dscp, logging_);
}
bool TCPSocket::setMptcp(int fd_, tavrinLog::TavrinLogging* logging_) {
  return IPSocketHelper::setMptcp(fd_, logging_);
}
bool TCPSocket::getMptcp(int fd_, tavrinLog::TavrinLogging* logging_) {
  return IPSocketHelper::getMptcp(fd_, logging_);
}
bool TCPSocket::hasError(int fd_, tavrinLog::TavrinLogging* logging_) {
  return IPSocketHelper::hasError(fd_, logging_);
}

void TCPSocket::close() {
  // Descriptor 0 is a valid socket when the process runs without stdin, so it is closed too.
  if (fd >= 0) {
    IPSocketHelper::setLingerZero(fd);
    ::close(fd);
  }
  boundEndpoint.clear();
  boundEndpointKnown = false;
  fd = -1;
}

bool TCPSocket::setNonblock() { return setNonblock(fd, logging); }

bool TCPSocket::setDSCP(int dscp) { return setDSCP(fd, dscp, logging); }

int TCPSocket::send(const void* data, int length) {
  if (length < 0) {
    errno = EINVAL;
    return -1;
  }
  // MSG_NOSIGNAL: a library must not rely on, or change, the process's SIGPIPE disposition.
  return static_cast<int>(::send(fd, data, static_cast<size_t>(length), MSG_NOSIGNAL));
}

int TCPSocket::receive(void* buffer, int length) {
  if (length < 0) {
    errno = EINVAL;
    return -1;
  }
  return static_cast<int>(::recv(fd, buffer, static_cast<size_t>(length), 0));
}

SimpleEndpoint TCPSocket::getBoundEndpoint() const {
  if (!boundEndpointKnown && valid()) {
    boundEndpoint.clear();
    boundEndpointKnown = true;
    socklen_t length = SimpleEndpoint::kSockAddrLength;
    getsockname(fd, boundEndpoint.sockAddr(), &length);
  }
  return boundEndpoint;
}

bool TCPSocket::hasError() const { return hasError(fd, logging); }

}  // namespace tavrinNetwork
