// The pending-connection time-out: a 10 s deadline checked every 5005 ms, so these tests take
// about 15 s and carry the label "slow".
#include "tavrincommon/connector/TCPConnectorBase.h"

#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/TCPConnectorSlave.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/ConnectorFrames.h"
#include "tavrincommon/testing/FakeTCPSocket.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/RecordingHandler.h"
#include "tavrincommon/testing/RunUntil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

namespace tavrinConnector {
namespace {

using namespace std::chrono_literals;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;
using tavrinTesting::CountedTag;

TEST(TCPConnectorBaseTest, PendingRequestsTimeOutBetweenTenAndFifteenSeconds) {
  tavrinTesting::LogCapture log;
  tavrinScheduler::Scheduler scheduler(log.logging());
  struct Report {
    unsigned id;
    int reason;
    std::chrono::steady_clock::duration after;
  };
  std::vector<Report> reports;
  int destroyed = 0;
  const auto start = std::chrono::steady_clock::now();
  TCPConnectorSlave slave(
      &scheduler,
      [](const SimpleEndpoint&, const SimpleIp&, bool& connectedNow, bool) {
        connectedNow = true;
        return std::make_unique<tavrinTesting::FakeTCPSocket>();
      },
      log.logging());
  // The silent fake peer must not end the TCP connections before the requests time out.
  slave.initCommon(2, 200, ConnectorInterfaceType::Client, SimpleIp("127.0.0.1"),
                   ConnectionTimeout{30, 5}, false);
  slave.addConnectionHandler(
      5, 1, tavrinTesting::RecordingHandler::factory(5, 1, std::make_shared<tavrinTesting::HandlerRecord>()));
  slave.addConnectionRejectedCallback(
      5, [&](const SimpleEndpoint&, unsigned, unsigned id, int reason, unsigned, unsigned short,
             const CustomConnectData* data) {
        EXPECT_NE(data, nullptr);
        reports.push_back({id, reason, std::chrono::steady_clock::now() - start});
      });
  slave.setEnabled(true);
  const SimpleEndpoint first(SimpleIp("127.0.0.1"), 4000);
  const SimpleEndpoint second(SimpleIp("127.0.0.1"), 4001);
  ASSERT_TRUE(slave.connect(first, 8, 5, 12, 1, std::make_unique<CountedTag>(&destroyed)));
  EXPECT_TRUE(slave.isActive());
  tavrinTesting::runFor(scheduler, 3s);
  ASSERT_TRUE(slave.connect(second, 8, 5, 13, 2, std::make_unique<CountedTag>(&destroyed)));

  ASSERT_TRUE(tavrinTesting::runUntil(scheduler, [&] { return reports.size() == 2; }, 20s));
  EXPECT_EQ(reports[0].id, 1u);
  EXPECT_EQ(reports[0].reason, DisconnectReason::timeout);
  EXPECT_GE(reports[0].after, 10s);
  EXPECT_LT(reports[0].after, 11s);  // the second run of the 5005 ms check
  EXPECT_EQ(reports[1].id, 2u);
  EXPECT_GE(reports[1].after, 13s);
  EXPECT_LT(reports[1].after, 16s);  // one run later
  EXPECT_EQ(destroyed, 2);
  // The time-out is armed only while something is pending; the TCP connections lost their
  // only logical connection and are closed.
  EXPECT_FALSE(slave.isActive());
  EXPECT_EQ(slave.getPendingConnectionCount(), 0u);
  ASSERT_TRUE(tavrinTesting::runUntil(scheduler, [&] { return slave.getTCPConnectionCount() == 0; }));
}

}  // namespace
}  // namespace tavrinConnector
