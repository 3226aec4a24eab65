#include "tavrincommon/common/StringHelper.h"

#include <gtest/gtest.h>

namespace tavrinCommon {
namespace {

using Pieces = std::vector<std::string>;

TEST(StringHelperTest, FormatsToExactLength) {
  EXPECT_EQ(stringHelper::format("%s-%d-%05.1f", "ab", 42, 3.14159), "ab-42-003.1");
  EXPECT_EQ(stringHelper::format("%s", ""), "");
  const std::string longText(5000, 'x');
  EXPECT_EQ(stringHelper::format("<%s>", longText.c_str()), "<" + longText + ">");
}

TEST(StringHelperTest, SplitKeepsEmptyPieces) {
  EXPECT_EQ(stringHelper::split(",a,,b,", ","), (Pieces{"", "a", "", "b", ""}));
  EXPECT_EQ(stringHelper::split("", ","), (Pieces{""}));
  EXPECT_EQ(stringHelper::split("a::b:::c", "::"), (Pieces{"a", "b", ":c"}));
  EXPECT_EQ(stringHelper::split("abc", ""), (Pieces{"abc"}));
}

}  // namespace
}  // namespace tavrinCommon
