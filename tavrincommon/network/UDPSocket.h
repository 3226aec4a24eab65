// One IPv4 datagram socket bound to an address, a port and optionally an interface; owns its
// descriptor and closes it abortively. Used from the event-loop thread; no locking.
#pragma once

#include "tavrincommon/network/UDPSocketInterface.h"

namespace tavrinLog {
class TavrinLogging;
}

namespace tavrinNetwork {

class UDPSocket : public UDPSocketInterface {
 public:
  explicit UDPSocket(tavrinLog::TavrinLogging* logging);
  ~UDPSocket() override;
  UDPSocket(const UDPSocket&) = delete;
  UDPSocket& operator=(const UDPSocket&) = delete;

  bool open(SimpleIp ip, unsigned short port, const std::string& interfaceName,
            bool nonblocking) override;
  void close() override;
  bool setNonblock() override;
  bool setDSCP(int dscp) override;
  bool setMulticastTTL(int ttl) override;
  bool setMulticastLoop(bool on) override;
  int sendTo(const SimpleEndpoint& to, const void* data, int length) override;
  int receive(void* buffer, int length) override;
  int receiveFrom(SimpleEndpoint& from, void* buffer, int length) override;
  bool valid() const override { return fd >= 0; }
  int getFd() const override { return fd; }
  bool isNonblock() const override { return nonblock; }
  const std::string& getEthInterface() const override { return ethInterface; }
  const SimpleEndpoint& getEndpoint() const override { return endpoint; }

  // The receive rules shared with MulticastSocket: MSG_TRUNC for the real length, and 0 instead
  // of -1/EAGAIN when `nonblocking`.
  static int receiveFrom(int fd, bool nonblocking, SimpleEndpoint& from, void* buffer, int length);

 private:
  void setClosedState();

  tavrinLog::TavrinLogging* logging;
  int fd = -1;
  SimpleEndpoint endpoint;
  std::string ethInterface;
  bool nonblock = false;
};

}  // namespace tavrinNetwork
