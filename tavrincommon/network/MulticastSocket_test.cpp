#include "tavrincommon/network/MulticastSocket.h"

#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/OwnNetworkNamespace.h"
#include "tavrincommon/testing/Sockets.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

namespace tavrinNetwork {
namespace {

const SimpleIp kLoopback("127.0.0.1");

using tavrinTesting::loopbackDeliversMulticast;

bool waitReadable(int fd) { return tavrinTesting::waitFor(fd, POLLIN); }

// Whether `device` holds a membership of `group`, from the kernel's IGMP table.
bool kernelHasMembership(const char* device, const SimpleIp& group) {
  std::ifstream igmp("/proc/net/igmp");
  char wanted[16];
  std::snprintf(wanted, sizeof wanted, "%08X", group.getIp());
  std::string line;
  bool inDevice = false;
  while (std::getline(igmp, line)) {
    if (!line.empty() && line[0] != '\t') {
      std::istringstream fields(line);
      std::string index;
      std::string name;
      fields >> index >> name;
      inDevice = name == device;
    } else if (inDevice && line.find(wanted) != std::string::npos) {
      return true;
    }
  }
  return false;
}

class MulticastSocketTest : public ::testing::Test {
 protected:
  // Groups and ports of these tests only, one group per test, so that tests running in parallel
  // do not see each other's memberships.
  SimpleIp group{"239.255.93.1"};
  const unsigned short port = 47917;

  void SetUp() override {
    if (!loopbackDeliversMulticast(group, port))
      GTEST_SKIP() << "this machine does not deliver multicast on lo; multicast tests skipped";
  }

  bool openOnLoopback(MulticastSocket& socket_) {
    if (!socket_.open(group, port, kLoopback, 0, "lo", true, true, true)) return false;
    return socket_.setMulticastTTL(0);
  }

  tavrinTesting::LogCapture log;
  MulticastSocket socket{log.logging()};
};

TEST_F(MulticastSocketTest, JoinsReceivesItsGroupLeavesOnCloseAndRefusesANonMulticastOne) {
  group = SimpleIp("239.255.93.10");
  ASSERT_TRUE(openOnLoopback(socket)) << log.text();
  EXPECT_TRUE(kernelHasMembership("lo", group));

  EXPECT_EQ(socket.sendMulticast("hello", 5), 5);
  ASSERT_TRUE(waitReadable(socket.getFd())) << "own multicast not looped back";
  char buffer[16];
  SimpleEndpoint from;
  EXPECT_EQ(socket.receiveFrom(from, buffer, sizeof buffer), 5);
  EXPECT_EQ(std::string(buffer, 5), "hello");
  EXPECT_EQ(from.getIp(), kLoopback);
  SimpleEndpoint unicast;
  socklen_t length = SimpleEndpoint::kSockAddrLength;
  ASSERT_EQ(getsockname(socket.getUnicastFd(), unicast.sockAddr(), &length), 0);
  EXPECT_EQ(from, unicast);                             // multicast leaves from the unicast socket
  EXPECT_EQ(socket.receive(buffer, sizeof buffer), 0);  // nothing more pending

  socket.close();
  EXPECT_FALSE(socket.valid());
  EXPECT_FALSE(socket.isJoined());
  EXPECT_FALSE(kernelHasMembership("lo", group));
  EXPECT_EQ(socket.getUnicastFd(), -1);
  socket.close();
  EXPECT_EQ(log.lines().size(), 0u) << log.text();

  // A group outside the multicast range is refused.
  EXPECT_FALSE(socket.open(SimpleIp("192.168.1.1"), 5000, kLoopback, 0, "lo", true, true, true));
  EXPECT_TRUE(
      log.contains("Sockets: Error: Failed to open multicast 192.168.1.1:5000 socket "
                   "(SendIP: 127.0.0.1:0, interface: 'lo'): Not a multicast address!"))
      << log.text();
  EXPECT_FALSE(socket.valid());
}

TEST_F(MulticastSocketTest, JoiningTwiceSendsOneRequest) {
  group = SimpleIp("239.255.93.11");
  ASSERT_TRUE(socket.open(group, port, kLoopback, 0, "lo", true, false, true)) << log.text();
  EXPECT_FALSE(kernelHasMembership("lo", group));
  EXPECT_TRUE(socket.joinOrLeaveMcGroup(true));
  // A second request on the same socket would be refused by the kernel and logged.
  EXPECT_TRUE(socket.joinOrLeaveMcGroup(true));
  EXPECT_TRUE(kernelHasMembership("lo", group));
  EXPECT_TRUE(socket.joinOrLeaveMcGroup(false));
  EXPECT_TRUE(socket.joinOrLeaveMcGroup(false));
  EXPECT_FALSE(kernelHasMembership("lo", group));
  EXPECT_EQ(log.lines().size(), 0u) << log.text();
}

// The interface of a joined group disappears: runs in a network namespace of its own.
TEST(MulticastSocketInterfaceGoneTest, LeaveIsStillAttemptedAndJoinRefused) {
  if (!tavrinTesting::inOwnNetworkNamespace()) return;
  tavrinTesting::LogCapture log;
  if (!tavrinTesting::runCommand("ip link add v0 type veth peer name v1 && ip link set v0 up && "
                                 "ip link set v1 up && ip addr add 192.0.2.1/24 dev v0")) {
    const char* reason = "cannot create a veth pair in the test's network namespace; skipped";
    tavrinTesting::reportSkipToOuterRun(reason);
    GTEST_SKIP() << reason;
  }
  const SimpleIp group("239.255.93.20");
  const SimpleIp own("192.0.2.1");
  MulticastSocket joinedSocket(log.logging());
  MulticastSocket unjoinedSocket(log.logging());
  ASSERT_TRUE(joinedSocket.open(group, 47920, own, 0, "v0", true, true, false)) << log.text();
  ASSERT_TRUE(unjoinedSocket.open(group, 47920, own, 0, "v0", true, false, false)) << log.text();
  EXPECT_TRUE(kernelHasMembership("v0", group));
  const int joinedFd = joinedSocket.getFd();
  const int unjoinedFd = unjoinedSocket.getFd();
  ASSERT_TRUE(tavrinTesting::runCommand("ip link del v0"));

  EXPECT_FALSE(unjoinedSocket.joinOrLeaveMcGroup(true));
  EXPECT_TRUE(log.contains("Sockets: Error: Failed to join MC group 239.255.93.20 with socket " +
                           std::to_string(unjoinedFd) + " (interface: 'v0'): Interface not found!"))
      << log.text();

  joinedSocket.close();
  EXPECT_TRUE(log.contains("Sockets: Error: Leave MC group 239.255.93.20 with socket " +
                           std::to_string(joinedFd) +
                           " (interface: 'v0'): Interface not found, continuing anyway on all "
                           "interfaces!"))
      << log.text();
  EXPECT_FALSE(joinedSocket.valid());
  EXPECT_FALSE(joinedSocket.isJoined());
}

}  // namespace
}  // namespace tavrinNetwork
