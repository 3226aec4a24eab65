// Static helpers that set one property of an IPv4 socket each and log one precise line (origin
// Sockets, severity Error, only with a logging object) when the system refuses. Stateless;
// callable from any thread.
#pragma once

#include "tavrincommon/network/SimpleEndpoint.h"

#include <string>

namespace tavrinLog {
class TavrinLogging;
}

namespace tavrinNetwork {

class IPSocketHelper {
 public:
  static bool setCloexec(int fd, tavrinLog::TavrinLogging* logging);
  static bool setNonblock(int fd, tavrinLog::TavrinLogging* logging);
  // DSCP into bits 2..7 of IP_TOS; the two ECN bits keep their value.
  static bool setDSCP(int fd, int dscp, tavrinLog::TavrinLogging* logging);
  static bool setMulticastTTL(int fd, int ttl, tavrinLog::TavrinLogging* logging);
  static bool setMulticastLoop(int fd, bool on, tavrinLog::TavrinLogging* logging);
  // Multipath TCP hooks: this build does not use multipath TCP, so setMptcp succeeds without
  // touching the socket and getMptcp reports false.
  static bool setMptcp(int fd, tavrinLog::TavrinLogging* logging);
  static bool getMptcp(int fd, tavrinLog::TavrinLogging* logging);
  // True when SO_ERROR cannot be read or holds an error (both logged).
  static bool hasError(int fd, tavrinLog::TavrinLogging* logging);
  // Sets SO_LINGER on with time 0, so that closing resets the connection. No log.
  static bool setLingerZero(int fd);
  // A close-on-exec datagram socket with SO_REUSEADDR, bound to `bindTo` and then, when
  // `interfaceName` is not empty, to that device. The descriptor, or -1.
  static int openUdp(const SimpleEndpoint& bindTo, const std::string& interfaceName,
                     bool nonblocking, tavrinLog::TavrinLogging* logging);
};

}  // namespace tavrinNetwork
