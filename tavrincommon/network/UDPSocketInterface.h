// The abstract IPv4 datagram socket, so that the announce classes can be given another
// implementation. An implementation owns its descriptor. Used from the event-loop thread.
#pragma once

#include "tavrincommon/network/SimpleEndpoint.h"

#include <string>

namespace tavrinNetwork {

class UDPSocketInterface {
 public:
  virtual ~UDPSocketInterface() = default;

  // Closes first; binds to ip:port and, with a name, to that interface.
  virtual bool open(SimpleIp ip, unsigned short port, const std::string& interfaceName,
                    bool nonblocking) = 0;
  virtual void close() = 0;
  virtual bool setNonblock() = 0;
  virtual bool setDSCP(int dscp) = 0;
  virtual bool setMulticastTTL(int ttl) = 0;
  virtual bool setMulticastLoop(bool on) = 0;
  // One system call: bytes sent, or -1 with errno.
  virtual int sendTo(const SimpleEndpoint& to, const void* data, int length) = 0;
  // As receiveFrom, without the sender.
  virtual int receive(void* buffer, int length) = 0;
  // The datagram's real length, which is larger than `length` when it was cut; 0 when a
  // non-blocking socket has nothing pending; -1 with errno on other failures.
  virtual int receiveFrom(SimpleEndpoint& from, void* buffer, int length) = 0;
  virtual bool valid() const = 0;
  virtual int getFd() const = 0;
  virtual bool isNonblock() const = 0;
  virtual const std::string& getEthInterface() const = 0;
  // The address and port given to open (port 0 stays 0); 255.255.255.255:0 while closed.
  virtual const SimpleEndpoint& getEndpoint() const = 0;
};

}  // namespace tavrinNetwork
