#include "tavrincommon/connector/TCPConnectorMaster.h"

#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/connector/internal/ConnectorSupport.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/LogRateLimiter.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/network/TCPSocketHelper.h"
#include "tavrincommon/network/TCPSocketInterface.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <cstdio>
#include <ostream>
#include <vector>

#include <sys/epoll.h>

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

// The offered versions of a connect or move message, in the order sent (the highest first).
std::vector<unsigned short> readVersions(InputMessage& message) {
  const unsigned count = message.getUInt16();
  std::vector<unsigned short> versions;
  // No more than the frame can hold: a forged count must not make us allocate for it.
  const unsigned available = message.buffer.getRemaining() / 2;
  versions.reserve(count < available ? count : available);
  for (unsigned i = 0; i < count; ++i) versions.push_back(message.getUInt16());
  return versions;
}

}  // namespace

TCPConnectorMaster::TCPConnectorMaster(tavrinScheduler::Scheduler* scheduler_,
                                       ServerSocketFactory createServerSocket_,
                                       AcceptFactory acceptClient_,
                                       tavrinLog::TavrinLogging* logging_)
    : TCPConnectorBase(scheduler_, logging_),
      createServerSocket(std::move(createServerSocket_)),
      acceptClient(std::move(acceptClient_)),
      acceptPauseTimer(
          scheduler_, kAcceptPauseMs, [this] { resumeAccepting(); }, kOrigin) {
  echoesOwnReplaceAndMove = true;
}

TCPConnectorMaster::TCPConnectorMaster(tavrinScheduler::Scheduler* scheduler_,
                                       tavrinLog::TavrinLogging* logging_)
    : TCPConnectorMaster(
          scheduler_,
          // Called only once the master stands, from initServerSocket().
          [this, logging_](const SimpleEndpoint& at, bool useMptcp) {
            return tavrinNetwork::TCPSocketHelper::createListenSocket(at, useMptcp, logging_,
                                                                      listenBacklog);
          },
          [logging_](TCPSocketInterface* server, SimpleEndpoint& peer) {
            return tavrinNetwork::TCPSocketHelper::acceptClient(server, peer, logging_);
          },
          logging_) {}

TCPConnectorMaster::~TCPConnectorMaster() { tearDown(); }

void TCPConnectorMaster::init(unsigned connectorId_, unsigned deviceId_,
                              ConnectorInterfaceType::Type type, unsigned clusterId_, SimpleIp ip_,
                              unsigned short port_, bool overwriteExisting_, bool allowMove_,
                              const ConnectionTimeout& timing_, bool mptcp_) {
  initCommon(connectorId_, deviceId_, type, ip_, timing_, mptcp_);
  clearAllowedConnections();
  clearAutomaticConnections(true);
  clusterId = clusterId_;
  port = port_;
  overwriteExisting = overwriteExisting_;
  allowMove = allowMove_;
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
             "Initialized TCPConnector %s %d on Device %u (0x%08X): ClusterId %u, IP: %s:%u, "
             "overwriteExisting: %s, allowMove: %s",
             ConnectorInterfaceType::getText(long{interfaceType}), static_cast<int>(connectorId),
             deviceId, deviceId, clusterId, SimpleIp::CharString(ip).c_str(), unsigned{port},
             yesNo(overwriteExisting), yesNo(allowMove));
}

SimpleEndpoint TCPConnectorMaster::getListeningEndpoint() const {
  return serverSocket ? serverSocket->getBoundEndpoint() : SimpleEndpoint();
}

// ---- requests ----

void TCPConnectorMaster::handleConnectMessage(SingleTCPConnectionEndpoint& connection,
                                              unsigned requestedClusterId, unsigned connectionId,
                                              unsigned short type, unsigned remoteConnectionId,
                                              unsigned remoteDeviceId, InputMessage& message) {
  const SimpleEndpoint peer = peerOf(connection);
  const unsigned typeNumber = type;
  auto reject = [&](int reason, unsigned id) {
    sendConnectionRejectMessage(connection, reason, clusterId, remoteConnectionId, id, type);
  };
  // One line and one reject for every refusal; "automatic, " once an automatic id was taken.
  const char* automaticText = "";
  auto cannotCreate = [&](const char* why, int reason) {
    TAVRIN_LOG_LIMITED(
        peerLogLimiter, logging, kOrigin, SeverityLevel::Error,
        "Cannot create connection %u (%stype %u, remote connection id: %u) on TCP endpoint "
        "%s (device id: %u): %s!",
        connectionId, automaticText, typeNumber, remoteConnectionId, text(peer).c_str(),
        remoteDeviceId, why);
    reject(reason, connectionId);
  };
  auto cannotCreateAutomatic = [&](const char* why) {
    TAVRIN_LOG_LIMITED(peerLogLimiter, logging, kOrigin, SeverityLevel::Error,
                       "Cannot create automatic connection type %u (remote connection id: %u) on "
                       "TCP endpoint %s (device id: %u): %s!",
                       typeNumber, remoteConnectionId, text(peer).c_str(), remoteDeviceId, why);
    reject(DisconnectReason::notAllowed, kInvalidConnectionId);
  };
  char why[80];
  if (requestedClusterId != clusterId) {
    std::snprintf(why, sizeof why, "wrong cluster id %u (own: %u)", requestedClusterId, clusterId);
    cannotCreate(why, DisconnectReason::wrongClusterId);
    return;
  }
  // notAllowed is the reason a slave already handles for a request the master will not serve.
  if (connection.getLogicalConnections().size() >= limits.maxLogicalConnectionsPerTCPConnection) {
    ++boundCounters.connectsRefused;
    std::snprintf(why, sizeof why, "%zu logical connections on it already (limit %zu)",
                  connection.getLogicalConnections().size(),
                  limits.maxLogicalConnectionsPerTCPConnection);
    cannotCreate(why, DisconnectReason::notAllowed);
    return;
  }
  const bool automatic = connectionId == kInvalidConnectionId;
  if (automatic) {
    auto range = automaticConnections.find(type);
    if (range == automaticConnections.end()) {
      cannotCreateAutomatic("connection not allowed");
      return;
    }
    connectionId =
        getNextFreeConnectionId(range->second.first, range->second.second, lastAutomaticIds[type]);
    if (connectionId == kInvalidConnectionId) {
      std::snprintf(why, sizeof why, "no free connection id found (range %u - %u)",
                    range->second.first, range->second.second);
      cannotCreateAutomatic(why);
      return;
    }
  } else {
    auto allowed = allowedConnections.find(connectionId);
    if (allowed == allowedConnections.end() || allowed->second != type) {
      cannotCreate("connection not allowed", DisconnectReason::notAllowed);
      return;
    }
    if (activeConnections.count(connectionId) && !overwriteExisting) {
      cannotCreate("connection already exists", DisconnectReason::notAllowed);
      return;
    }
  }
  if (automatic) automaticText = "automatic, ";
  auto versions = connectionHandlers.find(type);
  if (versions == connectionHandlers.end() || versions->second.empty()) {
    cannotCreate("no connection handler found", DisconnectReason::noConnectionHandler);
    return;
  }
  HandlerFactory factory;
  unsigned short version = 0;
  for (unsigned short offered : readVersions(message)) {
    auto found = versions->second.find(offered);
    if (found == versions->second.end()) continue;
    factory = found->second;
    version = offered;
    break;
  }
  if (!factory) {
    cannotCreate("no compatible connection handler found",
                 DisconnectReason::noCompatibleConnectionHandler);
    return;
  }
  // Made before anything changes or goes out: a factory that makes no handler is refused like a
  // missing one, and an existing connection stays.
  std::unique_ptr<ConnectionHandlerBase> created = factory();
  if (!created) {
    cannotCreate("connection handler factory returned no handler",
                 DisconnectReason::noConnectionHandler);
    return;
  }
  auto existing = activeConnections.find(connectionId);
  if (existing != activeConnections.end()) {
    std::unique_ptr<ConnectionHandlerBase> old = std::move(existing->second);
    activeConnections.erase(existing);
    replaceConnection(std::move(old), connection, remoteConnectionId, remoteDeviceId);
    // The old handler's code has run: it may have ended the TCP connection of the request.
    if (getTCPConnection(peer) != &connection || !connection.isConnected()) {
      TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error,
                 "Cannot create connection %u (type %u, remote connection id: %u) on TCP "
                 "endpoint %s (device id: %u): the TCP connection ended meanwhile!",
                 connectionId, typeNumber, remoteConnectionId, text(peer).c_str(), remoteDeviceId);
      return;
    }
  }
  sendConnectionAcceptMessage(connection, clusterId, remoteConnectionId, connectionId, type,
                              version);
  finalizeConnection(std::move(created), connectionId, automatic, remoteConnectionId,
                     remoteDeviceId, clusterId, connection, true, nullptr);
}

void TCPConnectorMaster::replaceConnection(std::unique_ptr<ConnectionHandlerBase>&& old,
                                           SingleTCPConnectionEndpoint& connection,
                                           unsigned remoteConnectionId, unsigned remoteDeviceId) {
  if (!old || !old->isConnected() || getTCPConnection(old->getRemoteEndpoint()) != &connection) {
    if (old && old->isConnected())
      logReplacing(*old, connection, remoteConnectionId, remoteDeviceId);
    disconnect(std::move(old), DisconnectReason::replacedByOtherConnection);
    return;
  }
  logReplacing(*old, connection, remoteConnectionId, remoteDeviceId);
  // On the TCP connection of the request the id passes straight to the new connection: removing
  // it would close the TCP connection under the request when it was its only one.
  sendDisconnectMessage(connection, DisconnectReason::replacedByOtherConnection,
                        old->getRemoteConnectionId());
  old->disconnected(DisconnectReason::replacedByOtherConnection, false);
  queueHandlerForDestruction(std::move(old));
}

void TCPConnectorMaster::logReplacing(const ConnectionHandlerBase& old,
                                      const SingleTCPConnectionEndpoint& connection,
                                      unsigned remoteConnectionId, unsigned remoteDeviceId) {
  TAVRIN_LOG_LIMITED(peerLogLimiter, logging, kOrigin, SeverityLevel::Info,
                     "Replacing existing connection %u (type %u) on TCP endpoint %s (remote "
                     "connection id: %u, remote device id: %u) with new connection to TCP "
                     "endpoint %s (remote connection id: %u, remote device id: %u)",
                     old.getConnectionId(), unsigned{old.getType()},
                     text(old.getRemoteEndpoint()).c_str(), old.getRemoteConnectionId(),
                     old.getRemoteDeviceId(), text(peerOf(connection)).c_str(), remoteConnectionId,
                     remoteDeviceId);
}

void TCPConnectorMaster::handleMoveMessage(SingleTCPConnectionEndpoint& connection,
                                           unsigned requestedClusterId, unsigned connectionId,
                                           unsigned short type, unsigned remoteConnectionId,
                                           unsigned remoteDeviceId, InputMessage& message) {
  const SimpleEndpoint peer = peerOf(connection);
  const unsigned typeNumber = type;
  // One line and one reject for every refusal. `current`: the connection's handler, once found.
  auto cannotMove = [&](const ConnectionHandlerBase* current, const char* why, int reason) {
    if (current) {
      TAVRIN_LOG_LIMITED(
          peerLogLimiter, logging, kOrigin, SeverityLevel::Error,
          "Cannot move connection %u (type %u, remote connection id: %u) to TCP endpoint %s "
          "(remote connection id: %u, device id: %u): %s!",
          connectionId, typeNumber, current->getRemoteConnectionId(), text(peer).c_str(),
          remoteConnectionId, remoteDeviceId, why);
    } else {
      TAVRIN_LOG_LIMITED(peerLogLimiter, logging, kOrigin, SeverityLevel::Error,
                         "Cannot move connection %u (type %u) to TCP endpoint %s (remote "
                         "connection id: %u, device id: %u): %s!",
                         connectionId, typeNumber, text(peer).c_str(), remoteConnectionId,
                         remoteDeviceId, why);
    }
    sendConnectionRejectMessage(connection, reason, clusterId, remoteConnectionId, connectionId,
                                type);
  };
  char why[64];
  if (!allowMove) {
    cannotMove(nullptr, "not allowed (general setting)", DisconnectReason::notAllowed);
    return;
  }
  if (requestedClusterId != clusterId) {
    std::snprintf(why, sizeof why, "wrong cluster id %u (own: %u)", requestedClusterId, clusterId);
    cannotMove(nullptr, why, DisconnectReason::wrongClusterId);
    return;
  }
  ConnectionHandlerBase* handler = getConnection(connectionId);
  if (!handler || !handler->isConnected()) {
    cannotMove(nullptr, "connection not found", DisconnectReason::notPresent);
    return;
  }
  if (!handler->moveConnectionAllowed()) {
    cannotMove(handler, "not allowed (connection handler setting)", DisconnectReason::notAllowed);
    return;
  }
  if (handler->getType() != type) {
    std::snprintf(why, sizeof why, "wrong type (current: %u)", unsigned{handler->getType()});
    cannotMove(handler, why, DisconnectReason::wrongType);
    return;
  }
  bool versionOffered = false;
  for (unsigned short offered : readVersions(message))
    if (offered == handler->getVersion()) versionOffered = true;
  if (!versionOffered) {
    cannotMove(handler, "no compatible connection handler found",
               DisconnectReason::noCompatibleConnectionHandler);
    return;
  }
  finalizeMoveConnection(*handler, connectionId, remoteConnectionId, remoteDeviceId, connection);
}

void TCPConnectorMaster::finalizeMoveConnection(ConnectionHandlerBase& handler,
                                                unsigned connectionId, unsigned remoteConnectionId,
                                                unsigned remoteDeviceId,
                                                SingleTCPConnectionEndpoint& newConnection) {
  bool last = true;
  const SimpleEndpoint oldPeer = handler.getRemoteEndpoint();
  SingleTCPConnectionEndpoint* oldConnection = getTCPConnection(oldPeer);
  // A move onto the TCP connection the connection already uses only changes the peer's id: the
  // TCP connection keeps carrying it.
  const bool sameConnection = oldConnection == &newConnection;
  if (oldConnection) {
    last = !sameConnection && oldConnection->removeLogicalConnection(connectionId);
    sendDisconnectMessage(*oldConnection, DisconnectReason::connectionMoved,
                          handler.getRemoteConnectionId());
    TAVRIN_LOG_LIMITED(
        peerLogLimiter, logging, kOrigin, SeverityLevel::Info,
        "Moving connection %u (type %u, version %u) from TCP endpoint %s (last: %s, old "
        "remote connection id: %u, old remote device id: %u)...",
        connectionId, unsigned{handler.getType()}, unsigned{handler.getVersion()},
        text(oldPeer).c_str(), yesNo(last), handler.getRemoteConnectionId(),
        handler.getRemoteDeviceId());
    if (last) closeTCPConnection(*oldConnection);
  }
  sendConnectionAcceptMessage(newConnection, clusterId, remoteConnectionId, connectionId,
                              handler.getType(), handler.getVersion());
  newConnection.addLogicalConnection(connectionId);
  const SimpleEndpoint newPeer = peerOf(newConnection);
  handler.moveConnection(remoteConnectionId, remoteDeviceId, newPeer,
                         newConnection.isMptcpEnabled(), last, makeSendFunction(handler),
                         makeDisconnectFunction(connectionId));
  TAVRIN_LOG_LIMITED(
      peerLogLimiter, logging, kOrigin, SeverityLevel::Info,
      "Moved connection %u (type %u, version %u) to TCP endpoint %s (remote connection id: "
      "%u, remote device id: %u)",
      connectionId, unsigned{handler.getType()}, unsigned{handler.getVersion()},
      text(newPeer).c_str(), remoteConnectionId, remoteDeviceId);
}

void TCPConnectorMaster::handleConnectionRejectMessage(SingleTCPConnectionEndpoint& connection,
                                                       unsigned receivedClusterId,
                                                       unsigned connectionId, int reason,
                                                       unsigned remoteConnectionId,
                                                       unsigned short type) {
  TAVRIN_LOG_LIMITED(
      peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
      "Received connection reject message for connection %u (type %u, remote connection "
      "id: %u) from TCP endpoint %s (clusterId %u, own: %u): %s (%d); ignoring on master",
      connectionId, unsigned{type}, remoteConnectionId, text(peerOf(connection)).c_str(),
      receivedClusterId, clusterId, reasonText(reason), reason);
}

void TCPConnectorMaster::handleConnectionAcceptMessage(SingleTCPConnectionEndpoint& connection,
                                                       unsigned receivedClusterId,
                                                       unsigned connectionId,
                                                       unsigned short version,
                                                       unsigned remoteConnectionId,
                                                       unsigned /*remoteDeviceId*/,
                                                       unsigned short type) {
  TAVRIN_LOG_LIMITED(
      peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
      "Received connection accept message for connection %u (type %u, remote connection "
      "id: %u) from TCP endpoint %s (clusterId %u, own: %u) with version %u; ignoring on "
      "master",
      connectionId, unsigned{type}, remoteConnectionId, text(peerOf(connection)).c_str(),
      receivedClusterId, clusterId, unsigned{version});
}

// ---- diagnostics ----

void TCPConnectorMaster::dscpChangedSpecific() {
  if (serverSocket && !serverSocket->setDSCP(dscp))
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error,
               "Failed to set DSCP value %d on server socket %s!", dscp,
               text(serverSocket->getBoundEndpoint()).c_str());
}

void TCPConnectorMaster::dumpSpecific(std::ostream& os, const char* prefix) const {
  os << prefix << "  ClusterId: " << clusterId << "\n";
  os << prefix << "  IP: " << SimpleIp::CharString(ip).c_str() << ":" << port << "\n";
  os << prefix << "  OverwriteExisting: " << yesNo(overwriteExisting) << "\n";
  os << prefix << "  AllowMove: " << yesNo(allowMove) << "\n";
  os << prefix << "  Allowed Connections (" << allowedConnections.size() << " entries):\n";
  for (const auto& entry : allowedConnections)
    os << prefix << "    " << entry.first << " (type " << entry.second << ")\n";
  os << prefix << "  --- (" << allowedConnections.size() << " allowed connections) --- \n";
  os << prefix << "  Automatic Connections (" << automaticConnections.size() << " entries):\n";
  for (const auto& entry : automaticConnections)
    os << prefix << "    Type: " << entry.first << " (minId " << entry.second.first << ", maxId "
       << entry.second.second << ")\n";
  os << prefix << "  --- (" << automaticConnections.size() << " automatic connections) --- \n";
}

}  // namespace tavrinConnector
