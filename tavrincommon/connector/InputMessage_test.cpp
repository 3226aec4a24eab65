#include "tavrincommon/connector/InputMessage.h"

#include "tavrincommon/connector/OutputMessage.h"

#include <gtest/gtest.h>

#include <string>

namespace tavrinConnector {
namespace {

std::string bytes(std::initializer_list<unsigned> values) {
  std::string out;
  for (unsigned v : values) out.push_back(static_cast<char>(v));
  return out;
}
InputMessage make(const std::string& data) {
  return InputMessage(data.data(), static_cast<unsigned>(data.size()), true);
}

TEST(InputMessageTest, VerifiesFramesAndRefusesMalformedOnesLeavingTheCursor) {
  const std::string good = bytes({0xA5, 6, 0, 0, 0, 3, 4, 3, 2, 1, 0x5A});
  InputMessage message = make(good);
  EXPECT_TRUE(message.isValid());
  EXPECT_EQ(message.getLength(), 6u);
  EXPECT_EQ(message.getType(), 3u);
  EXPECT_EQ(message.getAdditionalInfo(), 0x01020304u);
  EXPECT_EQ(message.buffer.getOffset(), 10u);
  // Trailing bytes after the end delimiter are ignored.
  EXPECT_TRUE(make(good + std::string(9, '\x5A')).isValid());

  std::string badStart = good;
  badStart[0] = '\x00';
  std::string badEnd = good;
  badEnd[10] = '\x00';
  std::string tooLong = good;
  tooLong[1] = 7;
  std::string tooShortLength = good + std::string(4, '\0');
  tooShortLength[1] = 3;
  tooShortLength[7] = '\x5A';  // where a length of 3 would look for the end delimiter
  for (const std::string& data : {good.substr(0, 10), badStart, badEnd, tooLong, tooShortLength}) {
    InputMessage bad(data.data(), static_cast<unsigned>(data.size()), false);
    bad.buffer.setOffset(2);
    EXPECT_FALSE(bad.verifyMessage());
    EXPECT_FALSE(bad.isValid());
    EXPECT_EQ(bad.getType(), 0u);
    EXPECT_EQ(bad.buffer.getOffset(), 2u);
  }
}

TEST(InputMessageTest, ReadsBackWhatAnOutputMessageWrote) {
  OutputMessage out;
  out.putUInt8(0xFE);
  out.putUInt16(0xFFFE);
  out.putUInt32(0x80000001u);
  out.putUInt64(0xFFFFFFFFFFFFFFFEull);
  out.putString("hello");
  out.putUInt64(0x0102030405060708ull);
  out.finalizeMessage(4, 77);
  InputMessage in(out.getData(), out.getFrameLength(), true);
  ASSERT_TRUE(in.isValid());
  EXPECT_EQ(in.getInt8(), -2);
  EXPECT_EQ(in.getInt16(), -2);
  EXPECT_EQ(in.getInt32(), static_cast<int32_t>(0x80000001u));
  EXPECT_EQ(in.getInt64(), -2);
  EXPECT_EQ(in.getString(), "hello");
  EXPECT_EQ(in.getUInt64(), 0x0102030405060708ull);
  EXPECT_EQ(InputMessage::getUInt8(in.buffer), 0x5Au);
  EXPECT_EQ(in.buffer.getRemaining(), 0u);
}

TEST(InputMessageTest, ReadersShortOfBytesReturnZeroAndStopAtTheEnd) {
  // Payload: a string length of 5 with only 3 bytes behind it, no end delimiter in view.
  InputMessage text = make(bytes({0xA5, 6, 0, 0, 0, 0, 0, 0, 0, 0, 5, 'a', 'b', 'c'}));
  EXPECT_FALSE(text.isValid());
  text.buffer.setOffset(10);
  EXPECT_EQ(text.getString(), "abc");
  EXPECT_EQ(text.buffer.getRemaining(), 0u);

  InputMessage numbers = make(bytes({1, 2, 3}));
  EXPECT_EQ(numbers.buffer.getOffset(), 0u);
  EXPECT_EQ(numbers.getUInt64(), 0u);
  EXPECT_EQ(numbers.buffer.getRemaining(), 0u);
  EXPECT_EQ(numbers.getUInt16(), 0u);
  EXPECT_EQ(numbers.getString(), "");

  InputMessage moved(std::move(numbers));
  EXPECT_EQ(numbers.getInt32(), 0);
  EXPECT_EQ(numbers.buffer.getData(), nullptr);
}

}  // namespace
}  // namespace tavrinConnector
