// The server side of the TCP connector: listens on one port, accepts TCP connections from slaves
// and decides every request for a logical connection (allowed ids, automatic id ranges, cluster,
// replacement of an existing connection, common handler version) and every move. Owns its server
// socket, besides what the connector base owns. Loop thread only; nothing is locked.
#pragma once

#include "tavrincommon/common/LivenessToken.h"
#include "tavrincommon/connector/TCPConnectorBase.h"
#include "tavrincommon/connector/TCPConnectorMasterInterface.h"
#include "tavrincommon/network/TCPSocketHelper.h"
#include "tavrincommon/scheduler/IOWatchItem.h"

#include <map>
#include <utility>

namespace tavrinConnector {

class TCPConnectorMaster : public TCPConnectorBase, public TCPConnectorMasterInterface {
 public:
  using ServerSocketFactory = std::function<std::unique_ptr<tavrinNetwork::TCPSocketInterface>(
      const tavrinNetwork::SimpleEndpoint& at, bool mptcp)>;
  // Fills `peer` with the client's address.
  using AcceptFactory = std::function<std::unique_ptr<tavrinNetwork::TCPSocketInterface>(
      tavrinNetwork::TCPSocketInterface* server, tavrinNetwork::SimpleEndpoint& peer)>;

  static constexpr unsigned kFirstAutomaticId = 1;
  static constexpr unsigned kLastAutomaticId = 4294967294u;
  // Without a descriptor to accept into, the server socket is left alone for this long: long
  // enough not to spin, short enough that a hall of slaves connecting meanwhile hardly notices.
  static constexpr int kAcceptPauseMs = 500;

  TCPConnectorMaster(tavrinScheduler::Scheduler* scheduler, ServerSocketFactory createServerSocket,
                     AcceptFactory acceptClient, tavrinLog::TavrinLogging* logging);
  // With the sockets of the network helpers.
  TCPConnectorMaster(tavrinScheduler::Scheduler* scheduler, tavrinLog::TavrinLogging* logging);
  ~TCPConnectorMaster() override;

  // Disables the connector and clears handlers, rejected callbacks, allowed and automatic
  // connections; stays disabled until setEnabled(true).
  void init(unsigned connectorId_, unsigned deviceId_, ConnectorInterfaceType::Type type,
            unsigned clusterId_, tavrinNetwork::SimpleIp ip_, unsigned short port_,
            bool overwriteExisting_, bool allowMove_, const ConnectionTimeout& timing_,
            bool mptcp_);

  void addAllowedConnection(unsigned connectionId, unsigned short type) override;
  void removeAllowedConnection(unsigned connectionId) override;
  void removeAllowedConnectionType(unsigned short type) override;
  void clearAllowedConnections() override;
  void addAutomaticConnection(unsigned short type) override;
  void addAutomaticConnection(unsigned short type, unsigned minId, unsigned maxId) override;
  void removeAutomaticConnection(unsigned short type, bool disconnect) override;
  void clearAutomaticConnections(bool disconnect) override;
  void addMasterConnectionRejectedCallback(unsigned short type,
                                           const ConnectionRejectedCallback& callback) override;
  void removeMasterConnectionRejectedCallback(unsigned short type) override;
  void addMasterConnectionHandler(unsigned short type, unsigned short version,
                                  HandlerFactory factory) override;
  void removeMasterConnectionHandler(unsigned short type, unsigned short version) override;
  void clearMasterConnectionHandlers() override;
  void disconnectFromMaster(unsigned connectionId, int reason) override;
  void disconnectRemoteDeviceFromMaster(tavrinNetwork::SimpleIp ip_, int reason) override;
  void disconnectAllConnectionsFromMaster(int reason) override;
  ConnectorInterfaceType::Type getMasterType() const override { return interfaceType; }
  unsigned short getMasterVersion() const override { return kProtocolVersion; }
  unsigned getMasterConnectorId() const override { return connectorId; }
  unsigned getMasterDeviceId() const override { return deviceId; }
  tavrinNetwork::SimpleIp getMasterIp() const override { return ip; }
  unsigned getMasterClusterId() const override { return clusterId; }
  unsigned short getMasterPort() const override { return port; }
  tavrinNetwork::SimpleEndpoint getMasterEndpoint() const override { return {ip, port}; }

  bool isListening() const { return serverSocket != nullptr; }
  // The address the server socket is bound to (with the port the system chose for port 0).
  tavrinNetwork::SimpleEndpoint getListeningEndpoint() const;
  // How often accepting paused because no descriptor was left.
  unsigned getAcceptPauses() const { return acceptPauses; }
  // The listening queue of the server sockets the network helpers open (a factory of the
  // application's chooses its own), from the next time the server socket is opened. Below 1: the
  // default, room for a hall of slaves that connect at once.
  void setListenBacklog(int backlog) { listenBacklog = backlog; }
  int getListenBacklog() const { return listenBacklog; }

 protected:
  void enableSpecific() override;
  void cleanupSpecific() override;
  void dumpSpecific(std::ostream& os, const char* prefix) const override;
  void dscpChangedSpecific() override;
  void handleConnectMessage(SingleTCPConnectionEndpoint& endpoint, unsigned clusterId_,
                            unsigned connectionId, unsigned short type,
                            unsigned remoteConnectionId, unsigned remoteDeviceId,
                            InputMessage& message) override;
  void handleMoveMessage(SingleTCPConnectionEndpoint& endpoint, unsigned clusterId_,
                         unsigned connectionId, unsigned short type, unsigned remoteConnectionId,
                         unsigned remoteDeviceId, InputMessage& message) override;
  void handleConnectionRejectMessage(SingleTCPConnectionEndpoint& endpoint, unsigned clusterId_,
                                     unsigned connectionId, int reason,
                                     unsigned remoteConnectionId, unsigned short type) override;
  void handleConnectionAcceptMessage(SingleTCPConnectionEndpoint& endpoint, unsigned clusterId_,
                                     unsigned connectionId, unsigned short version,
                                     unsigned remoteConnectionId, unsigned remoteDeviceId,
                                     unsigned short type) override;

  bool initServerSocket();
  void closeServerSocket();
  tavrinScheduler::IOWatchItem::Result serverSocketCallback(int events);
  void resumeAccepting();
  size_t tcpConnectionsFrom(tavrinNetwork::SimpleIp address) const;
  // Ends the connection that a connect for its id replaces, arriving on `connection`.
  void replaceConnection(std::unique_ptr<ConnectionHandlerBase>&& old,
                         SingleTCPConnectionEndpoint& connection, unsigned remoteConnectionId,
                         unsigned remoteDeviceId);
  void logReplacing(const ConnectionHandlerBase& old, const SingleTCPConnectionEndpoint& connection,
                    unsigned remoteConnectionId, unsigned remoteDeviceId);
  void finalizeMoveConnection(ConnectionHandlerBase& handler, unsigned connectionId,
                              unsigned remoteConnectionId, unsigned remoteDeviceId,
                              SingleTCPConnectionEndpoint& connection);

 private:
  ServerSocketFactory createServerSocket;
  AcceptFactory acceptClient;
  // Tells the server socket's callback whether the accept factory destroyed the master.
  tavrinCommon::LivenessToken liveness;
  unsigned clusterId = 0xFFFFFFFFu;
  unsigned short port = 0;
  bool overwriteExisting = false;
  bool allowMove = false;
  std::unique_ptr<tavrinNetwork::TCPSocketInterface> serverSocket;
  tavrinScheduler::IOWatchHandle serverWatch;
  tavrinScheduler::SimpleTimer acceptPauseTimer;
  unsigned acceptPauses = 0;
  int listenBacklog = tavrinNetwork::TCPSocketHelper::kDefaultListenBacklog;
  std::map<unsigned, unsigned short> allowedConnections;
  std::map<unsigned short, std::pair<unsigned, unsigned>> automaticConnections;
  // Per type, the automatic id handed out last: ids go round the range, so that an id comes back
  // only after the others, long after the peer has heard the end of its previous connection.
  std::map<unsigned short, unsigned> lastAutomaticIds;
};

}  // namespace tavrinConnector
