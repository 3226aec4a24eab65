// An announce master and an announce slave on real multicast sockets, both on interface lo, the
// master bound to 127.0.0.1 with TTL 0 and multicast loop on, so nothing leaves the machine.
#include "tavrincommon/connector/MCAnnounceMaster.h"
#include "tavrincommon/connector/MCAnnounceSlave.h"
#include "tavrincommon/network/MulticastSocket.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/RunUntil.h"
#include "tavrincommon/testing/Sockets.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace tavrinConnector {
namespace {

using namespace std::chrono_literals;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;
using tavrinTesting::runFor;
using tavrinTesting::runUntil;

const SimpleIp kLoopback("127.0.0.1");
const SimpleEndpoint kConnector(SimpleIp("127.0.0.1"), 7000);

class AnnounceLoopbackTest : public ::testing::Test {
 protected:
  // One group and port per test, so that tests running in parallel never hear each other.
  void start(unsigned groupIndex, int sendInterval, int masterTimeout) {
    group = SimpleIp(("239.255.94." + std::to_string(groupIndex)).c_str());
    port = static_cast<unsigned short>(24000 + groupIndex);
    if (!tavrinTesting::loopbackDeliversMulticast(group, port)) {
      skipped = true;
      return;
    }
    tavrinLog::TavrinLogging* logging = log.logging();
    master = std::make_unique<MCAnnounceMaster>(
        &scheduler,
        [logging]() -> std::unique_ptr<tavrinNetwork::MulticastSocketInterface> {
          return std::make_unique<tavrinNetwork::MulticastSocket>(logging);
        },
        sendInterval, logging);
    master->setErrorCallback([this](ErrorType::Type, const std::string& text) { errors.push_back(text); });
    master->init(1, 2, "panel", group, port, kLoopback, 0, "lo", true);
    master->setMulticastTtl(0);
    slave = std::make_unique<MCAnnounceSlave>(
        &scheduler,
        [logging]() -> std::unique_ptr<tavrinNetwork::MulticastSocketInterface> {
          return std::make_unique<tavrinNetwork::MulticastSocket>(logging);
        },
        masterTimeout, logging);
    slave->setCallbacks([this](const SingleAnnouncementData& a) { added.push_back(a); },
                        [this](ErrorType::Type, const std::string& text) { errors.push_back(text); });
    slave->init(1, group, port, "lo");
    slave->addSupportedConnector(0, ConnectorInterfaceType::Client);
    slave->setEnabled(true);
    master->setEnabled(true);
    master->addConnector(3, ConnectorInterfaceType::Client, 0, 4, kConnector);
    master->addAnnouncement(3, 7, 5, "x", true);
  }
  void TearDown() override {
    slave.reset();
    master.reset();
  }

  tavrinTesting::LogCapture log;
  tavrinScheduler::Scheduler scheduler{log.logging()};
  SimpleIp group;
  unsigned short port = 0;
  bool skipped = false;
  std::unique_ptr<MCAnnounceMaster> master;
  std::unique_ptr<MCAnnounceSlave> slave;
  std::vector<SingleAnnouncementData> added;
  std::vector<std::string> errors;
};

#define SKIP_WITHOUT_LOOPBACK_MULTICAST()                                                   \
  if (skipped) GTEST_SKIP() << "This machine does not deliver multicast on interface lo; " \
                               "the loopback announce tests cannot run here."

TEST_F(AnnounceLoopbackTest, SlaveFollowsTheMasterFromFirstMessageToWithdrawal) {
  start(1, 100, 500);
  SKIP_WITHOUT_LOOPBACK_MULTICAST();
  ASSERT_TRUE(runUntil(scheduler, [&] { return !added.empty(); }, 5s)) << log.text();
  EXPECT_EQ(added[0], SingleAnnouncementData(ConnectorInterfaceType::Client, 0, 4, kConnector, 7,
                                             5, "x"));
  auto found = slave->getSingleAnnouncement(4, 7, 5);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->connectorEndpoint, kConnector);
  ASSERT_EQ(slave->getMasters().size(), 1u);
  EXPECT_EQ(slave->getMasters().begin()->first.getIp(), kLoopback);

  // Repeats every 100 ms keep a master with a 500 ms timeout alive and report nothing new.
  runFor(scheduler, 1200ms);
  EXPECT_EQ(slave->getMasters().size(), 1u);
  EXPECT_EQ(added.size(), 1u);

  master->addAnnouncement(3, 8, 5, "y", true);
  ASSERT_TRUE(runUntil(scheduler, [&] { return added.size() == 2; }, 5s)) << log.text();
  EXPECT_EQ(added[1].announcementId, 8u);

  // Disabling withdraws the master at once, not after the slave's timeout.
  master->setEnabled(false);
  ASSERT_TRUE(runUntil(scheduler, [&] { return slave->getMasters().empty(); }, 3s)) << log.text();
  EXPECT_TRUE(log.contains("(no announcements)"));
  EXPECT_TRUE(errors.empty()) << log.text();
}

}  // namespace
}  // namespace tavrinConnector
