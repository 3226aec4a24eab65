#include "tavrincommon/network/NetlinkSocket.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tavrinNetwork {

NetlinkSocket::~NetlinkSocket() { close(); }

bool NetlinkSocket::open(int protocol, int groups) {
  close();
  fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol);
  if (fd < 0) return false;
  sockaddr_nl address;
  std::memset(&address, 0, sizeof address);
  address.nl_family = AF_NETLINK;
  address.nl_pid = 0;
  address.nl_groups = static_cast<unsigned>(groups);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
    const int error = errno;
    close();
    errno = error;
    return false;
  }
  return true;
}

void NetlinkSocket::close() {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

bool NetlinkSocket::setNonblock() {
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

bool NetlinkSocket::receive() {
  // Only the arrival matters: the watcher re-reads every address anyway. A datagram socket drops
  // the rest of a message that does not fit.
  char scratch[4];
  return ::recv(fd, scratch, sizeof scratch, 0) >= 0;
}

int NetlinkSocket::receive(void* buffer, int length) {
  return static_cast<int>(::recv(fd, buffer, static_cast<size_t>(length), 0));
}

}  // namespace tavrinNetwork
