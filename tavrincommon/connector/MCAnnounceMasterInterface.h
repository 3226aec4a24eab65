// What an application needs of an announce master: editing the announced connectors and
// announcements, and the master's identity. Lets applications hold a master (or a stand-in)
// without its socket and timer. Implementations define their own thread rule (the loop thread for
// MCAnnounceMaster).
#pragma once

#include "tavrincommon/connector/ConnectorInterfaceType.h"
#include "tavrincommon/network/SimpleEndpoint.h"

#include <iosfwd>
#include <string>

namespace tavrinConnector {

class MCAnnounceMasterInterface {
 public:
  virtual ~MCAnnounceMasterInterface() = default;

  virtual void addConnector(unsigned connectorId, ConnectorInterfaceType::Type type,
                            unsigned short version, unsigned clusterId,
                            const tavrinNetwork::SimpleEndpoint& endpoint) = 0;
  virtual void removeConnector(unsigned connectorId) = 0;
  virtual void clearConnectors() = 0;
  virtual void addAnnouncement(unsigned connectorId, unsigned id, unsigned short type,
                               const std::string& name, bool available) = 0;
  virtual void setAnnouncementAvailable(unsigned connectorId, unsigned id, unsigned short type,
                                        bool available) = 0;
  virtual void setAnnouncementName(unsigned connectorId, unsigned id, unsigned short type,
                                   const std::string& name) = 0;
  virtual void removeAnnouncement(unsigned connectorId, unsigned id, unsigned short type) = 0;
  virtual void clearAnnouncements(unsigned connectorId) = 0;
  virtual bool hasAnnouncement(unsigned connectorId, unsigned id, unsigned short type) const = 0;
  virtual unsigned getNetworkId() const = 0;
  virtual unsigned getDeviceId() const = 0;
  virtual tavrinNetwork::SimpleIp getBindIp() const = 0;
  // The payload format version the master writes.
  virtual unsigned short getVersion() const = 0;
  // Each line starts with `prefix`.
  virtual void dump(std::ostream& out, const char* prefix) const = 0;
};

}  // namespace tavrinConnector
