#include "tavrincommon/connector/TCPConnectorSlave.h"

#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/connector/internal/ConnectorSupport.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/LogRateLimiter.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/network/TCPSocketHelper.h"
#include "tavrincommon/network/TCPSocketInterface.h"

#include <utility>

namespace tavrinConnector {

using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;
using tavrinNetwork::TCPSocketInterface;

using internal::peerOf;
using internal::reasonText;
using internal::text;
using internal::yesNo;

namespace {

constexpr int kOrigin = DefaultOrigins::TCPConnector;

}  // namespace

TCPConnectorSlave::TCPConnectorSlave(tavrinScheduler::Scheduler* scheduler_,
                                     SocketFactory socketFactory_,
                                     tavrinLog::TavrinLogging* logging_)
    : TCPConnectorBase(scheduler_, logging_), socketFactory(std::move(socketFactory_)) {
  // Stored without setIp's line: a slave has no address of its own to change from.
  ip = SimpleIp("0.0.0.0");
}

TCPConnectorSlave::TCPConnectorSlave(tavrinScheduler::Scheduler* scheduler_,
                                     tavrinLog::TavrinLogging* logging_)
    : TCPConnectorSlave(
          scheduler_,
          [logging_](const SimpleEndpoint& remote, const SimpleIp& localIp, bool& connectedNow,
                     bool useMptcp) {
            return tavrinNetwork::TCPSocketHelper::connectToServer(remote, localIp, connectedNow,
                                                                   useMptcp, logging_);
          },
          logging_) {}

TCPConnectorSlave::~TCPConnectorSlave() { tearDown(); }

bool TCPConnectorSlave::connect(const SimpleEndpoint& endpoint, unsigned clusterId,
                                unsigned short type, unsigned remoteConnectionId,
                                unsigned connectionId, std::unique_ptr<CustomConnectData>&& data) {
  return connectOrMoveConnection(endpoint, clusterId, type, remoteConnectionId, connectionId, true,
                                 false, std::move(data));
}

unsigned TCPConnectorSlave::connect(const SimpleEndpoint& endpoint, unsigned clusterId,
                                    unsigned short type, unsigned remoteConnectionId,
                                    std::unique_ptr<CustomConnectData>&& data) {
  const unsigned id = getFreeConnectionId(1, kInvalidConnectionId);
  return connectOrMoveConnection(endpoint, clusterId, type, remoteConnectionId, id, true, false,
                                 std::move(data))
             ? id
             : kInvalidConnectionId;
}

bool TCPConnectorSlave::connectAutomatic(const SimpleEndpoint& endpoint, unsigned clusterId,
                                         unsigned short type, unsigned connectionId,
                                         std::unique_ptr<CustomConnectData>&& data) {
  return connectOrMoveConnection(endpoint, clusterId, type, kInvalidConnectionId, connectionId,
                                 true, true, std::move(data));
}

unsigned TCPConnectorSlave::connectAutomatic(const SimpleEndpoint& endpoint, unsigned clusterId,
                                             unsigned short type,
                                             std::unique_ptr<CustomConnectData>&& data) {
  const unsigned id = getFreeConnectionId(1, kInvalidConnectionId);
  return connectOrMoveConnection(endpoint, clusterId, type, kInvalidConnectionId, id, true, true,
                                 std::move(data))
             ? id
             : kInvalidConnectionId;
}

bool TCPConnectorSlave::moveConnection(const SimpleEndpoint& endpoint, unsigned clusterId,
                                       unsigned short type, unsigned remoteConnectionId,
                                       unsigned connectionId,
                                       std::unique_ptr<CustomConnectData>&& data) {
  return connectOrMoveConnection(endpoint, clusterId, type, remoteConnectionId, connectionId,
                                 false, false, std::move(data));
}

unsigned TCPConnectorSlave::moveConnection(const SimpleEndpoint& endpoint, unsigned clusterId,
                                           unsigned short type, unsigned remoteConnectionId,
                                           std::unique_ptr<CustomConnectData>&& data) {
  const unsigned id = getFreeConnectionId(1, kInvalidConnectionId);
  return connectOrMoveConnection(endpoint, clusterId, type, remoteConnectionId, id, false, false,
                                 std::move(data))
             ? id
             : kInvalidConnectionId;
}

bool TCPConnectorSlave::connectOrMoveConnection(const SimpleEndpoint& endpoint,
                                                unsigned clusterId, unsigned short type,
                                                unsigned remoteConnectionId, unsigned connectionId,
                                                bool create, bool automatic,
                                                std::unique_ptr<CustomConnectData>&& data) {
  const char* action = create ? "create" : "move";
  const char* automaticText = automatic ? "automatic, " : "";
  auto fail = [&](const char* tail, int reason) {
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error,
               "Failed to %s connection %u (%stype %u, remote connection id: %u) to TCP endpoint "
               "%s (cluster id %u): %s",
               action, connectionId, automaticText, unsigned{type}, remoteConnectionId,
               text(endpoint).c_str(), clusterId, tail);
    // Nobody is told while the connector is being destroyed: a callback that asked again would
    // only be refused again.
    if (!destroying)
      setConnectionRejected(endpoint, kInvalidConnectionId, connectionId, reason,
                            remoteConnectionId, type, data.get());
    data.reset();
    return false;
  };
  // Looked up anew after every call out of the connector: callbacks may change the registry.
  auto handlerTypeGone = [&] {
    auto versions = connectionHandlers.find(type);
    return versions == connectionHandlers.end() || versions->second.empty();
  };
  if (destroying) return fail("Connector is being destroyed!", DisconnectReason::shutdown);
  if (!verifyFreeConnectionId(connectionId))
    return fail("Invalid connectionId!", DisconnectReason::notAllowed);
  if (handlerTypeGone())
    return fail("No connection handler for this type!", DisconnectReason::noConnectionHandler);

  SingleTCPConnectionEndpoint* connection = getTCPConnection(endpoint);
  if (connection && !connection->isConnected()) {
    disconnectLogicalConnections(*connection, DisconnectReason::connectionInterrupted, false);
    retireTCPConnection(endpoint, connection);
    // The rejected callbacks above may have asked for connections of their own meanwhile: one
    // of them may have taken this id or opened a new TCP connection to the same endpoint.
    if (!verifyFreeConnectionId(connectionId))
      return fail("Invalid connectionId!", DisconnectReason::notAllowed);
    if (handlerTypeGone())
      return fail("No connection handler for this type!", DisconnectReason::noConnectionHandler);
    connection = getTCPConnection(endpoint);
  }
  if (!connection) {
    std::unique_ptr<SingleTCPConnectionEndpoint> created = createTCPConnection(endpoint);
    if (!created)
      return fail("Failed to create TCP connection!", DisconnectReason::connectionInterrupted);
    // The socket factory is the application's code too.
    if (handlerTypeGone())
      return fail("No connection handler for this type!", DisconnectReason::noConnectionHandler);
    connection = created.get();
    tcpConnections.emplace(endpoint, std::move(created));
    sendEmptyMessage(*connection, TavrinConnectorMessageType::version, kProtocolVersion);
  }
  sendConnectOrMoveMessage(*connection, connectionId, clusterId, type, remoteConnectionId,
                           connectionHandlers.find(type)->second, create);
  connection->addLogicalConnection(connectionId);
  addPendingConnection(connectionId, endpoint, clusterId, type, automatic, remoteConnectionId,
                       std::move(data));
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
             "Started to %s connection %u (%stype %u, remote connection id: %u) to TCP endpoint "
             "%s (cluster id %u), waiting for response...",
             action, connectionId, automaticText, unsigned{type}, remoteConnectionId,
             text(endpoint).c_str(), clusterId);
  return true;
}

std::unique_ptr<SingleTCPConnectionEndpoint> TCPConnectorSlave::createTCPConnection(
    const SimpleEndpoint& endpoint) {
  bool connectedNow = false;
  std::unique_ptr<TCPSocketInterface> socket =
      socketFactory ? socketFactory(endpoint, ip, connectedNow, mptcp) : nullptr;
  if (!socket) {
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
               "Failed to connect client socket to endpoint %s!", text(endpoint).c_str());
    return nullptr;
  }
  if (!socket->setDSCP(dscp)) {
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error,
               "Failed to setup client socket (DSCP) to endpoint %s, aborting connection attempt!",
               text(endpoint).c_str());
    return nullptr;
  }
  return makeTCPConnection(endpoint, std::move(socket), connectedNow);
}

void TCPConnectorSlave::sendConnectOrMoveMessage(SingleTCPConnectionEndpoint& connection,
                                                 unsigned connectionId, unsigned clusterId,
                                                 unsigned short type, unsigned remoteConnectionId,
                                                 const VersionMap& versions, bool create) {
  auto message = std::make_unique<OutputMessage>(static_cast<unsigned>(versions.size() + 8) * 2);
  message->putUInt32(remoteConnectionId);
  message->putUInt16(type);
  message->putUInt32(connectionId);
  message->putUInt32(deviceId);
  message->putUInt16(static_cast<unsigned short>(versions.size()));
  for (auto version = versions.rbegin(); version != versions.rend(); ++version)
    message->putUInt16(version->first);
  message->finalizeMessage(
      create ? TavrinConnectorMessageType::connect : TavrinConnectorMessageType::moveConnection,
      clusterId);
  connection.getTransceiver().send(std::move(message));
}

// Only the master that was asked answers a request: ids are this slave's own, so another master
// (or any host on the LAN) could otherwise take over a request it never received, and the id would
// stay behind on the TCP connection the request went out on.
bool TCPConnectorSlave::pendingWith(unsigned connectionId, const SimpleEndpoint& peer,
                                    unsigned short type) const {
  auto found = pendingConnections.find(connectionId);
  return found != pendingConnections.end() && found->second.endpoint == peer &&
         found->second.type == type;
}

void TCPConnectorSlave::handleConnectionAcceptMessage(SingleTCPConnectionEndpoint& connection,
                                                      unsigned clusterId, unsigned connectionId,
                                                      unsigned short version,
                                                      unsigned remoteConnectionId,
                                                      unsigned remoteDeviceId,
                                                      unsigned short type) {
  const SimpleEndpoint peer = peerOf(connection);
  bool automatic = false;
  std::unique_ptr<CustomConnectData> data;
  if (!pendingWith(connectionId, peer, type) ||
      !removePendingConnection(connectionId, 0, false, automatic, data)) {
    TAVRIN_LOG_LIMITED(
        peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
        "Ignoring connection accept message for connection %u (type %u, remote connection "
        "id: %u) from TCP endpoint %s (cluster id %u): Connection not pending!",
        connectionId, unsigned{type}, remoteConnectionId, text(peer).c_str(), clusterId);
    return;
  }
  bool typeFound = false;
  HandlerFactory factory = findConnectionHandler(type, version, typeFound);
  if (factory && finalizeConnection(factory, connectionId, automatic, remoteConnectionId,
                                    remoteDeviceId, clusterId, connection, false, std::move(data)))
    return;
  // A factory that made no handler counts as no handler for the type.
  const int reason = typeFound && !factory ? DisconnectReason::noCompatibleConnectionHandler
                                           : DisconnectReason::noConnectionHandler;
  const char* problem = factory     ? "Connection handler factory returned no handler"
                        : typeFound ? "No connection handler with this version"
                                    : "No connection handler for this type";
  TAVRIN_LOG_LIMITED(peerLogLimiter, logging, kOrigin, SeverityLevel::Error,
                     "Failed to accept connection %u (type %u, remote connection id: %u, version "
                     "%u) to TCP endpoint %s (cluster id %u): %s!",
                     connectionId, unsigned{type}, remoteConnectionId, unsigned{version},
                     text(peer).c_str(), clusterId, problem);
  sendDisconnectMessage(connection, reason, remoteConnectionId);
  // The id leaves the TCP connection too, as at every other end of a request: it is neither
  // pending nor active any more, and left registered it would keep the TCP connection in its
  // keep-alive role for a connection that no longer exists. The TCP connection itself is not
  // closed here even when this was its last id: closing now could drop the disconnect message
  // queued just above, and the master closes it once that message has ended its side (or the
  // idle time-out does).
  connection.removeLogicalConnection(connectionId);
  setConnectionRejected(peer, clusterId, connectionId, reason, remoteConnectionId, type,
                        data.get());
}

void TCPConnectorSlave::handleConnectionRejectMessage(SingleTCPConnectionEndpoint& connection,
                                                      unsigned clusterId, unsigned connectionId,
                                                      int reason, unsigned remoteConnectionId,
                                                      unsigned short type) {
  bool automatic = false;
  std::unique_ptr<CustomConnectData> data;
  const SimpleEndpoint peer = peerOf(connection);
  if (pendingWith(connectionId, peer, type) &&
      removePendingConnection(connectionId, reason, true, automatic, data)) {
    TAVRIN_LOG_LIMITED(
        peerLogLimiter, logging, kOrigin, SeverityLevel::Error,
        "Rejected connection %u (type %u, remote connection id: %u) to TCP endpoint %s "
        "(cluster id %u): %s (%d)!",
        connectionId, unsigned{type}, remoteConnectionId, text(peer).c_str(), clusterId,
        reasonText(reason), reason);
  } else {
    TAVRIN_LOG_LIMITED(
        peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
        "Ignoring connection reject message for connection %u (type %u, remote connection "
        "id: %u) from TCP endpoint %s (cluster id %u): Connection not pending!",
        connectionId, unsigned{type}, remoteConnectionId, text(peer).c_str(), clusterId);
  }
}

void TCPConnectorSlave::handleConnectMessage(SingleTCPConnectionEndpoint& connection,
                                             unsigned clusterId, unsigned connectionId,
                                             unsigned short type, unsigned remoteConnectionId,
                                             unsigned remoteDeviceId, InputMessage& /*message*/) {
  TAVRIN_LOG_LIMITED(
      peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
      "Received connect message for connection %u (type %u, remote connection id: %u) from "
      "TCP endpoint %s (cluster id %u, device id: %u); ignoring on client",
      connectionId, unsigned{type}, remoteConnectionId, text(peerOf(connection)).c_str(), clusterId,
      remoteDeviceId);
}

void TCPConnectorSlave::handleMoveMessage(SingleTCPConnectionEndpoint& connection,
                                          unsigned clusterId, unsigned connectionId,
                                          unsigned short type, unsigned remoteConnectionId,
                                          unsigned remoteDeviceId, InputMessage& /*message*/) {
  TAVRIN_LOG_LIMITED(
      peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
      "Received move connection message for connection %u (type %u, remote connection id: "
      "%u) from TCP endpoint %s (cluster id %u, device id: %u); ignoring on client",
      connectionId, unsigned{type}, remoteConnectionId, text(peerOf(connection)).c_str(), clusterId,
      remoteDeviceId);
}

}  // namespace tavrinConnector
