#include "tavrincommon/connector/MCAnnounceData.h"

#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/connector/internal/AnnounceLog.h"
#include "tavrincommon/connector/internal/PayloadReader.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/LogRateLimiter.h"
#include "tavrincommon/log/TavrinLogging.h"

#include <cstring>
#include <ostream>
#include <utility>

namespace tavrinConnector {

using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

namespace {

// The fixed part of a connector record after its length field: id, type, clusterId, address,
// port and announcement count.
constexpr unsigned kConnectorRecordFixedLength = 18;
// An announcement record with an empty name.
constexpr unsigned kAnnouncementRecordMinLength = 9;
// Version and length field of a connector record.
constexpr unsigned kConnectorRecordHeaderLength = 6;

const char* availText(bool available) { return available ? "available" : "not available"; }

// A tree node of the standard library: colour and three links, then the value.
template <class Map>
constexpr size_t treeNodeBytes() {
  return 4 * sizeof(void*) + sizeof(typename Map::value_type);
}

// Texts up to the short-string capacity are kept inside the string object.
size_t textCost(const std::string& text) {
  static const size_t kInPlace = std::string().capacity();
  return text.capacity() > kInPlace ? MCAnnounceData::allocationCost(text.capacity() + 1) : 0;
}

// Texts travel up to their first NUL byte.
void putText(OutputMessage& message, const std::string& text) {
  const size_t nul = text.find('\0');
  const size_t length = nul == std::string::npos ? text.size() : nul;
  message.putString(text.data(), length > 255 ? 255u : static_cast<unsigned>(length));
}

}  // namespace

// ---- ConnectorEntry ----

MCAnnounceData::ConnectorEntry::ConnectorEntry(ConnectorInterfaceType::Type type_,
                                               unsigned short version_, unsigned clusterId_,
                                               const SimpleEndpoint& endpoint_)
    : type(type_), version(version_), clusterId(clusterId_), endpoint(endpoint_) {}

MCAnnounceData::ConnectorEntry::~ConnectorEntry() = default;

void MCAnnounceData::ConnectorEntry::pack(unsigned connectorId, OutputMessage& message) const {
  MessageBuffer& buffer = message.getBuffer();
  message.putUInt16(version);
  const unsigned lengthAt = buffer.getOffset();
  message.putUInt32(0);
  const unsigned start = buffer.getOffset();
  message.putUInt32(connectorId);
  message.putUInt16(static_cast<unsigned short>(type));
  message.putUInt32(clusterId);
  // The address goes out in network order, byte for byte as it is kept.
  const uint32_t ip = endpoint.getIp().getIp();
  char address[4];
  std::memcpy(address, &ip, sizeof address);
  buffer.write(address, sizeof address);
  message.putUInt16(endpoint.getPort());
  message.putUInt16(static_cast<unsigned short>(announcements.size()));
  for (const auto& [key, value] : announcements) {
    message.putUInt32(key.id);
    message.putUInt16(key.type);
    putText(message, value.name);
    message.putUInt16(value.available ? 1 : 0);
  }
  const unsigned end = buffer.getOffset();
  buffer.setOffset(lengthAt);
  message.putUInt32(end - start);
  buffer.setOffset(end);
}

bool MCAnnounceData::ConnectorEntry::unpackAnnouncements(InputMessage& message, unsigned end) {
  announcements.clear();
  const unsigned count = internal::readUInt16(message, end);
  for (unsigned i = 0; i < count; ++i) {
    if (internal::bytesLeft(message, end) < kAnnouncementRecordMinLength) return false;
    const uint32_t id = internal::readUInt32(message, end);
    const uint16_t announcementType = internal::readUInt16(message, end);
    bool complete = true;
    std::string name = internal::readString(message, end, &complete);
    if (!complete || internal::bytesLeft(message, end) < 2) return false;
    const bool available = (internal::readUInt16(message, end) & 1) != 0;
    // A repeated key keeps the first record.
    announcements.emplace(AnnouncementKey{id, announcementType},
                          AnnouncementValue{available, std::move(name)});
  }
  return true;
}

SingleAnnouncementData MCAnnounceData::ConnectorEntry::makeSingle(const AnnouncementKey& key,
                                                                  const std::string& name) const {
  return SingleAnnouncementData(type, version, clusterId, endpoint, key.id, key.type, name);
}

void MCAnnounceData::ConnectorEntry::dump(std::ostream& out, unsigned connectorId,
                                          const char* prefix) const {
  out << prefix << connectorId << ": " << ConnectorInterfaceType::getText(static_cast<long>(type))
      << " (IP " << SimpleEndpoint::CharString(endpoint).c_str() << ", version " << version
      << ", clusterId " << clusterId;
  if (announcements.empty()) {
    out << ", no announcements)\n";
    return;
  }
  out << ", " << announcements.size() << " announcements):\n";
  for (const auto& [key, value] : announcements) {
    out << prefix << "  ConnectionId " << key.id << " (type " << key.type
        << "): " << availText(value.available) << " ('" << value.name << "')\n";
  }
  out << prefix << "--- (" << announcements.size() << " announcements) ---\n";
}

// ---- MCAnnounceData ----

MCAnnounceData::MCAnnounceData(std::function<void()> modified_, tavrinLog::TavrinLogging* logger_)
    : logger(logger_),
      modified(modified_ ? std::move(modified_) : std::function<void()>([] {})) {}

MCAnnounceData::~MCAnnounceData() = default;

void MCAnnounceData::setData(unsigned networkId_, unsigned deviceId_,
                             const std::string& deviceName_) {
  if (networkId == networkId_ && deviceId == deviceId_ && deviceName == deviceName_) return;
  networkId = networkId_;
  deviceId = deviceId_;
  deviceName = deviceName_;
  modified();
}

void MCAnnounceData::setDeviceName(const std::string& deviceName_) {
  if (deviceName == deviceName_) return;
  deviceName = deviceName_;
  modified();
}

void MCAnnounceData::addConnector(unsigned connectorId, ConnectorInterfaceType::Type type,
                                  unsigned short version, unsigned clusterId,
                                  const SimpleEndpoint& endpoint) {
  if (connectors.size() >= kMaxConnectors) {
    ANNOUNCE_LOG(Error,
                 "Failed to add connector %u (type %s, version %u, clusterId %u, IP %s): Too many "
                 "connectors (%zu, max: %u)!",
                 connectorId, ConnectorInterfaceType::getText(static_cast<long>(type)),
                 static_cast<unsigned>(version), clusterId,
                 SimpleEndpoint::CharString(endpoint).c_str(), connectors.size(), kMaxConnectors);
    return;
  }
  connectors[connectorId] = std::make_unique<ConnectorEntry>(type, version, clusterId, endpoint);
  modified();
}

void MCAnnounceData::removeConnector(unsigned connectorId) {
  if (connectors.erase(connectorId) > 0) modified();
}

void MCAnnounceData::clearConnectors() {
  if (connectors.empty()) return;
  connectors.clear();
  modified();
}

void MCAnnounceData::addAnnouncement(unsigned connectorId, unsigned id, unsigned short type,
                                     const std::string& name, bool available) {
  auto found = connectors.find(connectorId);
  if (found == connectors.end()) {
    ANNOUNCE_LOG(Error,
                 "Failed to add announcement %u (type %u, '%s', %s) to connector %u: Connector "
                 "not found!",
                 id, static_cast<unsigned>(type), name.c_str(), availText(available),
                 connectorId);
    return;
  }
  AnnouncementMap& announcements = found->second->announcements;
  if (announcements.size() >= kMaxAnnouncements) {
    ANNOUNCE_LOG(Error,
                 "Failed to add announcement %u (type %u, '%s', %s) to connector %u: Too many "
                 "announcements (%zu, max: %u)!",
                 id, static_cast<unsigned>(type), name.c_str(), availText(available),
                 connectorId, announcements.size(), kMaxAnnouncements);
    return;
  }
  announcements[AnnouncementKey{id, type}] = AnnouncementValue{available, name};
  modified();
}

void MCAnnounceData::setAnnouncementAvailable(unsigned connectorId, unsigned id,
                                              unsigned short type, bool available) {
  auto found = connectors.find(connectorId);
  if (found == connectors.end()) {
    ANNOUNCE_LOG(Error,
                 "Failed to set announcement %u (type %u) on connector %u to %s: Connector not "
                 "found!",
                 id, static_cast<unsigned>(type), connectorId, availText(available));
    return;
  }
  auto announcement = found->second->announcements.find(AnnouncementKey{id, type});
  if (announcement == found->second->announcements.end()) {
    ANNOUNCE_LOG(Service,
                 "Failed to set announcement %u (type %u) on connector %u to %s: Announcement not "
                 "found!",
                 id, static_cast<unsigned>(type), connectorId, availText(available));
    return;
  }
  if (announcement->second.available == available) return;
  announcement->second.available = available;
  modified();
}

void MCAnnounceData::setAnnouncementName(unsigned connectorId, unsigned id, unsigned short type,
                                         const std::string& name) {
  auto found = connectors.find(connectorId);
  if (found == connectors.end()) {
    ANNOUNCE_LOG(Error,
                 "Failed to set announcement %u (type %u) name on connector %u to '%s': Connector "
                 "not found!",
                 id, static_cast<unsigned>(type), connectorId, name.c_str());
    return;
  }
  auto announcement = found->second->announcements.find(AnnouncementKey{id, type});
  if (announcement == found->second->announcements.end()) {
    ANNOUNCE_LOG(Service,
                 "Failed to set announcement %u (type %u) name on connector %u to '%s': "
                 "Announcement not found!",
                 id, static_cast<unsigned>(type), connectorId, name.c_str());
    return;
  }
  if (announcement->second.name == name) return;
  announcement->second.name = name;
  modified();
}

void MCAnnounceData::removeAnnouncement(unsigned connectorId, unsigned id, unsigned short type) {
  auto found = connectors.find(connectorId);
  if (found == connectors.end()) {
    ANNOUNCE_LOG(Error,
                 "Failed to remove announcement %u (type %u) from connector %u: Connector not "
                 "found!",
                 id, static_cast<unsigned>(type), connectorId);
    return;
  }
  if (found->second->announcements.erase(AnnouncementKey{id, type}) > 0) modified();
}

void MCAnnounceData::clearAnnouncements(unsigned connectorId) {
  auto found = connectors.find(connectorId);
  if (found == connectors.end()) {
    ANNOUNCE_LOG(Error, "Failed to clear announcements of connector %u: Connector not found!",
                 connectorId);
    return;
  }
  if (found->second->announcements.empty()) return;
  found->second->announcements.clear();
  modified();
}

bool MCAnnounceData::removeAnnouncements(unsigned id) {
  bool removed = false;
  for (auto& [connectorId, entry] : connectors) {
    AnnouncementMap& announcements = entry->announcements;
    // Keys of one id are adjacent: from (id, 0) up to the first key of a higher id.
    auto first = announcements.lower_bound(AnnouncementKey{id, 0});
    auto last = first;
    while (last != announcements.end() && last->first.id == id) ++last;
    if (first != last) {
      announcements.erase(first, last);
      removed = true;
    }
  }
  if (removed) modified();
  return removed;
}

bool MCAnnounceData::hasAnnouncement(unsigned connectorId, unsigned id,
                                     unsigned short type) const {
  auto found = connectors.find(connectorId);
  return found != connectors.end() &&
         found->second->announcements.count(AnnouncementKey{id, type}) != 0;
}

bool MCAnnounceData::announcementsPresent() const {
  for (const auto& [connectorId, entry] : connectors) {
    if (!entry->announcements.empty()) return true;
  }
  return false;
}

void MCAnnounceData::pack(OutputMessage& message) const {
  message.putUInt32(networkId);
  message.putUInt32(deviceId);
  putText(message, deviceName);
  message.putUInt16(static_cast<unsigned short>(connectors.size()));
  for (const auto& [connectorId, entry] : connectors) entry->pack(connectorId, message);
}

std::unique_ptr<MCAnnounceData::ConnectorEntry> MCAnnounceData::unpackConnectorEntry(
    InputMessage& message, unsigned& connectorId) const {
  const unsigned end = internal::payloadEnd(message);
  // A record whose header or body does not fit leaves nothing behind it that could be found:
  // the rest of the payload is given up, so that nothing outside the message is ever read.
  if (internal::bytesLeft(message, end) < kConnectorRecordHeaderLength) {
    message.buffer.setOffset(end);
    return nullptr;
  }
  const unsigned version = internal::readUInt16(message, end);
  const uint32_t length = internal::readUInt32(message, end);
  const unsigned start = message.buffer.getOffset();
  if (length > internal::bytesLeft(message, end)) {
    ANNOUNCE_PEER_LOG(Debug,
                      "Received connector data (version %u) longer than the message (%u bytes, %u "
                      "left), skipping the rest!",
                      version, static_cast<unsigned>(length), internal::bytesLeft(message, end));
    message.buffer.setOffset(end);
    return nullptr;
  }
  const unsigned recordEnd = start + length;
  if (version != 0) {
    ANNOUNCE_PEER_LOG(Debug, "Received incompatible connector data (version %u), skipping!",
                      version);
    message.buffer.setOffset(recordEnd);
    return nullptr;
  }
  // The record's own length bounds every field read from it: a record that contradicts its
  // length is skipped whole, and the next record is found where the length says.
  connectorId = internal::readUInt32(message, recordEnd);
  const auto type = static_cast<ConnectorInterfaceType::Type>(internal::readUInt16(message, recordEnd));
  const unsigned clusterId = internal::readUInt32(message, recordEnd);
  unsigned char address[4] = {0xFF, 0xFF, 0xFF, 0xFF};
  unsigned n = internal::bytesLeft(message, recordEnd) < 4 ? internal::bytesLeft(message, recordEnd)
                                                          : 4;
  std::memcpy(address, message.buffer.accessRawData(n), n);
  uint32_t ip;
  std::memcpy(&ip, address, sizeof ip);
  const unsigned short port = internal::readUInt16(message, recordEnd);
  auto entry =
      std::make_unique<ConnectorEntry>(type, 0, clusterId, SimpleEndpoint(SimpleIp(ip), port));
  const bool complete = length >= kConnectorRecordFixedLength &&
                        entry->unpackAnnouncements(message, recordEnd);
  message.buffer.setOffset(recordEnd);
  if (!complete) {
    ANNOUNCE_PEER_LOG(Debug,
                      "Received connector data (connector %u) that does not fit its length (%u "
                      "bytes), skipping!",
                      connectorId, static_cast<unsigned>(length));
    return nullptr;
  }
  return entry;
}

void MCAnnounceData::compareAnnouncements(
    const AnnouncementMap& before, const AnnouncementMap& after,
    const std::function<void(unsigned, unsigned short, const std::string&)>& added) {
  auto old = before.begin();
  for (const auto& [key, value] : after) {
    while (old != before.end() && old->first < key) ++old;
    if (!value.available) continue;
    const bool known = old != before.end() && old->first == key && old->second.available;
    if (!known) added(key.id, key.type, value.name);
  }
}

void MCAnnounceData::read(unsigned networkId_, InputMessage& message) {
  const unsigned end = internal::payloadEnd(message);
  networkId = networkId_;
  deviceId = internal::readUInt32(message, end);
  deviceName = internal::readString(message, end);
  const unsigned count = internal::readUInt16(message, end);
  for (unsigned i = 0; i < count && internal::bytesLeft(message, end) > 0; ++i) {
    unsigned id = 0;
    std::unique_ptr<ConnectorEntry> entry = unpackConnectorEntry(message, id);
    if (!entry) continue;
    // Every sender writes its connectors in ascending id. A record out of that order (or a
    // repeated id) can only come from a broken sender; it is skipped, so the first record of an
    // id wins, as for repeated announcement keys.
    if (!connectors.empty() && id <= connectors.rbegin()->first) {
      ANNOUNCE_PEER_LOG(Debug, "Received connector %u out of order (after connector %u), skipping!",
                        id, connectors.rbegin()->first);
      continue;
    }
    connectors.emplace_hint(connectors.end(), id, std::move(entry));
  }
}

void MCAnnounceData::unpack(unsigned networkId_, InputMessage& message, AddedCallback added) {
  MCAnnounceData fresh(nullptr, logger);
  fresh.logLimiter = logLimiter;
  fresh.read(networkId_, message);
  takeOver(fresh, std::move(added));
}

void MCAnnounceData::takeOver(MCAnnounceData& other, AddedCallback added) {
  // The callbacks run once the data is complete, so that they may query or edit it (or the
  // object that owns it, even destroy it) without disturbing the walk below.
  std::vector<SingleAnnouncementData> becameAvailable;
  static const AnnouncementMap kNone;
  for (auto it = other.connectors.begin(); added && it != other.connectors.end(); ++it) {
    auto previous = connectors.find(it->first);
    const ConnectorEntry& current = *it->second;
    compareAnnouncements(
        previous == connectors.end() ? kNone : previous->second->announcements,
        current.announcements,
        [&](unsigned announcementId, unsigned short type, const std::string& name) {
          becameAvailable.push_back(
              current.makeSingle(AnnouncementKey{announcementId, type}, name));
        });
  }
  networkId = other.networkId;
  deviceId = other.deviceId;
  deviceName.swap(other.deviceName);
  connectors.swap(other.connectors);
  other.deviceName.clear();
  other.connectors.clear();
  for (const SingleAnnouncementData& announcement : becameAvailable) added(announcement);
}

void MCAnnounceData::forEachMatch(
    bool onlyAvailable, const AnnouncementFilter& announcementFilter,
    const ConnectorFilter& connectorFilter,
    const std::function<bool(const ConnectorEntry&, const AnnouncementKey&,
                             const AnnouncementValue&)>& visit) const {
  for (const auto& [connectorId, entry] : connectors) {
    if (connectorFilter && !connectorFilter(entry->type, entry->version, entry->clusterId)) {
      continue;
    }
    for (const auto& [key, value] : entry->announcements) {
      if ((value.available && onlyAvailable) != onlyAvailable) continue;
      if (announcementFilter && !announcementFilter(key.id, key.type)) continue;
      if (!visit(*entry, key, value)) return;
    }
  }
}

void MCAnnounceData::getAnnouncements(bool onlyAvailable,
                                      const AnnouncementFilter& announcementFilter,
                                      const ConnectorFilter& connectorFilter,
                                      std::vector<SingleAnnouncementData>& out) const {
  forEachMatch(onlyAvailable, announcementFilter, connectorFilter,
               [&](const ConnectorEntry& entry, const AnnouncementKey& key,
                   const AnnouncementValue& value) {
                 out.push_back(entry.makeSingle(key, value.name));
                 return true;
               });
}

int MCAnnounceData::getNumberOfAnnouncements(bool onlyAvailable,
                                             const AnnouncementFilter& announcementFilter,
                                             const ConnectorFilter& connectorFilter) const {
  int count = 0;
  forEachMatch(onlyAvailable, announcementFilter, connectorFilter,
               [&](const ConnectorEntry&, const AnnouncementKey&, const AnnouncementValue&) {
                 ++count;
                 return true;
               });
  return count;
}

std::unique_ptr<SingleAnnouncementData> MCAnnounceData::getSingleAnnouncement(
    bool onlyAvailable, const AnnouncementFilter& announcementFilter,
    const ConnectorFilter& connectorFilter) const {
  std::unique_ptr<SingleAnnouncementData> first;
  forEachMatch(onlyAvailable, announcementFilter, connectorFilter,
               [&](const ConnectorEntry& entry, const AnnouncementKey& key,
                   const AnnouncementValue& value) {
                 first = std::make_unique<SingleAnnouncementData>(entry.makeSingle(key, value.name));
                 return false;
               });
  return first;
}

size_t MCAnnounceData::allocationCost(size_t bytes) {
  constexpr size_t kWord = sizeof(size_t);
  const size_t chunk = (bytes + kWord + 2 * kWord - 1) & ~(2 * kWord - 1);
  return chunk < 4 * kWord ? 4 * kWord : chunk;
}

size_t MCAnnounceData::heapBytes() const {
  size_t total = textCost(deviceName);
  for (const auto& [connectorId, entry] : connectors) {
    total += allocationCost(treeNodeBytes<ConnectorMap>()) +
             allocationCost(sizeof(ConnectorEntry)) +
             entry->announcements.size() * allocationCost(treeNodeBytes<AnnouncementMap>());
    for (const auto& [key, value] : entry->announcements) total += textCost(value.name);
  }
  return total;
}

void MCAnnounceData::dump(std::ostream& out, const char* prefix) const {
  out << prefix << "NetworkId: " << networkId << "\n";
  out << prefix << "DeviceId: " << deviceId << " ('" << deviceName << "')\n";
  out << prefix << "Connectors (" << connectors.size() << "):\n";
  const std::string inner = std::string(prefix) + "  ";
  for (const auto& [connectorId, entry] : connectors) entry->dump(out, connectorId, inner.c_str());
  out << prefix << "--- Connectors (" << connectors.size() << ") ---\n";
}

}  // namespace tavrinConnector
