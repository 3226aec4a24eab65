// Collects the announce data of every master of one network from a multicast group, forgets
// masters that fall silent or withdraw, tells the application of each announcement of a supported
// connector that becomes available, and answers queries. Owns its socket, receive buffer, queue
// and per-master data; keeps the scheduler and the logging object. Loop thread only; no locks.
#pragma once

#include "tavrincommon/connector/ErrorType.h"
#include "tavrincommon/connector/MCAnnounceData.h"
#include "tavrincommon/network/MulticastSocketInterface.h"
#include "tavrincommon/scheduler/IOWatchItem.h"
#include "tavrincommon/scheduler/SimpleTimer.h"
#include "tavrincommon/scheduler/Worker.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tavrinScheduler {
class Scheduler;
}

namespace tavrinConnector {

class InputMessage;

class MCAnnounceSlave : public tavrinScheduler::Worker {
 public:
  using SocketFactory = std::function<std::unique_ptr<tavrinNetwork::MulticastSocketInterface>()>;
  using AddedCallback = std::function<void(const SingleAnnouncementData&)>;
  using ErrorCallback = std::function<void(ErrorType::Type, const std::string&)>;
  using AnnouncementFilter = std::function<bool(unsigned, unsigned short)>;
  using ClusterFilter = std::function<bool(unsigned)>;

  static constexpr int kDefaultMasterTimeoutMs = 20100;
  // The largest message a master sends.
  static constexpr unsigned kReceiveBufferSize = 61440;
  static constexpr int kWorkerBudgetMs = 300;

  struct MasterEntry {
    MasterEntry(tavrinScheduler::Scheduler* scheduler, int masterTimeout,
                std::function<void()> timeoutCallback, tavrinLog::TavrinLogging* logger);
    tavrinScheduler::SimpleTimer timer;
    MCAnnounceData data;
    uint32_t changeCount = 0;
  };

  // `socketFactory` must not be empty.
  MCAnnounceSlave(tavrinScheduler::Scheduler* scheduler, SocketFactory socketFactory,
                  int masterTimeout, tavrinLog::TavrinLogging* logger);
  // Real multicast sockets and the default master timeout.
  MCAnnounceSlave(tavrinScheduler::Scheduler* scheduler, tavrinLog::TavrinLogging* logger);
  ~MCAnnounceSlave() override;
  MCAnnounceSlave(const MCAnnounceSlave&) = delete;
  MCAnnounceSlave& operator=(const MCAnnounceSlave&) = delete;

  // Empty callbacks are replaced by ones that do nothing.
  void setCallbacks(AddedCallback added, ErrorCallback error);
  // Disables and empties the supported connectors; does not enable.
  void init(unsigned networkId_, tavrinNetwork::SimpleIp multicastIp, unsigned short multicastPort,
            const std::string& interface_);
  // Either change forgets every master, queued message and pending timeout.
  void setEnabled(bool enable);

  // Only connector version 0 is understood: any other is refused.
  bool addSupportedConnector(unsigned short version, ConnectorInterfaceType::Type type);
  void removeSupportedConnector(unsigned short version, ConnectorInterfaceType::Type type);
  bool isConnectorSupported(unsigned short version, ConnectorInterfaceType::Type type) const;
  // Forgets the announcements of this id locally; the next message of each master affected is
  // taken over again, whatever its change count.
  void removeAnnouncements(unsigned id);

  // Available announcements of supported connectors, ordered by master endpoint, connector id,
  // then (announcement id, type). An empty cluster filter takes every cluster.
  std::vector<SingleAnnouncementData> getAnnouncements(const AnnouncementFilter& announcementFilter,
                                                       const ClusterFilter& clusterFilter = {}) const;
  std::vector<SingleAnnouncementData> getAnnouncements(unsigned clusterId, unsigned id,
                                                       unsigned short type) const;
  std::vector<SingleAnnouncementData> getAnnouncements(unsigned clusterId, unsigned id) const;
  std::vector<SingleAnnouncementData> getTypeAnnouncements(unsigned clusterId,
                                                           unsigned short type) const;
  std::vector<SingleAnnouncementData> getTypeAnnouncements(
      unsigned clusterId, const std::function<bool(unsigned short)>& typeFilter) const;
  std::vector<SingleAnnouncementData> getAnnouncements(unsigned clusterId) const;
  std::vector<SingleAnnouncementData> getAnyClusterAnnouncements(unsigned id,
                                                                 unsigned short type) const;
  std::vector<SingleAnnouncementData> getAnyClusterAnnouncements(unsigned id) const;
  std::vector<SingleAnnouncementData> getAnyClusterTypeAnnouncements(unsigned short type) const;
  std::vector<SingleAnnouncementData> getAnyClusterAnnouncements() const;
  std::unique_ptr<SingleAnnouncementData> getSingleAnnouncement(
      const AnnouncementFilter& announcementFilter, const ClusterFilter& clusterFilter = {}) const;
  std::unique_ptr<SingleAnnouncementData> getSingleAnnouncement(unsigned clusterId, unsigned id,
                                                                unsigned short type) const;

  // What unpacking hands each new available announcement: the added callback, for supported
  // connectors only.
  AddedCallback getUnpackAnnouncementAddedCallback();

  Result work() override;
  // The socket's IO callback: one datagram per call, verified and queued.
  tavrinScheduler::IOWatchItem::Result socketCallback(int events);

  // Each line starts with `prefix`.
  void dump(std::ostream& out, const char* prefix) const;

  bool isEnabled() const { return enabled; }
  size_t getReceiveQueueSize() const { return receiveQueue.size(); }
  const std::map<tavrinNetwork::SimpleEndpoint, std::unique_ptr<MasterEntry>>& getMasters() const {
    return masters;
  }

 private:
  void initMulticastSocket();
  bool receivePacket(tavrinNetwork::SimpleEndpoint& sender, std::unique_ptr<InputMessage>& message);
  void handlePacket(const tavrinNetwork::SimpleEndpoint& sender, InputMessage& message);
  void timeoutMaster(const tavrinNetwork::SimpleEndpoint& endpoint);
  void removeTimeoutedMasters();
  void setGeneralError(ErrorType::Type type, const std::string& text);
  void collect(const AnnouncementFilter& announcementFilter, const ClusterFilter& clusterFilter,
               std::vector<SingleAnnouncementData>& out) const;
  MCAnnounceData::ConnectorFilter connectorFilter(const ClusterFilter& clusterFilter) const;

  tavrinLog::TavrinLogging* logger;
  tavrinScheduler::Scheduler* scheduler;
  SocketFactory socketFactory;
  int masterTimeout;
  AddedCallback announcementAdded;
  ErrorCallback errorCallback;
  uint32_t networkId = 0;
  std::string interface;
  tavrinNetwork::SimpleIp multicastIp;
  unsigned short multicastPort = 0;
  bool enabled = false;
  std::unique_ptr<tavrinNetwork::MulticastSocketInterface> socket;
  tavrinScheduler::IOWatchHandle ioHandle;
  char receiveBuffer[kReceiveBufferSize];
  std::map<tavrinNetwork::SimpleEndpoint, std::unique_ptr<MasterEntry>> masters;
  std::deque<std::pair<tavrinNetwork::SimpleEndpoint, std::unique_ptr<InputMessage>>> receiveQueue;
  std::set<tavrinNetwork::SimpleEndpoint> timedOutMasters;
  std::set<std::pair<unsigned short, ConnectorInterfaceType::Type>> supportedConnectors;
};

}  // namespace tavrinConnector
