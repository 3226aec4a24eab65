// A connector master against hostile and broken hosts on 127.0.0.0/8, played by bare sockets:
// every attack must stay within its bound of heap, connections and log lines, and a well-behaved
// slave must still connect and have a block echoed while it goes on.
#include "tavrincommon/connector/ConnectionLimits.h"
#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/connector/TCPConnectorMaster.h"
#include "tavrincommon/connector/TCPConnectorSlave.h"
#include "tavrincommon/connector/simpleConnector/SimpleConnectorHandler.h"
#include "tavrincommon/log/LogRateLimiter.h"
#include "tavrincommon/network/TCPSocketInterface.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/ConnectorFrames.h"
#include "tavrincommon/testing/Emulation.h"
#include "tavrincommon/testing/HeapUsage.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/RawPeer.h"
#include "tavrincommon/testing/RunUntil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tavrinConnector {
namespace {

using namespace std::chrono_literals;
using simpleConnector::SimpleConnectorHandler;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;
using tavrinTesting::frame;
using tavrinTesting::RawPeer;

constexpr unsigned short kType = SimpleConnectorHandler::kType;
constexpr unsigned kCluster = 8;
constexpr size_t kMiB = 1024 * 1024;
using Clock = std::chrono::steady_clock;
constexpr size_t kBurst = tavrinLog::LogRateLimiter::kDefaultBurst;

struct Frame {
  uint8_t type;
  std::string payload;
};

// The whole frames at the front of `stream`, taken off it.
std::vector<Frame> takeFrames(std::string& stream) {
  std::vector<Frame> frames;
  while (stream.size() >= 5) {
    const size_t length = tavrinTesting::readU32(stream, 1) + 5;
    if (stream.size() < length) break;
    frames.push_back({static_cast<uint8_t>(stream[5]), stream.substr(10, length - 11)});
    stream.erase(0, length);
  }
  return frames;
}

using BlockCallback = std::function<void(SimpleConnectorHandler&, std::vector<unsigned char>&)>;

// A SimpleConnector handler whose blocks go to `onData`, with a way back to the handler.
std::unique_ptr<SimpleConnectorHandler> blockHandler(BlockCallback onData) {
  auto self = std::make_shared<SimpleConnectorHandler*>(nullptr);
  auto handler = std::make_unique<SimpleConnectorHandler>(
      1, SimpleConnectorHandler::AcceptCallback(), SimpleConnectorHandler::StateCallback(),
      [self, onData](SimpleIp, unsigned, unsigned,
                     std::unique_ptr<std::vector<unsigned char>>&& data) { onData(**self, *data); },
      nullptr);
  *self = handler.get();
  return handler;
}

// A request from the slave's connection `own` for an automatic SimpleConnector connection.
std::string connectRequest(uint32_t own) {
  tavrinTesting::Bytes connect;
  connect.u32(0xFFFFFFFF).u16(kType).u32(own).u32(300).u16(1).u16(1);
  return frame(3, kCluster, connect.data);
}

class ReliabilityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Two seconds of silence, or of carrying nothing, ends a TCP connection.
    master.init(1, 100, ConnectorInterfaceType::PanelMaster, kCluster, SimpleIp("127.0.0.1"), 0,
                false, false, ConnectionTimeout{2, 1}, false);
    master.addConnectionHandler(kType, 1, [this] {
      return blockHandler(
          [this](SimpleConnectorHandler& handler, std::vector<unsigned char>& data) {
            ++blocks;
            bytesDelivered += data.size();
            if (echo)
              handler.sendData(reinterpret_cast<const char*>(data.data()),
                               static_cast<unsigned>(data.size()));
          });
    });
    master.addAutomaticConnection(kType, 100, 100000);
    master.setEnabled(true);
    ASSERT_TRUE(master.isListening());
    port = master.getListeningEndpoint().getPort();
    heapBefore = tavrinTesting::heldHeapBytes();
  }

  // Sets `slave` up on 127.0.0.1 with its blocks going to `onData`; its automatic connection to
  // the master once that is connected, null if it does not connect.
  SimpleConnectorHandler* connectSlave(TCPConnectorSlave& slave, const BlockCallback& onData) {
    slave.initCommon(2, 200, ConnectorInterfaceType::Client, SimpleIp("127.0.0.1"),
                     ConnectionTimeout{}, false);
    slave.addConnectionHandler(kType, 1, [onData] { return blockHandler(onData); });
    slave.setEnabled(true);
    const unsigned id =
        slave.connectAutomatic(master.getListeningEndpoint(), kCluster, kType, nullptr);
    auto handler = [&] { return static_cast<SimpleConnectorHandler*>(slave.getConnection(id)); };
    return runUntil([&] { return handler() && handler()->isConnected(); }, 5s) ? handler()
                                                                               : nullptr;
  }

  // A slave from 127.0.0.1 connects, has one block echoed and disconnects.
  bool wellBehavedSlaveEchoes() {
    TCPConnectorSlave slave(&scheduler, nullptr);
    bool echoed = false;
    SimpleConnectorHandler* handler =
        connectSlave(slave, [&](SimpleConnectorHandler&, std::vector<unsigned char>& data) {
          echoed = std::string(data.begin(), data.end()) == "still here";
        });
    return handler && handler->sendData("still here", 10) && runUntil([&] { return echoed; }, 5s);
  }

  // Each peer is taken in (or refused) before the next connects, so that the counts are settled.
  std::unique_ptr<RawPeer> connectPeer(const char* source, int receiveBuffer = 0) {
    const unsigned refused = master.getBoundCounters().tcpConnectionsRefused;
    auto peer = std::make_unique<RawPeer>(port, source, receiveBuffer);
    EXPECT_TRUE(peer->connected());
    const SimpleEndpoint seenAs(SimpleIp(source), peer->localPort());
    runUntil(
        [&] {
          return master.getTCPConnection(seenAs) ||
                 master.getBoundCounters().tcpConnectionsRefused > refused;
        },
        2s);
    return peer;
  }

  // Loopback buffers would absorb megabytes of answers before the master queues any; a device's
  // are small.
  void shrinkMasterSendBuffer(const char* source, const RawPeer& peer) {
    SingleTCPConnectionEndpoint* onMaster =
        master.getTCPConnection(SimpleEndpoint(SimpleIp(source), peer.localPort()));
    ASSERT_NE(onMaster, nullptr);
    const int small = 4096;
    setsockopt(onMaster->getTransceiver().getSocket()->getFd(), SOL_SOCKET, SO_SNDBUF, &small,
               sizeof small);
  }

  // Control frames the peer received, pongs left out, once `count` have arrived.
  std::vector<Frame> answers(RawPeer& peer, size_t count) {
    std::string stream;
    std::vector<Frame> frames;
    runUntil(
        [&] {
          stream += peer.receiveSome();
          for (Frame& f : takeFrames(stream))
            if (f.type != 1) frames.push_back(std::move(f));
          return frames.size() >= count;
        },
        5s);
    return frames;
  }

  bool runUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    return tavrinTesting::runUntil(scheduler, condition, limit, 1);
  }

  // Turns the loop for `duration`, calling `attack` before every turn and sampling the heap.
  // `probe`: true when a well-behaved slave had a block echoed from 500 ms into the attack.
  bool attackFor(std::chrono::milliseconds duration, const std::function<void()>& attack,
                 bool probe = false) {
    const auto start = Clock::now();
    auto nextSample = start;
    bool echoed = !probe;
    while (Clock::now() < start + duration) {
      attack();
      scheduler.run(0);
      if (Clock::now() >= nextSample) {
        heapPeak = std::max(heapPeak, tavrinTesting::heldHeapBytes());
        nextSample = Clock::now() + 50ms;
      }
      if (!echoed && Clock::now() - start > 500ms) echoed = wellBehavedSlaveEchoes();
    }
    return echoed;
  }
  size_t heapGrowth() const { return heapPeak > heapBefore ? heapPeak - heapBefore : 0; }

  tavrinTesting::LogCapture log{tavrinLog::SeverityLevel::Service};
  tavrinScheduler::Scheduler scheduler{nullptr};
  TCPConnectorMaster master{&scheduler, log.logging()};
  unsigned short port = 0;
  bool echo = true;
  size_t blocks = 0;
  size_t bytesDelivered = 0;
  size_t heapBefore = 0;
  size_t heapPeak = 0;
};

std::string repeated(const std::string& unit, size_t times) {
  std::string all;
  all.reserve(unit.size() * times);
  for (size_t i = 0; i < times; ++i) all += unit;
  return all;
}

TEST_F(ReliabilityTest, APeerThatPingsAndNeverReadsHoldsLittleAndIsClosedAsIdle) {
  auto peer = connectPeer("127.0.0.2", 4096);
  shrinkMasterSendBuffer("127.0.0.2", *peer);
  const std::string pings = repeated(frame(0, 7), 6000);
  EXPECT_TRUE(attackFor(
      1500ms, [&] { peer->sendSome(pings); }, true));
  EXPECT_LT(heapGrowth(), 8 * kMiB);
  EXPECT_TRUE(runUntil(
      [&] {
        peer->sendSome(pings);
        return peer->closedByOtherSide();
      },
      4s))
      << "pings do not keep a connection that carries nothing";
  EXPECT_GT(master.getBoundCounters().pingsNotAnswered, 0u);
  EXPECT_TRUE(wellBehavedSlaveEchoes());
}

TEST_F(ReliabilityTest, FloodsThatNeedNoAnswerAreSlowedAndThoseThatDoAreClosed) {
  // Pongs need no answer: reading pauses while the worker catches up. Data for an unknown id is
  // answered, and a peer that never reads the answers is a slow consumer.
  // A small send bound, so that the noisy peer is found out well before the idle close.
  ConnectionLimits limits;
  limits.maxSendQueueBytes = 256 * 1024;
  master.setConnectionLimits(limits);
  auto quietPeer = connectPeer("127.0.0.2", 4096), noisyPeer = connectPeer("127.0.0.3", 4096);
  RawPeer &quiet = *quietPeer, &noisy = *noisyPeer;
  shrinkMasterSendBuffer("127.0.0.3", noisy);
  const std::string pongs = repeated(frame(1, 0), 6000);
  const std::string unknown = repeated(frame(4, 4242, std::string(4, 'x')), 4000);
  EXPECT_TRUE(attackFor(
      1800ms,
      [&] {
        quiet.sendSome(pongs);
        noisy.sendSome(unknown);
      },
      true));
  EXPECT_LT(heapGrowth(), 8 * kMiB);
  EXPECT_TRUE(noisy.closedByOtherSide());
  EXPECT_EQ(master.getBoundCounters().slowConsumersClosed, 1u);
  EXPECT_TRUE(log.contains("the peer does not read, closing the connection!")) << log.text();
  EXPECT_TRUE(wellBehavedSlaveEchoes());
}

TEST_F(ReliabilityTest, HeadersOfHugeFramesCostLittleUntilTheIdleClose) {
  std::vector<std::unique_ptr<RawPeer>> peers;
  for (int host = 2; host < 10; ++host) {
    const std::string source = "127.0.0." + std::to_string(host);
    for (int i = 0; i < 8; ++i) peers.push_back(connectPeer(source.c_str()));
  }
  tavrinTesting::Bytes header;
  header.u8(0xA5).u32(1000000);
  for (auto& peer : peers) peer->sendSome(header.data);
  ASSERT_EQ(master.getTCPConnectionCount(), peers.size());
  EXPECT_TRUE(attackFor(
      3s, [] {}, true));
  EXPECT_LT(heapGrowth(), 4 * kMiB) << "64 declared megabytes, none of them sent";
  EXPECT_TRUE(runUntil([&] { return master.getTCPConnectionCount() == 0; }, 3s));
  for (auto& peer : peers) EXPECT_TRUE(peer->closedByOtherSide());
  EXPECT_EQ(log.count("Keep alive timer expired"), kBurst) << "64 idle closes, rate-limited";
  EXPECT_EQ(log.count("Accepted client"), kBurst);
}

TEST_F(ReliabilityTest, BlocksDeclaredFarLongerThanTheirFramesAreDropped) {
  auto peer = connectPeer("127.0.0.2");
  peer->sendSome(frame(2, 0) + connectRequest(1));
  const std::vector<Frame> accept = answers(*peer, 1);
  ASSERT_EQ(accept.size(), 1u);
  ASSERT_EQ(accept[0].type, 9) << "accepted";
  const uint32_t masterId = tavrinTesting::readU32(accept[0].payload, 8);
  tavrinTesting::Bytes block;
  block.u32(1024 * 1024).u32(0x01020304);  // declares a megabyte, carries four bytes
  const std::string frames = repeated(frame(4, masterId, block.data), 2000);
  size_t sent = 0;
  attackFor(2s, [&] {
    if (sent < frames.size()) sent += peer->sendSome(frames.substr(sent));
  });
  ASSERT_EQ(sent, frames.size());
  EXPECT_LT(bytesDelivered, 2000u * 8 * 1024) << "2000 frames of 15 bytes deliver no megabytes";
  EXPECT_LE(log.count("SimpleConnector"), 12u) << "the drops are rate-limited";
  EXPECT_TRUE(wellBehavedSlaveEchoes());
}

TEST_F(ReliabilityTest, ConnectionLimitsRefuseTheSurplusAndKeepServingTheRest) {
  ConnectionLimits limits;
  limits.maxTCPConnections = 12;
  limits.maxTCPConnectionsPerAddress = 3;
  limits.maxLogicalConnectionsPerTCPConnection = 2;
  master.setConnectionLimits(limits);
  std::vector<std::unique_ptr<RawPeer>> peers;
  for (int i = 0; i < 5; ++i) peers.push_back(connectPeer("127.0.0.2"));
  for (int host = 3; host < 7; ++host)
    for (int i = 0; i < 3; ++i)
      peers.push_back(connectPeer(("127.0.0." + std::to_string(host)).c_str()));
  ASSERT_TRUE(runUntil([&] { return master.getBoundCounters().tcpConnectionsRefused == 5; }, 5s))
      << "two over the per-address limit, three over the total";
  EXPECT_EQ(master.getTCPConnectionCount(), 12u);
  EXPECT_TRUE(runUntil([&] { return peers[3]->closedByOtherSide(); }, 2s));

  // One TCP connection asking for more logical connections than it may carry.
  peers.clear();
  ASSERT_TRUE(runUntil([&] { return master.getTCPConnectionCount() == 0; }, 5s));
  auto hoarder = connectPeer("127.0.0.2");
  hoarder->sendSome(frame(2, 0) + connectRequest(1) + connectRequest(2) + connectRequest(3));
  const std::vector<Frame> replies = answers(*hoarder, 3);
  ASSERT_EQ(replies.size(), 3u);
  EXPECT_EQ(replies[0].type, 9);
  EXPECT_EQ(replies[1].type, 9);
  ASSERT_EQ(replies[2].type, 8) << "the third is rejected";
  EXPECT_EQ(static_cast<int32_t>(tavrinTesting::readU32(replies[2].payload, 10)), -8);
  EXPECT_TRUE(wellBehavedSlaveEchoes());
}

TEST_F(ReliabilityTest, OutOfDescriptorsPausesAcceptingInsteadOfSpinning) {
  if (tavrinTesting::sanitizerBuild() || tavrinTesting::underEmulation())
    GTEST_SKIP() << "the sanitizer runtime or the emulator opens descriptors of its own, which "
                    "this test takes away";
  rlimit original{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &original), 0);
  // Room for the peers' own sockets and nothing for the master to accept into. Two fit in the
  // listening backlog while nobody accepts.
  const int probe = dup(0);
  ASSERT_GE(probe, 0);
  close(probe);
  rlimit tight = original;
  std::vector<std::unique_ptr<RawPeer>> peers;
  for (int i = 0; i < 2; ++i) peers.push_back(std::make_unique<RawPeer>(port, "127.0.0.2"));
  tight.rlim_cur = static_cast<rlim_t>(probe + 2);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  attackFor(1200ms, [] {});
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &original), 0);
  const size_t pauses = master.getAcceptPauses();
  EXPECT_GE(pauses, 1u);
  EXPECT_LE(pauses, 4u) << "one per pause of 500 ms, not one per turn";
  EXPECT_EQ(log.count("not accepting for 500 ms"), pauses);
  // Accepting resumes with descriptors to spare.
  EXPECT_TRUE(runUntil([&] { return master.getTCPConnectionCount() == 2; }, 3s));
  EXPECT_TRUE(wellBehavedSlaveEchoes());
}

TEST_F(ReliabilityTest, AFastSenderUnderBackPressureLosesNothing) {
  ConnectionLimits limits;
  limits.maxReceiveQueueFrames = 16;
  master.setConnectionLimits(limits);
  echo = false;
  uint32_t expected = 0;
  bool inOrder = true;
  master.addConnectionHandler(kType, 1, [&] {
    return blockHandler([&](SimpleConnectorHandler&, std::vector<unsigned char>& data) {
      uint32_t sequence = 0;
      std::copy_n(data.data(), sizeof sequence, reinterpret_cast<unsigned char*>(&sequence));
      inOrder = inOrder && sequence == expected;
      ++expected;
    });
  });
  TCPConnectorSlave slave(&scheduler, nullptr);
  SimpleConnectorHandler* handler = connectSlave(slave, [](auto&, auto&) {});
  ASSERT_NE(handler, nullptr);
  SingleTCPConnectionEndpoint* tcp = slave.getTCPConnection(master.getListeningEndpoint());
  ASSERT_NE(tcp, nullptr);
  constexpr uint32_t kBlocks = 50000;
  std::string block(200, 'b');
  uint32_t sent = 0;
  const auto end = Clock::now() + 20s;
  while (expected < kBlocks && Clock::now() < end) {
    // As fast as the slave's own queue allows.
    while (sent < kBlocks && tcp->getTransceiver().getSendQueueBytes() < 256 * 1024) {
      std::copy_n(reinterpret_cast<const char*>(&sent), sizeof sent, block.begin());
      ASSERT_TRUE(handler->sendData(block.data(), static_cast<unsigned>(block.size())));
      ++sent;
    }
    scheduler.run(0);
  }
  EXPECT_EQ(expected, kBlocks);
  EXPECT_TRUE(inOrder);
  const SingleTCPConnectionEndpoint* onMaster =
      master.getTCPConnection(tcp->getTransceiver().getSocket()->getBoundEndpoint());
  ASSERT_NE(onMaster, nullptr);
  EXPECT_GT(onMaster->getReadPauses(), 0u) << "the bound was reached, and held";
}

}  // namespace
}  // namespace tavrinConnector
