// Test helper: a bare TCP peer made of plain system calls, for tests that play a hostile or broken
// host against a connector (one that never reads, floods, or stops half-way through a frame). It
// connects from a source address of the loopback network (127.0.0.0/8) to 127.0.0.1, so that
// tests can stand for several hosts. Non-blocking after the connect. Single-threaded.
#pragma once

#include <string>

namespace tavrinTesting {

class RawPeer {
 public:
  // `receiveBuffer` > 0 shrinks the socket's receive buffer first (a peer that reads slowly).
  RawPeer(unsigned short port, const char* sourceIp = "127.0.0.1", int receiveBuffer = 0);
  ~RawPeer();
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  bool connected() const { return fd >= 0; }
  // The local port (host order), 0 when not connected.
  unsigned short localPort() const;
  // Bytes the socket took now (it may take none while the peer's window is shut).
  size_t sendSome(const std::string& bytes);
  // What has arrived, without waiting.
  std::string receiveSome();
  // The other side has closed or reset the connection.
  bool closedByOtherSide() const;
  // Closes with a reset, as the connectors do; what the other side has not read yet stays there.
  void reset();

 private:
  int fd = -1;
};

}  // namespace tavrinTesting
