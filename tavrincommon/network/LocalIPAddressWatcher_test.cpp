#include "tavrincommon/network/LocalIPAddressWatcher.h"

#include "tavrincommon/network/SimpleEndpoint.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/OwnNetworkNamespace.h"
#include "tavrincommon/testing/RunUntil.h"

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tavrinNetwork {
namespace {

using namespace std::chrono_literals;
using tavrinTesting::runCommand;

struct Change {
  int index;
  SimpleIp ip;
  SimpleIp mask;
};

// Changes the netmask in place, which `ip addr` cannot do.
bool setNetmask(const char* interfaceName, const char* mask) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  ifreq request;
  std::memset(&request, 0, sizeof request);
  std::strncpy(request.ifr_name, interfaceName, IFNAMSIZ - 1);
  const SimpleEndpoint address(SimpleIp(mask), 0);
  std::memcpy(&request.ifr_netmask, &address, sizeof address);
  const bool done = ioctl(fd, SIOCSIFNETMASK, &request) == 0;
  close(fd);
  return done;
}

// Goes on in a network namespace of its own with the veth pair v0/v1, both up; else returns (the
// outer run) or marks the test skipped.
#define IN_OWN_NAMESPACE_WITH_VETH_PAIR()                                                      \
  if (!tavrinTesting::inOwnNetworkNamespace()) return;                                         \
  if (!runCommand("ip link add v0 type veth peer name v1 && ip link set v0 up && "             \
                  "ip link set v1 up")) {                                                      \
    const char* reason = "cannot create a veth pair in the test's network namespace; skipped"; \
    tavrinTesting::reportSkipToOuterRun(reason);                                               \
    GTEST_SKIP() << reason;                                                                    \
  }

class LocalIPAddressWatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    watcher.setIpChangedCallback([this](int index, const SimpleIp& ip, const SimpleIp& mask) {
      changes.push_back({index, ip, mask});
    });
  }

  bool waitForChanges(size_t count) {
    return tavrinTesting::runUntil(
        scheduler, [&] { return changes.size() >= count; }, 5s);
  }

  tavrinTesting::LogCapture log;
  tavrinScheduler::Scheduler scheduler{log.logging()};
  LocalIPAddressWatcher watcher{&scheduler, log.logging()};
  std::vector<Change> changes;
};

TEST_F(LocalIPAddressWatcherTest, MissingInterfaceAndIndexOutsideTheListHaveNoAddress) {
  ASSERT_TRUE(watcher.start({"lo", "nosuchif0"})) << log.text();
  EXPECT_EQ(watcher.getIP(0), SimpleIp("127.0.0.1"));
  EXPECT_EQ(watcher.getMask(0), SimpleIp("255.0.0.0"));
  EXPECT_EQ(watcher.getMask(1), LocalIPAddressWatcher::NO_IP);
  EXPECT_EQ(watcher.getIP(-1), LocalIPAddressWatcher::NO_IP);
  EXPECT_EQ(watcher.getMask(2), LocalIPAddressWatcher::NO_IP);
  EXPECT_TRUE(changes.empty());  // the initial reading is no change

  watcher.stop();
  EXPECT_EQ(watcher.getIP(0), LocalIPAddressWatcher::NO_IP);
  // A restart begins with an empty list again.
  ASSERT_TRUE(watcher.start({"nosuchif0"}));
  EXPECT_EQ(watcher.getIP(1), LocalIPAddressWatcher::NO_IP);
}

TEST_F(LocalIPAddressWatcherTest, ReportsAddedAndRemovedAddress) {
  IN_OWN_NAMESPACE_WITH_VETH_PAIR();
  ASSERT_TRUE(watcher.start({"lo", "v0"}));
  EXPECT_EQ(watcher.getIP(1), LocalIPAddressWatcher::NO_IP);

  // Notifications are read in order: once v0's change is reported, v1's has been handled.
  ASSERT_TRUE(runCommand("ip addr add 198.51.100.1/24 dev v1"));
  ASSERT_TRUE(runCommand("ip addr add 192.0.2.1/24 dev v0"));
  ASSERT_TRUE(waitForChanges(1));
  tavrinTesting::runFor(scheduler, 100ms);
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0].index, 1);
  EXPECT_EQ(changes[0].ip, SimpleIp("192.0.2.1"));
  EXPECT_EQ(changes[0].mask, SimpleIp("255.255.255.0"));
  EXPECT_EQ(watcher.getIP(1), SimpleIp("192.0.2.1"));

  ASSERT_TRUE(runCommand("ip addr del 192.0.2.1/24 dev v0"));
  ASSERT_TRUE(waitForChanges(2));
  EXPECT_EQ(changes[1].index, 1);
  EXPECT_EQ(changes[1].ip, LocalIPAddressWatcher::NO_IP);
  EXPECT_EQ(changes[1].mask, LocalIPAddressWatcher::NO_IP);
}

TEST_F(LocalIPAddressWatcherTest,
       ReportsANetmaskChangeAloneKeepsTheFirstOfTwoAddressesAndADownOneHasNone) {
  IN_OWN_NAMESPACE_WITH_VETH_PAIR();
  ASSERT_TRUE(runCommand("ip addr add 192.0.2.1/24 dev v0"));
  ASSERT_TRUE(watcher.start({"v0", "v1"}));
  EXPECT_EQ(watcher.getMask(0), SimpleIp("255.255.255.0"));

  ASSERT_TRUE(setNetmask("v0", "255.255.0.0"));
  ASSERT_TRUE(waitForChanges(1));
  // The kernel reports a delete and an add; both are read before the addresses are.
  tavrinTesting::runFor(scheduler, 200ms);
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0].ip, SimpleIp("192.0.2.1"));
  EXPECT_EQ(changes[0].mask, SimpleIp("255.255.0.0"));

  // A second address of v0 changes nothing; v1's, added after it, is reported.
  ASSERT_TRUE(runCommand("ip addr add 198.51.100.1/8 dev v0"));
  ASSERT_TRUE(runCommand("ip addr add 203.0.113.1/24 dev v1"));
  ASSERT_TRUE(waitForChanges(2));
  tavrinTesting::runFor(scheduler, 100ms);
  ASSERT_EQ(changes.size(), 2u);
  EXPECT_EQ(changes[1].index, 1);
  EXPECT_EQ(watcher.getIP(0), SimpleIp("192.0.2.1"));
  EXPECT_EQ(watcher.getMask(0), SimpleIp("255.255.0.0"));

  // A down interface has no address, reported once: another notification of it (the kernel keeps
  // its address) reports nothing.
  ASSERT_TRUE(runCommand("ip link set v0 down"));
  ASSERT_TRUE(waitForChanges(3));
  EXPECT_EQ(changes[2].index, 0);
  EXPECT_EQ(changes[2].ip, LocalIPAddressWatcher::NO_IP);
  EXPECT_EQ(changes[2].mask, LocalIPAddressWatcher::NO_IP);
  ASSERT_TRUE(runCommand("ip link set v0 mtu 1400"));
  tavrinTesting::runFor(scheduler, 100ms);
  EXPECT_EQ(changes.size(), 3u);
  ASSERT_TRUE(runCommand("ip link set v0 up"));
  ASSERT_TRUE(waitForChanges(4));
  EXPECT_EQ(changes[3].ip, SimpleIp("192.0.2.1"));
  EXPECT_EQ(changes[3].mask, SimpleIp("255.255.0.0"));
}

TEST_F(LocalIPAddressWatcherTest, AReCreatedInterfaceIsReportedEvenWithTheSameAddress) {
  IN_OWN_NAMESPACE_WITH_VETH_PAIR();
  const std::string addAgain =
      " type veth peer name v1 && ip link set v0 up && ip addr add 192.0.2.1/24 dev v0";
  ASSERT_TRUE(runCommand("ip addr add 192.0.2.1/24 dev v0"));
  ASSERT_TRUE(watcher.start({"v0"}));
  const unsigned index = if_nametoindex("v0");

  // Removed and added again, under the same index, before the loop looks: only the removal's
  // notification tells.
  ASSERT_TRUE(
      runCommand("ip link del v0 && ip link add v0 index " + std::to_string(index) + addAgain));
  ASSERT_EQ(if_nametoindex("v0"), index);
  ASSERT_TRUE(waitForChanges(1));
  tavrinTesting::runFor(scheduler, 100ms);
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0].index, 0);
  EXPECT_EQ(changes[0].ip, SimpleIp("192.0.2.1"));

  // Without the notifications (lost when the kernel's queue overflows), the new index tells.
  LocalIPAddressWatcher::SingleInterface read{"v0", LocalIPAddressWatcher::NO_IP,
                                              LocalIPAddressWatcher::NO_IP, 0, false};
  EXPECT_TRUE(watcher.resolveIP(read));
  ASSERT_TRUE(runCommand("ip link del v0 && ip link add v0" + addAgain));
  EXPECT_TRUE(watcher.resolveIP(read));
  EXPECT_FALSE(watcher.resolveIP(read));
}

}  // namespace
}  // namespace tavrinNetwork
