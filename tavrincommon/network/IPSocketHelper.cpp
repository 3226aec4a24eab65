#include "tavrincommon/network/IPSocketHelper.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tavrinNetwork {

using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;

#define SOCKET_ERROR(logging, ...) \
  TAVRIN_LOG(logging, DefaultOrigins::Sockets, SeverityLevel::Error, __VA_ARGS__)

bool IPSocketHelper::setCloexec(int fd, tavrinLog::TavrinLogging* logging) {
  const int flags = fcntl(fd, F_GETFD);
  if (flags < 0 || fcntl(fd, F_SETFD, flags | FD_CLOEXEC) < 0) {
    const int error = errno;
    SOCKET_ERROR(logging, "fcntl() failed (setCloexec) on socket %d: %d (%s)!", fd, error,
                 std::strerror(error));
    return false;
  }
  return true;
}

bool IPSocketHelper::setNonblock(int fd, tavrinLog::TavrinLogging* logging) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
    const int error = errno;
    SOCKET_ERROR(logging, "fcntl() failed (setNonblock) on socket %d: %d (%s)!", fd, error,
                 std::strerror(error));
    return false;
  }
  return true;
}

bool IPSocketHelper::setDSCP(int fd, int dscp, tavrinLog::TavrinLogging* logging) {
  int tos = 0;
  socklen_t length = sizeof tos;
  if (getsockopt(fd, IPPROTO_IP, IP_TOS, &tos, &length) < 0) {
    const int error = errno;
    SOCKET_ERROR(logging, "getsockopt() failed (setDSCP) on socket %d: %d (%s)!", fd, error,
                 std::strerror(error));
    tos = 0;
  }
  tos = (tos & ~0xFC) | ((dscp & 0xFF) << 2);
  if (setsockopt(fd, IPPROTO_IP, IP_TOS, &tos, sizeof tos) < 0) {
    const int error = errno;
    SOCKET_ERROR(logging, "setsockopt() failed (setDSCP) on socket %d: %d (%s)!", fd, error,
                 std::strerror(error));
    return false;
  }
  return true;
}

bool IPSocketHelper::setMulticastTTL(int fd, int ttl, tavrinLog::TavrinLogging* logging) {
  const unsigned char value = static_cast<unsigned char>(ttl);
  if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &value, sizeof value) < 0) {
    const int error = errno;
    SOCKET_ERROR(logging, "setsockopt() failed (setMulticastTTL) on socket %d: %d (%s)!", fd,
                 error, std::strerror(error));
    return false;
  }
  return true;
}

bool IPSocketHelper::setMulticastLoop(int fd, bool on, tavrinLog::TavrinLogging* logging) {
  const unsigned char value = on ? 1 : 0;
  if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &value, sizeof value) < 0) {
    const int error = errno;
    SOCKET_ERROR(logging, "setsockopt() failed (setMulticastLoop) on socket %d: %d (%s)!", fd,
                 error, std::strerror(error));
    return false;
  }
  return true;
}

bool IPSocketHelper::setMptcp(int, tavrinLog::TavrinLogging*) { return true; }

bool IPSocketHelper::getMptcp(int, tavrinLog::TavrinLogging*) { return false; }

bool IPSocketHelper::hasError(int fd, tavrinLog::TavrinLogging* logging) {
  int pending = -1;
  socklen_t length = sizeof pending;
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &length) < 0) {
    const int error = errno;
    SOCKET_ERROR(logging, "getsockopt() failed (hasError) on socket %d: %d (%s)!", fd, error,
                 std::strerror(error));
    return true;
  }
  if (pending != 0) {
    SOCKET_ERROR(logging, "hasError(): Error on socket %d: %d (%s)!", fd, pending,
                 std::strerror(pending));
    return true;
  }
  return false;
}

bool IPSocketHelper::setLingerZero(int fd) {
  linger value{};
  value.l_onoff = 1;
  value.l_linger = 0;
  return setsockopt(fd, SOL_SOCKET, SO_LINGER, &value, sizeof value) == 0;
}

int IPSocketHelper::openUdp(const SimpleEndpoint& bindTo, const std::string& interfaceName,
                            bool nonblocking, tavrinLog::TavrinLogging* logging) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | (nonblocking ? SOCK_NONBLOCK : 0), 0);
  if (fd < 0) {
    const int error = errno;
    SOCKET_ERROR(logging, "socket() failed (open) for %s on interface '%s': %d (%s)!",
                 SimpleEndpoint::CharString(bindTo).c_str(), interfaceName.c_str(), error,
                 std::strerror(error));
    return -1;
  }
  const char* step = nullptr;
  const int reuse = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) < 0) {
    step = "setsockopt() failed (open; reuse)";
  } else if (bind(fd, bindTo.sockAddr(), SimpleEndpoint::kSockAddrLength) < 0) {
    step = "bind() failed (open; bind)";
  } else if (!interfaceName.empty() &&
             setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, interfaceName.data(),
                        static_cast<socklen_t>(interfaceName.size())) < 0) {
    step = "setsockopt() failed (open; bind to device)";
  }
  if (step) {
    const int error = errno;
    SOCKET_ERROR(logging, "%s for %s on interface '%s' (fd %d): %d (%s)!", step,
                 SimpleEndpoint::CharString(bindTo).c_str(), interfaceName.c_str(), fd, error,
                 std::strerror(error));
    ::close(fd);
    return -1;
  }
  return fd;
}

}  // namespace tavrinNetwork
