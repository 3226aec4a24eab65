// The multicast socket pair over two datagram sockets: the receive socket is bound to the group
// address itself (so it sees only that group and port) and joins it; the unicast UDPSocket is
// bound to the device's own address. Owns both; closing always leaves the group first. Used from
// the event-loop thread; no locking.
#pragma once

#include "tavrincommon/network/MulticastSocketInterface.h"
#include "tavrincommon/network/UDPSocket.h"

namespace tavrinLog {
class TavrinLogging;
}

namespace tavrinNetwork {

class MulticastSocket : public MulticastSocketInterface {
 public:
  explicit MulticastSocket(tavrinLog::TavrinLogging* logging);
  ~MulticastSocket() override;
  MulticastSocket(const MulticastSocket&) = delete;
  MulticastSocket& operator=(const MulticastSocket&) = delete;

  bool open(SimpleIp mcIp, unsigned short mcPort, SimpleIp sendIp, unsigned short sendPort,
            const std::string& interfaceName, bool nonblocking, bool joinGroup,
            bool multicastLoop) override;
  void close() override;
  bool setNonblock() override;
  bool setDSCP(int dscp) override;
  bool setMulticastTTL(int ttl) override;
  bool setMulticastLoop(bool on) override;
  int sendTo(const SimpleEndpoint& to, const void* data, int length) override;
  int sendMulticast(const void* data, int length) override;
  int receive(void* buffer, int length) override;
  int receiveFrom(SimpleEndpoint& from, void* buffer, int length) override;
  int unicastReceive(void* buffer, int length) override;
  int unicastReceiveFrom(SimpleEndpoint& from, void* buffer, int length) override;
  bool valid() const override { return fd >= 0; }
  int getFd() const override { return fd; }
  int getUnicastFd() const override { return unicastSocket.getFd(); }
  const std::string& getEthInterface() const override { return unicastSocket.getEthInterface(); }
  const SimpleEndpoint& getMcEndpoint() const override { return mcEndpoint; }
  const SimpleEndpoint& getBoundEndpoint() const override { return unicastSocket.getEndpoint(); }

  // Joins or leaves the group on the receive socket, with the unicast address as local address
  // and the interface's index; true at once when already in the wanted state.
  bool joinOrLeaveMcGroup(bool join);
  bool isJoined() const { return joined; }

 private:
  tavrinLog::TavrinLogging* logging;
  int fd = -1;
  SimpleEndpoint mcEndpoint;
  UDPSocket unicastSocket;
  bool joined = false;
};

}  // namespace tavrinNetwork
