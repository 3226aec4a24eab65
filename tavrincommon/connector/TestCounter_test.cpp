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
using Payloads = std::vector<std::string>;

std::unique_ptr<InputMessage> frame(const std::string& payload) {
  OutputMessage out;
  out.getBuffer().write(payload.data(), static_cast<unsigned>(payload.size()));
  out.finalizeMessage(4, 3);
  return std::make_unique<InputMessage>(out.getData(), out.getFrameLength(), true);
}

// A connected handler whose sends and disconnect requests are recorded.
class TestCounterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    handler->init(false);
    connect();
  }

  void connect() {
    handler->connected(
        8, 3, false, 30, 31, SimpleEndpoint(SimpleIp("127.0.0.1"), 4000), false, nullptr,
        [this](std::unique_ptr<OutputMessage>&& m) {
          sent.emplace_back(m->getData() + OutputMessage::kHeaderSize,
                            m->getFrameLength() - OutputMessage::kHeaderSize);
        },
        [this](int reason) { disconnects.push_back(reason); });
  }

  Payloads sent;
  std::vector<int> disconnects;
  TestCounterData data{nullptr, nullptr};
  std::unique_ptr<TestCounterHandler> handler =
      std::make_unique<TestCounterHandler>(nullptr, nullptr);
};

TEST_F(TestCounterTest, SendsChangesOnlyAndDestroyingTheHandlerDisconnectsAndClearsTheData) {
  handler->sendRemoteCounterReset();  // even without data
  data.setCounter(5);
  handler->linkData(&data);
  data.setCounter(INT_MIN);
  data.setCounter(0);
  data.setName(std::string("ab\0c", 4));
  handler->receive(frame(std::string("\x03\x02\0\0\0\x01r", 7)));
  EXPECT_EQ(sent,
            (Payloads{"\x04", std::string("\x03\x05\0\0\0\0", 6), std::string("\x01\0\0\0\0", 5),
                      std::string{'\x02', '\x02', 'a', 'b'}}));
  handler.reset();
  EXPECT_EQ(disconnects, std::vector<int>{0});
  EXPECT_EQ(data.getHandler(), nullptr);
  std::ostringstream os;
  data.dump(os, "> ");
  EXPECT_NE(os.str().find(">   RemoteCounter: invalid\n"), std::string::npos) << os.str();
}

TEST_F(TestCounterTest, AppliesAReceivedMessageOnlyWhenItIsWhole) {
  data.setCounter(4);
  handler->linkData(&data);
  sent.clear();
  handler->receive(frame(std::string("\x03\x09\0\0\0\x05x", 7)));  // name cut short
  EXPECT_EQ(data.getRemoteCounter(), INT_MIN);
  handler->receive(frame(std::string("\x07\x09\0\0\0\x03x\0y", 9)));
  EXPECT_EQ(data.getRemoteCounter(), 9);
  EXPECT_EQ(data.getRemoteName(), "x");
  EXPECT_EQ(sent, Payloads{std::string("\x01\0\0\0\0", 5)});  // the reset counter goes back
}

TEST_F(TestCounterTest, CallbacksReplacedFromInsideThemselvesApplyFromTheNextCall) {
  std::vector<std::string> seen;
  const std::string tag(40, 'x');  // too large for std::function's inline storage
  data.setCallbacks(
      [&, tag](int value) {
        data.setCallbacks([&](int) { seen.push_back("new counter"); }, nullptr);
        seen.push_back(tag.substr(0, 1) + std::to_string(value));
      },
      nullptr);
  data.setRemoteCounter(1);
  data.setRemoteCounter(2);
  handler->setCallbacks(nullptr, [&, tag](unsigned int id) {
    handler->setCallbacks(nullptr, [&](unsigned int) { seen.push_back("new disconnected"); });
    seen.push_back(tag.substr(0, 1) + std::to_string(id));
  });
  handler->disconnected(-1, true);
  connect();
  handler->disconnected(-1, true);
  EXPECT_EQ(seen, (std::vector<std::string>{"x1", "new counter", "x3", "new disconnected"}));
}

}  // namespace
}  // namespace tavrinConnector
