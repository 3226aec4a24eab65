#include "tavrincommon/connector/MCAnnounceSlave.h"

#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/FakeMulticastSocket.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/RunUntil.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace tavrinConnector {
namespace {

using namespace std::chrono_literals;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;
using tavrinTesting::FakeMulticastSocket;
using tavrinTesting::runUntil;

constexpr int kIn = 1;
const SimpleEndpoint kMasterA(SimpleIp("127.0.0.1"), 5000);
const SimpleEndpoint kMasterB(SimpleIp("127.0.0.2"), 5000);
const SimpleEndpoint kConnector(SimpleIp("10.0.0.1"), 6000);

struct Announcement {
  unsigned id;
  unsigned short type;
  bool available;
};

// One connector (id 1) of `type` in `cluster`, with `announcements`, as an announce frame.
std::string announceFrame(uint32_t changeCount, const std::vector<Announcement>& announcements,
                          ConnectorInterfaceType::Type type = ConnectorInterfaceType::Client,
                          unsigned cluster = 4, unsigned networkId = 1,
                          unsigned short formatVersion = 0) {
  MCAnnounceData data(nullptr, nullptr);
  data.setData(networkId, 2, "dev");
  data.addConnector(1, type, 0, cluster, kConnector);
  for (const Announcement& a : announcements) {
    data.addAnnouncement(1, a.id, a.type, "n" + std::to_string(a.id), a.available);
  }
  OutputMessage message;
  message.putUInt16(formatVersion);
  data.pack(message);
  message.finalizeMessage(10, changeCount);
  return std::string(message.getData(), message.getFrameLength());
}

class MCAnnounceSlaveTest : public ::testing::Test {
 protected:
  void SetUp() override { make(20100); }
  void make(int masterTimeout) {
    slave.reset();
    slave = std::make_unique<MCAnnounceSlave>(
        &scheduler,
        [this]() -> std::unique_ptr<tavrinNetwork::MulticastSocketInterface> {
          if (factoryFails) return nullptr;
          auto socket = std::make_unique<FakeMulticastSocket>();
          socket->openResult = openResult;
          fake = socket.get();
          return socket;
        },
        masterTimeout, log.logging());
    slave->setCallbacks(
        [this](const SingleAnnouncementData& a) {
          added.push_back(a);
          if (onAdded) onAdded();
        },
        [this](ErrorType::Type type, const std::string& text) { errors.emplace_back(type, text); });
    slave->init(1, SimpleIp("239.255.77.1"), 4000, "lo");
    slave->addSupportedConnector(0, ConnectorInterfaceType::Client);
    slave->setEnabled(true);
  }
  // Receives and handles one datagram, as one IO wake-up and one worker run.
  void deliver(const SimpleEndpoint& from, const std::string& bytes) {
    fake->addDatagram(from, bytes);
    EXPECT_NE(slave->socketCallback(kIn), tavrinScheduler::IOWatchItem::Removed);
    slave->work();
  }
  std::vector<unsigned> addedIds() const {
    std::vector<unsigned> ids;
    for (const auto& a : added) ids.push_back(a.announcementId);
    return ids;
  }

  tavrinTesting::LogCapture log;
  tavrinScheduler::Scheduler scheduler{log.logging()};
  bool factoryFails = false;
  bool openResult = true;
  FakeMulticastSocket* fake = nullptr;
  std::vector<SingleAnnouncementData> added;
  std::function<void()> onAdded;
  std::vector<std::pair<ErrorType::Type, std::string>> errors;
  std::unique_ptr<MCAnnounceSlave> slave;
};

TEST_F(MCAnnounceSlaveTest, FirstMessageReportsItsAvailableAnnouncementsAndARepeatNothing) {
  const std::string frame = announceFrame(1, {{1, 1, true}, {2, 1, true}, {3, 1, false}});
  deliver(kMasterA, frame);
  EXPECT_EQ(addedIds(), (std::vector<unsigned>{1, 2}));
  EXPECT_EQ(added[0],
            SingleAnnouncementData(ConnectorInterfaceType::Client, 0, 4, kConnector, 1, 1, "n1"));
  deliver(kMasterA, frame);
  EXPECT_EQ(added.size(), 2u);
  EXPECT_TRUE(log.contains("Detailed: Received message (" + std::to_string(frame.size() - 5) +
                           " bytes) with known changeCount (1) from 127.0.0.1:5000 (version 0, "
                           "own: 0), ignoring!"));

  // Any other change count is taken over, also a lower one.
  deliver(kMasterA, announceFrame(7, {{1, 1, true}, {2, 1, true}, {3, 1, true}}));
  deliver(kMasterA, announceFrame(5, {{1, 1, true}, {4, 1, true}}));
  EXPECT_EQ(addedIds(), (std::vector<unsigned>{1, 2, 3, 4}));
  EXPECT_EQ(slave->getMasters().at(kMasterA)->changeCount, 5u);

  // A master without announcements is erased.
  deliver(kMasterA, announceFrame(6, {}));
  EXPECT_TRUE(slave->getMasters().empty());
  EXPECT_TRUE(log.contains("Debug: Removing master 127.0.0.1:5000 (no announcements)"));
}

TEST_F(MCAnnounceSlaveTest, UnsupportedConnectorsAreKeptButNeverReportedOrReturned) {
  EXPECT_FALSE(slave->addSupportedConnector(1, ConnectorInterfaceType::PanelMaster));
  deliver(kMasterA, announceFrame(1, {{1, 1, true}}, ConnectorInterfaceType::PanelMaster));
  EXPECT_TRUE(added.empty());
  EXPECT_EQ(slave->getMasters().size(), 1u);
  EXPECT_TRUE(slave->getAnyClusterAnnouncements().empty());

  ASSERT_TRUE(slave->addSupportedConnector(0, ConnectorInterfaceType::PanelMaster));
  EXPECT_EQ(slave->getAnyClusterAnnouncements().size(), 1u);
  slave->removeSupportedConnector(0, ConnectorInterfaceType::PanelMaster);
  EXPECT_TRUE(slave->getAnyClusterAnnouncements().empty());

  // init forgets the supported connectors (and disables).
  slave->init(1, SimpleIp("239.255.77.1"), 4000, "lo");
  EXPECT_FALSE(slave->isConnectorSupported(0, ConnectorInterfaceType::Client));
  EXPECT_FALSE(slave->isEnabled());
  EXPECT_TRUE(slave->getMasters().empty());
}

TEST_F(MCAnnounceSlaveTest, SilentMasterIsErasedAfterTheTimeoutUnlessAMessageWasQueued) {
  make(100);
  deliver(kMasterA, announceFrame(1, {{1, 1, true}}));
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(runUntil(
      scheduler, [&] { return slave->getMasters().empty(); }, 3s));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 90ms);
  EXPECT_TRUE(log.contains("Debug: Removing master 127.0.0.1:5000 (timeout)"));

  deliver(kMasterA, announceFrame(1, {{1, 1, true}}));
  ASSERT_TRUE(runUntil(
      scheduler, [&] { return slave->getMasters().at(kMasterA)->timer.hasFired(); }, 3s));
  // The timer has fired, the worker has not run yet: a message queued now keeps the master.
  fake->addDatagram(kMasterA, announceFrame(1, {{1, 1, true}}));
  slave->socketCallback(kIn);
  scheduler.run(0);
  ASSERT_EQ(slave->getMasters().size(), 1u);
  EXPECT_FALSE(slave->getMasters().at(kMasterA)->timer.hasFired());
}

TEST_F(MCAnnounceSlaveTest, LocalRemovalLowersTheChangeCountSoTheNextMessageRestoresIt) {
  deliver(kMasterA, announceFrame(0, {{9, 1, true}, {9, 2, true}, {3, 1, true}}));
  added.clear();
  slave->removeAnnouncements(9);
  EXPECT_EQ(slave->getMasters().at(kMasterA)->changeCount, 4294967295u);
  EXPECT_EQ(slave->getAnyClusterAnnouncements(9).size(), 0u);
  deliver(kMasterA, announceFrame(0, {{9, 1, true}, {9, 2, true}, {3, 1, true}}));
  EXPECT_EQ(addedIds(), (std::vector<unsigned>{9, 9}));
  EXPECT_EQ(slave->getAnyClusterAnnouncements(9).size(), 2u);
}

TEST_F(MCAnnounceSlaveTest, WorkerYieldsAfterItsBudgetWithTheRestQueued) {
  for (unsigned i = 0; i < 200; ++i) {
    const std::string host = "127.0.0." + std::to_string(1 + i);
    fake->addDatagram(SimpleEndpoint(SimpleIp(host.c_str()), 10000),
                      announceFrame(1, {{i, 1, true}}));
    slave->socketCallback(kIn);
  }
  EXPECT_EQ(slave->getReceiveQueueSize(), 200u);
  onAdded = [] {
    const auto until = std::chrono::steady_clock::now() + 2ms;
    while (std::chrono::steady_clock::now() < until) {
    }
  };
  EXPECT_EQ(slave->work(), tavrinScheduler::Worker::Continue);
  const size_t left = slave->getReceiveQueueSize();
  EXPECT_GT(left, 0u);
  EXPECT_LT(left, 200u);
  EXPECT_TRUE(
      log.contains("Debug: Worker took more than 300ms. Yielding execution and scheduling "
                   "another run to continue work (" +
                   std::to_string(left) + " messages remaining)"));
  onAdded = nullptr;
  EXPECT_TRUE(runUntil(
      scheduler, [&] { return slave->getReceiveQueueSize() == 0; }, 10s));
  EXPECT_EQ(slave->getMasters().size(), 200u);
}

TEST_F(MCAnnounceSlaveTest, BoundsDropWhatNewSendersBringWhileKnownMastersKeepWorking) {
  const SimpleEndpoint third(SimpleIp("127.0.0.3"), 5000);
  slave->setMaxMasters(2);
  deliver(kMasterA, announceFrame(1, {{1, 1, true}}));
  deliver(kMasterB, announceFrame(1, {{2, 1, true}}));
  deliver(third, announceFrame(1, {{3, 1, true}}));
  EXPECT_EQ(slave->getMasters().size(), 2u);
  EXPECT_EQ(slave->getDropCounts().tooManyMasters, 1u);
  deliver(kMasterA, announceFrame(2, {{1, 1, true}, {4, 1, true}}));
  EXPECT_EQ(addedIds(), (std::vector<unsigned>{1, 2, 4}));

  // Room for a few more bytes than held: no new master fits, and a known master's change that
  // grows too much is dropped whole, with its change count, so that a repeat is tried again.
  slave->setMaxMasters(MCAnnounceSlave::kDefaultMaxMasters);
  slave->setMaxMasterDataBytes(slave->getMasterDataBytes() + 100);
  deliver(third, announceFrame(1, {{3, 1, true}}));
  std::vector<Announcement> many;
  for (unsigned id = 1; id <= 10; ++id) many.push_back({id, 1, true});
  deliver(kMasterA, announceFrame(3, many));
  EXPECT_EQ(slave->getDropCounts().newMasterData, 1u);
  EXPECT_EQ(slave->getDropCounts().masterUpdateData, 1u);
  EXPECT_EQ(slave->getMasters().count(third), 0u);
  EXPECT_EQ(slave->getMasters().at(kMasterA)->changeCount, 2u);
  EXPECT_EQ(slave->getAnyClusterAnnouncements().size(), 3u);
  deliver(kMasterA, announceFrame(4, {{4, 1, true}}));
  EXPECT_EQ(slave->getMasters().at(kMasterA)->changeCount, 4u);
  EXPECT_EQ(slave->getAnyClusterAnnouncements().size(), 2u);

  // One host gets a share of the master bound; another host still gets in.
  slave->setMaxMasterDataBytes(MCAnnounceSlave::kDefaultMaxMasterDataBytes);
  slave->setMaxMastersPerAddress(2);
  for (unsigned short port = 6000; port < 6003; ++port)
    deliver(SimpleEndpoint(SimpleIp("127.0.0.9"), port), announceFrame(1, {{port, 1, true}}));
  deliver(third, announceFrame(1, {{3, 1, true}}));
  EXPECT_EQ(slave->getMasters().size(), 5u);

  slave->setMaxQueuedDatagrams(2);
  for (int i = 0; i < 3; ++i) {
    fake->addDatagram(kMasterB, announceFrame(1, {{2, 1, true}}));
    slave->socketCallback(kIn);
  }
  EXPECT_EQ(slave->getReceiveQueueSize(), 2u);
  slave->work();
  EXPECT_EQ(slave->getQueuedBytes(), 0u);
  std::ostringstream out;
  slave->dump(out, "");
  EXPECT_NE(out.str().find("\n  Dropped: 1 queue full, 2 new masters over the master bound, 1 new "
                           "masters and 1 changes over the data bound\n"),
            std::string::npos)
      << out.str();
  EXPECT_EQ(log.count("Warning: Dropping message from"), 5u) << log.text();
}

TEST_F(MCAnnounceSlaveTest, ForeignInvalidAndOversizedDatagramsAreDropped) {
  // Longer than the receive buffer: never read past it, dropped.
  std::string oversized = announceFrame(1, {{1, 1, true}});
  oversized.resize(MCAnnounceSlave::kReceiveBufferSize + 1, '\x5a');
  const std::string otherVersion =
      announceFrame(1, {{1, 1, true}}, ConnectorInterfaceType::Client, 4, 1, 1);
  const std::pair<std::string, std::string> cases[] = {
      {"\xa5\x06\0\0\0\x0a\0\0\0\0\x11", "invalid message from 127.0.0.1:5000, ignoring!"},
      {oversized, "invalid message from 127.0.0.1:5000 (61441 bytes, max 61440), ignoring!"},
      {std::string("\xa5\x06\0\0\0\x03\0\0\0\0\x5a", 11),
       "non-announce message (type 3, 6 bytes) from 127.0.0.1:5000, ignoring!"},
      {otherVersion, "incompatible message (" + std::to_string(otherVersion.size() - 5) +
                         " bytes) from 127.0.0.1:5000 (version 1, own: 0), ignoring!"},
      {announceFrame(1, {{1, 1, true}}, ConnectorInterfaceType::Client, 4, 9),
       "message belonging to a different network from 127.0.0.1:5000 (networkId 9, own: 1), "
       "ignoring!"},
  };
  for (const auto& [bytes, line] : cases) {
    deliver(kMasterA, bytes);
    EXPECT_TRUE(log.contains("Debug: Received " + line)) << line;
  }
  EXPECT_EQ(slave->getReceiveQueueSize(), 0u);
  EXPECT_TRUE(slave->getMasters().empty());
  EXPECT_TRUE(added.empty());
  EXPECT_TRUE(errors.empty());
}

TEST_F(MCAnnounceSlaveTest, SocketFailuresDisableAndReportAnError) {
  fake->addReceiveError(EIO);
  EXPECT_EQ(slave->socketCallback(kIn), tavrinScheduler::IOWatchItem::Removed);
  EXPECT_TRUE(log.contains("Error: Failed to receive data: 5 (Input/output error)!"));
  EXPECT_FALSE(slave->isEnabled());
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].first, ErrorType::socketError);
  EXPECT_EQ(slave->socketCallback(kIn), tavrinScheduler::IOWatchItem::Removed);
  EXPECT_TRUE(log.contains("Error: Failed to receive data: Socket not initialized!"));

  errors.clear();
  openResult = false;
  slave->setEnabled(true);
  EXPECT_TRUE(log.contains("Error: Failed to initialize multicast socket: Failed to open socket!"));
  factoryFails = true;
  slave->setEnabled(true);
  EXPECT_TRUE(
      log.contains("Error: Failed to initialize multicast socket: Failed to create "
                   "socket!"));
  EXPECT_EQ(log.count("Error: Failed to initialize multicast socket, disabling!"), 2u);
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_EQ(errors[1], std::make_pair(ErrorType::initializationFailed,
                                      std::string("Failed to initialize multicast socket!")));
  EXPECT_FALSE(slave->isEnabled());
}

TEST_F(MCAnnounceSlaveTest, InterfaceWithoutAddressPausesAndAnAddressReopensKeepingTheMasters) {
  deliver(kMasterA, announceFrame(1, {{9, 1, true}}));
  slave->interfaceChanged(SimpleIp(SimpleIp::kNoIp));
  EXPECT_TRUE(slave->isEnabled());
  EXPECT_TRUE(slave->isPaused());
  EXPECT_EQ(slave->getMasters().size(), 1u);

  slave->interfaceChanged(SimpleIp("127.0.0.1"));
  EXPECT_FALSE(slave->isPaused());
  deliver(kMasterB, announceFrame(1, {{8, 1, true}}));  // through the new socket
  EXPECT_EQ(addedIds(), (std::vector<unsigned>{9, 8}));
  EXPECT_TRUE(errors.empty());

  openResult = false;
  slave->interfaceChanged(SimpleIp("127.0.0.1"));
  EXPECT_FALSE(slave->isEnabled());
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].first, ErrorType::initializationFailed);
  slave->interfaceChanged(SimpleIp("127.0.0.1"));
  EXPECT_EQ(errors.size(), 1u);
}

TEST_F(MCAnnounceSlaveTest, QueriesFilterByClusterIdAndTypeInMasterOrder) {
  slave->addSupportedConnector(0, ConnectorInterfaceType::PanelMaster);
  deliver(kMasterB, announceFrame(1, {{1, 1, true}, {1, 2, true}, {2, 1, false}}));
  deliver(kMasterA,
          announceFrame(1, {{1, 1, true}, {3, 2, true}}, ConnectorInterfaceType::PanelMaster, 8));
  std::vector<unsigned> clusters;
  for (const auto& a : slave->getAnyClusterAnnouncements()) clusters.push_back(a.clusterId);
  EXPECT_EQ(clusters, (std::vector<unsigned>{8, 8, 4, 4}));
  EXPECT_EQ(slave->getAnyClusterAnnouncements(1, 2).size(), 1u);
  EXPECT_EQ(slave->getAnyClusterTypeAnnouncements(2).size(), 2u);
  EXPECT_EQ(slave->getAnnouncements(8, 1, 1).size(), 1u);
  EXPECT_TRUE(slave->getAnnouncements(4, 2).empty());  // not available
  auto single = slave->getSingleAnnouncement(4, 1, 2);
  ASSERT_TRUE(single);
  EXPECT_EQ(single->connectorType, ConnectorInterfaceType::Client);
  EXPECT_FALSE(slave->getSingleAnnouncement(4, 2, 1));
}

TEST_F(MCAnnounceSlaveTest, DatagramsArriveThroughTheLoopAndTheDumpShowsTheMasters) {
  // No fixed source address: the group is joined on the interface given.
  EXPECT_EQ(fake->group, SimpleEndpoint(SimpleIp("239.255.77.1"), 4000));
  EXPECT_EQ(fake->bound, SimpleEndpoint(SimpleIp(0u), 0));
  EXPECT_EQ(fake->interface, "lo");
  EXPECT_TRUE(fake->nonblock && fake->joined && !fake->loop);
  fake->addDatagram(kMasterA, announceFrame(3, {{1, 1, true}}));
  ASSERT_TRUE(runUntil(
      scheduler, [&] { return !added.empty(); }, 3s));
  std::ostringstream out;
  slave->dump(out, "$ ");
  const std::string socket = std::to_string(fake->getFd());
  const std::string held = std::to_string(slave->getMasterDataBytes());
  // clang-format off
  EXPECT_EQ(out.str(),
            "$ MC Announce Client:\n"
            "$   NetworkId: 1\n"
            "$   Interface: 'lo'\n"
            "$   MC group: 239.255.77.1:4000\n"
            "$   Socket: " + socket + "\n"
            "$   Enabled: yes\n"
            "$   Receive Queue: 0 entries\n"
            "$   Queue bound: 256 entries, 262144 bytes (held: 0)\n"
            "$   Master bound: 512 masters, 2097152 bytes of data (held: " + held + ")\n"
            "$   Dropped: 0 queue full, 0 new masters over the master bound, 0 new masters and 0 "
            "changes over the data bound\n"
            "$   Supported Connectors (1):\n"
            "$     Client: Version 0\n"
            "$   --- (1 connectors) ---\n"
            "$   Masters (1):\n"
            "$     127.0.0.1:5000 (timeout expired: no, changeCount: 3):\n"
            "$       NetworkId: 1\n"
            "$       DeviceId: 2 ('dev')\n"
            "$       Connectors (1):\n"
            "$         1: Client (IP 10.0.0.1:6000, version 0, clusterId 4, 1 announcements):\n"
            "$           ConnectionId 1 (type 1): available ('n1')\n"
            "$         --- (1 announcements) ---\n"
            "$       --- Connectors (1) ---\n"
            "$   --- (1 masters) ---\n");
  // clang-format on
  slave->setEnabled(false);
  EXPECT_TRUE(slave->getMasters().empty());
}

TEST_F(MCAnnounceSlaveTest, AddedCallbackMayReplaceItselfAndDisableOrDestroyTheSlave) {
  onAdded = [this] { slave->setEnabled(false); };
  deliver(kMasterA, announceFrame(1, {{1, 1, true}, {2, 1, true}}));
  EXPECT_FALSE(slave->isEnabled());
  EXPECT_TRUE(slave->getMasters().empty());
  EXPECT_EQ(added.size(), 2u);

  slave->setEnabled(true);
  std::vector<std::string> seen;
  const std::string tag(40, 'x');  // too large for std::function's inline storage
  slave->setCallbacks(
      [&, tag](const SingleAnnouncementData& a) {
        slave->setCallbacks(
            [&](const SingleAnnouncementData&) {
              seen.push_back("destroying");
              slave.reset();
            },
            nullptr);
        seen.push_back(tag.substr(0, 1) + std::to_string(a.announcementId));
      },
      nullptr);
  // The replacement serves the second announcement; the third is never reported.
  deliver(kMasterA, announceFrame(2, {{1, 1, true}, {2, 1, true}, {3, 1, true}}));
  EXPECT_FALSE(slave);
  EXPECT_EQ(seen, (std::vector<std::string>{"x1", "destroying"}));
}

}  // namespace
}  // namespace tavrinConnector
