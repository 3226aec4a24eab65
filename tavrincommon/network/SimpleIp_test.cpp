#include "tavrincommon/network/SimpleIp.h"

#include <cstring>

#include <gtest/gtest.h>

namespace tavrinNetwork {
namespace {

TEST(SimpleIpTest, ParsesDottedTextIntoNetworkOrderAndPrintsItBack) {
  const SimpleIp ip("10.1.2.3");
  const uint32_t raw = ip.getIp();
  const unsigned char expected[4] = {0x0A, 0x01, 0x02, 0x03};
  EXPECT_EQ(std::memcmp(&raw, expected, 4), 0);
  EXPECT_STREQ(SimpleIp::CharString(ip).c_str(), "10.1.2.3");
  EXPECT_EQ(ip.getHostOrder(), 0x0A010203u);

  // Text without four numbers gives no address; trailing text is ignored.
  EXPECT_EQ(SimpleIp("10.1.2").getIp(), 0xFFFFFFFFu);
  EXPECT_EQ(SimpleIp("abc").getIp(), 0xFFFFFFFFu);
  EXPECT_EQ(SimpleIp(static_cast<const char*>(nullptr)).getIp(), 0xFFFFFFFFu);
  EXPECT_EQ(SimpleIp("10.1.2.3:80"), SimpleIp("10.1.2.3"));
  EXPECT_FALSE(SimpleIp().isValid());
  EXPECT_STREQ(SimpleIp::CharString(SimpleIp()).c_str(), "255.255.255.255");
}

TEST(SimpleIpTest, MulticastIsClassDAndOrderIsNumericNotByMemory) {
  EXPECT_TRUE(SimpleIp("224.0.0.0").isMulticast());
  EXPECT_TRUE(SimpleIp("239.255.255.250").isMulticast());
  EXPECT_FALSE(SimpleIp("240.0.0.1").isMulticast());
  EXPECT_FALSE(SimpleIp("223.255.255.255").isMulticast());

  EXPECT_LT(SimpleIp("10.0.0.2"), SimpleIp("10.0.0.10"));
  EXPECT_LT(SimpleIp("10.0.0.10"), SimpleIp("10.1.0.0"));
  EXPECT_FALSE(SimpleIp("10.1.0.0") < SimpleIp("10.0.0.10"));
}

}  // namespace
}  // namespace tavrinNetwork
