#include "tavrincommon/network/TCPSocket.h"

#include "tavrincommon/network/TCPSocketHelper.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/Sockets.h"

#include <cerrno>
#include <csignal>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tavrinNetwork {
namespace {

const SimpleIp kLoopback("127.0.0.1");

using tavrinTesting::waitFor;

// A connected pair over 127.0.0.1: `client` from connectToServer, `server` side accepted.
class TCPSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    listener = TCPSocketHelper::createListenSocket(SimpleEndpoint(kLoopback, 0), false, nullptr);
    ASSERT_TRUE(listener);
    bool connectedNow = false;
    client = TCPSocketHelper::connectToServer(listener->getBoundEndpoint(), kLoopback,
                                              connectedNow, false, log.logging());
    ASSERT_TRUE(client);
    ASSERT_TRUE(waitFor(listener->getFd(), POLLIN));
    SimpleEndpoint peer;
    server = TCPSocketHelper::acceptClient(listener.get(), peer, log.logging());
    ASSERT_TRUE(server);
    ASSERT_TRUE(waitFor(client->getFd(), POLLOUT));
  }

  tavrinTesting::LogCapture log;
  std::unique_ptr<TCPSocketInterface> listener;
  std::unique_ptr<TCPSocketInterface> client;
  std::unique_ptr<TCPSocketInterface> server;
};

TEST_F(TCPSocketTest, LingerZeroCloseResetsPeerAndLaterWritesFailWithEpipe) {
  // The default disposition would end the process on a SIGPIPE.
  const auto previous = std::signal(SIGPIPE, SIG_DFL);
  client->close();
  EXPECT_FALSE(client->valid());
  EXPECT_EQ(client->getFd(), -1);
  EXPECT_EQ(client->getBoundEndpoint(), SimpleEndpoint());
  client->close();  // twice is harmless

  ASSERT_TRUE(waitFor(server->getFd(), POLLIN));
  char buffer[4];
  errno = 0;
  EXPECT_EQ(server->receive(buffer, sizeof buffer), -1);
  EXPECT_EQ(errno, ECONNRESET);
  errno = 0;
  EXPECT_EQ(server->send("x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
  std::signal(SIGPIPE, previous);
}

}  // namespace
}  // namespace tavrinNetwork
