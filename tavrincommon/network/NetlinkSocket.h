// A netlink socket used only as a change signal: it is bound to multicast groups of the kernel and
// read to empty it, the content never looked at. Owns its descriptor. Used from the event-loop
// thread.
#pragma once

namespace tavrinNetwork {

class NetlinkSocket {
 public:
  NetlinkSocket() = default;
  ~NetlinkSocket();
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;

  // Closes first; opens a close-on-exec raw netlink socket of `protocol` bound to the group mask
  // `groups` (the kernel chooses the port id). On failure the socket is closed and errno tells why.
  bool open(int protocol, int groups);
  void close();
  bool setNonblock();
  // Reads and discards one message; false when nothing could be read (EAGAIN included).
  bool receive();
  bool valid() const { return fd >= 0; }
  int getFd() const { return fd; }

 private:
  int fd = -1;
};

}  // namespace tavrinNetwork
