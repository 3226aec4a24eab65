// The master's configuration of which ids slaves may ask for (allowed ids, automatic id ranges)
// and the forwarding operations of its interface.
#include "tavrincommon/connector/TCPConnectorMaster.h"

#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"

#include <map>
#include <utility>
#include <vector>

namespace tavrinConnector {

using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;
using tavrinNetwork::SimpleIp;

namespace {
constexpr int kOrigin = DefaultOrigins::TCPConnector;
}  // namespace

// ---- allowed and automatic connections ----

void TCPConnectorMaster::addAllowedConnection(unsigned connectionId, unsigned short type) {
  if (refusedWhileDestroying("to add an allowed connection")) return;
  if (!verifyValidConnectionId(connectionId)) {
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error,
               "Failed to add allowed connection %u (type %u): Invalid connection id!",
               connectionId, unsigned{type});
    return;
  }
  auto found = allowedConnections.find(connectionId);
  if (found != allowedConnections.end()) {
    if (found->second == type) return;
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
               "Replacing allowed connection %u type %u -> %u", connectionId,
               unsigned{found->second}, unsigned{type});
    disconnect(connectionId, DisconnectReason::allowedConnectionRemoved);
  }
  allowedConnections[connectionId] = type;
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug, "Added allowed connection %u (type %u)",
             connectionId, unsigned{type});
}

void TCPConnectorMaster::removeAllowedConnection(unsigned connectionId) {
  auto found = allowedConnections.find(connectionId);
  if (found == allowedConnections.end()) return;
  const unsigned short type = found->second;
  // Erased first: a handler that asks for the id again from its disconnect hook is refused.
  allowedConnections.erase(found);
  disconnect(connectionId, DisconnectReason::allowedConnectionRemoved);
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug, "Removed allowed connection %u (type %u)",
             connectionId, unsigned{type});
}

void TCPConnectorMaster::removeAllowedConnectionType(unsigned short type) {
  std::vector<unsigned> ids;
  for (const auto& entry : allowedConnections)
    if (entry.second == type) ids.push_back(entry.first);
  for (unsigned id : ids) {
    allowedConnections.erase(id);
    disconnect(id, DisconnectReason::allowedConnectionRemoved);
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug, "Removed allowed connection %u (by type %u)",
               id, unsigned{type});
  }
}

void TCPConnectorMaster::clearAllowedConnections() {
  std::map<unsigned, unsigned short> removed;
  removed.swap(allowedConnections);
  for (const auto& entry : removed)
    disconnect(entry.first, DisconnectReason::allowedConnectionRemoved);
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug, "Cleared all allowed connections");
}

void TCPConnectorMaster::addAutomaticConnection(unsigned short type) {
  addAutomaticConnection(type, kFirstAutomaticId, kLastAutomaticId);
}

void TCPConnectorMaster::addAutomaticConnection(unsigned short type, unsigned minId,
                                                unsigned maxId) {
  if (refusedWhileDestroying("to add an automatic connection")) return;
  if (!verifyValidConnectionId(minId) || !verifyValidConnectionId(maxId)) {
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error,
               "Failed to add automatic connection type %u: Invalid connection id range (%u - "
               "%u)!",
               unsigned{type}, minId, maxId);
    return;
  }
  auto found = automaticConnections.find(type);
  if (found != automaticConnections.end()) {
    if (found->second.first == minId && found->second.second == maxId) return;
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
               "Replacing automatic connection type %u: (%u - %u) -> (%u - %u)", unsigned{type},
               found->second.first, found->second.second, minId, maxId);
  }
  automaticConnections[type] = std::make_pair(minId, maxId);
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug, "Added automatic connection type %u (%u - %u)",
             unsigned{type}, minId, maxId);
}

void TCPConnectorMaster::removeAutomaticConnection(unsigned short type, bool disconnectExisting) {
  auto found = automaticConnections.find(type);
  if (found == automaticConnections.end()) return;
  const std::pair<unsigned, unsigned> range = found->second;
  automaticConnections.erase(found);
  lastAutomaticIds.erase(type);
  if (disconnectExisting) disconnectType(type, true, DisconnectReason::automaticConnectionRemoved);
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
             "Removed automatic connection type %u (minId %u, maxId %u)", unsigned{type},
             range.first, range.second);
}

void TCPConnectorMaster::clearAutomaticConnections(bool disconnectExisting) {
  automaticConnections.clear();
  lastAutomaticIds.clear();
  if (disconnectExisting) disconnectAllAutomatic(DisconnectReason::automaticConnectionRemoved);
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug, "Cleared all automatic connections");
}

// ---- forwarding ----

void TCPConnectorMaster::addMasterConnectionRejectedCallback(
    unsigned short type, const ConnectionRejectedCallback& callback) {
  addConnectionRejectedCallback(type, callback);
}

void TCPConnectorMaster::removeMasterConnectionRejectedCallback(unsigned short type) {
  removeConnectionRejectedCallback(type);
}

void TCPConnectorMaster::addMasterConnectionHandler(unsigned short type, unsigned short version,
                                                    HandlerFactory factory) {
  addConnectionHandler(type, version, std::move(factory));
}

void TCPConnectorMaster::removeMasterConnectionHandler(unsigned short type,
                                                       unsigned short version) {
  removeConnectionHandler(type, version);
}

void TCPConnectorMaster::clearMasterConnectionHandlers() { clearConnectionHandlers(); }

void TCPConnectorMaster::disconnectFromMaster(unsigned connectionId, int reason) {
  disconnect(connectionId, reason);
}

void TCPConnectorMaster::disconnectRemoteDeviceFromMaster(SimpleIp remoteIp, int reason) {
  disconnectRemoteDevice(remoteIp, reason);
}

void TCPConnectorMaster::disconnectAllConnectionsFromMaster(int reason) {
  disconnectAllConnections(reason);
}

}  // namespace tavrinConnector
