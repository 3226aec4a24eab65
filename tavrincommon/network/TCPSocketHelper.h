// Makes the three kinds of TCP socket the connectors need: a listening server socket, an accepted
// client and an outgoing non-blocking client. Every socket is close-on-exec, non-blocking and
// closes abortively. Stateless; callable from any thread. Failures are logged (origin Sockets).
#pragma once

#include "tavrincommon/network/TCPSocketInterface.h"

#include <memory>

namespace tavrinLog {
class TavrinLogging;
}

namespace tavrinNetwork {

class TCPSocketHelper {
 public:
  // Bound to `at`, listening with a backlog of 1. Empty on failure.
  static std::unique_ptr<TCPSocketInterface> createListenSocket(const SimpleEndpoint& at, bool mptcp,
                                                                tavrinLog::TavrinLogging* logging);
  // One waiting client of `server`; `peer` receives its address (cleared on failure). A
  // non-blocking server with nobody waiting fails with EAGAIN, logged like any failure.
  static std::unique_ptr<TCPSocketInterface> acceptClient(TCPSocketInterface* server,
                                                          SimpleEndpoint& peer,
                                                          tavrinLog::TavrinLogging* logging);
  // Bound to `localIp` (any port) and connecting without blocking. `connectedNow` tells whether
  // the connection stood at once; otherwise it completes when the socket becomes writable.
  static std::unique_ptr<TCPSocketInterface> connectToServer(const SimpleEndpoint& remote,
                                                             const SimpleIp& localIp,
                                                             bool& connectedNow, bool mptcp,
                                                             tavrinLog::TavrinLogging* logging);
  static bool isMptcpEnabled(int fd, tavrinLog::TavrinLogging* logging);
};

}  // namespace tavrinNetwork
