#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"

#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/connector/internal/HeapCost.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/FakeTCPSocket.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/RunUntil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <set>
#include <sstream>
#include <string>

namespace tavrinConnector {
namespace {

using namespace std::chrono_literals;
using tavrinTesting::runFor;
using tavrinTesting::runUntil;

std::string frameOf(uint32_t info, const std::string& payload) {
  OutputMessage message;
  for (char c : payload) message.putUInt8(c);
  message.finalizeMessage(4, info);
  return std::string(message.getData(), message.getFrameLength());
}

class SingleTCPConnectionEndpointTest : public ::testing::Test {
 protected:
  void make(int idleTimeoutMs, int keepAliveTimeoutMs) {
    auto socket = std::make_unique<tavrinTesting::FakeTCPSocket>();
    fake = socket.get();
    endpoint = std::make_unique<SingleTCPConnectionEndpoint>(
        tavrinNetwork::SimpleEndpoint(tavrinNetwork::SimpleIp("127.0.0.1"), 4000),
        std::move(socket), true, [this] { ++events; }, &scheduler, idleTimeoutMs,
        keepAliveTimeoutMs, log.logging());
  }
  bool closed() const { return !endpoint->isConnected(); }
  bool until(const std::function<bool()>& condition) { return runUntil(scheduler, condition); }

  tavrinTesting::LogCapture log;
  tavrinScheduler::Scheduler scheduler{log.logging()};
  tavrinTesting::FakeTCPSocket* fake = nullptr;
  int events = 0;
  std::unique_ptr<SingleTCPConnectionEndpoint> endpoint;
};

TEST_F(SingleTCPConnectionEndpointTest, ConnectionWithoutLogicalConnectionsClosesAfterIdleTime) {
  make(100, 5000);
  const auto start = std::chrono::steady_clock::now();
  // Whatever the peer sends (pings, say), a connection that carries nothing is closed.
  int sent = 0;
  while (!closed() && std::chrono::steady_clock::now() - start < 3s) {
    fake->addChunk(frameOf(1, "ping"));
    ++sent;
    runFor(scheduler, 20ms);
  }
  ASSERT_TRUE(closed());
  EXPECT_GE(std::chrono::steady_clock::now() - start, 90ms);
  EXPECT_GT(sent, 1);
  EXPECT_LE(events, sent + 1) << "one per frame read, then the end";
  EXPECT_TRUE(
      log.contains("Keep alive timer expired on TCP connection socket 127.0.0.1:4000, "
                   "closing the connection!"));
  std::ostringstream out;
  endpoint->dump(out, "> ");
  EXPECT_NE(out.str().find("Logical Connections: none (idleTimer expired)"), std::string::npos);

  // Without an idle time of its own the idle period is the keep-alive time-out.
  make(0, 100);
  EXPECT_TRUE(endpoint->isTimerArmed());
  EXPECT_TRUE(until([&] { return closed(); }));
}

TEST_F(SingleTCPConnectionEndpointTest,
       TrafficKeepsALogicalConnectionAliveUntilThePeerFallsSilent) {
  make(50, 200);
  endpoint->addLogicalConnection(1);
  const auto end = std::chrono::steady_clock::now() + 600ms;
  while (std::chrono::steady_clock::now() < end) {
    fake->addChunk(frameOf(1, "ping"));
    runFor(scheduler, 50ms);
    ASSERT_FALSE(closed()) << log.text();
  }
  EXPECT_GE(endpoint->getMaxKeepAliveTime(), 40);
  EXPECT_TRUE(log.contains("maximum time between resets increased to"));
  ASSERT_TRUE(until([&] { return closed(); }));
  // Ending the logical connections is the connector's business once it has been told.
  EXPECT_TRUE(endpoint->hasLogicalConnection(1));
}

TEST_F(SingleTCPConnectionEndpointTest, LastLogicalConnectionRemovedStartsTheIdlePeriod) {
  // A keep-alive time-out of zero: the timer runs only for the idle period.
  make(5000, 0);
  EXPECT_TRUE(endpoint->isTimerArmed());
  endpoint->addLogicalConnection(1);
  EXPECT_FALSE(endpoint->isTimerArmed());
  fake->addChunk(frameOf(1, "data"));
  ASSERT_TRUE(until([&] { return endpoint->getReceiveQueueSize() == 1; }));
  EXPECT_FALSE(endpoint->isTimerArmed());

  make(100, 5000);
  endpoint->addLogicalConnection(5);
  endpoint->addLogicalConnection(7);
  endpoint->addLogicalConnection(7);
  EXPECT_TRUE(endpoint->hasLogicalConnection(7));
  EXPECT_FALSE(endpoint->removeLogicalConnection(5));
  runFor(scheduler, 150ms);  // keep-alive period now: the idle time has no effect
  EXPECT_FALSE(closed());
  EXPECT_TRUE(endpoint->removeLogicalConnection(7));
  EXPECT_TRUE(endpoint->isTimerArmed());
  EXPECT_TRUE(until([&] { return closed(); }));
}

TEST_F(SingleTCPConnectionEndpointTest, FramesOutliveTheEndOfTheStreamUntilDisconnect) {
  make(5000, 5000);
  fake->addChunk(frameOf(11, "first"));
  ASSERT_TRUE(until([&] { return events == 1; }));
  std::unique_ptr<InputMessage> message = endpoint->fetchReceivedMessage();
  ASSERT_TRUE(message);
  EXPECT_EQ(message->getAdditionalInfo(), 11u);
  EXPECT_FALSE(endpoint->fetchReceivedMessage());

  // The peer's last frame before its close is still there for the connector to handle.
  fake->addChunk(frameOf(12, "last words"));
  fake->addEndOfStream();
  ASSERT_TRUE(until([&] { return closed(); }));
  EXPECT_EQ(events, 3);  // the frame, then the end
  message = endpoint->fetchReceivedMessage();
  ASSERT_TRUE(message);
  EXPECT_EQ(message->getAdditionalInfo(), 12u);

  fake->addChunk(frameOf(13, "x"));
  endpoint->disconnect();
  EXPECT_FALSE(endpoint->fetchReceivedMessage());
  EXPECT_EQ(endpoint->getReceiveQueueBytes(), 0u);
}

TEST_F(SingleTCPConnectionEndpointTest, AFullReceiveQueuePausesReadingAndLosesNothing) {
  make(5000, 5000);
  endpoint->setReceiveQueueBounds(4, 1 << 20);
  for (uint32_t i = 0; i < 10; ++i) fake->addChunk(frameOf(i, "n"));
  runFor(scheduler, 50ms);
  EXPECT_EQ(endpoint->getReceiveQueueSize(), 4u);
  EXPECT_EQ(fake->pendingReads(), 6u) << "the socket is not read while the queue is full";
  EXPECT_EQ(endpoint->getReadPauses(), 1u);

  uint32_t expected = 0;
  while (expected < 10) {
    ASSERT_TRUE(until([&] { return endpoint->getReceiveQueueSize() > 0; }));
    std::unique_ptr<InputMessage> message = endpoint->fetchReceivedMessage();
    ASSERT_EQ(message->getAdditionalInfo(), expected++) << "in order, none dropped";
    EXPECT_LE(endpoint->getReceiveQueueSize(), 4u);
  }
  EXPECT_FALSE(closed());
}

TEST_F(SingleTCPConnectionEndpointTest, HandledFramesBecomeSparesForTheNextBurstWithinTheBound) {
  make(5000, 5000);
  const std::string payload(1000, 'x');
  const std::string sample = frameOf(0, payload);
  const InputMessage probe(sample.data(), static_cast<unsigned>(sample.size()), true);
  const size_t cost = internal::heapCost(probe);
  const size_t bound = 6 * cost + cost / 2;
  endpoint->setReceiveQueueBounds(1000, bound);
  for (uint32_t i = 0; i < 12; ++i) fake->addChunk(frameOf(i, payload));
  ASSERT_TRUE(until([&] { return endpoint->getReadPauses() == 1; }));
  EXPECT_EQ(endpoint->getReceiveQueueSize(), 6u) << "paused before a seventh would pass the bound";

  std::set<const InputMessage*> first;
  while (std::unique_ptr<InputMessage> message = endpoint->fetchReceivedMessage()) {
    first.insert(message.get());
    endpoint->recycle(std::move(message));
  }
  EXPECT_EQ(endpoint->getTransceiver().getSpareInputBytes(), 6 * cost)
      << "every handled frame is kept: spares alone never pause reading";

  ASSERT_TRUE(until([&] { return endpoint->getReadPauses() == 2; }));
  EXPECT_EQ(endpoint->getReceiveQueueSize(), 6u);
  EXPECT_LE(endpoint->getReceiveQueueBytes() + endpoint->getTransceiver().getSpareInputBytes(),
            bound);
  uint32_t expected = 6;
  while (std::unique_ptr<InputMessage> message = endpoint->fetchReceivedMessage()) {
    EXPECT_EQ(message->getAdditionalInfo(), expected++);
    EXPECT_EQ(first.count(message.get()), 1u) << "a frame of the second burst got a new message";
  }
  EXPECT_EQ(expected, 12u);
}

TEST_F(SingleTCPConnectionEndpointTest, DscpFailureClosesTheConnection) {
  make(5000, 5000);
  EXPECT_TRUE(endpoint->setDscp(46));
  EXPECT_EQ(fake->dscp, 46);
  fake->dscpResult = false;
  EXPECT_FALSE(endpoint->setDscp(10));
  EXPECT_TRUE(closed());
  EXPECT_TRUE(log.contains(
      "Failed to set DSCP to 10 on TCP connection socket 127.0.0.1:4000, closing the connection!"));
  EXPECT_FALSE(endpoint->setDscp(46));
}

TEST_F(SingleTCPConnectionEndpointTest,
       DumpsInOrderAndDisconnectClearsAllAndTellsTheConnectorOnce) {
  make(5000, 5000);
  endpoint->addLogicalConnection(9);
  endpoint->addLogicalConnection(3);
  std::ostringstream out;
  endpoint->dump(out, "# ");
  EXPECT_EQ(out.str(), "# 127.0.0.1:4000: connected, receive queue size: 0, socket fd: " +
                           std::to_string(fake->getFd()) +
                           ", keepAlive timeout: 5000ms, maxKeepAliveTime: 0ms, total bytes "
                           "received: 0, total bytes sent: 0\n"
                           "#   Logical Connections (2):\n"
                           "#     3\n"
                           "#     9\n"
                           "#   --- (2) ---\n");
  endpoint->disconnect();
  endpoint->disconnect();
  EXPECT_EQ(events, 1);
  EXPECT_FALSE(endpoint->hasLogicalConnection(3));
  EXPECT_FALSE(endpoint->isTimerArmed());
  EXPECT_FALSE(endpoint->fetchReceivedMessage());
  endpoint.reset();
  EXPECT_EQ(events, 1);
}

}  // namespace
}  // namespace tavrinConnector
