#include "tavrincommon/connector/simpleConnector/SimpleConnectorHandler.h"

#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/network/SimpleEndpoint.h"
#include "tavrincommon/testing/LogCapture.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tavrinConnector {
namespace simpleConnector {
namespace {

using Block = std::vector<unsigned char>;

// A verified data frame whose payload is a block length and `bytes`.
std::unique_ptr<InputMessage> frame(uint32_t length, const std::string& bytes) {
  OutputMessage out;
  out.putUInt32(length);
  out.getBuffer().write(bytes.data(), static_cast<unsigned>(bytes.size()));
  out.finalizeMessage(4, 7);
  return std::make_unique<InputMessage>(out.getData(), out.getFrameLength(), true);
}

class SimpleConnectorHandlerTest : public ::testing::Test {
 protected:
  tavrinTesting::LogCapture log;
  std::vector<Block> blocks;
  SimpleConnectorHandler handler{
      5, nullptr, nullptr,
      [this](tavrinNetwork::SimpleIp, unsigned, unsigned, std::unique_ptr<Block>&& block) {
        blocks.push_back(*block);
      },
      log.logging()};
};

TEST_F(SimpleConnectorHandlerTest, ZeroFillsShortBlocksButDropsLengthsBeyondTheSlackOrTheFrame) {
  const uint32_t slack = SimpleConnectorHandler::kZeroFillSlack;
  handler.receive(frame(10, "wxyz"));
  handler.receive(frame(0, ""));
  handler.receive(frame(4 + slack, "wxyz"));
  handler.receive(frame(5 + slack, "wxyz"));
  // A 15-byte frame that declares the largest block a frame carries.
  handler.receive(frame(handler.getMaxBlockLength(), ""));
  handler.setMaxFrameLength(100);  // the base's bound: a frame of 100 bytes carries 85
  handler.receive(frame(86, std::string(86, 'q')));
  handler.receive(frame(85, ""));
  Block filled = {'w', 'x', 'y', 'z'};
  filled.resize(4 + slack, 0);
  const std::vector<Block> expected = {
      {'w', 'x', 'y', 'z', 0, 0, 0, 0, 0, 0}, {}, filled, Block(85, 0)};
  EXPECT_EQ(blocks, expected);
  EXPECT_EQ(log.count("Dropping data message: declared block length"), 3u) << log.text();
  handler.setMaxFrameLength(0);
  EXPECT_EQ(handler.getMaxBlockLength(), (1u << 20) - SimpleConnectorHandler::kBlockOverhead);
}

TEST_F(SimpleConnectorHandlerTest, SendsNothingThatAFrameOfTheBoundCannotCarry) {
  std::vector<uint32_t> sentLengths;
  EXPECT_FALSE(handler.sendData("a", 1));  // not connected
  handler.connected(1, 2, false, 3, 4, tavrinNetwork::SimpleEndpoint(), false, nullptr,
                    [&](std::unique_ptr<OutputMessage>&& message) {
                      sentLengths.push_back(message->getFrameLength() - OutputMessage::kHeaderSize);
                    },
                    {});
  handler.setMaxFrameLength(100);
  const std::string largest(85, 'b');
  EXPECT_TRUE(handler.sendData(largest.data(), 85));
  EXPECT_TRUE(handler.sendData(std::vector<std::string>{"ab", "", "c"}));
  EXPECT_FALSE(handler.sendData((largest + "c").data(), 86));
  EXPECT_FALSE(handler.sendData(std::vector<std::string>{largest, "c"}));
  EXPECT_FALSE(handler.sendData("", 0));
  EXPECT_FALSE(handler.sendData(std::vector<std::string>{"", ""}));
  EXPECT_EQ(sentLengths, (std::vector<uint32_t>{4 + 85, 4 + 3}));
  EXPECT_EQ(log.count("Not sending a block of 86 bytes: a frame carries at most 85"), 2u)
      << log.text();
}

TEST_F(SimpleConnectorHandlerTest, DataCallbackReplacedFromInsideItselfServesTheNextBlock) {
  std::vector<size_t> seen;
  const std::string tag(40, 'x');  // too large for std::function's inline storage
  handler.setCallbacks(
      nullptr, nullptr,
      [&, tag](tavrinNetwork::SimpleIp, unsigned, unsigned, std::unique_ptr<Block>&&) {
        handler.setCallbacks(nullptr, nullptr,
                             [&](tavrinNetwork::SimpleIp, unsigned, unsigned,
                                 std::unique_ptr<Block>&&) { seen.push_back(2); });
        seen.push_back(tag.size());  // the replaced function's own capture
      });
  handler.receive(frame(1, "a"));
  handler.receive(frame(1, "b"));
  EXPECT_EQ(seen, (std::vector<size_t>{40, 2}));
}

}  // namespace
}  // namespace simpleConnector
}  // namespace tavrinConnector
