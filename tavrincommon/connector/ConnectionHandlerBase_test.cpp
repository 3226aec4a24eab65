#include "tavrincommon/connector/ConnectionHandlerBase.h"

#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/testing/ConnectorFrames.h"
#include "tavrincommon/testing/RecordingHandler.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace tavrinConnector {
namespace {

using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;
using tavrinTesting::CountedTag;
using tavrinTesting::HandlerRecord;
using tavrinTesting::RecordingHandler;

class ConnectionHandlerBaseTest : public ::testing::Test {
 protected:
  void connect(unsigned int id = 12) {
    handler.connected(
        8, id, true, 40, 0x1234, SimpleEndpoint(SimpleIp("127.0.0.1"), 5000), false, nullptr,
        [this](std::unique_ptr<OutputMessage>&&) { ++sent; },
        [this](int reason) { disconnectReasons.push_back(reason); });
  }

  std::shared_ptr<HandlerRecord> record = std::make_shared<HandlerRecord>();
  RecordingHandler handler{5, 2, record};
  int sent = 0;
  std::vector<int> disconnectReasons;
};

TEST_F(ConnectionHandlerBaseTest, ConnectedStoresTheConnectionAndDisconnectedClearsIt) {
  std::string seenInDisconnected;
  record->onDisconnected = [&](RecordingHandler& h, unsigned id, int reason) {
    seenInDisconnected += std::to_string(id) + "/" + std::to_string(reason) + "/" +
                          std::to_string(h.isConnected()) + "/" +
                          std::to_string(h.getRemoteConnectionId()) + "/" +
                          std::to_string(h.getRemoteDeviceId()) + ";";
  };
  handler.init(true);
  connect();
  // A second connected changes nothing.
  handler.connected(9, 13, false, 41, 1, SimpleEndpoint(), false, nullptr, {}, {});
  EXPECT_EQ(record->count("connected"), 1u);
  std::ostringstream connectedDump;
  handler.dump(connectedDump, "# ");
  EXPECT_EQ(connectedDump.str(),
            "# ConnectionHandler (SimpleConnector, version 2, server side):\n"
            "#   Connected (ClusterId 8, connectionId: 12 (automatic)) to remote device 4660 "
            "(0x1234, IP 127.0.0.1:5000, remote ConnectionId: 40)\n"
            "# ---\n");

  handler.requestDisconnect(3);
  handler.disconnected(-4, true);
  // Inside the hook the connection is already ended but the remote ids are still there.
  EXPECT_EQ(seenInDisconnected, "12/-4/0/40/4660;");
  EXPECT_TRUE(record->lastOf("disconnected").last);
  EXPECT_EQ(handler.getClusterId(), 0xFFFFFFFFu);
  EXPECT_EQ(handler.getRemoteConnectionId(), 0xFFFFFFFFu);
  EXPECT_EQ(handler.getRemoteDeviceId(), 0xFFFFFFFFu);
  EXPECT_FALSE(handler.isAutomatic());
  EXPECT_EQ(handler.getRemoteEndpoint(), SimpleEndpoint());
  std::ostringstream notConnected;
  handler.dump(notConnected, 12, "> ");
  EXPECT_NE(notConnected.str().find(">   Not connected (ConnectionId: 12)\n"), std::string::npos);

  // Not connected: the functions are the harmless ones, and nothing reaches the old ones.
  handler.disconnected(-4, true);
  handler.requestDisconnect(5);
  EXPECT_EQ(disconnectReasons, std::vector<int>{3});
  EXPECT_EQ(seenInDisconnected, "12/-4/0/40/4660;");
}

TEST_F(ConnectionHandlerBaseTest, MoveIsIgnoredUnlessTheHandlerAllowsIt) {
  connect();
  std::vector<int> newReasons;
  for (const bool allowed : {false, true}) {
    handler.setMoveAllowed(allowed);
    handler.moveConnection(
        77, 99, SimpleEndpoint(SimpleIp("127.0.0.2"), 6000), false, true,
        [](std::unique_ptr<OutputMessage>&&) {}, [&](int r) { newReasons.push_back(r); });
    EXPECT_EQ(record->count("moved"), allowed ? 1u : 0u);
    EXPECT_EQ(handler.getRemoteConnectionId(), allowed ? 77u : 40u);
    handler.requestDisconnect(allowed ? 2 : 1);
  }
  // Before the move the old disconnect function, after it the new one.
  EXPECT_EQ(disconnectReasons, std::vector<int>{1});
  EXPECT_EQ(newReasons, std::vector<int>{2});
  EXPECT_EQ(handler.getConnectionId(), 12u);
  EXPECT_EQ(handler.getClusterId(), 8u);
  EXPECT_EQ(handler.getRemoteDeviceId(), 99u);
}

TEST_F(ConnectionHandlerBaseTest, CustomDataLivesUntilReplacedOrDestroyed) {
  int destroyed = 0;
  {
    RecordingHandler local(5, 2, record);
    local.connected(1, 2, false, 3, 4, SimpleEndpoint(), false,
                    std::make_unique<CountedTag>(&destroyed), {}, {});
    local.disconnected(0, true);
    EXPECT_EQ(destroyed, 0);
    ASSERT_NE(local.getCustomConnectData(), nullptr);
    local.connected(1, 2, false, 3, 4, SimpleEndpoint(), false,
                    std::make_unique<CountedTag>(&destroyed), {}, {});
    EXPECT_EQ(destroyed, 1);
  }
  EXPECT_EQ(destroyed, 2);
}

}  // namespace
}  // namespace tavrinConnector
