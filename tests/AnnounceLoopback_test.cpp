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
const SimpleIp kGroup("239.255.94.1");
constexpr unsigned short kPort = 24001;
const SimpleEndpoint kConnector(kLoopback, 7000);

TEST(AnnounceLoopbackTest, SlaveFollowsTheMasterFromFirstMessageToWithdrawal) {
  if (!tavrinTesting::loopbackDeliversMulticast(kGroup, kPort)) {
    GTEST_SKIP() << "This machine does not deliver multicast on interface lo; the loopback "
                    "announce tests cannot run here.";
  }
  tavrinTesting::LogCapture log;
  tavrinScheduler::Scheduler scheduler{log.logging()};
  tavrinLog::TavrinLogging* logging = log.logging();
  const auto realSocket = [logging]() -> std::unique_ptr<tavrinNetwork::MulticastSocketInterface> {
    return std::make_unique<tavrinNetwork::MulticastSocket>(logging);
  };
  std::vector<SingleAnnouncementData> added;
  std::vector<std::string> errors;
  const auto error = [&](ErrorType::Type, const std::string& text) { errors.push_back(text); };
  // Destroyed in reverse: the slave first, then the master, which says farewell to no one.
  MCAnnounceMaster master(&scheduler, realSocket, 100, logging);
  MCAnnounceSlave slave(&scheduler, realSocket, 500, logging);
  master.setErrorCallback(error);
  master.init(1, 2, "panel", kGroup, kPort, kLoopback, 0, "lo", true);
  master.setMulticastTtl(0);
  slave.setCallbacks([&](const SingleAnnouncementData& a) { added.push_back(a); }, error);
  slave.init(1, kGroup, kPort, "lo");
  slave.addSupportedConnector(0, ConnectorInterfaceType::Client);
  slave.setEnabled(true);
  master.setEnabled(true);
  master.addConnector(3, ConnectorInterfaceType::Client, 0, 4, kConnector);
  master.addAnnouncement(3, 7, 5, "x", true);

  ASSERT_TRUE(runUntil(scheduler, [&] { return !added.empty(); }, 5s)) << log.text();
  EXPECT_EQ(added[0], SingleAnnouncementData(ConnectorInterfaceType::Client, 0, 4, kConnector, 7,
                                             5, "x"));
  auto found = slave.getSingleAnnouncement(4, 7, 5);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->connectorEndpoint, kConnector);
  ASSERT_EQ(slave.getMasters().size(), 1u);
  EXPECT_EQ(slave.getMasters().begin()->first.getIp(), kLoopback);

  // Repeats every 100 ms keep a master with a 500 ms timeout alive and report nothing new.
  runFor(scheduler, 1200ms);
  EXPECT_EQ(slave.getMasters().size(), 1u);
  EXPECT_EQ(added.size(), 1u);

  master.addAnnouncement(3, 8, 5, "y", true);
  ASSERT_TRUE(runUntil(scheduler, [&] { return added.size() == 2; }, 5s)) << log.text();
  EXPECT_EQ(added[1].announcementId, 8u);

  // Disabling withdraws the master at once, not after the slave's timeout.
  master.setEnabled(false);
  ASSERT_TRUE(runUntil(scheduler, [&] { return slave.getMasters().empty(); }, 3s)) << log.text();
  EXPECT_TRUE(log.contains("(no announcements)"));
  EXPECT_TRUE(errors.empty()) << log.text();
}

}  // namespace
}  // namespace tavrinConnector
