#include "tavrincommon/network/MACAddress.h"

#include <gtest/gtest.h>

namespace tavrinNetwork {
namespace {

const unsigned char kBytes[6] = {0x00, 0x0E, 0xA1, 0x12, 0x34, 0x56};

TEST(MACAddressTest, PrintsUpperCaseHexWithAndWithoutColons) {
  EXPECT_STREQ(MACAddress::CharString(kBytes, true).c_str(), "00:0E:A1:12:34:56");
  EXPECT_STREQ(MACAddress::CharString(kBytes, false).c_str(), "000EA1123456");
  const unsigned char ones[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_STREQ(MACAddress::CharString(ones, true).c_str(), "FF:FF:FF:FF:FF:FF");
}

TEST(MACAddressTest, FromStringReadsShortColonComponents) {
  MACAddress mac;
  EXPECT_TRUE(mac.fromString("0:e:a1:12:34:56"));
  EXPECT_EQ(mac, MACAddress(kBytes));
  EXPECT_TRUE(mac.fromString("00:0E:A1:12:34:56 trailing"));
  EXPECT_EQ(mac, MACAddress(kBytes));
}

TEST(MACAddressTest, FromStringZeroesOnMissingComponents) {
  MACAddress mac(kBytes);
  EXPECT_FALSE(mac.fromString("00:0E:A1"));
  EXPECT_EQ(mac, MACAddress());
  mac = MACAddress(kBytes);
  // The first component swallows every digit, and no ':' follows.
  EXPECT_FALSE(mac.fromString("000EA1123456"));
  EXPECT_EQ(mac, MACAddress());
}

TEST(MACAddressTest, FromStringFallsBackToReadMacWithoutHexDigits) {
  MACAddress mac(kBytes);
  EXPECT_FALSE(mac.fromString("xyz"));
  EXPECT_EQ(mac, MACAddress());
}

TEST(MACAddressTest, ReadMacNeedsTwelveDigits) {
  MACAddress mac;
  EXPECT_TRUE(mac.readMac("000EA1123456"));
  EXPECT_EQ(mac, MACAddress(kBytes));
  EXPECT_TRUE(mac.readMac("000ea1123456"));
  EXPECT_EQ(mac, MACAddress(kBytes));
  EXPECT_FALSE(mac.readMac("000EA11234"));
  EXPECT_EQ(mac, MACAddress());
  mac = MACAddress(kBytes);
  EXPECT_FALSE(mac.readMac("00:0E:A1:12:34:56"));
  EXPECT_EQ(mac, MACAddress());
}

}  // namespace
}  // namespace tavrinNetwork
