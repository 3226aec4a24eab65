#include "tavrincommon/connector/SingleAnnouncementData.h"

namespace tavrinConnector {

SingleAnnouncementData::SingleAnnouncementData(
    ConnectorInterfaceType::Type connectorType_, unsigned short connectorVersion_,
    unsigned clusterId_, const tavrinNetwork::SimpleEndpoint& connectorEndpoint_,
    unsigned announcementId_, unsigned short announcementType_, const std::string& name_)
    : connectorType(connectorType_),
      connectorVersion(connectorVersion_),
      clusterId(clusterId_),
      connectorEndpoint(connectorEndpoint_),
      announcementId(announcementId_),
      announcementType(announcementType_),
      name(name_) {}

SingleAnnouncementData::~SingleAnnouncementData() = default;

bool SingleAnnouncementData::operator==(const SingleAnnouncementData& other) const {
  return connectorType == other.connectorType && connectorVersion == other.connectorVersion &&
         clusterId == other.clusterId && connectorEndpoint == other.connectorEndpoint &&
         announcementId == other.announcementId && announcementType == other.announcementType &&
         name == other.name;
}

}  // namespace tavrinConnector
