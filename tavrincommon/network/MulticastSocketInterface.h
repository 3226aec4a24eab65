// The abstract multicast socket pair of the announce protocol: a receive socket bound to the
// group, and a unicast socket from which everything (multicast included) is sent and on which
// unicast replies arrive. An implementation owns both descriptors. Used from the event-loop thread.
#pragma once

#include "tavrincommon/network/SimpleEndpoint.h"

#include <string>

namespace tavrinNetwork {

class MulticastSocketInterface {
 public:
  virtual ~MulticastSocketInterface() = default;

  // Closes first. Fails for a group outside 224.0.0.0/4. TTL and DSCP are left to the caller.
  virtual bool open(SimpleIp mcIp, unsigned short mcPort, SimpleIp sendIp, unsigned short sendPort,
                    const std::string& interfaceName, bool nonblocking, bool joinGroup,
                    bool multicastLoop) = 0;
  // Leaves the group, then closes both sockets; harmless when closed.
  virtual void close() = 0;
  // These act on the receive socket, then on the unicast socket; false at the first failure.
  virtual bool setNonblock() = 0;
  virtual bool setDSCP(int dscp) = 0;
  virtual bool setMulticastTTL(int ttl) = 0;
  virtual bool setMulticastLoop(bool on) = 0;
  // From the unicast socket.
  virtual int sendTo(const SimpleEndpoint& to, const void* data, int length) = 0;
  virtual int sendMulticast(const void* data, int length) = 0;
  // On the receive socket: the datagram's real length, 0 when nothing is pending (non-blocking).
  virtual int receive(void* buffer, int length) = 0;
  virtual int receiveFrom(SimpleEndpoint& from, void* buffer, int length) = 0;
  // On the unicast socket, with the same rules.
  virtual int unicastReceive(void* buffer, int length) = 0;
  virtual int unicastReceiveFrom(SimpleEndpoint& from, void* buffer, int length) = 0;
  // The receive socket is open.
  virtual bool valid() const = 0;
  virtual int getFd() const = 0;
  virtual int getUnicastFd() const = 0;
  virtual const std::string& getEthInterface() const = 0;
  virtual const SimpleEndpoint& getMcEndpoint() const = 0;
  // The unicast socket's address and port as given to open.
  virtual const SimpleEndpoint& getBoundEndpoint() const = 0;
};

}  // namespace tavrinNetwork
