// The slave's queries: the available announcements of supported connectors, over every master
// in endpoint order, filtered by announcement and cluster.
#include "tavrincommon/connector/MCAnnounceSlave.h"

namespace tavrinConnector {

MCAnnounceData::ConnectorFilter MCAnnounceSlave::connectorFilter(
    const ClusterFilter& clusterFilter) const {
  return [this, &clusterFilter](ConnectorInterfaceType::Type type, unsigned short version,
                                unsigned clusterId) {
    return isConnectorSupported(version, type) && (!clusterFilter || clusterFilter(clusterId));
  };
}

void MCAnnounceSlave::collect(const AnnouncementFilter& announcementFilter,
                              const ClusterFilter& clusterFilter,
                              std::vector<SingleAnnouncementData>& out) const {
  const MCAnnounceData::ConnectorFilter filter = connectorFilter(clusterFilter);
  for (const auto& [endpoint, master] : masters) {
    master->data.getAnnouncements(true, announcementFilter, filter, out);
  }
}

std::vector<SingleAnnouncementData> MCAnnounceSlave::getAnnouncements(
    const AnnouncementFilter& announcementFilter, const ClusterFilter& clusterFilter) const {
  std::vector<SingleAnnouncementData> out;
  collect(announcementFilter, clusterFilter, out);
  return out;
}

std::vector<SingleAnnouncementData> MCAnnounceSlave::getAnnouncements(unsigned clusterId,
                                                                      unsigned id,
                                                                      unsigned short type) const {
  return getAnnouncements(
      [id, type](unsigned announcementId, unsigned short announcementType) {
        return announcementId == id && announcementType == type;
      },
      [clusterId](unsigned cluster) { return cluster == clusterId; });
}

std::vector<SingleAnnouncementData> MCAnnounceSlave::getAnnouncements(unsigned clusterId,
                                                                      unsigned id) const {
  return getAnnouncements(
      [id](unsigned announcementId, unsigned short) { return announcementId == id; },
      [clusterId](unsigned cluster) { return cluster == clusterId; });
}

std::vector<SingleAnnouncementData> MCAnnounceSlave::getTypeAnnouncements(
    unsigned clusterId, unsigned short type) const {
  return getAnnouncements(
      [type](unsigned, unsigned short announcementType) { return announcementType == type; },
      [clusterId](unsigned cluster) { return cluster == clusterId; });
}

std::vector<SingleAnnouncementData> MCAnnounceSlave::getTypeAnnouncements(
    unsigned clusterId, const std::function<bool(unsigned short)>& typeFilter) const {
  return getAnnouncements(
      [&typeFilter](unsigned, unsigned short announcementType) {
        return typeFilter(announcementType);
      },
      [clusterId](unsigned cluster) { return cluster == clusterId; });
}

std::vector<SingleAnnouncementData> MCAnnounceSlave::getAnnouncements(unsigned clusterId) const {
  return getAnnouncements([](unsigned, unsigned short) { return true; },
                          [clusterId](unsigned cluster) { return cluster == clusterId; });
}

std::vector<SingleAnnouncementData> MCAnnounceSlave::getAnyClusterAnnouncements(
    unsigned id, unsigned short type) const {
  return getAnnouncements([id, type](unsigned announcementId, unsigned short announcementType) {
    return announcementId == id && announcementType == type;
  });
}

std::vector<SingleAnnouncementData> MCAnnounceSlave::getAnyClusterAnnouncements(unsigned id) const {
  return getAnnouncements(
      [id](unsigned announcementId, unsigned short) { return announcementId == id; });
}

std::vector<SingleAnnouncementData> MCAnnounceSlave::getAnyClusterTypeAnnouncements(
    unsigned short type) const {
  return getAnnouncements(
      [type](unsigned, unsigned short announcementType) { return announcementType == type; });
}

std::vector<SingleAnnouncementData> MCAnnounceSlave::getAnyClusterAnnouncements() const {
  return getAnnouncements([](unsigned, unsigned short) { return true; });
}

std::unique_ptr<SingleAnnouncementData> MCAnnounceSlave::getSingleAnnouncement(
    const AnnouncementFilter& announcementFilter, const ClusterFilter& clusterFilter) const {
  const MCAnnounceData::ConnectorFilter filter = connectorFilter(clusterFilter);
  for (const auto& [endpoint, master] : masters) {
    auto found = master->data.getSingleAnnouncement(true, announcementFilter, filter);
    if (found) return found;
  }
  return nullptr;
}

std::unique_ptr<SingleAnnouncementData> MCAnnounceSlave::getSingleAnnouncement(
    unsigned clusterId, unsigned id, unsigned short type) const {
  return getSingleAnnouncement(
      [id, type](unsigned announcementId, unsigned short announcementType) {
        return announcementId == id && announcementType == type;
      },
      [clusterId](unsigned cluster) { return cluster == clusterId; });
}

}  // namespace tavrinConnector
