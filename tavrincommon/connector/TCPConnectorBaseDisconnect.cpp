// Every way in which the connector ends a logical connection or a whole TCP connection.
#include "tavrincommon/connector/TCPConnectorBase.h"

#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/connector/internal/ConnectorSupport.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/network/TCPSocketInterface.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <utility>
#include <vector>

#include <sys/socket.h>

namespace tavrinConnector {

using internal::keysOf;
using internal::peerOf;
using internal::text;
using internal::yesNo;
using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

namespace {
constexpr int kOrigin = DefaultOrigins::TCPConnector;
}  // namespace

// ---- disconnection ----

void TCPConnectorBase::closeTCPConnection(SingleTCPConnectionEndpoint& connection) {
  setConnectionEvent(peerOf(connection), false);
  // A socket that is not a TCP socket (a test's fake) just refuses it.
  const tavrinNetwork::TCPSocketInterface* socket = connection.getTransceiver().getSocket();
  if (socket && socket->valid()) ::shutdown(socket->getFd(), SHUT_WR);
  connection.disconnect();
}

void TCPConnectorBase::queueHandlerForDestruction(
    std::unique_ptr<ConnectionHandlerBase>&& handler) {
  if (!handler) return;
  handlersToDestroy.push_back(std::move(handler));
  scheduler->addWorker(this);
}

void TCPConnectorBase::disconnectHandler(ConnectionHandlerBase& handler,
                                         SingleTCPConnectionEndpoint& connection, int reason,
                                         bool sendMessage) {
  const bool last = connection.removeLogicalConnection(handler.getConnectionId());
  if (sendMessage) sendDisconnectMessage(connection, reason, handler.getRemoteConnectionId());
  const SimpleEndpoint peer = peerOf(connection);
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
             "Disconnecting connection %u (type %u, remoteEndpoint: %s, last: %s, disconnect msg "
             "%s)",
             handler.getConnectionId(), unsigned{handler.getType()}, text(peer).c_str(),
             yesNo(last), sendMessage ? "sent" : "not sent");
  handler.disconnected(reason, last);
  // Checked again: the handler's code may have asked for a new connection over the same TCP
  // connection meanwhile, which must not lose it.
  if (last && connection.getLogicalConnections().empty()) closeTCPConnection(connection);
}

void TCPConnectorBase::disconnect(std::unique_ptr<ConnectionHandlerBase>&& handler, int reason) {
  if (!handler) return;
  if (handler->isConnected()) {
    SingleTCPConnectionEndpoint* connection = getTCPConnection(handler->getRemoteEndpoint());
    if (!connection) {
      TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
                 "Disconnecting connection %u (type %u, remoteEndpoint: %s, no TCP connection)",
                 handler->getConnectionId(), unsigned{handler->getType()},
                 text(handler->getRemoteEndpoint()).c_str());
      handler->disconnected(reason, true);
    } else {
      disconnectHandler(*handler, *connection, reason, true);
    }
  }
  queueHandlerForDestruction(std::move(handler));
}

void TCPConnectorBase::disconnect(unsigned connectionId, int reason) {
  auto found = activeConnections.find(connectionId);
  if (found != activeConnections.end()) {
    // Out of the table before the handler hears of it: its code may walk or change the table.
    std::unique_ptr<ConnectionHandlerBase> handler = std::move(found->second);
    activeConnections.erase(found);
    disconnect(std::move(handler), reason);
    return;
  }
  bool automatic = false;
  std::unique_ptr<CustomConnectData> data;
  removePendingConnection(connectionId, reason, true, automatic, data);
}

void TCPConnectorBase::disconnect(
    const std::function<bool(const ConnectionHandlerBase&)>& predicate, int reason) {
  for (unsigned id : keysOf(activeConnections)) {
    auto found = activeConnections.find(id);
    if (found == activeConnections.end()) continue;
    if (!found->second) {
      activeConnections.erase(found);
      continue;
    }
    if (!found->second->isConnected() || !predicate(*found->second)) continue;
    std::unique_ptr<ConnectionHandlerBase> handler = std::move(found->second);
    activeConnections.erase(found);
    disconnect(std::move(handler), reason);
  }
}

void TCPConnectorBase::disconnectType(unsigned short type, bool automaticOnly, int reason) {
  disconnect(
      [type, automaticOnly](const ConnectionHandlerBase& handler) {
        return handler.getType() == type && (!automaticOnly || handler.isAutomatic());
      },
      reason);
}

void TCPConnectorBase::disconnectTypeAndVersion(unsigned short type, unsigned short version,
                                                int reason) {
  disconnect(
      [type, version](const ConnectionHandlerBase& handler) {
        return handler.getType() == type && handler.getVersion() == version;
      },
      reason);
}

void TCPConnectorBase::disconnectAllAutomatic(int reason) {
  disconnect([](const ConnectionHandlerBase& handler) { return handler.isAutomatic(); }, reason);
}

void TCPConnectorBase::disconnectRemoteDevice(unsigned remoteDeviceId, int reason) {
  for (unsigned id : keysOf(activeConnections)) {
    auto found = activeConnections.find(id);
    if (found == activeConnections.end()) continue;
    if (found->second && found->second->getRemoteDeviceId() != remoteDeviceId) continue;
    std::unique_ptr<ConnectionHandlerBase> handler = std::move(found->second);
    activeConnections.erase(found);
    disconnect(std::move(handler), reason);
  }
}

void TCPConnectorBase::disconnectRemoteDevice(SimpleIp remoteIp, int reason) {
  for (const SimpleEndpoint& peer : keysOf(tcpConnections)) {
    if (peer.getIp() != remoteIp) continue;
    SingleTCPConnectionEndpoint* connection = getTCPConnection(peer);
    if (connection) disconnectEndpoint(*connection, reason, true);
  }
}

void TCPConnectorBase::disconnectRemoteConnectionId(SingleTCPConnectionEndpoint& connection,
                                                    unsigned remoteConnectionId, int reason) {
  if (connection.getLogicalConnections().empty()) return;
  const std::vector<unsigned int> ids = connection.getLogicalConnections();
  for (unsigned id : ids) {
    if (!connection.hasLogicalConnection(id)) continue;
    auto found = activeConnections.find(id);
    if (found == activeConnections.end()) continue;
    if (!found->second) {
      activeConnections.erase(found);
      continue;
    }
    if (found->second->getRemoteConnectionId() != remoteConnectionId) continue;
    std::unique_ptr<ConnectionHandlerBase> handler = std::move(found->second);
    activeConnections.erase(found);
    if (handler->isConnected()) disconnectHandler(*handler, connection, reason, true);
    handlersToDestroy.push_back(std::move(handler));
  }
  scheduler->addWorker(this);
}

void TCPConnectorBase::disconnectLogicalConnections(SingleTCPConnectionEndpoint& connection,
                                                    int reason, bool sendMessage) {
  const std::vector<unsigned int> ids = connection.getLogicalConnections();
  for (unsigned id : ids) {
    // An id that a callback has ended meanwhile may already name a new connection elsewhere.
    if (!connection.hasLogicalConnection(id)) continue;
    auto found = activeConnections.find(id);
    if (found != activeConnections.end()) {
      std::unique_ptr<ConnectionHandlerBase> handler = std::move(found->second);
      activeConnections.erase(found);
      if (handler && handler->isConnected())
        disconnectHandler(*handler, connection, reason, sendMessage);
      queueHandlerForDestruction(std::move(handler));
      continue;
    }
    bool automatic = false;
    std::unique_ptr<CustomConnectData> data;
    removePendingConnection(id, reason, true, automatic, data);
  }
}

void TCPConnectorBase::disconnectEndpoint(SingleTCPConnectionEndpoint& connection, int reason,
                                          bool sendMessage) {
  if (!connection.getLogicalConnections().empty())
    disconnectLogicalConnections(connection, reason, sendMessage);
  closeTCPConnection(connection);
}

void TCPConnectorBase::disconnectAllTCPConnections(int reason) {
  for (const SimpleEndpoint& peer : keysOf(tcpConnections)) {
    SingleTCPConnectionEndpoint* connection = getTCPConnection(peer);
    if (!connection) continue;
    disconnectEndpoint(*connection, reason, true);
    retireTCPConnection(peer, connection);
  }
}

void TCPConnectorBase::disconnectAllConnections(int reason) {
  rejectAllPendingConnections();
  for (unsigned id : keysOf(activeConnections)) {
    auto found = activeConnections.find(id);
    if (found == activeConnections.end()) continue;
    std::unique_ptr<ConnectionHandlerBase> handler = std::move(found->second);
    activeConnections.erase(found);
    disconnect(std::move(handler), reason);
  }
  disconnectAllTCPConnections(reason);
}

}  // namespace tavrinConnector
