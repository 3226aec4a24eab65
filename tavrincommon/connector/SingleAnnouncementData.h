// One announcement together with the data of the connector that carries it: what announce
// queries return and what the announcement-added callback is handed. A plain copyable value that
// owns nothing; no thread rule of its own. It carries neither the connector id nor availability.
#pragma once

#include "tavrincommon/connector/ConnectorInterfaceType.h"
#include "tavrincommon/network/SimpleEndpoint.h"

#include <string>

namespace tavrinConnector {

class SingleAnnouncementData {
 public:
  SingleAnnouncementData() = default;
  SingleAnnouncementData(ConnectorInterfaceType::Type connectorType_,
                         unsigned short connectorVersion_, unsigned clusterId_,
                         const tavrinNetwork::SimpleEndpoint& connectorEndpoint_,
                         unsigned announcementId_, unsigned short announcementType_,
                         const std::string& name_);
  virtual ~SingleAnnouncementData();
  SingleAnnouncementData(const SingleAnnouncementData&) = default;
  SingleAnnouncementData& operator=(const SingleAnnouncementData&) = default;
  SingleAnnouncementData(SingleAnnouncementData&&) = default;
  SingleAnnouncementData& operator=(SingleAnnouncementData&&) = default;

  bool operator==(const SingleAnnouncementData& other) const;
  bool operator!=(const SingleAnnouncementData& other) const { return !(*this == other); }

  ConnectorInterfaceType::Type connectorType = ConnectorInterfaceType::Unknown;
  unsigned short connectorVersion = 0;
  unsigned clusterId = 0;
  tavrinNetwork::SimpleEndpoint connectorEndpoint;
  unsigned announcementId = 0;
  unsigned short announcementType = 0;
  std::string name;
};

}  // namespace tavrinConnector
