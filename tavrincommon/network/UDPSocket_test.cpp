#include "tavrincommon/network/UDPSocket.h"

#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/Sockets.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace tavrinNetwork {
namespace {

const SimpleIp kLoopback("127.0.0.1");

bool waitReadable(int fd) { return tavrinTesting::waitFor(fd, POLLIN); }

SimpleEndpoint actualEndpoint(int fd) {
  SimpleEndpoint endpoint;
  socklen_t length = SimpleEndpoint::kSockAddrLength;
  getsockname(fd, endpoint.sockAddr(), &length);
  return endpoint;
}

class UDPSocketTest : public ::testing::Test {
 protected:
  tavrinTesting::LogCapture log;
  UDPSocket sender{log.logging()};
  UDPSocket receiver{log.logging()};
};

TEST_F(UDPSocketTest, ReceiveFromReportsTheRealLengthOfACutDatagramAndAFailedReopenCloses) {
  ASSERT_TRUE(sender.open(kLoopback, 0, "", false)) << log.text();
  EXPECT_FALSE(sender.isNonblock());
  EXPECT_TRUE(sender.setNonblock());
  EXPECT_TRUE(sender.isNonblock());
  ASSERT_TRUE(receiver.open(kLoopback, 0, "lo", true)) << log.text();

  std::vector<unsigned char> datagram(3000);
  for (size_t i = 0; i < datagram.size(); ++i) datagram[i] = static_cast<unsigned char>(i);
  EXPECT_EQ(sender.sendTo(actualEndpoint(receiver.getFd()), datagram.data(), 3000), 3000);
  ASSERT_TRUE(waitReadable(receiver.getFd()));
  std::vector<unsigned char> buffer(2048 + 16, 0xEE);
  SimpleEndpoint from;
  EXPECT_EQ(receiver.receiveFrom(from, buffer.data(), 2048), 3000);
  EXPECT_EQ(from, actualEndpoint(sender.getFd()));
  EXPECT_TRUE(std::equal(buffer.begin(), buffer.begin() + 2048, datagram.begin()));
  EXPECT_EQ(buffer[2048], 0xEE);  // nothing written past the given length

  EXPECT_EQ(sender.sendTo(actualEndpoint(receiver.getFd()), "abc", 3), 3);
  ASSERT_TRUE(waitReadable(receiver.getFd()));
  EXPECT_EQ(receiver.receive(buffer.data(), 2048), 3);
  // Nothing pending: zero, not an error.
  EXPECT_EQ(receiver.receiveFrom(from, buffer.data(), 2048), 0);
  EXPECT_EQ(receiver.receive(buffer.data(), 2048), 0);
  EXPECT_EQ(log.lines().size(), 0u) << log.text();

  EXPECT_FALSE(receiver.open(SimpleIp("240.0.0.1"), 4000, "", true));
  EXPECT_TRUE(
      log.contains("Sockets: Error: Failed to open UDP socket (IP: 240.0.0.1:4000, interface: ''): "
                   "Open failed!"))
      << log.text();
  EXPECT_FALSE(receiver.valid());
  EXPECT_EQ(receiver.getEndpoint(), SimpleEndpoint(SimpleIp(), 0));
}

}  // namespace
}  // namespace tavrinNetwork
