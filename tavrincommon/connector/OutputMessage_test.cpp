#include "tavrincommon/connector/OutputMessage.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tavrinConnector {
namespace {

std::vector<unsigned char> frame(const OutputMessage& message) {
  const auto* data = reinterpret_cast<const unsigned char*>(message.getData());
  return std::vector<unsigned char>(data, data + message.getFrameLength());
}

TEST(OutputMessageTest, FieldsAreLittleEndianAndFinalizingTwiceGivesTheSameFrame) {
  OutputMessage empty;
  empty.finalizeMessage(3, 0x01020304);
  EXPECT_EQ(frame(empty), (std::vector<unsigned char>{0xA5, 0x06, 0x00, 0x00, 0x00, 0x03, 0x04,
                                                      0x03, 0x02, 0x01, 0x5A}));

  OutputMessage message(4);
  message.putUInt16(0x1234);
  message.putString("ab");
  message.putUInt8(0x1FF);
  message.putUInt32(0xA1B2C3D4u);
  message.putUInt64(0x0102030405060708ull);
  message.finalizeMessage(4, 0xFFFFFFFFu);
  const std::vector<unsigned char> expected{
      0xA5, 0x18, 0,    0,    0,    0x04, 0xFF, 0xFF, 0xFF, 0xFF, 0x34, 0x12, 0x02, 0x61, 0x62,
      0xFF, 0xD4, 0xC3, 0xB2, 0xA1, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, 0x5A};
  EXPECT_EQ(frame(message), expected);
  message.finalizeMessage(4, 0xFFFFFFFFu);
  EXPECT_EQ(frame(message), expected);
}

TEST(OutputMessageTest, LongStringIsCutTo255BytesAndALargePayloadGrowsTheBufferOnce) {
  OutputMessage message;
  std::string text(300, 'q');
  text[254] = 'e';
  message.putString(text);
  message.finalizeMessage(4, 0);
  ASSERT_EQ(message.getFrameLength(), 11u + 256u);
  EXPECT_EQ(static_cast<unsigned char>(message.getData()[10]), 0xFF);
  EXPECT_EQ(message.getData()[10 + 255], 'e');
  EXPECT_EQ(static_cast<unsigned char>(message.getData()[10 + 256]), 0x5A);

  OutputMessage large;
  for (unsigned i = 0; i < 1025; ++i) large.putUInt8(static_cast<int>(i));
  EXPECT_EQ(large.getBuffer().getCapacity(), 2048u);
  large.finalizeMessage(4, 9);
  ASSERT_EQ(large.getFrameLength(), 1025u + 11u);
  for (unsigned i = 0; i < 1025; ++i)
    ASSERT_EQ(static_cast<unsigned char>(large.getData()[10 + i]), i & 0xFF);
}

}  // namespace
}  // namespace tavrinConnector
