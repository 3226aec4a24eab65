// A netlink socket bound to multicast groups of the kernel, read as a change signal (receive())
// or for the messages themselves (receive(buffer, length)). Owns its descriptor. Used from the
// event-loop thread.
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
  // Reads one datagram into `buffer`, cut to `length` bytes: the bytes copied, or -1 with errno
  // (EAGAIN: nothing pending; ENOBUFS: the kernel dropped messages that did not fit its queue).
  int receive(void* buffer, int length);
  bool valid() const { return fd >= 0; }
  int getFd() const { return fd; }

 private:
  int fd = -1;
};

}  // namespace tavrinNetwork
