#include "tavrincommon/testing/RawPeer.h"

#include <cerrno>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tavrinTesting {

RawPeer::RawPeer(unsigned short port, const char* sourceIp, int receiveBuffer) {
  const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (s < 0) return;
  if (receiveBuffer > 0) setsockopt(s, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  sockaddr_in source{};
  source.sin_family = AF_INET;
  inet_pton(AF_INET, sourceIp, &source.sin_addr);
  sockaddr_in target{};
  target.sin_family = AF_INET;
  target.sin_port = htons(port);
  target.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(s, reinterpret_cast<sockaddr*>(&source), sizeof source) != 0 ||
      connect(s, reinterpret_cast<sockaddr*>(&target), sizeof target) != 0) {
    close(s);
    return;
  }
  fcntl(s, F_SETFL, fcntl(s, F_GETFL) | O_NONBLOCK);
  // Frames leave at once, as the connectors' do: a reset right after a send loses nothing that
  // Nagle's algorithm held back.
  const int on = 1;
  setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  fd = s;
}

RawPeer::~RawPeer() {
  if (fd >= 0) close(fd);
}

void RawPeer::reset() {
  if (fd < 0) return;
  const linger abortive{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
  close(fd);
  fd = -1;
}

unsigned short RawPeer::localPort() const {
  sockaddr_in local{};
  socklen_t length = sizeof local;
  if (fd < 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) return 0;
  return ntohs(local.sin_port);
}

size_t RawPeer::sendSome(const std::string& bytes) {
  if (fd < 0 || bytes.empty()) return 0;
  const ssize_t n = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  return n > 0 ? static_cast<size_t>(n) : 0;
}

std::string RawPeer::receiveSome() {
  std::string all;
  char buffer[4096];
  for (;;) {
    const ssize_t n = fd < 0 ? -1 : recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) return all;
    all.append(buffer, static_cast<size_t>(n));
  }
}

bool RawPeer::closedByOtherSide() const {
  if (fd < 0) return true;
  pollfd p{fd, POLLRDHUP, 0};
  return poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

}  // namespace tavrinTesting
