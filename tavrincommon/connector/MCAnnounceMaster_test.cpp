#include "tavrincommon/connector/MCAnnounceMaster.h"

#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/FakeMulticastSocket.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/RunUntil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
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
using tavrinTesting::runFor;
using tavrinTesting::runUntil;

const SimpleIp kGroup("239.255.77.1");
const SimpleEndpoint kConnector(SimpleIp("192.168.1.10"), 5000);

uint32_t changeCountOf(const std::string& frame) {
  uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = (value << 8) | static_cast<unsigned char>(frame[6 + i]);
  return value;
}
// The connector count of a frame whose device name is empty or one of the test's names.
unsigned connectorCountOf(const std::string& frame) {
  const size_t at = 10 + 2 + 8 + 1 + static_cast<unsigned char>(frame[20]);
  return static_cast<unsigned char>(frame[at]) | (static_cast<unsigned char>(frame[at + 1]) << 8);
}

// Keeps what was sent where it outlives the socket, which the master destroys when disabled.
struct RecordingSocket : FakeMulticastSocket {
  explicit RecordingSocket(std::vector<FakeMulticastSocket::Sent>& out_) : out(out_) {}
  int sendTo(const SimpleEndpoint& to, const void* data, int length) override {
    const int result = FakeMulticastSocket::sendTo(to, data, length);
    if (result >= 0) out.push_back(sent.back());
    return result;
  }
  std::vector<FakeMulticastSocket::Sent>& out;
};

class MCAnnounceMasterTest : public ::testing::Test {
 protected:
  void make(int sendInterval) {
    master = std::make_unique<MCAnnounceMaster>(
        &scheduler,
        [this]() -> std::unique_ptr<tavrinNetwork::MulticastSocketInterface> {
          ++created;
          if (factoryFails) return nullptr;
          auto socket = std::make_unique<RecordingSocket>(frames);
          socket->openResult = openResult;
          socket->dscpResult = dscpResult;
          socket->ttlResult = ttlResult;
          fake = socket.get();
          return socket;
        },
        sendInterval, log.logging());
    master->setErrorCallback(
        [this](ErrorType::Type type, const std::string& text) { errors.emplace_back(type, text); });
    master->init(1, 2, "AB", kGroup, 4000, SimpleIp("127.0.0.1"), 4001, "lo", true);
  }
  void announce() {
    master->setEnabled(true);
    master->addConnector(3, ConnectorInterfaceType::Client, 0, 4, kConnector);
    master->addAnnouncement(3, 7, 5, "x", true);
  }
  void turn() { scheduler.run(0); }

  tavrinTesting::LogCapture log;
  tavrinScheduler::Scheduler scheduler{log.logging()};
  bool factoryFails = false;
  bool openResult = true;
  bool dscpResult = true;
  bool ttlResult = true;
  int created = 0;
  FakeMulticastSocket* fake = nullptr;
  std::vector<FakeMulticastSocket::Sent> frames;
  std::vector<std::pair<ErrorType::Type, std::string>> errors;
  std::unique_ptr<MCAnnounceMaster> master;
};

TEST_F(MCAnnounceMasterTest,
       EditsOfOneTurnGiveOneMessageRepeatedEveryIntervalUntilTheLastAnnouncementIsGone) {
  make(100);
  announce();
  EXPECT_EQ(fake->group, SimpleEndpoint(kGroup, 4000));
  EXPECT_EQ(fake->bound, SimpleEndpoint(SimpleIp("127.0.0.1"), 4001));
  EXPECT_EQ(fake->interface, "lo");
  EXPECT_TRUE(fake->nonblock && fake->joined && fake->loop);
  EXPECT_EQ(fake->dscp, 0);
  EXPECT_EQ(fake->ttl, 1);
  turn();
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].to, SimpleEndpoint(kGroup, 4000));
  const unsigned char example[] = {
      0xa5, 0x37, 0,    0, 0,    0x0a, 1,    0,    0, 0, 0, 0, 1, 0, 0, 0, 2,    0, 0, 0,
      2,    0x41, 0x42, 1, 0,    0,    0,    0x1c, 0, 0, 0, 3, 0, 0, 0, 1, 0,    4, 0, 0,
      0,    0xc0, 0xa8, 1, 0x0a, 0x88, 0x13, 1,    0, 7, 0, 0, 0, 5, 0, 1, 0x78, 1, 0, 0x5a};
  EXPECT_EQ(frames[0].bytes, std::string(reinterpret_cast<const char*>(example), sizeof example));

  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(runUntil(
      scheduler, [&] { return frames.size() == 3; }, 3s));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 180ms);
  EXPECT_EQ(changeCountOf(frames[1].bytes), 1u);
  EXPECT_EQ(frames[2].bytes, frames[0].bytes);

  // An edit that changes nothing sends nothing.
  const size_t before = frames.size();
  master->setAnnouncementAvailable(3, 7, 5, true);
  turn();
  EXPECT_EQ(frames.size(), before);
  EXPECT_EQ(master->getChangeCount(), 1u);

  // The last announcement gone: one message, with the connector, then silence until the next.
  master->removeAnnouncement(3, 7, 5);
  turn();
  ASSERT_EQ(frames.size(), before + 1);
  EXPECT_EQ(changeCountOf(frames.back().bytes), 2u);
  EXPECT_EQ(connectorCountOf(frames.back().bytes), 1u);
  runFor(scheduler, 250ms);
  EXPECT_EQ(frames.size(), before + 1);
  master->addAnnouncement(3, 8, 5, "y", true);
  ASSERT_TRUE(runUntil(
      scheduler, [&] { return frames.size() == before + 3; }, 3s));
  EXPECT_EQ(changeCountOf(frames[before + 1].bytes), 3u);
  EXPECT_EQ(changeCountOf(frames[before + 2].bytes), 3u);
}

TEST_F(MCAnnounceMasterTest, DisablingSaysFarewellOnlyWhenAnnouncingAndReenablingKeepsTheCount) {
  make(10000);
  master->setEnabled(true);
  master->addConnector(3, ConnectorInterfaceType::Client, 0, 4, kConnector);
  turn();
  master->setEnabled(false);
  EXPECT_TRUE(frames.empty());
  EXPECT_TRUE(master->getData().getConnectors().empty());

  announce();
  turn();
  master->setEnabled(false);
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(changeCountOf(frames[1].bytes), 2u);
  EXPECT_EQ(connectorCountOf(frames[1].bytes), 0u);
  EXPECT_EQ(frames[1].bytes.size(), 11u + 2 + 4 + 4 + 3 + 2);

  // Enabling again starts from empty data and the next change count; destroying an announcing
  // master says farewell too.
  announce();
  EXPECT_EQ(master->getData().getConnectors().size(), 1u);
  turn();
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(changeCountOf(frames[2].bytes), 3u);
  master.reset();
  ASSERT_EQ(frames.size(), 4u);
  EXPECT_EQ(connectorCountOf(frames[3].bytes), 0u);
  EXPECT_EQ(created, 3);
}

TEST_F(MCAnnounceMasterTest, MessageOf61440BytesIsSentOneByteMoreIsAnError) {
  make(10000);
  master->init(1, 2, "", kGroup, 4000, SimpleIp("127.0.0.1"), 4001, "lo", true);
  // 48 bytes of frame, device and connector, then 232 announcements of 264 bytes and one of 144.
  const auto fill = [this](size_t lastNameLength) {
    master->setEnabled(true);
    master->addConnector(1, ConnectorInterfaceType::Client, 0, 4, kConnector);
    for (unsigned id = 0; id < 232; ++id) {
      master->addAnnouncement(1, id, 0, std::string(255, 'n'), true);
    }
    master->addAnnouncement(1, 1000, 0, std::string(lastNameLength, 'n'), true);
  };
  fill(135);
  turn();
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].bytes.size(), 61440u);
  EXPECT_TRUE(errors.empty());

  master->setAnnouncementName(1, 1000, 0, std::string(136, 'n'));
  turn();
  EXPECT_EQ(frames.size(), 1u);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].first, ErrorType::messageTooLarge);
  EXPECT_EQ(errors[0].second, "Announce message too long: 61441 bytes (max 61440)!");
  EXPECT_FALSE(master->isEnabled());
  EXPECT_TRUE(master->getData().getConnectors().empty());
  EXPECT_EQ(master->getChangeCount(), 2u);
}

TEST_F(MCAnnounceMasterTest, SendFailuresDisableButAPartialSendOnlyLogs) {
  make(50);
  announce();
  fake->addSendResult(10);
  turn();
  EXPECT_TRUE(
      log.contains("Error: Announce socket error: Failed to send all data (sent: 10, msg "
                   "size: 60)!"));
  EXPECT_TRUE(master->isEnabled());
  // The timer was re-armed after the partial send.
  ASSERT_TRUE(runUntil(
      scheduler, [&] { return frames.size() == 2; }, 3s));

  fake->addSendResult(-1);
  ASSERT_TRUE(runUntil(
      scheduler, [&] { return !errors.empty(); }, 3s));
  EXPECT_EQ(errors[0],
            std::make_pair(ErrorType::socketError, std::string("Announce socket error (-1)!")));
  EXPECT_FALSE(master->isEnabled());

  announce();
  fake->close();
  turn();
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_EQ(errors[1],
            std::make_pair(ErrorType::socketError, std::string("Announce socket is not ready!")));
  EXPECT_FALSE(master->isEnabled());
}

TEST_F(MCAnnounceMasterTest, ErrorCallbackMayReplaceItselfOrDestroyTheMaster) {
  make(10000);
  std::vector<std::string> seen;
  const std::string tag(40, 'x');  // too large for std::function's inline storage
  master->setErrorCallback([&, tag](ErrorType::Type, const std::string&) {
    master->setErrorCallback([&](ErrorType::Type, const std::string& text) {
      seen.push_back(text);
      master.reset();
    });
    seen.push_back(tag.substr(0, 1));
  });
  for (int i = 0; i < 2; ++i) {
    announce();
    fake->addSendResult(-1);
    turn();
  }
  EXPECT_FALSE(master);
  EXPECT_EQ(seen, (std::vector<std::string>{"x", "Announce socket error (-1)!"}));
}

TEST_F(MCAnnounceMasterTest, EverySocketSetUpFailureDisablesWithItsOwnLine) {
  const std::pair<bool*, const char*> cases[] = {
      {&factoryFails, "Failed to initialize send socket: Failed to create socket!"},
      {&openResult, "Failed to initialize send socket: Failed to open socket!"},
      {&dscpResult, "Failed to initialize send socket: Failed to configure socket (DSCP)!"},
      {&ttlResult, "Failed to initialize send socket: Failed to configure socket (multicast TTL)!"},
  };
  for (const auto& [flag, line] : cases) {
    SCOPED_TRACE(line);
    *flag = flag == &factoryFails;
    make(100);
    errors.clear();
    log.clear();
    master->setEnabled(true);
    EXPECT_TRUE(log.contains(std::string("MCAnnounce: Error: ") + line));
    EXPECT_TRUE(log.contains("Failed to initialize multicast socket, disabling!"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], std::make_pair(ErrorType::initializationFailed,
                                        std::string("Failed to initialize multicast socket!")));
    EXPECT_FALSE(master->isEnabled());
    *flag = flag != &factoryFails;
  }
}

TEST_F(MCAnnounceMasterTest, GroupAndBindAddressChangesRestartTheSocket) {
  make(10000);
  master->setBindIp(SimpleIp("127.0.0.1"));
  master->setBindIp(SimpleIp("127.0.0.2"));
  EXPECT_EQ(created, 0);

  // A new group on a disabled master enables it.
  master->setMulticastGroup(SimpleIp("239.255.77.2"), 4100);
  EXPECT_TRUE(master->isEnabled());
  EXPECT_EQ(fake->group, SimpleEndpoint(SimpleIp("239.255.77.2"), 4100));
  EXPECT_EQ(fake->bound, SimpleEndpoint(SimpleIp("127.0.0.2"), 4001));

  master->addConnector(3, ConnectorInterfaceType::Client, 0, 4, kConnector);
  master->addAnnouncement(3, 7, 5, "x", true);
  turn();
  master->setBindIp(SimpleIp("127.0.0.1"));
  EXPECT_TRUE(master->isEnabled());
  EXPECT_EQ(fake->bound.getIp(), SimpleIp("127.0.0.1"));
  EXPECT_TRUE(master->getData().getConnectors().empty());

  master->setDscp(46);
  master->setMulticastTtl(0);
  master->setMulticastTtl(0);
  EXPECT_EQ(fake->dscp, 46);
  EXPECT_EQ(fake->ttl, 0);
  EXPECT_EQ(log.count("Service: Changed multicast TTL value to 0 (old value: 1)"), 1u);
}

TEST_F(MCAnnounceMasterTest, InterfaceWithoutAddressPausesAndAnAddressReopensAndSendsAtOnce) {
  make(50);
  announce();
  turn();
  ASSERT_EQ(frames.size(), 1u);
  master->interfaceChanged(SimpleIp(SimpleIp::kNoIp));
  EXPECT_TRUE(master->isPaused());
  master->setAnnouncementName(3, 7, 5, "y");
  runFor(scheduler, 150ms);  // three send intervals
  EXPECT_EQ(frames.size(), 1u);
  EXPECT_TRUE(errors.empty());
  EXPECT_EQ(created, 1);

  master->interfaceChanged(SimpleIp("127.0.0.1"));
  EXPECT_EQ(created, 2);
  turn();
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(changeCountOf(frames[1].bytes), 2u);  // the edit made while paused
  // The same address again (a re-created interface): reopened, the same data at once.
  master->interfaceChanged(SimpleIp("127.0.0.1"));
  turn();
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(changeCountOf(frames[2].bytes), 2u);

  openResult = false;
  master->interfaceChanged(SimpleIp("127.0.0.1"));
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].first, ErrorType::initializationFailed);
  EXPECT_FALSE(master->isEnabled());
  master->interfaceChanged(SimpleIp("127.0.0.1"));
  EXPECT_EQ(created, 4);
}

TEST_F(MCAnnounceMasterTest, DumpShowsSettingsStateAndData) {
  make(10000);
  master->setEnabled(true);
  std::ostringstream out;
  master->dump(out, "# ");
  EXPECT_EQ(out.str(),
            "# MC Announce Master:\n#   IP: 127.0.0.1:4001\n#   Interface: 'lo'\n"
            "#   MC group: 239.255.77.1:4000\n#   Enabled: yes\n#   DSCP: 0\n#   MC TTL: 1\n"
            "#   modified: yes\n#   changeCount: 0\n#   emptyAnnouncementSent: yes\n"
            "#   NetworkId: 1\n#   DeviceId: 2 ('AB')\n#   Connectors (0):\n"
            "#   --- Connectors (0) ---\n");
}

}  // namespace
}  // namespace tavrinConnector
