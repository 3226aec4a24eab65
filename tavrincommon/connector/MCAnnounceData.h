// The announce picture of one device: network id, device id and name, and its connectors, each
// with its announcements; packed into and unpacked from the announce payload. Owns its connector
// entries; keeps the logging object and a modified callback that the editing operations call.
// Loop thread only (or with the loop mutex held): nothing is locked. heapBytes() tells what the
// data holds on the heap, for owners that bound what their peers can make them keep.
#pragma once

#include "tavrincommon/common/CallbackSlot.h"
#include "tavrincommon/connector/ConnectorInterfaceType.h"
#include "tavrincommon/connector/SingleAnnouncementData.h"
#include "tavrincommon/network/SimpleEndpoint.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tavrinLog {
class LogRateLimiter;
class TavrinLogging;
}

namespace tavrinConnector {

class InputMessage;
class OutputMessage;

class MCAnnounceData {
 public:
  static constexpr unsigned kMaxConnectors = 65535;
  static constexpr unsigned kMaxAnnouncements = 65535;

  struct AnnouncementKey {
    uint32_t id;
    uint16_t type;
    bool operator<(const AnnouncementKey& other) const {
      return id != other.id ? id < other.id : type < other.type;
    }
    bool operator==(const AnnouncementKey& other) const {
      return id == other.id && type == other.type;
    }
  };
  struct AnnouncementValue {
    bool available;
    std::string name;
  };
  using AnnouncementMap = std::map<AnnouncementKey, AnnouncementValue>;
  using AnnouncementFilter = std::function<bool(unsigned, unsigned short)>;
  using ConnectorFilter =
      std::function<bool(ConnectorInterfaceType::Type, unsigned short, unsigned)>;
  using AddedCallback = std::function<void(const SingleAnnouncementData&)>;

  class ConnectorEntry {
   public:
    ConnectorEntry(ConnectorInterfaceType::Type type_, unsigned short version_,
                   unsigned clusterId_, const tavrinNetwork::SimpleEndpoint& endpoint_);
    virtual ~ConnectorEntry();

    // One connector record, its length field filled in once the record is written.
    void pack(unsigned connectorId, OutputMessage& message) const;
    // Reads the announcement count and the announcement records, none beyond offset `end`.
    // False when the records did not fit before `end` (the map then holds what was read).
    bool unpackAnnouncements(InputMessage& message, unsigned end);
    void dump(std::ostream& out, unsigned connectorId, const char* prefix) const;

    SingleAnnouncementData makeSingle(const AnnouncementKey& key, const std::string& name) const;

    ConnectorInterfaceType::Type type;
    unsigned short version;
    unsigned clusterId;
    tavrinNetwork::SimpleEndpoint endpoint;
    AnnouncementMap announcements;
  };
  using ConnectorMap = std::map<unsigned, std::unique_ptr<ConnectorEntry>>;

  // An empty `modified` is replaced by one that does nothing.
  MCAnnounceData(std::function<void()> modified, tavrinLog::TavrinLogging* logger);
  virtual ~MCAnnounceData();
  MCAnnounceData(const MCAnnounceData&) = delete;
  MCAnnounceData& operator=(const MCAnnounceData&) = delete;

  // Editing: each signals modification (calls the modified callback once) when it changed
  // something; addConnector and addAnnouncement signal whenever they succeed.
  void setData(unsigned networkId_, unsigned deviceId_, const std::string& deviceName_);
  void setDeviceName(const std::string& deviceName_);
  // Replaces an existing entry, which loses its announcements.
  void addConnector(unsigned connectorId, ConnectorInterfaceType::Type type,
                    unsigned short version, unsigned clusterId,
                    const tavrinNetwork::SimpleEndpoint& endpoint);
  void removeConnector(unsigned connectorId);
  void clearConnectors();
  void addAnnouncement(unsigned connectorId, unsigned id, unsigned short type,
                       const std::string& name, bool available);
  void setAnnouncementAvailable(unsigned connectorId, unsigned id, unsigned short type,
                                bool available);
  void setAnnouncementName(unsigned connectorId, unsigned id, unsigned short type,
                           const std::string& name);
  void removeAnnouncement(unsigned connectorId, unsigned id, unsigned short type);
  void clearAnnouncements(unsigned connectorId);
  // Every announcement with this id, whatever its type, in every connector.
  bool removeAnnouncements(unsigned id);

  bool hasAnnouncement(unsigned connectorId, unsigned id, unsigned short type) const;
  // At least one announcement, available or not.
  bool announcementsPresent() const;

  // The payload after the format version, which the caller writes.
  void pack(OutputMessage& message) const;
  // Replaces the data by the rest of a payload whose format version and network id the caller
  // has read; `added` (may be empty) is told of every announcement that became available, once
  // the data is complete. Never signals modification.
  void unpack(unsigned networkId_, InputMessage& message, AddedCallback added);
  // Replaces the data by `other`'s, which is left empty; `added` as for unpack. Lets an owner
  // unpack aside, weigh the result with heapBytes() and only then take it over. `added` is held
  // by value: it may replace the function it was given, or destroy this data.
  void takeOver(MCAnnounceData& other, AddedCallback added);
  // One connector record; null for a record that is skipped. Never reads past the payload.
  std::unique_ptr<ConnectorEntry> unpackConnectorEntry(InputMessage& message,
                                                       unsigned& connectorId) const;
  static void compareAnnouncements(
      const AnnouncementMap& before, const AnnouncementMap& after,
      const std::function<void(unsigned, unsigned short, const std::string&)>& added);

  // Appends, never clears `out`. Connectors in id order, announcements in (id, type) order.
  void getAnnouncements(bool onlyAvailable, const AnnouncementFilter& announcementFilter,
                        const ConnectorFilter& connectorFilter,
                        std::vector<SingleAnnouncementData>& out) const;
  int getNumberOfAnnouncements(bool onlyAvailable, const AnnouncementFilter& announcementFilter,
                               const ConnectorFilter& connectorFilter) const;
  std::unique_ptr<SingleAnnouncementData> getSingleAnnouncement(
      bool onlyAvailable, const AnnouncementFilter& announcementFilter,
      const ConnectorFilter& connectorFilter) const;

  // Each line starts with `prefix`.
  void dump(std::ostream& out, const char* prefix) const;

  // The heap the data holds: map nodes, connector entries and texts too long to be kept inside
  // their string, each at allocationCost. A walk over every announcement.
  size_t heapBytes() const;
  // What glibc's malloc takes for a request of `bytes`: the request and a size word, rounded up
  // to two words, at least four words.
  static size_t allocationCost(size_t bytes);

  // Lines about malformed records of a peer's payload go through `limiter` (kept, not owned;
  // null: every line is logged).
  void setLogRateLimiter(tavrinLog::LogRateLimiter* limiter) { logLimiter = limiter; }

  unsigned getNetworkId() const { return networkId; }
  unsigned getDeviceId() const { return deviceId; }
  const std::string& getDeviceName() const { return deviceName; }
  const ConnectorMap& getConnectors() const { return connectors; }

 private:
  // Reads a payload into this data, which is empty.
  void read(unsigned networkId_, InputMessage& message);
  // Calls `visit` for every announcement the query takes, until it returns false.
  void forEachMatch(bool onlyAvailable, const AnnouncementFilter& announcementFilter,
                    const ConnectorFilter& connectorFilter,
                    const std::function<bool(const ConnectorEntry&, const AnnouncementKey&,
                                             const AnnouncementValue&)>& visit) const;

  tavrinLog::TavrinLogging* logger;
  tavrinLog::LogRateLimiter* logLimiter = nullptr;
  // Shared_ptr-held: the callback may destroy the data's owner while it runs.
  tavrinCommon::CallbackSlot<void()> modified;
  uint32_t networkId = 0;
  uint32_t deviceId = 0;
  std::string deviceName;
  ConnectorMap connectors;
};

}  // namespace tavrinConnector
