// The connector's handler factories, rejected callbacks, connection ids and pending connections.
#include "tavrincommon/connector/TCPConnectorBase.h"

#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/connector/internal/ConnectorSupport.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <utility>

namespace tavrinConnector {

using internal::keysOf;
using internal::monotonicIn;
using internal::reached;
using internal::reasonText;
using internal::text;
using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;
using tavrinNetwork::SimpleEndpoint;

namespace {
constexpr int kOrigin = DefaultOrigins::TCPConnector;
}  // namespace

// ---- handler factory registry ----

void TCPConnectorBase::addConnectionHandler(unsigned short type, unsigned short version,
                                            HandlerFactory factory) {
  if (refusedWhileDestroying("to add a connection handler")) return;
  VersionMap& versions = connectionHandlers[type];
  auto inserted = versions.emplace(version, factory);
  if (inserted.second) {
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
               "Added ConnectionHandler for type %u version %u", unsigned{type}, unsigned{version});
    return;
  }
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
             "Replacing ConnectionHandler for type %u version %u: disconnecting existing "
             "connections",
             unsigned{type}, unsigned{version});
  disconnectTypeAndVersion(type, version, DisconnectReason::connectionHandlerRemoved);
  // Looked up again: the disconnected handlers' code may have changed the registry.
  connectionHandlers[type][version] = std::move(factory);
}

void TCPConnectorBase::removeConnectionHandler(unsigned short type, unsigned short version) {
  auto typeEntry = connectionHandlers.find(type);
  if (typeEntry == connectionHandlers.end() || !typeEntry->second.count(version)) return;
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
             "Removing ConnectionHandler for type %u version %u: disconnecting existing "
             "connections",
             unsigned{type}, unsigned{version});
  disconnectTypeAndVersion(type, version, DisconnectReason::connectionHandlerRemoved);
  typeEntry = connectionHandlers.find(type);
  if (typeEntry == connectionHandlers.end()) return;
  typeEntry->second.erase(version);
  if (typeEntry->second.empty()) connectionHandlers.erase(typeEntry);
}

void TCPConnectorBase::removeConnectionHandlerType(unsigned short type) {
  if (!connectionHandlers.count(type)) return;
  disconnectType(type, false, DisconnectReason::connectionHandlerRemoved);
  connectionHandlers.erase(type);
}

void TCPConnectorBase::clearConnectionHandlers() {
  disconnectAllConnections(DisconnectReason::connectionHandlerRemoved);
  connectionHandlers.clear();
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug, "Cleared all ConnectionHandlers");
}

TCPConnectorBase::HandlerFactory TCPConnectorBase::findConnectionHandler(unsigned short type,
                                                                         unsigned short version,
                                                                         bool& typeFound) const {
  typeFound = false;
  auto typeEntry = connectionHandlers.find(type);
  if (typeEntry == connectionHandlers.end()) return {};
  typeFound = !typeEntry->second.empty();
  auto versionEntry = typeEntry->second.find(version);
  if (versionEntry == typeEntry->second.end()) return {};
  return versionEntry->second;
}

std::unique_ptr<ConnectionHandlerBase> TCPConnectorBase::createConnectionHandler(
    unsigned short type, unsigned short version) const {
  bool typeFound = false;
  HandlerFactory factory = findConnectionHandler(type, version, typeFound);
  if (!factory) return nullptr;
  return factory();
}

// ---- rejected callbacks ----

void TCPConnectorBase::addConnectionRejectedCallback(unsigned short type,
                                                     const ConnectionRejectedCallback& callback) {
  if (!callback) {
    connectionRejectedCallbacks.erase(type);
    return;
  }
  connectionRejectedCallbacks[type] = callback;
}

void TCPConnectorBase::removeConnectionRejectedCallback(unsigned short type) {
  connectionRejectedCallbacks.erase(type);
}

void TCPConnectorBase::setConnectionRejected(const SimpleEndpoint& endpoint, unsigned clusterId,
                                             unsigned connectionId, int reason,
                                             unsigned remoteConnectionId, unsigned short type,
                                             const CustomConnectData* data) {
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Service,
             "Connection %u (type %u, remote connection id %u) rejected by TCP endpoint %s "
             "(cluster id %u): %s (%d)",
             connectionId, unsigned{type}, remoteConnectionId, text(endpoint).c_str(), clusterId,
             reasonText(reason), reason);
  auto found = connectionRejectedCallbacks.find(type);
  if (found == connectionRejectedCallbacks.end()) return;
  // A copy: the callback may remove or replace itself.
  ConnectionRejectedCallback callback = found->second;
  callback(endpoint, clusterId, connectionId, reason, remoteConnectionId, type, data);
}

void TCPConnectorBase::setPendingConnectionRejected(unsigned connectionId,
                                                    const PendingConnectionData& pending,
                                                    int reason) {
  setConnectionRejected(pending.endpoint, pending.clusterId, connectionId, reason,
                        pending.remoteConnectionId, pending.type, pending.data.get());
}

// ---- connection ids ----

bool TCPConnectorBase::verifyValidConnectionId(unsigned id) const {
  return id != 0 && id != kInvalidConnectionId;
}

bool TCPConnectorBase::verifyFreeConnectionId(unsigned id) const {
  return verifyValidConnectionId(id) && !activeConnections.count(id) &&
         !pendingConnections.count(id);
}

unsigned TCPConnectorBase::getFreeConnectionId(unsigned first, unsigned last) const {
  unsigned id = first;
  while (!verifyFreeConnectionId(id)) {
    if (id == last) return kInvalidConnectionId;
    ++id;
  }
  return id;
}

unsigned TCPConnectorBase::getNextFreeConnectionId(unsigned first, unsigned last,
                                                   unsigned& lastGiven) const {
  // Offsets from `first` in unsigned arithmetic also place ranges that wrap past 0xFFFFFFFF.
  const bool inRange = lastGiven - first <= last - first;
  const unsigned start = inRange && lastGiven != last ? lastGiven + 1 : first;
  unsigned id = getFreeConnectionId(start, last);
  if (id == kInvalidConnectionId && start != first) id = getFreeConnectionId(first, start - 1);
  if (id != kInvalidConnectionId) lastGiven = id;
  return id;
}

// ---- pending connections ----

void TCPConnectorBase::addPendingConnection(unsigned connectionId, const SimpleEndpoint& endpoint,
                                            unsigned clusterId, unsigned short type, bool automatic,
                                            unsigned remoteConnectionId,
                                            std::unique_ptr<CustomConnectData>&& data) {
  if (pendingConnections.empty()) scheduler->addTimeout(this, kPendingCheckPeriodMs);
  PendingConnectionData entry;
  entry.endpoint = endpoint;
  entry.clusterId = clusterId;
  entry.type = type;
  entry.automatic = automatic;
  entry.remoteConnectionId = remoteConnectionId;
  entry.data = std::move(data);
  entry.deadline = monotonicIn(kPendingDeadlineSeconds * 1000LL);
  pendingConnections.emplace(connectionId, std::move(entry));
}

// Every walk over the pending table takes the entry out before the rejected callback runs: the
// application may ask again (even for the same id) from inside the callback, and the id is then
// free and the time-out armed for the new request.
bool TCPConnectorBase::removePendingConnection(unsigned connectionId, int reason, bool notify,
                                               bool& automatic,
                                               std::unique_ptr<CustomConnectData>& data) {
  auto found = pendingConnections.find(connectionId);
  if (found == pendingConnections.end()) return false;
  PendingConnectionData entry = std::move(found->second);
  pendingConnections.erase(found);
  if (pendingConnections.empty()) scheduler->disableTimeout(this);
  if (notify) {
    removePendingConnectionFromTcp(connectionId, entry);
    setPendingConnectionRejected(connectionId, entry, reason);
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
               "Removed pending connection %u (type %u, remoteEndpoint: %s, remote connection id: "
               "%u): %s (%d)",
               connectionId, unsigned{entry.type}, text(entry.endpoint).c_str(),
               entry.remoteConnectionId, reasonText(reason), reason);
  }
  automatic = entry.automatic;
  data = std::move(entry.data);
  return true;
}

void TCPConnectorBase::removePendingConnectionFromTcp(unsigned connectionId,
                                                      const PendingConnectionData& pending) {
  SingleTCPConnectionEndpoint* connection = getTCPConnection(pending.endpoint);
  if (!connection || !connection->hasLogicalConnection(connectionId)) return;
  if (connection->removeLogicalConnection(connectionId)) closeTCPConnection(*connection);
}

void TCPConnectorBase::timeout() {
  for (unsigned id : keysOf(pendingConnections)) {
    auto found = pendingConnections.find(id);
    if (found == pendingConnections.end() || !reached(found->second.deadline)) continue;
    PendingConnectionData entry = std::move(found->second);
    pendingConnections.erase(found);
    removePendingConnectionFromTcp(id, entry);
    setPendingConnectionRejected(id, entry, DisconnectReason::timeout);
  }
  if (!pendingConnections.empty()) scheduler->addTimeout(this, kPendingCheckPeriodMs);
}

void TCPConnectorBase::rejectAllPendingConnections() {
  // Only the requests present now: one that a rejected callback makes meanwhile stays pending.
  for (unsigned id : keysOf(pendingConnections)) {
    auto found = pendingConnections.find(id);
    if (found == pendingConnections.end()) continue;
    PendingConnectionData entry = std::move(found->second);
    pendingConnections.erase(found);
    removePendingConnectionFromTcp(id, entry);
    setPendingConnectionRejected(id, entry, DisconnectReason::shutdown);
  }
  if (pendingConnections.empty()) scheduler->disableTimeout(this);
}

}  // namespace tavrinConnector
