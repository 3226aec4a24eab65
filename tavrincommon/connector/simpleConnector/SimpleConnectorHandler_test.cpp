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

TEST_F(SimpleConnectorHandlerTest, ZeroFillsShortBlocksAndDropsLengthsNoFrameCanCarry) {
  handler.receive(frame(10, "wxyz"));
  handler.receive(frame(0, ""));
  handler.receive(frame(handler.getMaxBlockLength() + 1, "a"));
  handler.setMaxFrameLength(100);  // a frame of 100 bytes carries a block of 85
  handler.receive(frame(86, ""));
  handler.receive(frame(85, ""));
  const std::vector<Block> expected = {{'w', 'x', 'y', 'z', 0, 0, 0, 0, 0, 0}, {}, Block(85, 0)};
  EXPECT_EQ(blocks, expected);
  EXPECT_EQ(log.count("Dropping data message: declared block length"), 2u) << log.text();
}

}  // namespace
}  // namespace simpleConnector
}  // namespace tavrinConnector
