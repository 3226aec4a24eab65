#include "tavrincommon/connector/MCAnnounceData.h"

#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/testing/HeapUsage.h"
#include "tavrincommon/testing/LogCapture.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace tavrinConnector {
namespace {

using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

std::string le16(unsigned value) { return {char(value & 0xFF), char((value >> 8) & 0xFF)}; }
std::string le32(uint32_t value) { return le16(value & 0xFFFF) + le16(value >> 16); }
std::string text(const std::string& value) { return char(value.size()) + value; }
const std::string kIp10001("\x0a\0\0\x01", 4);
std::string announcementRecord(uint32_t id, unsigned type, const std::string& name,
                               bool available) {
  return le32(id) + le16(type) + text(name) + le16(available ? 1 : 0);
}
// A connector record of type Client, clusterId 4, 10.0.0.1:5000; `length` overrides the field.
std::string connectorRecord(uint32_t id, const std::vector<std::string>& announcements,
                            unsigned version = 0, int64_t length = -1) {
  std::string body = le32(id) + le16(1) + le32(4) + kIp10001 + le16(5000) +
                     le16(static_cast<unsigned>(announcements.size()));
  for (const std::string& record : announcements) body += record;
  return le16(version) +
         le32(length < 0 ? static_cast<uint32_t>(body.size()) : static_cast<uint32_t>(length)) +
         body;
}
// Device 2 'dev' with `records`; `count` overrides the connector count.
std::string payload(const std::vector<std::string>& records, int count = -1) {
  std::string out = le32(2) + text("dev") +
                    le16(count < 0 ? static_cast<unsigned>(records.size()) : unsigned(count));
  for (const std::string& record : records) out += record;
  return out;
}

// The payload as an announce frame, verified, its cursor on the first payload byte.
InputMessage framed(const std::string& bytes) {
  OutputMessage out;
  out.getBuffer().write(bytes.data(), static_cast<unsigned>(bytes.size()));
  out.finalizeMessage(10, 1);
  return InputMessage(out.getData(), out.getFrameLength(), true);
}

std::string packed(const MCAnnounceData& data) {
  OutputMessage out;
  data.pack(out);
  return std::string(out.getData() + 10, out.getFrameLength() - 10);
}

const SimpleEndpoint kEndpoint(SimpleIp("10.0.0.1"), 5000);

class MCAnnounceDataTest : public ::testing::Test {
 protected:
  std::vector<SingleAnnouncementData> unpack(const std::string& bytes) {
    InputMessage message = framed(bytes);
    std::vector<SingleAnnouncementData> added;
    data.unpack(1, message, [&](const SingleAnnouncementData& a) { added.push_back(a); });
    return added;
  }

  tavrinTesting::LogCapture log;
  int modifications = 0;
  MCAnnounceData data{[this] { ++modifications; }, log.logging()};
};

TEST_F(MCAnnounceDataTest, PackCountsEveryAnnouncementInTheRecordLengthAndUnpackTakesItBack) {
  data.setData(1, 2, std::string("dev\0ice", 7));  // texts end at their first NUL
  data.addConnector(9, ConnectorInterfaceType::PanelMaster, 0, 4, kEndpoint);
  data.addAnnouncement(9, 2, 1, "abc", true);
  data.addAnnouncement(9, 1, 7, std::string("ab\0c", 4), false);
  const std::string bytes = packed(data);
  const std::string expected =
      le32(1) + le32(2) + text("dev") + le16(1) + le16(0) + le32(18 + (9 + 2) + (9 + 3)) + le32(9) +
      le16(2) + le32(4) + kIp10001 + le16(5000) + le16(2) + announcementRecord(1, 7, "ab", false) +
      announcementRecord(2, 1, "abc", true);
  EXPECT_EQ(bytes, expected);

  // And back, past the network id that the frame's reader takes first: the same picture.
  MCAnnounceData copy(nullptr, nullptr);
  InputMessage message = framed(bytes.substr(4));
  std::vector<SingleAnnouncementData> added;
  copy.unpack(1, message, [&](const SingleAnnouncementData& a) { added.push_back(a); });
  ASSERT_EQ(added.size(), 1u);
  EXPECT_EQ(added[0], SingleAnnouncementData(ConnectorInterfaceType::PanelMaster, 0, 4, kEndpoint,
                                             2, 1, "abc"));
  EXPECT_EQ(packed(copy), bytes);
}

TEST_F(MCAnnounceDataTest, EditsSignalOnlyRealChangesExceptAddsWhichAlwaysSignal) {
  data.setData(1, 2, "dev");
  data.setData(1, 2, "dev");
  data.setDeviceName("dev");
  EXPECT_EQ(modifications, 1);
  data.addConnector(1, ConnectorInterfaceType::Client, 0, 4, kEndpoint);
  data.addAnnouncement(1, 7, 1, "a", true);
  data.addAnnouncement(1, 7, 1, "a", true);
  EXPECT_EQ(modifications, 4);
  data.setAnnouncementAvailable(1, 7, 1, true);
  data.setAnnouncementName(1, 7, 1, "a");
  data.clearAnnouncements(2);
  data.removeAnnouncement(1, 8, 1);
  EXPECT_EQ(modifications, 4);
  data.setAnnouncementAvailable(1, 7, 1, false);
  data.setAnnouncementName(1, 7, 1, "b");
  EXPECT_EQ(modifications, 6);

  // Replacing a connector drops its announcements, also with the same values.
  data.addConnector(1, ConnectorInterfaceType::Client, 0, 4, kEndpoint);
  EXPECT_EQ(modifications, 7);
  EXPECT_FALSE(data.announcementsPresent());
  data.clearAnnouncements(1);
  data.removeConnector(5);
  EXPECT_EQ(modifications, 7);
  data.removeConnector(1);
  data.clearConnectors();
  EXPECT_EQ(modifications, 8);

  // Missing connectors are errors, missing announcements only worth a service line.
  data.addAnnouncement(3, 5, 2, "n", false);
  data.addConnector(3, ConnectorInterfaceType::Client, 0, 4, kEndpoint);
  data.setAnnouncementName(3, 5, 2, "m");
  EXPECT_TRUE(
      log.contains("MCAnnounce: Error: Failed to add announcement 5 (type 2, 'n', not "
                   "available) to connector 3: Connector not found!"));
  EXPECT_TRUE(
      log.contains("MCAnnounce: Service: Failed to set announcement 5 (type 2) name on "
                   "connector 3 to 'm': Announcement not found!"));
}

TEST_F(MCAnnounceDataTest, QueriesAndRemoveAnnouncementsCoverEveryConnector) {
  data.addConnector(1, ConnectorInterfaceType::Client, 0, 4, kEndpoint);
  data.addConnector(2, ConnectorInterfaceType::Client, 0, 4, kEndpoint);
  data.addAnnouncement(1, 7, 1, "a", true);
  data.addAnnouncement(1, 7, 2, "b", false);
  data.addAnnouncement(1, 8, 0, "c", true);
  data.addAnnouncement(2, 7, 0, "e", true);
  // Unavailable announcements only when asked for; results are appended.
  EXPECT_EQ(data.getNumberOfAnnouncements(false, {}, {}), 4);
  EXPECT_EQ(data.getNumberOfAnnouncements(true, {}, {}), 3);
  const auto b = [](unsigned id, unsigned short type) { return id == 7 && type == 2; };
  std::vector<SingleAnnouncementData> out(1);
  data.getAnnouncements(false, b, {}, out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[1],
            SingleAnnouncementData(ConnectorInterfaceType::Client, 0, 4, kEndpoint, 7, 2, "b"));
  EXPECT_FALSE(data.getSingleAnnouncement(true, b, {}));

  // removeAnnouncements takes every type of the id from every connector, in one change.
  modifications = 0;
  EXPECT_TRUE(data.removeAnnouncements(7));
  EXPECT_EQ(modifications, 1);
  EXPECT_EQ(data.getNumberOfAnnouncements(false, {}, {}), 1);
  EXPECT_TRUE(data.hasAnnouncement(1, 8, 0));
  EXPECT_FALSE(data.removeAnnouncements(7));
  EXPECT_EQ(modifications, 1);
}

TEST_F(MCAnnounceDataTest, AtMost65535ConnectorsAndAnnouncementsPerConnector) {
  for (unsigned id = 0; id < 65535; ++id) {
    data.addConnector(id, ConnectorInterfaceType::Client, 0, 4, kEndpoint);
  }
  EXPECT_EQ(data.getConnectors().size(), 65535u);
  modifications = 0;
  data.addConnector(70000, ConnectorInterfaceType::Client, 1, 4, kEndpoint);
  data.addConnector(5, ConnectorInterfaceType::Client, 0, 4, kEndpoint);
  EXPECT_EQ(modifications, 0);
  EXPECT_EQ(log.count("MCAnnounce: Error: Failed to add connector 70000 (type Client, version 1, "
                      "clusterId 4, IP 10.0.0.1:5000): Too many connectors (65535, max: 65535)!"),
            1u);
  EXPECT_EQ(log.count("Too many connectors"), 2u);

  for (unsigned id = 0; id < 65535; ++id) data.addAnnouncement(5, id, 1, "", true);
  modifications = 0;
  data.addAnnouncement(5, 3, 1, "dup", false);
  EXPECT_EQ(modifications, 0);
  EXPECT_TRUE(
      log.contains("Failed to add announcement 3 (type 1, 'dup', not available) to "
                   "connector 5: Too many announcements (65535, max: 65535)!"));
}

TEST_F(MCAnnounceDataTest, UnpackReportsOnlyAnnouncementsThatBecameAvailable) {
  const std::string first = payload({connectorRecord(
      3, {announcementRecord(1, 1, "a", true), announcementRecord(2, 1, "b", false)})});
  auto added = unpack(first);
  ASSERT_EQ(added.size(), 1u);
  EXPECT_EQ(added[0].announcementId, 1u);
  EXPECT_TRUE(unpack(first).empty());

  // 2 becomes available, 1 becomes unavailable, 3 is new but unavailable.
  added = unpack(payload({connectorRecord(
      3, {announcementRecord(1, 1, "a", false), announcementRecord(2, 1, "b", true),
          announcementRecord(3, 1, "c", false)})}));
  ASSERT_EQ(added.size(), 1u);
  EXPECT_EQ(added[0].announcementId, 2u);
  EXPECT_EQ(added[0].name, "b");
  EXPECT_TRUE(unpack(payload({connectorRecord(3, {})})).empty());
  EXPECT_FALSE(data.announcementsPresent());
  EXPECT_EQ(modifications, 0);

  EXPECT_TRUE(unpack(payload({}, 0)).empty());
  EXPECT_TRUE(data.getConnectors().empty());
}

TEST_F(MCAnnounceDataTest, AddedCallbackMayReplaceTheFunctionItWasHandedThrough) {
  std::vector<std::string> seen;
  const std::string tag(40, 'x');  // too large for std::function's inline storage
  MCAnnounceData::AddedCallback added = [&, tag](const SingleAnnouncementData& a) {
    added = [&](const SingleAnnouncementData& b) {
      seen.push_back("new" + std::to_string(b.announcementId));
    };
    seen.push_back(tag.substr(0, 1) + std::to_string(a.announcementId));
  };
  for (uint32_t id : {1u, 2u}) {
    MCAnnounceData fresh(nullptr, nullptr);
    InputMessage message = framed(payload({connectorRecord(
        3, {announcementRecord(id, 1, "a", true), announcementRecord(id + 5, 1, "b", true)})}));
    fresh.unpack(1, message, {});
    data.takeOver(fresh, added);
  }
  // The function given to one take-over serves all of it; the replacement serves the next one.
  EXPECT_EQ(seen, (std::vector<std::string>{"x1", "x6", "new2", "new7"}));
}

TEST_F(MCAnnounceDataTest, UnpackMergesByConnectorIdAndDropsConnectorsNoLongerSent) {
  unpack(payload({connectorRecord(2, {announcementRecord(1, 1, "a", true)}),
                  connectorRecord(4, {announcementRecord(1, 1, "a", true)}),
                  connectorRecord(6, {announcementRecord(1, 1, "a", true)})}));
  // 2 and 6 disappear, 4 is unchanged, 3 and 8 are new.
  const auto added = unpack(payload({connectorRecord(3, {announcementRecord(5, 1, "c", true)}),
                                     connectorRecord(4, {announcementRecord(1, 1, "a", true)}),
                                     connectorRecord(8, {announcementRecord(9, 1, "d", true)})}));
  ASSERT_EQ(added.size(), 2u);
  EXPECT_EQ(added[0].announcementId, 5u);
  EXPECT_EQ(added[1].announcementId, 9u);
  std::vector<unsigned> ids;
  for (const auto& connector : data.getConnectors()) ids.push_back(connector.first);
  EXPECT_EQ(ids, (std::vector<unsigned>{3, 4, 8}));

  // A record of another version is skipped; the connectors before it are gone all the same.
  EXPECT_TRUE(
      unpack(payload({connectorRecord(4, {announcementRecord(1, 1, "a", true)}, 1)})).empty());
  EXPECT_TRUE(data.getConnectors().empty());
  EXPECT_TRUE(log.contains("Debug: Received incompatible connector data (version 1), skipping!"));
}

TEST_F(MCAnnounceDataTest, UnpackNeverReadsPastTheMessageAndSkipsMalformedRecords) {
  // The length field points past the end of the payload: that record and the rest are given up.
  EXPECT_TRUE(
      unpack(payload({connectorRecord(1, {announcementRecord(1, 1, "a", true)}, 0, 500)})).empty());
  EXPECT_TRUE(data.getConnectors().empty());
  // A version-1 record claiming more than there is: nothing behind it can be found either.
  EXPECT_TRUE(unpack(payload({connectorRecord(1, {}, 1, 0xFFFFFFFF)})).empty());

  // Lengths that contradict the record (too short for its fixed part, too short for its
  // announcements) skip that record; the next one is found where the length says.
  std::string shortFixed = connectorRecord(1, {}, 0, 10);
  shortFixed.resize(6 + 10);
  std::string cutAnnouncements = connectorRecord(2, {announcementRecord(1, 1, "abc", true)});
  cutAnnouncements[2] = 18 + 4;
  cutAnnouncements.resize(6 + 18 + 4);
  auto added = unpack(payload(
      {shortFixed, cutAnnouncements, connectorRecord(5, {announcementRecord(3, 1, "ok", true)})}));
  ASSERT_EQ(added.size(), 1u);
  EXPECT_EQ(added[0].announcementId, 3u);
  EXPECT_EQ(data.getConnectors().size(), 1u);
  EXPECT_EQ(log.count("that does not fit its length"), 2u);

  // A connector count above the records present ends with the records.
  added = unpack(payload({connectorRecord(5, {announcementRecord(3, 1, "ok", true)})}, 65535));
  EXPECT_TRUE(added.empty());
  EXPECT_EQ(data.getConnectors().size(), 1u);

  // The bytes after the payload (the end delimiter, and anything after the frame) are never read:
  // the name's length byte claims 200 bytes and gets the three that are left.
  InputMessage cut = framed(le32(7) + std::string(1, char(200)) + "xyz");
  data.unpack(1, cut, {});
  EXPECT_EQ(data.getDeviceName(), "xyz");
  EXPECT_EQ(cut.buffer.getOffset(), cut.getLength() + 4);
}

TEST_F(MCAnnounceDataTest, RecordsOutOfOrderOrRepeatedAreSkippedAndTheFirstOneWins) {
  const auto added =
      unpack(payload({connectorRecord(5, {announcementRecord(1, 1, "first", true)}),
                      connectorRecord(2, {announcementRecord(2, 1, "low", true)}),
                      connectorRecord(5, {announcementRecord(3, 1, "again", true)}),
                      connectorRecord(7, {announcementRecord(1, 1, "dup", true),
                                          announcementRecord(1, 1, "dup2", false)})}));
  ASSERT_EQ(added.size(), 2u);
  EXPECT_EQ(added[0].name, "first");
  EXPECT_EQ(added[1].name, "dup");
  EXPECT_EQ(data.getConnectors().size(), 2u);
  EXPECT_TRUE(data.hasAnnouncement(5, 1, 1));
  EXPECT_FALSE(data.hasAnnouncement(5, 3, 1));
  EXPECT_EQ(log.count("out of order"), 2u);
}

TEST_F(MCAnnounceDataTest, HeapEstimateOfTheLargestPayloadIsCloseToWhatMallocHandsOut) {
  // Near the largest datagram, with the names that cost most: empty ones, and every fourth too
  // long to be kept inside its string.
  std::vector<std::string> records;
  for (unsigned connector = 1; connector <= 3; ++connector) {
    std::vector<std::string> announcements;
    for (unsigned id = 0; id < 1000; ++id) {
      announcements.push_back(
          announcementRecord(id, 1, id % 4 == 0 ? std::string(40, 'n') : "", true));
    }
    records.push_back(connectorRecord(connector, announcements));
  }
  InputMessage message = framed(payload(records));
  ASSERT_GT(message.getLength(), 50000u);
  // The estimate follows glibc's chunks; a sanitizer's allocator counts differently.
  if (tavrinTesting::sanitizerBuild()) GTEST_SKIP() << "glibc's allocator is not in use";
  const size_t before = tavrinTesting::heldHeapBytes();
  data.unpack(1, message, {});
  const size_t after = tavrinTesting::heldHeapBytes();
  const size_t grown = after - before;
  EXPECT_GE(data.heapBytes(), grown * 9 / 10);
  EXPECT_LE(data.heapBytes(), grown * 11 / 10);
}

TEST_F(MCAnnounceDataTest, DumpShowsDeviceConnectorsAndAnnouncements) {
  data.setData(1, 2, "dev");
  data.addConnector(3, ConnectorInterfaceType::Client, 0, 4, kEndpoint);
  data.addConnector(4, ConnectorInterfaceType::PanelMaster, 0, 5, kEndpoint);
  data.addAnnouncement(3, 7, 5, "x", true);
  data.addAnnouncement(3, 8, 5, "y", false);
  std::ostringstream out;
  data.dump(out, "> ");
  EXPECT_EQ(out.str(),
            "> NetworkId: 1\n"
            "> DeviceId: 2 ('dev')\n"
            "> Connectors (2):\n"
            ">   3: Client (IP 10.0.0.1:5000, version 0, clusterId 4, 2 announcements):\n"
            ">     ConnectionId 7 (type 5): available ('x')\n"
            ">     ConnectionId 8 (type 5): not available ('y')\n"
            ">   --- (2 announcements) ---\n"
            ">   4: Panel Master (IP 10.0.0.1:5000, version 0, clusterId 5, no announcements)\n"
            "> --- Connectors (2) ---\n");
}

}  // namespace
}  // namespace tavrinConnector
