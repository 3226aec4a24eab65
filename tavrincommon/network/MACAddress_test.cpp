#include "tavrincommon/network/MACAddress.h"

#include <gtest/gtest.h>

namespace tavrinNetwork {
namespace {

const unsigned char kBytes[6] = {0x00, 0x0E, 0xA1, 0x12, 0x34, 0x56};

TEST(MACAddressTest, PrintsUpperCaseHexWithAndWithoutColons) {
  EXPECT_STREQ(MACAddress::CharString(kBytes, true).c_str(), "00:0E:A1:12:34:56");
  EXPECT_STREQ(MACAddress::CharString(kBytes, false).c_str(), "000EA1123456");
}

// Every parse starts from another set address: a good one gives kBytes, a failed one zeroes.
TEST(MACAddressTest, ParsingTakesColonComponentsOrTwelveDigitsAndZeroesOnFailure) {
  const unsigned char other[6] = {0x11, 0x11, 0x11, 0x11, 0x11, 0x11};
  const struct {
    bool colonForm;  // fromString, else readMac
    const char* text;
    bool ok;
  } cases[] = {
      {true, "0:e:a1:12:34:56", true},
      {true, "00:0E:A1:12:34:56 trailing", true},
      {true, "00:0E:A1", false},
      {true, "000EA1123456", false},  // the first component swallows every digit, no ':' follows
      {true, "xyz", false},           // no hex digit: falls back to readMac
      {false, "000EA1123456", true},
      {false, "000ea1123456", true},
      {false, "000EA11234", false},
      {false, "00:0E:A1:12:34:56", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    MACAddress mac(other);
    EXPECT_EQ(c.colonForm ? mac.fromString(c.text) : mac.readMac(c.text), c.ok);
    EXPECT_EQ(mac, c.ok ? MACAddress(kBytes) : MACAddress());
  }
}

}  // namespace
}  // namespace tavrinNetwork
