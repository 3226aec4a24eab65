// The TCPSocketInterface over a connected or listening descriptor, which it owns and closes
// abortively (linger on, time 0). Made by TCPSocketHelper. Used from the event-loop thread.
#pragma once

#include "tavrincommon/network/TCPSocketInterface.h"

namespace tavrinLog {
class TavrinLogging;
}

namespace tavrinNetwork {

class TCPSocket : public TCPSocketInterface {
 public:
  // Takes ownership of `fd`.
  TCPSocket(tavrinLog::TavrinLogging* logging, int fd);
  ~TCPSocket() override;
  TCPSocket(const TCPSocket&) = delete;
  TCPSocket& operator=(const TCPSocket&) = delete;

  static bool setCloexec(int fd, tavrinLog::TavrinLogging* logging);
  static bool setNonblock(int fd, tavrinLog::TavrinLogging* logging);
  static bool setDSCP(int fd, int dscp, tavrinLog::TavrinLogging* logging);
  static bool setMptcp(int fd, tavrinLog::TavrinLogging* logging);
  static bool getMptcp(int fd, tavrinLog::TavrinLogging* logging);
  static bool hasError(int fd, tavrinLog::TavrinLogging* logging);

  void close() override;
  bool setNonblock() override;
  bool setDSCP(int dscp) override;
  // Never raises SIGPIPE: a write to a reset connection fails with EPIPE.
  int send(const void* data, int length) override;
  int receive(void* buffer, int length) override;
  bool valid() const override { return fd >= 0; }
  int getFd() const override { return fd; }
  // Asked of the system once while the socket is open, then cached.
  SimpleEndpoint getBoundEndpoint() const override;
  bool hasError() const override;

 private:
  tavrinLog::TavrinLogging* logging;
  int fd;
  mutable bool boundEndpointKnown = false;
  mutable SimpleEndpoint boundEndpoint;
};

}  // namespace tavrinNetwork
