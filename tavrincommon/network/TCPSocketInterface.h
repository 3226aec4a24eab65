// The abstract stream socket through which the connector transport reads and writes, so that
// tests and other transports can put their own implementation in its place. An implementation
// owns its descriptor. Used from the event-loop thread that watches the descriptor.
#pragma once

#include "tavrincommon/network/SimpleEndpoint.h"

namespace tavrinNetwork {

class TCPSocketInterface {
 public:
  virtual ~TCPSocketInterface() = default;

  // Abortive close (the peer sees a reset); harmless when closed already.
  virtual void close() = 0;
  virtual bool setNonblock() = 0;
  // Sets the six DSCP bits of the TOS byte, keeping the two ECN bits.
  virtual bool setDSCP(int dscp) = 0;
  // One system call: bytes written, or -1 with errno (EAGAIN, EPIPE, ...).
  virtual int send(const void* data, int length) = 0;
  // One system call: bytes read, 0 when the peer closed, or -1 with errno.
  virtual int receive(void* buffer, int length) = 0;
  virtual bool valid() const = 0;
  virtual int getFd() const = 0;
  // The local address and port; a cleared endpoint for a closed socket.
  virtual SimpleEndpoint getBoundEndpoint() const = 0;
  // True when the socket has a pending error (e.g. a refused non-blocking connect).
  virtual bool hasError() const = 0;
};

}  // namespace tavrinNetwork
