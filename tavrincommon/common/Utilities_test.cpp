#include "tavrincommon/common/Utilities.h"

#include <cstdint>

#include <gtest/gtest.h>

namespace tavrinCommon {
namespace {

TEST(UtilitiesTest, NumberParsingReportsSuccessAndAllowsTrailingText) {
  EXPECT_EQ(stringToLong("12abc", 10), std::make_pair(true, 12L));
  EXPECT_EQ(stringToLong("abc", 10), std::make_pair(false, 0L));
  EXPECT_EQ(stringToLong(nullptr, 10), std::make_pair(false, 0L));
  // A 64-bit parse keeping the low 32 bits.
  EXPECT_EQ(stringToUInt32("4294967301", 10), std::make_pair(true, uint32_t(5)));
  EXPECT_EQ(stringToUInt32("-1", 10), std::make_pair(true, uint32_t(0xFFFFFFFF)));
  EXPECT_EQ(stringToInt64("-9223372036854775807", 10),
            std::make_pair(true, int64_t(-9223372036854775807LL)));
  EXPECT_EQ(stringToUint64("18446744073709551615", 10),
            std::make_pair(true, uint64_t(18446744073709551615ULL)));
}

TEST(UtilitiesTest, SixtyFourBitByteOrderAndMacHelpers) {
  const unsigned long long value = 0x0102030405060708ULL;
  EXPECT_EQ(htonll(value), 0x0807060504030201ULL);
  EXPECT_EQ(ntohll(htonll(value)), value);
  // The signed overload and the template for other 64-bit types forward to the same swap.
  EXPECT_EQ(ntohll(0x0807060504030201LL), 0x0102030405060708LL);
  EXPECT_EQ(htonll(uint64_t(0xFF)), uint64_t(0xFF00000000000000ULL));
  EXPECT_STREQ(
      tavrinNetwork::MACAddress::CharString(multicastIp2Mac(tavrinNetwork::SimpleIp("239.255.1.2")))
          .c_str(),
      "01:00:5E:7F:01:02");
  const unsigned char bytes[6] = {0x00, 0x0E, 0xA1, 0x12, 0x34, 0x56};
  const tavrinNetwork::MACAddress mac(bytes);
  EXPECT_EQ(getMacHigher2Bytes(mac), 0x000Eu);
  EXPECT_EQ(getMacLower4Bytes(mac), 0xA1123456u);
}

TEST(UtilitiesTest, PrefixSuffixAndTrimmingStayInsideTheText) {
  EXPECT_TRUE(beginsWith("abc", "ab"));
  EXPECT_FALSE(beginsWith("abc", "abcd"));
  EXPECT_TRUE(endsWith("abc", "bc"));
  EXPECT_FALSE(endsWith("abc", "zabc"));
  EXPECT_EQ(trimWhiteSpaces(" \tx y\r\n"), "x y");
  EXPECT_EQ(trimWhiteSpaces(" \t\r\n"), "");
}

}  // namespace
}  // namespace tavrinCommon
