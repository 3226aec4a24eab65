// The bounds a connector keeps against hostile or broken peers: the heap each TCP connection may
// hold for outgoing and for received frames, and on a master how many TCP connections it accepts
// in all and per remote address and how many logical connections one TCP connection may carry.
// A plain value; set it on the connector (TCPConnectorBase::setConnectionLimits) from the loop
// thread. A zero field means: the default.
#pragma once

#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/connector/TCPTransceiver.h"

#include <cstddef>

namespace tavrinConnector {

struct ConnectionLimits {
  // A hall of a hundred beltpacks and panels, each with one TCP connection per master, with room
  // to spare; at the per-connection bounds below, all of them cost well under the RAM of a
  // device only if most behave, which is why one address gets a few at most.
  static constexpr size_t kDefaultMaxTCPConnections = 256;
  // A device opens one TCP connection per master endpoint; a few applications on one host, or a
  // reconnect while the old connection is still being torn down, need a little more.
  static constexpr size_t kDefaultMaxTCPConnectionsPerAddress = 8;
  // Panels carry a few dozen logical connections at most; beyond this a peer is hoarding ids.
  static constexpr size_t kDefaultMaxLogicalConnectionsPerTCPConnection = 256;

  size_t maxSendQueueBytes = TCPTransceiver::kDefaultMaxSendQueueBytes;
  size_t maxReceiveQueueFrames = SingleTCPConnectionEndpoint::kDefaultMaxReceiveQueueFrames;
  size_t maxReceiveQueueBytes = SingleTCPConnectionEndpoint::kDefaultMaxReceiveQueueBytes;
  // The three below apply to a master only.
  size_t maxTCPConnections = kDefaultMaxTCPConnections;
  size_t maxTCPConnectionsPerAddress = kDefaultMaxTCPConnectionsPerAddress;
  size_t maxLogicalConnectionsPerTCPConnection = kDefaultMaxLogicalConnectionsPerTCPConnection;
};

}  // namespace tavrinConnector
