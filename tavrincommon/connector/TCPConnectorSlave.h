// The client side of the TCP connector: opens or reuses one TCP connection per master endpoint,
// greets a new one with its protocol version, asks for logical connections (or moves of the
// master's connections) and keeps each request pending until it is accepted, rejected or timed
// out. Never decides requests. Loop thread only; nothing is locked. Configured with initCommon.
#pragma once

#include "tavrincommon/connector/TCPConnectorBase.h"

namespace tavrinConnector {

class TCPConnectorSlave : public TCPConnectorBase {
 public:
  // Non-blocking, bound to `localIp`, connecting to `remote`; sets `connectedNow` when the
  // connection stood at once. Null on failure.
  using SocketFactory = std::function<std::unique_ptr<tavrinNetwork::TCPSocketInterface>(
      const tavrinNetwork::SimpleEndpoint& remote, const tavrinNetwork::SimpleIp& localIp,
      bool& connectedNow, bool mptcp)>;

  // Outgoing connections bind to any local address until the application sets an IP.
  TCPConnectorSlave(tavrinScheduler::Scheduler* scheduler, SocketFactory socketFactory,
                    tavrinLog::TavrinLogging* logging);
  // With the sockets of the network helpers.
  TCPConnectorSlave(tavrinScheduler::Scheduler* scheduler, tavrinLog::TavrinLogging* logging);
  ~TCPConnectorSlave() override;

  // Each returns whether the request went out (or the own id it chose, 0xFFFFFFFF on failure);
  // the outcome arrives later through the handler's connected() or the type's rejected callback.
  // A local failure has called the rejected callback before the call returns.
  bool connect(const tavrinNetwork::SimpleEndpoint& endpoint, unsigned clusterId,
               unsigned short type, unsigned remoteConnectionId, unsigned connectionId,
               std::unique_ptr<CustomConnectData>&& data);
  unsigned connect(const tavrinNetwork::SimpleEndpoint& endpoint, unsigned clusterId,
                   unsigned short type, unsigned remoteConnectionId,
                   std::unique_ptr<CustomConnectData>&& data);
  // The master chooses its id.
  bool connectAutomatic(const tavrinNetwork::SimpleEndpoint& endpoint, unsigned clusterId,
                        unsigned short type, unsigned connectionId,
                        std::unique_ptr<CustomConnectData>&& data);
  unsigned connectAutomatic(const tavrinNetwork::SimpleEndpoint& endpoint, unsigned clusterId,
                            unsigned short type, std::unique_ptr<CustomConnectData>&& data);
  // Asks the master to move its connection `remoteConnectionId` onto the TCP connection to
  // `endpoint`, under the new own id.
  bool moveConnection(const tavrinNetwork::SimpleEndpoint& endpoint, unsigned clusterId,
                      unsigned short type, unsigned remoteConnectionId, unsigned connectionId,
                      std::unique_ptr<CustomConnectData>&& data);
  unsigned moveConnection(const tavrinNetwork::SimpleEndpoint& endpoint, unsigned clusterId,
                          unsigned short type, unsigned remoteConnectionId,
                          std::unique_ptr<CustomConnectData>&& data);
  bool connectOrMoveConnection(const tavrinNetwork::SimpleEndpoint& endpoint, unsigned clusterId,
                               unsigned short type, unsigned remoteConnectionId,
                               unsigned connectionId, bool create, bool automatic,
                               std::unique_ptr<CustomConnectData>&& data);

 protected:
  void enableSpecific() override {}
  void cleanupSpecific() override {}
  void dumpSpecific(std::ostream& /*os*/, const char* /*prefix*/) const override {}
  void handleConnectMessage(SingleTCPConnectionEndpoint& endpoint, unsigned clusterId,
                            unsigned connectionId, unsigned short type,
                            unsigned remoteConnectionId, unsigned remoteDeviceId,
                            InputMessage& message) override;
  void handleMoveMessage(SingleTCPConnectionEndpoint& endpoint, unsigned clusterId,
                         unsigned connectionId, unsigned short type, unsigned remoteConnectionId,
                         unsigned remoteDeviceId, InputMessage& message) override;
  void handleConnectionRejectMessage(SingleTCPConnectionEndpoint& endpoint, unsigned clusterId,
                                     unsigned connectionId, int reason,
                                     unsigned remoteConnectionId, unsigned short type) override;
  void handleConnectionAcceptMessage(SingleTCPConnectionEndpoint& endpoint, unsigned clusterId,
                                     unsigned connectionId, unsigned short version,
                                     unsigned remoteConnectionId, unsigned remoteDeviceId,
                                     unsigned short type) override;

  std::unique_ptr<SingleTCPConnectionEndpoint> createTCPConnection(
      const tavrinNetwork::SimpleEndpoint& endpoint);
  // The request `connectionId` is pending with `peer`, for `type`.
  bool pendingWith(unsigned connectionId, const tavrinNetwork::SimpleEndpoint& peer,
                   unsigned short type) const;
  void sendConnectOrMoveMessage(SingleTCPConnectionEndpoint& connection, unsigned connectionId,
                                unsigned clusterId, unsigned short type,
                                unsigned remoteConnectionId, const VersionMap& versions,
                                bool create);

 private:
  SocketFactory socketFactory;
};

}  // namespace tavrinConnector
