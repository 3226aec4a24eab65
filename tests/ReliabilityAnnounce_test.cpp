// One host floods an announce slave on real multicast over lo: large valid announce datagrams,
// each from a socket of its own and so from a source port of its own, while a genuine master
// keeps announcing on the same group. The sockets are bound to 127.0.0.1 with TTL 0, so nothing
// leaves the machine. And an announce master and slave follow an interface that goes down, away
// and comes back, in a network namespace of the test's own.
#include "tavrincommon/connector/MCAnnounceData.h"
#include "tavrincommon/connector/MCAnnounceMaster.h"
#include "tavrincommon/connector/MCAnnounceSlave.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/network/LocalIPAddressWatcher.h"
#include "tavrincommon/network/SimpleEndpoint.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/HeapUsage.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/OwnNetworkNamespace.h"
#include "tavrincommon/testing/RunUntil.h"
#include "tavrincommon/testing/Sockets.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tavrinConnector {
namespace {

using namespace std::chrono_literals;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;
using tavrinTesting::runUntil;

const SimpleIp kLoopback("127.0.0.1");
const SimpleIp kGroup("239.255.97.7");
constexpr unsigned short kPort = 24907;
constexpr unsigned kFloodDatagrams = 200;

// A valid announce frame near the largest size, of the shape that costs most once unpacked: one
// connector with thousands of announcements without names.
std::string floodFrame() {
  MCAnnounceData data(nullptr, nullptr);
  data.setData(1, 66, "flood");
  data.addConnector(1, ConnectorInterfaceType::Client, 0, 4, SimpleEndpoint(kLoopback, 7100));
  for (unsigned id = 0; id < 6500; ++id) data.addAnnouncement(1, id, 1, "", true);
  OutputMessage message;
  message.putUInt16(0);
  data.pack(message);
  message.finalizeMessage(10, 1);
  return std::string(message.getData(), message.getFrameLength());
}

// Sends from a socket of its own, bound to an ephemeral port of 127.0.0.1.
bool sendFromNewPort(const std::string& frame) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const unsigned char ttl = 0;
  const SimpleEndpoint local(kLoopback, 0);
  const SimpleEndpoint group(kGroup, kPort);
  const bool sent = fd >= 0 && bind(fd, local.sockAddr(), SimpleEndpoint::kSockAddrLength) == 0 &&
                    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) == 0 &&
                    sendto(fd, frame.data(), frame.size(), 0, group.sockAddr(),
                           SimpleEndpoint::kSockAddrLength) == static_cast<ssize_t>(frame.size());
  if (fd >= 0) ::close(fd);
  return sent;
}

class ReliabilityAnnounceTest : public ::testing::Test {
 protected:
  // Master and slave on interface `interface`, the master bound to `own` with TTL 0, announcing
  // connector 3 on `own`:7000.
  void start(MCAnnounceMaster& master, MCAnnounceSlave& slave, const SimpleIp& own,
             const std::string& interface) {
    master.init(1, 2, "panel", kGroup, kPort, own, 0, interface, true);
    master.setMulticastTtl(0);
    slave.init(1, kGroup, kPort, interface);
    slave.addSupportedConnector(0, ConnectorInterfaceType::Client);
    slave.setEnabled(true);
    master.setEnabled(true);
    master.addConnector(3, ConnectorInterfaceType::Client, 0, 4, SimpleEndpoint(own, 7000));
  }

  tavrinTesting::LogCapture log;
  tavrinScheduler::Scheduler scheduler{log.logging()};
};

TEST_F(ReliabilityAnnounceTest, FloodFromManyPortsStaysWithinTheBoundsAndTheGenuineMasterIsFound) {
  if (!tavrinTesting::loopbackDeliversMulticast(kGroup, kPort)) {
    GTEST_SKIP() << "This machine does not deliver multicast on interface lo; the announce flood "
                    "test cannot run here.";
  }
  MCAnnounceSlave slave(&scheduler, log.logging());
  MCAnnounceMaster master(&scheduler, log.logging());
  start(master, slave, kLoopback, "lo");
  master.addAnnouncement(3, 7, 5, "genuine", true);
  const auto announced = [&](unsigned id) { return slave.getSingleAnnouncement(4, id, 5); };
  ASSERT_TRUE(runUntil(
      scheduler, [&] { return announced(7) != nullptr; }, 5s))
      << log.text();

  const std::string frame = floodFrame();
  ASSERT_LE(frame.size(), MCAnnounceSlave::kReceiveBufferSize);
  const MCAnnounceSlave::DropCounts& drops = slave.getDropCounts();
  // Every flood datagram ends as a master or as a drop; the genuine master is the one more.
  const auto floodHandled = [&] {
    return slave.getMasters().size() - 1 + drops.tooManyMasters + drops.newMasterData +
           drops.queueFull;
  };
  const size_t before = tavrinTesting::heldHeapBytes();
  const auto start = std::chrono::steady_clock::now();
  for (unsigned i = 0; i < kFloodDatagrams; ++i) {
    // One at a time, so that the kernel's receive buffer drops none and each reaches the bounds.
    ASSERT_TRUE(sendFromNewPort(frame));
    ASSERT_TRUE(runUntil(
        scheduler, [&] { return floodHandled() == i + 1; }, 10s, 1))
        << i;
    // Meanwhile the genuine master changes, and the slave takes the change over.
    if (i == kFloodDatagrams / 2) master.addAnnouncement(3, 8, 5, "change", true);
  }
  ASSERT_TRUE(runUntil(
      scheduler, [&] { return announced(8) != nullptr; }, 5s))
      << log.text();
  const size_t after = tavrinTesting::heldHeapBytes();
  const auto took = std::chrono::steady_clock::now() - start;

  EXPECT_GT(drops.newMasterData, kFloodDatagrams / 2);
  EXPECT_LE(slave.getMasterDataBytes(), MCAnnounceSlave::kDefaultMaxMasterDataBytes);
  ASSERT_TRUE(announced(7));
  EXPECT_EQ(announced(7)->name, "genuine");
  // The data bound, one datagram's data unpacked aside and the queue's few entries.
  const double grownMiB = (static_cast<double>(after) - static_cast<double>(before)) / (1 << 20);
  EXPECT_LT(grownMiB, 3.0) << "in " << std::chrono::duration<double>(took).count() << " s";
}

// Both on v0 of a veth pair in the test's namespace, the master bound to v0's address, TTL 0 and
// multicast loop on: the slave hears the master through the loop.
TEST_F(ReliabilityAnnounceTest, MasterAndSlaveFollowTheirInterfaceDownAndReCreated) {
  if (!tavrinTesting::inOwnNetworkNamespace()) return;
  const std::string addV0 =
      "ip link add v0 type veth peer name v1 && ip link set v0 up && ip link set v1 up && "
      "ip addr add 192.0.2.1/24 dev v0";
  if (!tavrinTesting::runCommand(addV0)) {
    const char* reason = "cannot create a veth pair in the test's network namespace; skipped";
    tavrinTesting::reportSkipToOuterRun(reason);
    GTEST_SKIP() << reason;
  }
  const SimpleIp own("192.0.2.1");
  MCAnnounceMaster master(&scheduler, log.logging());
  MCAnnounceSlave slave(&scheduler, log.logging());
  tavrinNetwork::LocalIPAddressWatcher watcher(&scheduler, log.logging());
  std::vector<ErrorType::Type> errors;
  const auto error = [&](ErrorType::Type type, const std::string&) { errors.push_back(type); };
  master.setErrorCallback(error);
  slave.setCallbacks({}, error);
  int reports = 0;
  watcher.setIpChangedCallback([&](int, const SimpleIp& ip, const SimpleIp&) {
    ++reports;
    master.interfaceChanged(ip);
    slave.interfaceChanged(ip);
  });
  start(master, slave, own, "v0");
  ASSERT_TRUE(watcher.start({"v0"}));
  const auto heard = [&](unsigned id) {
    master.addAnnouncement(3, id, 5, "", true);
    return runUntil(scheduler, [&] { return slave.getSingleAnnouncement(4, id, 5) != nullptr; });
  };
  const auto reported = [&](int count) {
    return runUntil(scheduler, [&] { return reports == count; });
  };
  ASSERT_TRUE(heard(7)) << log.text();

  ASSERT_TRUE(tavrinTesting::runCommand("ip link set v0 down"));
  ASSERT_TRUE(reported(1));
  EXPECT_TRUE(master.isPaused() && slave.isPaused());
  ASSERT_TRUE(tavrinTesting::runCommand("ip link set v0 up"));
  ASSERT_TRUE(reported(2));
  ASSERT_TRUE(heard(8)) << log.text();

  // Removed and added again with the same address, before the loop looks.
  ASSERT_TRUE(tavrinTesting::runCommand("ip link del v0 && " + addV0));
  ASSERT_TRUE(reported(3));
  ASSERT_TRUE(heard(9)) << log.text();
  EXPECT_TRUE(errors.empty()) << log.text();
}

}  // namespace
}  // namespace tavrinConnector
