#include "tavrincommon/connector/MCAnnounceSlave.h"

#include "tavrincommon/common/WrapTS.h"
#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/TavrinConnectorMessageType.h"
#include "tavrincommon/connector/internal/AnnounceLog.h"
#include "tavrincommon/connector/internal/DefaultMulticastSocket.h"
#include "tavrincommon/connector/internal/PayloadReader.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/network/MulticastSocket.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <ostream>

namespace tavrinConnector {

using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

namespace {

constexpr unsigned kOwnVersion = 0;

const char* yesNo(bool value) { return value ? "yes" : "no"; }

// A master besides its data: the entry, its node in the map, its timer's callback (which holds
// the endpoint) and the timer's place in the scheduler's set.
size_t masterEntryHeapBytes() {
  constexpr size_t kTreeNodeLinks = 4 * sizeof(void*);
  return MCAnnounceData::allocationCost(sizeof(MCAnnounceSlave::MasterEntry)) +
         MCAnnounceData::allocationCost(kTreeNodeLinks + sizeof(SimpleEndpoint) + sizeof(void*)) +
         MCAnnounceData::allocationCost(sizeof(void*) + sizeof(SimpleEndpoint)) +
         MCAnnounceData::allocationCost(kTreeNodeLinks + sizeof(void*));
}

}  // namespace

MCAnnounceSlave::MasterEntry::MasterEntry(tavrinScheduler::Scheduler* scheduler, int masterTimeout,
                                          std::function<void()> timeoutCallback,
                                          tavrinLog::TavrinLogging* logger)
    : timer(scheduler, masterTimeout, std::move(timeoutCallback), DefaultOrigins::MCAnnounce),
      data(nullptr, logger) {}

MCAnnounceSlave::MCAnnounceSlave(tavrinScheduler::Scheduler* scheduler_,
                                 SocketFactory socketFactory_, int masterTimeout_,
                                 tavrinLog::TavrinLogging* logger_)
    : Worker(DefaultOrigins::MCAnnounce),
      logger(logger_),
      scheduler(scheduler_),
      socketFactory(std::move(socketFactory_)),
      masterTimeout(masterTimeout_),
      announcementAdded([](const SingleAnnouncementData&) {}),
      errorCallback([](ErrorType::Type, const std::string&) {}) {}

MCAnnounceSlave::MCAnnounceSlave(tavrinScheduler::Scheduler* scheduler_,
                                 tavrinLog::TavrinLogging* logger_)
    : MCAnnounceSlave(scheduler_, internal::defaultMulticastSocketFactory(logger_),
                      kDefaultMasterTimeoutMs, logger_) {}

MCAnnounceSlave::~MCAnnounceSlave() {
  setEnabled(false);
  scheduler->removeWorker(this);
}

void MCAnnounceSlave::setCallbacks(AddedCallback added, ErrorCallback error) {
  announcementAdded =
      added ? std::move(added) : AddedCallback([](const SingleAnnouncementData&) {});
  errorCallback =
      error ? std::move(error) : ErrorCallback([](ErrorType::Type, const std::string&) {});
}

void MCAnnounceSlave::init(unsigned networkId_, SimpleIp multicastIp_,
                           unsigned short multicastPort_, const std::string& interface_) {
  setEnabled(false);
  supportedConnectors.clear();
  networkId = networkId_;
  interface = interface_;
  multicastIp = multicastIp_;
  multicastPort = multicastPort_;
  ANNOUNCE_LOG(Debug,
               "Initialized MCAnnounce client: NetworkId %u, interface '%s', MC group: %s:%u",
               networkId, interface.c_str(), SimpleIp::CharString(multicastIp).c_str(),
               static_cast<unsigned>(multicastPort));
}

void MCAnnounceSlave::setEnabled(bool enable) {
  if (enable == enabled) return;
  enabled = enable;
  paused = false;
  scheduler->removeIOItem(ioHandle);
  socket.reset();
  scheduler->removeWorker(this);
  masters.clear();
  receiveQueue.clear();
  timedOutMasters.clear();
  masterDataBytes = 0;
  queuedBytes = 0;
  if (enable) initMulticastSocket();
}

void MCAnnounceSlave::setGeneralError(ErrorType::Type type, const std::string& text) {
  ANNOUNCE_LOG(Error, "Error %d (%s): '%s'", static_cast<int>(type), ErrorType::getText(type),
               text.c_str());
  setEnabled(false);
  errorCallback(type, text);
}

bool MCAnnounceSlave::addSupportedConnector(unsigned short version,
                                            ConnectorInterfaceType::Type type) {
  if (version != 0) return false;
  supportedConnectors.emplace(version, type);
  return true;
}

void MCAnnounceSlave::removeSupportedConnector(unsigned short version,
                                               ConnectorInterfaceType::Type type) {
  supportedConnectors.erase(std::make_pair(version, type));
}

bool MCAnnounceSlave::isConnectorSupported(unsigned short version,
                                           ConnectorInterfaceType::Type type) const {
  return supportedConnectors.count(std::make_pair(version, type)) != 0;
}

void MCAnnounceSlave::removeAnnouncements(unsigned id) {
  for (auto& [endpoint, master] : masters) {
    if (!master->data.removeAnnouncements(id)) continue;
    setMasterHeapBytes(*master, masterEntryHeapBytes() + master->data.heapBytes());
    ANNOUNCE_LOG(Detailed,
                 "Remove master %s announcement %u with changeCount %u locally, reducing "
                 "changeCount to %u",
                 SimpleEndpoint::CharString(endpoint).c_str(), id, master->changeCount,
                 master->changeCount - 1);
    --master->changeCount;
  }
}

MCAnnounceSlave::AddedCallback MCAnnounceSlave::getUnpackAnnouncementAddedCallback() {
  return [this](const SingleAnnouncementData& announcement) {
    if (isConnectorSupported(announcement.connectorVersion, announcement.connectorType)) {
      announcementAdded(announcement);
    }
  };
}

tavrinScheduler::Worker::Result MCAnnounceSlave::work() {
  const tavrinCommon::MonotonicMs deadline = tavrinCommon::MonotonicMs() + kWorkerBudgetMs;
  while (!receiveQueue.empty()) {
    if (tavrinCommon::MonotonicMs() >= deadline) break;
    Queued entry = std::move(receiveQueue.front());
    receiveQueue.pop_front();
    queuedBytes -= entry.heapBytes;
    tavrinCommon::LivenessToken::Watch alive(liveness);
    handlePacket(entry.sender, *entry.message);
    // The added callback may have destroyed the slave; disabling it has emptied the queue.
    if (!alive) return Finished;
  }
  removeTimeoutedMasters();
  logLimiter.flush(logger);
  if (receiveQueue.empty()) return Finished;
  ANNOUNCE_LOG(Debug,
               "Worker took more than %dms. Yielding execution and scheduling another run to "
               "continue work (%zu messages remaining)",
               kWorkerBudgetMs, receiveQueue.size());
  return Continue;
}

void MCAnnounceSlave::handlePacket(const SimpleEndpoint& sender, InputMessage& message) {
  const SimpleEndpoint::CharString senderText(sender);
  const int frameLength = static_cast<int>(message.getLength());
  if (message.getType() != TavrinConnectorMessageType::announce) {
    ANNOUNCE_PEER_LOG(Debug, "Received non-announce message (type %u, %d bytes) from %s, ignoring!",
                      static_cast<unsigned>(message.getType()), frameLength, senderText.c_str());
    return;
  }
  message.reset();
  const unsigned end = internal::payloadEnd(message);
  const unsigned version = internal::readUInt16(message, end);
  if (version != kOwnVersion) {
    ANNOUNCE_PEER_LOG(Debug,
                      "Received incompatible message (%d bytes) from %s (version %u, own: %u), "
                      "ignoring!",
                      frameLength, senderText.c_str(), version, kOwnVersion);
    return;
  }
  const uint32_t messageNetworkId = internal::readUInt32(message, end);
  if (messageNetworkId != networkId) {
    ANNOUNCE_PEER_LOG(Debug,
                      "Received message belonging to a different network from %s (networkId %u, "
                      "own: %u), ignoring!",
                      senderText.c_str(), messageNetworkId, networkId);
    return;
  }
  const uint32_t changeCount = message.getAdditionalInfo();
  auto found = masters.find(sender);
  const bool isNew = found == masters.end();
  if (isNew && masters.size() >= maxMasters) {
    ++dropCounts.tooManyMasters;
    ANNOUNCE_PEER_LOG(Warning, "Dropping message from new master %s: %zu masters known (max %zu)",
                      senderText.c_str(), masters.size(), maxMasters);
    return;
  }
  if (isNew && heldFor(sender.getIp()).first >= maxMastersPerAddress) {
    ++dropCounts.tooManyMasters;
    ANNOUNCE_PEER_LOG(Warning,
                      "Dropping message from new master %s: %zu masters known from its address "
                      "(max %zu)",
                      senderText.c_str(), heldFor(sender.getIp()).first, maxMastersPerAddress);
    return;
  }
  if (!isNew) {
    found->second->timer.start();
    if (found->second->changeCount == changeCount) {
      ANNOUNCE_PEER_LOG(Detailed,
                        "Received message (%d bytes) with known changeCount (%u) from %s (version "
                        "%u, own: %u), ignoring!",
                        frameLength, changeCount, senderText.c_str(), kOwnVersion, kOwnVersion);
      return;
    }
    ANNOUNCE_PEER_LOG(Detailed,
                      "Received message (%d bytes) with unknown changeCount %u (own: %u) from %s "
                      "(version %u, own: %u), taking over data",
                      frameLength, changeCount, found->second->changeCount, senderText.c_str(),
                      kOwnVersion, kOwnVersion);
  }
  // Unpacked aside and weighed before it is kept. A known master's change that does not fit is
  // dropped whole: the master keeps its previous, consistent data and its change count, so that
  // a later message of that change is tried again once there is room.
  MCAnnounceData fresh(nullptr, logger);
  fresh.setLogRateLimiter(&logLimiter);
  fresh.unpack(networkId, message, {});
  if (!admitMasterData(sender, fresh)) return;
  found = masters.find(sender);
  found->second->changeCount = changeCount;
  tavrinCommon::LivenessToken::Watch alive(liveness);
  found->second->data.takeOver(fresh, [this, &alive](const SingleAnnouncementData& announcement) {
    if (alive && isConnectorSupported(announcement.connectorVersion, announcement.connectorType))
      announcementAdded(announcement);
  });
  // The added callback may have destroyed the slave, disabled it or otherwise dropped the master.
  if (!alive) return;
  found = masters.find(sender);
  if (found == masters.end()) return;
  const MCAnnounceData& data = found->second->data;
  if (isNew) {
    ANNOUNCE_PEER_LOG(Debug, "Added new master: IP %s, NetworkId %u, DeviceId %u ('%s')",
                      senderText.c_str(), data.getNetworkId(), data.getDeviceId(),
                      data.getDeviceName().c_str());
  }
  if (!data.announcementsPresent()) {
    ANNOUNCE_PEER_LOG(Debug, "Removing master %s (no announcements)", senderText.c_str());
    eraseMaster(found);
  }
}

bool MCAnnounceSlave::admitMasterData(const SimpleEndpoint& sender, const MCAnnounceData& data) {
  auto found = masters.find(sender);
  const bool isNew = found == masters.end();
  const size_t heapBytes = masterEntryHeapBytes() + data.heapBytes();
  const size_t held = isNew ? 0 : found->second->heapBytes;
  const size_t heldByAddress = heldFor(sender.getIp()).second;
  if (masterDataBytes - held + heapBytes > maxMasterDataBytes ||
      heldByAddress - held + heapBytes > maxMasterDataBytesPerAddress) {
    ++(isNew ? dropCounts.newMasterData : dropCounts.masterUpdateData);
    ANNOUNCE_PEER_LOG(Warning,
                      "Dropping message from %s master %s: its data (%zu bytes) would exceed the "
                      "bound on master data (%zu of %zu bytes held, %zu by its address)",
                      isNew ? "new" : "known", SimpleEndpoint::CharString(sender).c_str(),
                      heapBytes, masterDataBytes, maxMasterDataBytes, heldByAddress);
    return false;
  }
  if (isNew) {
    auto master = std::make_unique<MasterEntry>(
        scheduler, masterTimeout, [this, sender] { timeoutMaster(sender); }, logger);
    master->timer.start();
    found = masters.emplace(sender, std::move(master)).first;
  }
  setMasterHeapBytes(*found->second, heapBytes);
  return true;
}

std::pair<size_t, size_t> MCAnnounceSlave::heldFor(tavrinNetwork::SimpleIp address) const {
  std::pair<size_t, size_t> held{0, 0};
  for (const auto& master : masters) {
    if (master.first.getIp() != address) continue;
    ++held.first;
    held.second += master.second->heapBytes;
  }
  return held;
}

void MCAnnounceSlave::setMasterHeapBytes(MasterEntry& master, size_t heapBytes) {
  masterDataBytes = masterDataBytes - master.heapBytes + heapBytes;
  master.heapBytes = heapBytes;
}

void MCAnnounceSlave::eraseMaster(MasterMap::iterator master) {
  masterDataBytes -= master->second->heapBytes;
  masters.erase(master);
}

void MCAnnounceSlave::timeoutMaster(const SimpleEndpoint& endpoint) {
  timedOutMasters.insert(endpoint);
  scheduler->addWorker(this);
}

void MCAnnounceSlave::removeTimeoutedMasters() {
  for (const SimpleEndpoint& endpoint : timedOutMasters) {
    auto found = masters.find(endpoint);
    // A message handled since the timer fired has restarted it, which clears the fired flag.
    if (found == masters.end() || !found->second->timer.hasFired()) continue;
    ANNOUNCE_PEER_LOG(Debug, "Removing master %s (timeout)",
                      SimpleEndpoint::CharString(endpoint).c_str());
    eraseMaster(found);
  }
  timedOutMasters.clear();
}

void MCAnnounceSlave::dump(std::ostream& out, const char* prefix) const {
  out << prefix << "MC Announce Client:\n";
  out << prefix << "  NetworkId: " << networkId << "\n";
  out << prefix << "  Interface: '" << interface << "'\n";
  out << prefix << "  MC group: " << SimpleIp::CharString(multicastIp).c_str() << ":"
      << multicastPort << "\n";
  out << prefix << "  Socket: ";
  if (!socket) {
    out << (paused ? "not present (interface without address)\n" : "not present\n");
  } else if (!socket->valid()) {
    out << "invalid\n";
  } else {
    out << socket->getFd() << "\n";
  }
  out << prefix << "  Enabled: " << yesNo(enabled) << "\n";
  out << prefix << "  Receive Queue: " << receiveQueue.size() << " entries\n";
  out << prefix << "  Queue bound: " << maxQueuedDatagrams << " entries, " << maxQueuedBytes
      << " bytes (held: " << queuedBytes << ")\n";
  out << prefix << "  Master bound: " << maxMasters << " masters, " << maxMasterDataBytes
      << " bytes of data (held: " << masterDataBytes << ")\n";
  out << prefix << "  Dropped: " << dropCounts.queueFull << " queue full, "
      << dropCounts.tooManyMasters << " new masters over the master bound, "
      << dropCounts.newMasterData << " new masters and " << dropCounts.masterUpdateData
      << " changes over the data bound\n";
  out << prefix << "  Supported Connectors (" << supportedConnectors.size() << "):\n";
  for (const auto& [version, type] : supportedConnectors) {
    out << prefix << "    " << ConnectorInterfaceType::getText(static_cast<long>(type))
        << ": Version " << version << "\n";
  }
  out << prefix << "  --- (" << supportedConnectors.size() << " connectors) ---\n";
  out << prefix << "  Masters (" << masters.size();
  if (!timedOutMasters.empty()) out << ", timed out: " << timedOutMasters.size();
  out << "):\n";
  const std::string inner = std::string(prefix) + "      ";
  for (const auto& [endpoint, master] : masters) {
    out << prefix << "    " << SimpleEndpoint::CharString(endpoint).c_str()
        << " (timeout expired: " << yesNo(master->timer.hasFired())
        << ", changeCount: " << master->changeCount << "):\n";
    master->data.dump(out, inner.c_str());
  }
  out << prefix << "  --- (" << masters.size() << " masters) ---\n";
}

}  // namespace tavrinConnector
