// Makes the three kinds of TCP socket the connectors need: a listening server socket, an accepted
// client and an outgoing non-blocking client. Every socket is close-on-exec, non-blocking and
// closes abortively. Stateless; callable from any thread. Failures are logged (origin Sockets).
#pragma once

#include "tavrincommon/network/TCPSocketInterface.h"

#include <memory>

#include <sys/socket.h>

namespace tavrinLog {
class TavrinLogging;
}

namespace tavrinNetwork {

class TCPSocketHelper {
 public:
  // Connections the kernel completes while the loop has not accepted them yet. A hall of devices
  // switching on connects within the same few milliseconds; a connection that finds the queue
  // full is dropped or, through SYN cookies, reset after it seemed to stand. The system caps the
  // value (net.core.somaxconn); a queued connection costs the kernel a few hundred bytes.
  static constexpr int kDefaultListenBacklog = SOMAXCONN;

  // Bound to `at`, listening with `backlog` (below 1: the default). Empty on failure.
  static std::unique_ptr<TCPSocketInterface> createListenSocket(
      const SimpleEndpoint& at, bool mptcp, tavrinLog::TavrinLogging* logging,
      int backlog = kDefaultListenBacklog);
  // One waiting client of `server`; `peer` receives its address (cleared on failure). A
  // non-blocking server with nobody waiting fails with EAGAIN, logged like any failure.
  static std::unique_ptr<TCPSocketInterface> acceptClient(TCPSocketInterface* server,
                                                          SimpleEndpoint& peer,
                                                          tavrinLog::TavrinLogging* logging);
  // Bound to `localIp` (any port) and connecting without blocking. `connectedNow` tells whether
  // the connection stood at once; otherwise it completes when the socket becomes writable. A
  // connect that fails later (hasError) is logged with `remote` at Error; a connection reset
  // before anything arrived from `remote` (a listening queue that overflowed) once at Warning.
  static std::unique_ptr<TCPSocketInterface> connectToServer(const SimpleEndpoint& remote,
                                                             const SimpleIp& localIp,
                                                             bool& connectedNow, bool mptcp,
                                                             tavrinLog::TavrinLogging* logging);
  static bool isMptcpEnabled(int fd, tavrinLog::TavrinLogging* logging);
};

}  // namespace tavrinNetwork
