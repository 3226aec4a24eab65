// The configuration and management of a TCP connector master, for application components that
// should not depend on the whole class. Holds nothing. Loop thread of the master only.
#pragma once

#include "tavrincommon/connector/ConnectionHandlerBase.h"
#include "tavrincommon/connector/ConnectorInterfaceType.h"
#include "tavrincommon/network/SimpleEndpoint.h"
#include "tavrincommon/network/SimpleIp.h"

#include <functional>
#include <memory>

namespace tavrinConnector {

class TCPConnectorMasterInterface {
 public:
  virtual ~TCPConnectorMasterInterface() = default;

  virtual void addAllowedConnection(unsigned connectionId, unsigned short type) = 0;
  virtual void removeAllowedConnection(unsigned connectionId) = 0;
  virtual void removeAllowedConnectionType(unsigned short type) = 0;
  virtual void clearAllowedConnections() = 0;
  // The whole id range 1 to 4294967294.
  virtual void addAutomaticConnection(unsigned short type) = 0;
  virtual void addAutomaticConnection(unsigned short type, unsigned minId, unsigned maxId) = 0;
  virtual void removeAutomaticConnection(unsigned short type, bool disconnect) = 0;
  virtual void clearAutomaticConnections(bool disconnect) = 0;
  virtual void addMasterConnectionRejectedCallback(
      unsigned short type,
      const std::function<void(const tavrinNetwork::SimpleEndpoint&, unsigned, unsigned, int,
                               unsigned, unsigned short, const CustomConnectData*)>& callback) = 0;
  virtual void removeMasterConnectionRejectedCallback(unsigned short type) = 0;
  virtual void addMasterConnectionHandler(
      unsigned short type, unsigned short version,
      std::function<std::unique_ptr<ConnectionHandlerBase>()> factory) = 0;
  virtual void removeMasterConnectionHandler(unsigned short type, unsigned short version) = 0;
  virtual void clearMasterConnectionHandlers() = 0;
  virtual void disconnectFromMaster(unsigned connectionId, int reason) = 0;
  virtual void disconnectRemoteDeviceFromMaster(tavrinNetwork::SimpleIp ip, int reason) = 0;
  virtual void disconnectAllConnectionsFromMaster(int reason) = 0;
  virtual ConnectorInterfaceType::Type getMasterType() const = 0;
  virtual unsigned short getMasterVersion() const = 0;
  virtual unsigned getMasterConnectorId() const = 0;
  virtual unsigned getMasterDeviceId() const = 0;
  virtual tavrinNetwork::SimpleIp getMasterIp() const = 0;
  virtual unsigned getMasterClusterId() const = 0;
  virtual unsigned short getMasterPort() const = 0;
  virtual tavrinNetwork::SimpleEndpoint getMasterEndpoint() const = 0;
};

}  // namespace tavrinConnector
