#include "tavrincommon/common/process/Command.h"

#include "tavrincommon/network/MulticastSocket.h"
#include "tavrincommon/network/NetlinkSocket.h"
#include "tavrincommon/network/SimpleEndpoint.h"
#include "tavrincommon/network/TCPSocketHelper.h"
#include "tavrincommon/network/UDPSocket.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/GlobalLogCapture.h"

#include <cerrno>
#include <chrono>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {
// Run right after an accepted connection's descriptor exists, before the caller sees it: the
// moment at which another thread of the application might spawn a child.
std::function<void()> afterAccept;
}  // namespace

// The library's accept calls land here (this program's definitions come before the C library's).
extern "C" int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
  const int accepted = static_cast<int>(syscall(SYS_accept4, fd, address, length, flags));
  const int error = errno;
  if (accepted >= 0 && afterAccept) afterAccept();
  errno = error;
  return accepted;
}

extern "C" int accept(int fd, sockaddr* address, socklen_t* length) {
  return accept4(fd, address, length, 0);
}

namespace tavrinCommon {
namespace process {
namespace {

// The descriptors a child finds open, as it lists them itself (the listing's own included).
std::string childDescriptors() {
  std::optional<ProcessOutput> output = Command("/bin/ls")
                                            .args({"/proc/self/fd"})
                                            .stdout(Stdio::Piped)
                                            .runSync(std::chrono::seconds(10));
  return output ? output->stdout : "failed";
}

class CommandTest : public ::testing::Test {
 protected:
  tavrinTesting::GlobalLogCapture log;
};

TEST_F(CommandTest, NoDescriptorIsLeftByAReplacedSettingOrAFailedSetup) {
  int fd = ::open(Command::DEV_NULL, O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  Command command("/bin/true");
  command.stdin(SafeFileDescriptor(fd));
  EXPECT_NE(fcntl(fd, F_GETFD), -1);
  command.stdin(Stdio::Null);
  errno = 0;
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);

  // A spawn whose stderr setting is invalid: the stdin and stdout pipes made before it are closed.
  auto openDescriptors = [] {
    int count = 0;
    for (int i = 0; i < 1024; ++i) count += fcntl(i, F_GETFD) != -1;
    return count;
  };
  const int before = openDescriptors();
  errno = 0;
  EXPECT_FALSE(Command("/bin/true")
                   .stdin(Stdio::Piped)
                   .stdout(Stdio::Piped)
                   .stderr(SafeFileDescriptor(-1))
                   .spawn());
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(CommandTest, ChildrenInheritNoDescriptorOfTheLibrary) {
  using namespace tavrinNetwork;
  const std::string before = childDescriptors();  // 0, 1, 2 and the listing's own, normally
  tavrinScheduler::Scheduler scheduler(nullptr);  // epoll and eventfd
  UDPSocket udp(nullptr);
  ASSERT_TRUE(udp.open(SimpleIp("127.0.0.1"), 0, "", true));
  MulticastSocket multicast(nullptr);
  ASSERT_TRUE(multicast.open(SimpleIp("239.255.77.7"), 47007, SimpleIp("127.0.0.1"), 0, "lo", true,
                             true, true));
  ASSERT_TRUE(multicast.setMulticastTTL(0));
  NetlinkSocket netlink;
  ASSERT_TRUE(netlink.open(NETLINK_ROUTE, RTMGRP_IPV4_IFADDR));
  std::unique_ptr<TCPSocketInterface> listener =
      TCPSocketHelper::createListenSocket(SimpleEndpoint(SimpleIp("127.0.0.1"), 0), false, nullptr);
  ASSERT_TRUE(listener);
  SafeFileDescriptor client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  SimpleEndpoint at = listener->getBoundEndpoint();
  ASSERT_EQ(connect(client.get(), at.sockAddr(), SimpleEndpoint::kSockAddrLength), 0);

  std::string duringAccept;
  afterAccept = [&] { duringAccept = childDescriptors(); };
  SimpleEndpoint peer;
  std::unique_ptr<TCPSocketInterface> accepted =
      TCPSocketHelper::acceptClient(listener.get(), peer, nullptr);
  afterAccept = nullptr;
  ASSERT_TRUE(accepted);
  EXPECT_EQ(duringAccept, before);
  EXPECT_EQ(childDescriptors(), before);
}

}  // namespace
}  // namespace process
}  // namespace tavrinCommon
