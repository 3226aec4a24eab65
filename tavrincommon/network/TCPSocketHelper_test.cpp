#include "tavrincommon/network/TCPSocketHelper.h"

#include "tavrincommon/network/TCPSocket.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/Sockets.h"

#include <cerrno>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Set by a test to make the next connect() complete before it returns, as a connect to a peer on
// the same host may; the kernel's loopback always answers EINPROGRESS to a non-blocking connect.
bool connectCompletesAtOnce = false;

using tavrinTesting::waitFor;

}  // namespace

extern "C" int connect(int fd, const sockaddr* address, socklen_t length) {
  using ConnectFunction = int (*)(int, const sockaddr*, socklen_t);
  static const auto realConnect = reinterpret_cast<ConnectFunction>(dlsym(RTLD_NEXT, "connect"));
  const int result = realConnect(fd, address, length);
  if (!connectCompletesAtOnce || result == 0 || errno != EINPROGRESS) return result;
  int pending = 0;
  socklen_t pendingLength = sizeof pending;
  if (!waitFor(fd, POLLOUT) || getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &pendingLength) < 0 ||
      pending != 0) {
    errno = pending ? pending : ETIMEDOUT;
    return -1;
  }
  return 0;
}

namespace tavrinNetwork {
namespace {

const SimpleIp kLoopback("127.0.0.1");

class TCPSocketHelperTest : public ::testing::Test {
 protected:
  void TearDown() override { connectCompletesAtOnce = false; }

  std::unique_ptr<TCPSocketInterface> listenOnLoopback(bool mptcp = false) {
    auto server =
        TCPSocketHelper::createListenSocket(SimpleEndpoint(kLoopback, 0), mptcp, log.logging());
    EXPECT_TRUE(server) << log.text();
    return server;
  }

  tavrinTesting::LogCapture log;
};

TEST_F(TCPSocketHelperTest, AcceptFailsWithNobodyWaitingThenTakesANonblockingConnect) {
  auto server = listenOnLoopback();
  ASSERT_TRUE(server);
  const SimpleEndpoint serverEndpoint = server->getBoundEndpoint();
  EXPECT_EQ(serverEndpoint.getIp(), kLoopback);
  EXPECT_NE(serverEndpoint.getPort(), 0);
  // With nobody waiting, accept fails and clears the peer.
  SimpleEndpoint peer(kLoopback, 1234);
  EXPECT_FALSE(TCPSocketHelper::acceptClient(server.get(), peer, log.logging()));
  EXPECT_EQ(peer, SimpleEndpoint());
  EXPECT_EQ(log.count("Sockets: Error: Failed to accept client on server socket " +
                      serverEndpoint.toString() + " (11 ("),
            1u)
      << log.text();
  log.clear();

  bool connectedNow = true;
  auto client = TCPSocketHelper::connectToServer(serverEndpoint, kLoopback, connectedNow, false,
                                                 log.logging());
  ASSERT_TRUE(client) << log.text();
  EXPECT_FALSE(connectedNow);
  ASSERT_TRUE(waitFor(client->getFd(), POLLOUT));
  EXPECT_FALSE(client->hasError());

  ASSERT_TRUE(waitFor(server->getFd(), POLLIN));
  auto accepted = TCPSocketHelper::acceptClient(server.get(), peer, log.logging());
  ASSERT_TRUE(accepted) << log.text();
  EXPECT_EQ(peer, client->getBoundEndpoint());
  EXPECT_EQ(accepted->getBoundEndpoint(), serverEndpoint);
  EXPECT_NE(fcntl(accepted->getFd(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(fcntl(accepted->getFd(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(log.lines().size(), 0u) << log.text();
}

TEST_F(TCPSocketHelperTest, ConnectThatSucceedsAtOnceReportsConnectedNow) {
  auto server = listenOnLoopback(true);
  ASSERT_TRUE(server);
  connectCompletesAtOnce = true;
  bool connectedNow = false;
  auto client = TCPSocketHelper::connectToServer(server->getBoundEndpoint(), SimpleIp(0u),
                                                 connectedNow, true, log.logging());
  ASSERT_TRUE(client) << log.text();
  EXPECT_TRUE(connectedNow);
  EXPECT_EQ(client->getBoundEndpoint().getIp(), kLoopback);
  EXPECT_FALSE(TCPSocketHelper::isMptcpEnabled(client->getFd(), log.logging()));
  EXPECT_FALSE(TCPSocketHelper::isMptcpEnabled(server->getFd(), log.logging()));
}

TEST_F(TCPSocketHelperTest, RefusedConnectShowsAsPendingError) {
  // A port that was just free: bind, learn it, close.
  SimpleEndpoint closed;
  {
    auto probe = listenOnLoopback();
    ASSERT_TRUE(probe);
    closed = probe->getBoundEndpoint();
  }
  bool connectedNow = true;
  auto client =
      TCPSocketHelper::connectToServer(closed, kLoopback, connectedNow, false, log.logging());
  ASSERT_TRUE(client) << log.text();
  EXPECT_FALSE(connectedNow);
  ASSERT_TRUE(waitFor(client->getFd(), POLLOUT));
  EXPECT_TRUE(client->hasError());
  EXPECT_TRUE(log.contains("Sockets: Error: Failed to connect TCP socket to endpoint " +
                           closed.toString() + ": " + std::to_string(ECONNREFUSED) +
                           " (Connection refused)!"))
      << log.text();
}

TEST_F(TCPSocketHelperTest, ResetBeforeThePeerSpokeIsAWarningWithThePeer) {
  auto server = listenOnLoopback();
  ASSERT_TRUE(server);
  const SimpleEndpoint serverEndpoint = server->getBoundEndpoint();
  // The first peer resets at once; the second says something first, and its reset is the end of
  // an ordinary connection.
  for (const bool speaksFirst : {false, true}) {
    bool connectedNow = false;
    auto client = TCPSocketHelper::connectToServer(serverEndpoint, kLoopback, connectedNow, false,
                                                   log.logging());
    ASSERT_TRUE(client);
    ASSERT_TRUE(waitFor(server->getFd(), POLLIN));
    SimpleEndpoint peer;
    auto accepted = TCPSocketHelper::acceptClient(server.get(), peer, nullptr);
    ASSERT_TRUE(accepted);
    char buffer[8];
    if (speaksFirst) {
      ASSERT_EQ(accepted->send("hi", 2), 2);
      ASSERT_TRUE(waitFor(client->getFd(), POLLIN));
      ASSERT_EQ(client->receive(buffer, sizeof buffer), 2);
    }
    accepted.reset();  // closes abortively: a reset
    ASSERT_TRUE(waitFor(client->getFd(), POLLIN));
    EXPECT_EQ(client->receive(buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(client->send("x", 1), -1);
  }
  EXPECT_EQ(log.count("Sockets: Warning: Connection to endpoint " + serverEndpoint.toString() +
                      " ended before the peer sent anything: " + std::to_string(ECONNRESET)),
            1u)
      << log.text();
}

}  // namespace
}  // namespace tavrinNetwork
