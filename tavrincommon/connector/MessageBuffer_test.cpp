#include "tavrincommon/connector/MessageBuffer.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace tavrinConnector {
namespace {

TEST(MessageBufferTest, GrowsByDoublingAndKeepsEarlierBytes) {
  MessageBuffer buffer;
  std::string first(1000, 'x');
  buffer.write(first.data(), 1000);
  buffer.write("0123456789012345678901234567890", 30);
  EXPECT_EQ(buffer.getCapacity(), 2048u);
  buffer.setBytes(7, 3000);
  EXPECT_EQ(buffer.getCapacity(), 4096u);
  EXPECT_EQ(std::string(buffer.getData(), 1000), first);
  EXPECT_EQ(std::string(buffer.getData() + 1000, 3), "012");
  EXPECT_EQ(buffer.getDataLength(), 4030u);

  MessageBuffer empty;
  empty.resetToEmpty();
  EXPECT_EQ(empty.getData(), nullptr);
  empty.write("ab", 2);
  EXPECT_EQ(empty.getCapacity(), 1024u);
}

TEST(MessageBufferTest, ReadersAndCursorMovesStayInsideTheData) {
  MessageBuffer buffer("abcdef", 6);
  buffer.setOffset(4);
  char out[8] = {};
  EXPECT_EQ(buffer.read(out, 8), 2u);
  EXPECT_EQ(std::string(out, 2), "ef");
  EXPECT_EQ(buffer.read(out, 8), 0u);
  buffer.setOffset(7);  // beyond the data: ignored
  EXPECT_EQ(buffer.getOffset(), 6u);
  buffer.moveOffset(-7);
  EXPECT_EQ(buffer.getOffset(), 6u);
  buffer.moveOffset(-6);
  EXPECT_EQ(buffer.getOffset(), 0u);
  buffer.moveOffset(7);
  EXPECT_EQ(buffer.getOffset(), 0u);

  unsigned n = 10;
  buffer.accessRawData(n);
  EXPECT_EQ(n, 6u);
}

TEST(MessageBufferTest, ResetKeepsLargeEnoughStorageAndMoveEmptiesTheSource) {
  MessageBuffer buffer(2048);
  buffer.write("abc", 3);
  const char* storage = buffer.getData();
  buffer.reset(1024);
  EXPECT_EQ(buffer.getData(), storage);
  buffer.reset(4096);
  EXPECT_EQ(buffer.getCapacity(), 4096u);
  buffer.write("abc", 3);
  MessageBuffer moved(std::move(buffer));
  EXPECT_EQ(buffer.getData(), nullptr);
  EXPECT_EQ(buffer.getDataLength(), 0u);
  EXPECT_EQ(std::string(moved.getData(), moved.getDataLength()), "abc");
}

}  // namespace
}  // namespace tavrinConnector
