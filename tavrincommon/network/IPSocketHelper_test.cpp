#include "tavrincommon/network/IPSocketHelper.h"

#include "tavrincommon/testing/LogCapture.h"

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tavrinNetwork {
namespace {

const SimpleIp kLoopback("127.0.0.1");

int tosOf(int fd) {
  int tos = -1;
  socklen_t length = sizeof tos;
  getsockopt(fd, IPPROTO_IP, IP_TOS, &tos, &length);
  return tos;
}

class IPSocketHelperTest : public ::testing::Test {
 protected:
  tavrinTesting::LogCapture log;
};

TEST_F(IPSocketHelperTest, DscpKeepsTheEcnBits) {
  // On a datagram socket the kernel keeps the ECN bits that are written.
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(fd, 0);
  const int tos = 0x01;
  ASSERT_EQ(setsockopt(fd, IPPROTO_IP, IP_TOS, &tos, sizeof tos), 0);
  EXPECT_TRUE(IPSocketHelper::setDSCP(fd, 46, log.logging()));
  EXPECT_EQ(tosOf(fd), 0xB9);
  EXPECT_TRUE(IPSocketHelper::setDSCP(fd, 0, log.logging()));
  EXPECT_EQ(tosOf(fd), 0x01);
  ::close(fd);
}

TEST_F(IPSocketHelperTest, FailuresNameCallAndOperation) {
  const int fd = open("/dev/null", O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_FALSE(IPSocketHelper::setDSCP(fd, 46, log.logging()));
  const std::string errorText = " " + std::to_string(fd) + ": " + std::to_string(ENOTSOCK) + " (";
  EXPECT_TRUE(log.contains("Sockets: Error: getsockopt() failed (setDSCP) on socket" + errorText));
  EXPECT_TRUE(log.contains("Sockets: Error: setsockopt() failed (setDSCP) on socket" + errorText));
  EXPECT_TRUE(IPSocketHelper::hasError(fd, log.logging()));
  EXPECT_TRUE(log.contains("getsockopt() failed (hasError) on socket" + errorText));
  ::close(fd);

  log.clear();
  EXPECT_FALSE(IPSocketHelper::setNonblock(-1, log.logging()));
  EXPECT_FALSE(IPSocketHelper::setNonblock(-1, nullptr));
  EXPECT_TRUE(log.contains("fcntl() failed (setNonblock) on socket -1: " + std::to_string(EBADF)));
  EXPECT_EQ(log.lines().size(), 1u) << log.text();
}

TEST_F(IPSocketHelperTest, OpenUdpBindsAndReportsEachFailingStep) {
  const int fd = IPSocketHelper::openUdp(SimpleEndpoint(kLoopback, 0), "lo", true, log.logging());
  ASSERT_GE(fd, 0) << log.text();
  EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  ::close(fd);

  EXPECT_EQ(IPSocketHelper::openUdp(SimpleEndpoint(SimpleIp("240.0.0.1"), 0), "", false,
                                    log.logging()),
            -1);
  EXPECT_TRUE(log.contains("bind() failed (open; bind) for 240.0.0.1:0 on interface '' (fd "))
      << log.text();
  EXPECT_EQ(IPSocketHelper::openUdp(SimpleEndpoint(kLoopback, 0), "nosuchif0", false, log.logging()),
            -1);
  EXPECT_TRUE(log.contains(
      "setsockopt() failed (open; bind to device) for 127.0.0.1:0 on interface 'nosuchif0' (fd "))
      << log.text();
}

}  // namespace
}  // namespace tavrinNetwork
