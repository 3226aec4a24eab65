#include "tavrincommon/connector/simpleConnector/SimpleConnectorHandler.h"

#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/testing/LogCapture.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace tavrinConnector {
namespace simpleConnector {
namespace {

using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;
using Block = std::vector<unsigned char>;

// A data frame as the transceiver hands it over: verified, cursor at the payload.
std::unique_ptr<InputMessage> frame(const std::string& payload) {
  OutputMessage out;
  out.getBuffer().write(payload.data(), static_cast<unsigned>(payload.size()));
  out.finalizeMessage(4, 7);
  return std::make_unique<InputMessage>(out.getData(), out.getFrameLength(), true);
}

std::string withLength(uint32_t n, const std::string& bytes) {
  std::string s(4, '\0');
  for (int i = 0; i < 4; ++i) s[i] = static_cast<char>(n >> (8 * i));
  return s + bytes;
}

class SimpleConnectorHandlerTest : public ::testing::Test {
 protected:
  void connect(bool accept = true) {
    acceptResult = accept;
    handler.init(true);
    handler.connected(
        8, 7, false, 12, 0xC8, SimpleEndpoint(SimpleIp("127.0.0.1"), 4000), false, nullptr,
        [this](std::unique_ptr<OutputMessage>&& m) {
          const char* payload = m->getData() + OutputMessage::kHeaderSize;
          sent.emplace_back(payload, m->getFrameLength() - OutputMessage::kHeaderSize);
        },
        [this](int reason) {
          disconnects.push_back(reason);
          handler.disconnected(reason, true);
        });
  }

  tavrinTesting::LogCapture log;
  bool acceptResult = true;
  std::vector<std::string> sent;
  std::vector<int> disconnects;
  std::vector<int> states;
  std::vector<Block> blocks;
  SimpleConnectorHandler handler{
      0x1005, [this](SimpleIp, unsigned, unsigned, SimpleConnectorHandler*) { return acceptResult; },
      [this](SimpleIp ip, unsigned remoteId, unsigned id, int reason) {
        EXPECT_EQ(ip, SimpleIp("127.0.0.1"));
        EXPECT_EQ(remoteId, 12u);
        EXPECT_EQ(id, 7u);
        states.push_back(reason);
      },
      [this](SimpleIp, unsigned, unsigned, std::unique_ptr<Block>&& b) { blocks.push_back(*b); },
      log.logging()};
};

TEST_F(SimpleConnectorHandlerTest, SendsLengthPrefixedBlocksAndNothingForEmptyOnes) {
  EXPECT_EQ(handler.getVersion(), 5);
  connect();
  handler.sendData("abc", 3);
  handler.sendData("x", 0);
  handler.sendData(std::vector<std::string>{});
  handler.sendData(std::vector<std::string>{"", ""});
  handler.sendData(std::vector<std::string>{"ab", "", "c"});
  EXPECT_EQ(sent, (std::vector<std::string>{withLength(3, "abc"), withLength(3, "abc")}));
}

TEST_F(SimpleConnectorHandlerTest, ZeroFillsShortBlocksAndDropsImpossibleLengths) {
  connect();
  handler.receive(frame(withLength(10, "wxyz")));
  handler.receive(frame(withLength(0, "")));
  handler.receive(frame("ab"));  // no room for the length field
  handler.receive(frame(withLength(handler.getMaxBlockLength() + 1, "a")));
  handler.setMaxFrameLength(100);
  handler.receive(frame(withLength(86, "")));
  handler.receive(frame(withLength(85, "")));
  ASSERT_EQ(blocks.size(), 3u);
  EXPECT_EQ(blocks[0], (Block{'w', 'x', 'y', 'z', 0, 0, 0, 0, 0, 0}));
  EXPECT_TRUE(blocks[1].empty());
  EXPECT_EQ(blocks[2], Block(85, 0));
  EXPECT_EQ(log.count("Dropping data message"), 3u) << log.text();
}

TEST_F(SimpleConnectorHandlerTest, LogsEachStepWithItsPrefix) {
  connect();
  handler.disconnect();
  const std::string prefix = "SimpleConnectorHandler 7 (remote: 12 @ 0x000000C8 (127.0.0.1:4000)): ";
  EXPECT_TRUE(log.contains(prefix + "Connected"));
  EXPECT_TRUE(log.contains(prefix + "Disconnecting..."));
  EXPECT_TRUE(log.contains(prefix + "Disconnected"));
  EXPECT_EQ(disconnects, std::vector<int>{1});

  connect(false);
  EXPECT_TRUE(log.contains(prefix + "Connection rejected, disconnecting...")) << log.text();
  EXPECT_EQ(disconnects, (std::vector<int>{1, -9}));
  EXPECT_EQ(states, (std::vector<int>{1, -9}));
  for (const auto& line : log.lines()) EXPECT_EQ(line.severity, tavrinLog::SeverityLevel::Debug);
}

}  // namespace
}  // namespace simpleConnector
}  // namespace tavrinConnector
