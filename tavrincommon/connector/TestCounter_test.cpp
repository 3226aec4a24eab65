#include "tavrincommon/connector/TestCounterData.h"
#include "tavrincommon/connector/TestCounterHandler.h"

#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace tavrinConnector {
namespace {

using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

std::unique_ptr<InputMessage> frame(const std::string& payload) {
  OutputMessage out;
  out.getBuffer().write(payload.data(), static_cast<unsigned>(payload.size()));
  out.finalizeMessage(4, 3);
  return std::make_unique<InputMessage>(out.getData(), out.getFrameLength(), true);
}

// One handler connected to recording functions; the data is linked by each test.
class TestCounterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    handler->init(false);
    handler->connected(
        8, 3, false, 30, 0x1F, SimpleEndpoint(SimpleIp("127.0.0.1"), 4000), false, nullptr,
        [this](std::unique_ptr<OutputMessage>&& m) {
          sent.emplace_back(m->getData() + OutputMessage::kHeaderSize,
                            m->getFrameLength() - OutputMessage::kHeaderSize);
        },
        [this](int reason) { disconnects.push_back(reason); });
  }

  std::vector<std::string> sent;
  std::vector<int> disconnects;
  std::vector<int> remoteCounters;
  TestCounterData data{[this](int v) { remoteCounters.push_back(v); }, {}};
  std::unique_ptr<TestCounterHandler> handler = std::make_unique<TestCounterHandler>(nullptr, nullptr);
};

TEST_F(TestCounterTest, SendsOnlyChangesAndTheResetRequestWithoutData) {
  handler->sendRemoteCounterReset();
  data.setCounter(INT_MIN);  // 0 already: nothing to send, nothing linked either
  data.setCounter(5);
  handler->linkData(&data);
  data.setCounter(INT_MIN);
  data.setName(std::string("ab\0c", 4));
  EXPECT_EQ(sent, (std::vector<std::string>{std::string("\x04", 1), std::string("\x03\x05\0\0\0\0", 6),
                                            std::string("\x01\0\0\0\0", 5), std::string("\x02\x02" "ab", 4)}));
}

TEST_F(TestCounterTest, ReceivedFieldsReachTheDataAndACutMessageChangesNothing) {
  handler->receive(frame(std::string("\x01\x09\0\0\0", 5)));  // not linked yet
  EXPECT_EQ(data.getRemoteCounter(), INT_MIN);
  data.setCounter(4);
  handler->linkData(&data);
  sent.clear();
  handler->receive(frame(std::string("\x03\x09\0\0\0\x05x", 7)));  // name longer than the payload
  EXPECT_EQ(data.getRemoteCounter(), INT_MIN);
  handler->receive(frame(std::string("\x07\x09\0\0\0\x03x\0y", 9)));
  EXPECT_EQ(data.getRemoteCounter(), 9);
  EXPECT_EQ(data.getRemoteName(), "x");
  EXPECT_EQ(data.getCounter(), 0);
  EXPECT_EQ(sent, std::vector<std::string>{std::string("\x01\0\0\0\0", 5)});
}

TEST_F(TestCounterTest, UnlinkingFromTheDataSideOrDestroyingEitherSideDisconnects) {
  handler->linkData(&data);
  handler->receive(frame(std::string("\x01\x02\0\0\0", 5)));
  handler->unlinkData(&data, false);  // handler side: the connection stays
  EXPECT_TRUE(disconnects.empty());
  EXPECT_EQ(remoteCounters, (std::vector<int>{2, INT_MIN}));

  data.linkHandler(handler.get());
  data.unlinkHandler();
  EXPECT_EQ(handler->getData(), nullptr);
  EXPECT_EQ(disconnects, std::vector<int>{0});

  {
    TestCounterData scoped{{}, {}};
    scoped.linkHandler(handler.get());
  }
  EXPECT_EQ(handler->getData(), nullptr);
  data.linkHandler(handler.get());
  handler.reset();
  EXPECT_EQ(data.getHandler(), nullptr);
  EXPECT_EQ(disconnects, (std::vector<int>{0, 0, 0}));
}

TEST_F(TestCounterTest, DumpsBothObjects) {
  data.setName("n");
  data.setCounter(2);
  handler->linkData(&data);
  std::ostringstream os;
  handler->dump(os, "> ");
  EXPECT_EQ(os.str(),
            "> ConnectionHandler (TestCounter, version 1, client side):\n"
            ">   Connected (ClusterId 8, connectionId: 3) to remote device 31 (0x1f, IP "
            "127.0.0.1:4000, remote ConnectionId: 30)\n"
            ">   Data linked:\n"
            ">     Name: 'n'\n>     Counter: 2\n>     Handler Linked:\n"
            ">       Connected to: 127.0.0.1:4000 (connection id: 3, remote connection id: 30, "
            "remote device id: 31 (0x1f))\n"
            ">       RemoteName: ''\n>       RemoteCounter: invalid\n> ---\n");
  handler->disconnected(0, true);
  os.str("");
  data.dump(os, "");
  EXPECT_EQ(os.str(), "Name: 'n'\nCounter: 2\nNo handler linked\n  RemoteName: ''\n  RemoteCounter: invalid\n");
}

}  // namespace
}  // namespace tavrinConnector
