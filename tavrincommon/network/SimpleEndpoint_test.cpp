#include "tavrincommon/network/SimpleEndpoint.h"

#include <cstring>

#include <gtest/gtest.h>
#include <netinet/in.h>

namespace tavrinNetwork {
namespace {

TEST(SimpleEndpointTest, IsLaidOutAsSockaddrInAndClearsToAnyAddressPortZero) {
  SimpleEndpoint endpoint(SimpleIp("192.168.0.5"), 5000);
  sockaddr_in address;
  std::memcpy(&address, &endpoint, sizeof address);
  EXPECT_EQ(address.sin_family, AF_INET);
  EXPECT_EQ(address.sin_port, htons(5000));
  EXPECT_EQ(address.sin_addr.s_addr, SimpleIp("192.168.0.5").getIp());
  const unsigned char zero[8] = {};
  EXPECT_EQ(std::memcmp(address.sin_zero, zero, 8), 0);
  EXPECT_EQ(SimpleEndpoint(address), endpoint);
  EXPECT_STREQ(SimpleEndpoint::CharString(endpoint).c_str(), "192.168.0.5:5000");
  EXPECT_EQ(endpoint.getPort(), 5000);

  endpoint.clear();
  sockaddr_in expected{};
  expected.sin_family = AF_INET;
  EXPECT_EQ(std::memcmp(&endpoint, &expected, sizeof expected), 0);
}

TEST(SimpleEndpointTest, OrdersByAddressThenPortNumerically) {
  const SimpleEndpoint a(SimpleIp("10.0.0.1"), 9000);
  const SimpleEndpoint b(SimpleIp("10.0.0.1"), 10000);
  const SimpleEndpoint c(SimpleIp("10.0.0.2"), 1);
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
  EXPECT_FALSE(c < a);
  EXPECT_FALSE(a < a);
}

}  // namespace
}  // namespace tavrinNetwork
