// Collects the announce data of every master of one network from a multicast group, forgets
// masters that fall silent or withdraw, tells the application of each announcement of a supported
// connector that becomes available, and answers queries. Owns its socket, receive buffer, queue
// and per-master data; keeps the scheduler and the logging object. Loop thread only; no locks.
// Any host can send to the group, so what the queue and the masters hold is bounded: datagrams
// past a bound are dropped, counted (dump) and logged through a rate limiter.
#pragma once

#include "tavrincommon/common/CallbackSlot.h"
#include "tavrincommon/common/LivenessToken.h"
#include "tavrincommon/connector/ErrorType.h"
#include "tavrincommon/connector/MCAnnounceData.h"
#include "tavrincommon/log/LogRateLimiter.h"
#include "tavrincommon/network/MulticastSocketInterface.h"
#include "tavrincommon/scheduler/IOWatchItem.h"
#include "tavrincommon/scheduler/SimpleTimer.h"
#include "tavrincommon/scheduler/Worker.h"

#include <cstddef>
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
  // On the 32-bit target an ordinary master (a datagram of a few hundred bytes) holds 1 to 2 KiB
  // of heap once unpacked (64-bit hosts: 1.7 times that), so 512 masters take up to 1 MiB. The
  // data bound doubles that, leaving room for masters of the largest datagram too (61 KiB that
  // unpack to up to 400 KiB), and is 3% of a 64 MB device.
  static constexpr size_t kDefaultMaxMasters = 512;
  static constexpr size_t kDefaultMaxMasterDataBytes = 2 * 1024 * 1024;
  // One source address (one host, whatever its ports) gets a quarter of either bound at most, so
  // that a single host cannot lock genuine new masters out until its entries time out.
  static constexpr size_t kDefaultMaxMastersPerAddress = kDefaultMaxMasters / 4;
  static constexpr size_t kDefaultMaxMasterDataBytesPerAddress = kDefaultMaxMasterDataBytes / 4;
  // Masters send every 10 s and on a change: 512 of them make some 50 datagrams a second, and
  // the worker empties the queue within a loop turn. The queue only has to absorb a stalled loop;
  // 256 ordinary datagrams hold about 120 KiB, the byte bound four of the largest. The kernel's
  // receive buffer holds about as much again.
  static constexpr size_t kDefaultMaxQueuedDatagrams = 256;
  static constexpr size_t kDefaultMaxQueuedBytes = 256 * 1024;

  // Datagrams dropped by the bounds, since construction.
  struct DropCounts {
    uint64_t queueFull = 0;
    uint64_t tooManyMasters = 0;
    uint64_t newMasterData = 0;
    // A known master's change that would exceed the data bound; it keeps its previous data.
    uint64_t masterUpdateData = 0;
  };

  struct MasterEntry {
    MasterEntry(tavrinScheduler::Scheduler* scheduler, int masterTimeout,
                std::function<void()> timeoutCallback, tavrinLog::TavrinLogging* logger);
    tavrinScheduler::SimpleTimer timer;
    MCAnnounceData data;
    uint32_t changeCount = 0;
    // What the entry is counted for against the data bound.
    size_t heapBytes = 0;
  };

  // `socketFactory` must not be empty.
  MCAnnounceSlave(tavrinScheduler::Scheduler* scheduler, SocketFactory socketFactory,
                  int masterTimeout, tavrinLog::TavrinLogging* logger);
  // Real multicast sockets and the default master timeout.
  MCAnnounceSlave(tavrinScheduler::Scheduler* scheduler, tavrinLog::TavrinLogging* logger);
  ~MCAnnounceSlave() override;
  MCAnnounceSlave(const MCAnnounceSlave&) = delete;
  MCAnnounceSlave& operator=(const MCAnnounceSlave&) = delete;

  // Empty callbacks are replaced by ones that do nothing. Also from inside the callbacks: the new
  // ones apply from the next call on (the next announcement of the same message included). A
  // callback may also disable or destroy the slave.
  void setCallbacks(AddedCallback added, ErrorCallback error);
  // Disables and empties the supported connectors; does not enable.
  void init(unsigned networkId_, tavrinNetwork::SimpleIp multicastIp, unsigned short multicastPort,
            const std::string& interface_);
  // Either change forgets every master, queued message and pending timeout.
  void setEnabled(bool enable);
  // Follows the interface the slave listens on, for one that can go away and come back (a USB
  // adapter, a bridge re-created): call it from a LocalIPAddressWatcher's callback with that
  // interface's address. A socket joined on a removed interface hears nothing once the interface
  // is back, and reports no error either. NO_IP (gone or down): the socket is closed and the slave
  // pauses, still enabled; known masters stay until they time out. An address: the socket is
  // opened anew; a failure to open is reported as by setEnabled(true). Nothing while disabled.
  void interfaceChanged(tavrinNetwork::SimpleIp address);

  // Bounds apply to what arrives next; nothing held is dropped when one is lowered. The data
  // bound counts the heap of each master's entry and data (MCAnnounceData::heapBytes), not
  // datagram bytes, and the queue bound the heap of each queued message.
  void setMaxMasters(size_t maxMasters_) { maxMasters = maxMasters_; }
  void setMaxMasterDataBytes(size_t maxBytes) { maxMasterDataBytes = maxBytes; }
  void setMaxMastersPerAddress(size_t maxMasters_) { maxMastersPerAddress = maxMasters_; }
  void setMaxMasterDataBytesPerAddress(size_t maxBytes) { maxMasterDataBytesPerAddress = maxBytes; }
  void setMaxQueuedDatagrams(size_t maxDatagrams) { maxQueuedDatagrams = maxDatagrams; }
  void setMaxQueuedBytes(size_t maxBytes) { maxQueuedBytes = maxBytes; }

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
  // Enabled, but waiting for its interface to have an address again (interfaceChanged).
  bool isPaused() const { return paused; }
  size_t getReceiveQueueSize() const { return receiveQueue.size(); }
  size_t getQueuedBytes() const { return queuedBytes; }
  size_t getMasterDataBytes() const { return masterDataBytes; }
  const DropCounts& getDropCounts() const { return dropCounts; }
  const std::map<tavrinNetwork::SimpleEndpoint, std::unique_ptr<MasterEntry>>& getMasters() const {
    return masters;
  }

 private:
  struct Queued {
    tavrinNetwork::SimpleEndpoint sender;
    std::unique_ptr<InputMessage> message;
    size_t heapBytes;
  };
  using MasterMap = std::map<tavrinNetwork::SimpleEndpoint, std::unique_ptr<MasterEntry>>;

  void initMulticastSocket();
  bool receivePacket(tavrinNetwork::SimpleEndpoint& sender, std::unique_ptr<InputMessage>& message);
  void handlePacket(const tavrinNetwork::SimpleEndpoint& sender, InputMessage& message);
  // False (counted, logged) when the data bound leaves no room for `data` as the sender's data.
  // Else the sender's entry exists, created for a new one, and is counted for `data`.
  // Masters and data bytes held for the masters of one source address.
  std::pair<size_t, size_t> heldFor(tavrinNetwork::SimpleIp address) const;
  bool admitMasterData(const tavrinNetwork::SimpleEndpoint& sender, const MCAnnounceData& data);
  void setMasterHeapBytes(MasterEntry& master, size_t heapBytes);
  void eraseMaster(MasterMap::iterator master);
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
  // Shared_ptr-held, so that a callback may replace them (or destroy the slave) while it runs.
  tavrinCommon::CallbackSlot<AddedCallback> announcementAdded;
  tavrinCommon::CallbackSlot<ErrorCallback> errorCallback;
  uint32_t networkId = 0;
  std::string interface;
  tavrinNetwork::SimpleIp multicastIp;
  unsigned short multicastPort = 0;
  bool enabled = false;
  bool paused = false;
  std::unique_ptr<tavrinNetwork::MulticastSocketInterface> socket;
  tavrinScheduler::IOWatchHandle ioHandle;
  char receiveBuffer[kReceiveBufferSize];
  MasterMap masters;
  std::deque<Queued> receiveQueue;
  std::set<tavrinNetwork::SimpleEndpoint> timedOutMasters;
  std::set<std::pair<unsigned short, ConnectorInterfaceType::Type>> supportedConnectors;
  size_t maxMasters = kDefaultMaxMasters;
  size_t maxMasterDataBytes = kDefaultMaxMasterDataBytes;
  size_t maxMastersPerAddress = kDefaultMaxMastersPerAddress;
  size_t maxMasterDataBytesPerAddress = kDefaultMaxMasterDataBytesPerAddress;
  size_t maxQueuedDatagrams = kDefaultMaxQueuedDatagrams;
  size_t maxQueuedBytes = kDefaultMaxQueuedBytes;
  size_t masterDataBytes = 0;
  size_t queuedBytes = 0;
  DropCounts dropCounts;
  // Every line a datagram causes goes through it: any host on the LAN can send them.
  tavrinLog::LogRateLimiter logLimiter;
  tavrinCommon::LivenessToken liveness;
};

}  // namespace tavrinConnector
