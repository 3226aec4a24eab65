#include "tavrincommon/connector/TCPTransceiver.h"

#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/testing/FakeTCPSocket.h"
#include "tavrincommon/testing/HeapUsage.h"
#include "tavrincommon/testing/LogCapture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

namespace tavrinConnector {
namespace {

using tavrinScheduler::IOWatchItem;

constexpr int kIn = 1;
constexpr int kOut = 4;

std::string frameOf(uint8_t type, uint32_t info, const std::string& payload) {
  OutputMessage message(static_cast<unsigned>(payload.size()));
  for (char c : payload) message.putUInt8(c);
  message.finalizeMessage(type, info);
  return std::string(message.getData(), message.getFrameLength());
}

std::unique_ptr<OutputMessage> messageOf(const std::string& payload) {
  auto message = std::make_unique<OutputMessage>();
  for (char c : payload) message->putUInt8(c);
  message->finalizeMessage(4, 1);
  return message;
}

class TCPTransceiverTest : public ::testing::Test {
 protected:
  struct Registration {
    int fd;
    int events;
    bool watched;
  };

  void make(bool connected) {
    transceiver.reset();
    registrations.clear();
    received.clear();
    changes.clear();
    dataReceived = disconnected = 0;
    log.clear();
    auto socket = std::make_unique<tavrinTesting::FakeTCPSocket>();
    fake = socket.get();
    fd = fake->getFd();
    transceiver = std::make_unique<TCPTransceiver>(
        tavrinNetwork::SimpleEndpoint(tavrinNetwork::SimpleIp("127.0.0.1"), 4000),
        std::move(socket), connected,
        [this](std::unique_ptr<InputMessage>&& message) {
          received.push_back(
              std::string(message->buffer.getData(), message->buffer.getDataLength()));
          EXPECT_TRUE(message->isValid());
          // As a connector does: a frame its handler let go goes back for reuse.
          if (recycleEveryOther && received.size() % 2 == 0)
            transceiver->recycle(std::move(message));
          else if (recycleEveryOther)
            kept.push_back(std::move(message));
          if (disconnectOnReceive) transceiver->disconnect();
        },
        [this] { ++dataReceived; }, [this] { ++disconnected; },
        [this](int fd_, int events, TCPTransceiver::SocketCallback callback) {
          registrations.push_back({fd_, events, static_cast<bool>(callback)});
        },
        [this](int, int events) { changes.push_back(events); }, log.logging());
  }

  // Reads as the loop would while the socket is readable.
  IOWatchItem::Result readable() { return transceiver->socketCallback(kIn); }

  void expectClosedOnceWith(const std::string& logFragment) {
    EXPECT_EQ(disconnected, 1);
    EXPECT_FALSE(fake->valid());
    ASSERT_FALSE(registrations.empty());
    EXPECT_FALSE(registrations.back().watched);
    EXPECT_TRUE(log.contains(logFragment)) << log.text();
  }

  tavrinTesting::LogCapture log;
  tavrinTesting::FakeTCPSocket* fake = nullptr;
  int fd = -1;
  std::vector<std::string> received;
  std::vector<Registration> registrations;
  std::vector<int> changes;
  int dataReceived = 0;
  int disconnected = 0;
  bool disconnectOnReceive = false;
  bool recycleEveryOther = false;
  std::vector<std::unique_ptr<InputMessage>> kept;
  // Last: its destructor still reports to the members above.
  std::unique_ptr<TCPTransceiver> transceiver;
};

TEST_F(TCPTransceiverTest, FrameArrivingOneBytePerReadIsDeliveredOnceAfterItsLastByte) {
  make(true);
  ASSERT_EQ(registrations.size(), 1u);
  EXPECT_EQ(registrations[0].fd, fd);
  EXPECT_EQ(registrations[0].events, kIn);
  const std::string frame = frameOf(4, 7, "payload");
  fake->addChunks(frame, 1);
  for (size_t i = 0; i + 1 < frame.size(); ++i) {
    EXPECT_EQ(readable(), kIn);
    ASSERT_TRUE(received.empty()) << "delivered after byte " << i;
  }
  readable();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0], frame);
  EXPECT_EQ(dataReceived, static_cast<int>(frame.size()));
  EXPECT_EQ(transceiver->getBytesReceived(), frame.size());
}

TEST_F(TCPTransceiverTest, ReusedFrameStorageNeverReachesAMessageStillHeld) {
  make(true);
  recycleEveryOther = true;
  std::vector<std::string> frames;
  for (unsigned i = 0; i < 8; ++i) frames.push_back(frameOf(4, i, std::string(i * 3, 'a' + i)));
  fake->addChunk(frames[0] + frames[1] + frames[2] + frames[3]);
  readable();
  fake->addChunk(frames[4] + frames[5] + frames[6] + frames[7]);
  readable();
  ASSERT_EQ(received, frames);  // every frame of a read, in order
  EXPECT_EQ(dataReceived, 2);   // once per read
  ASSERT_EQ(kept.size(), 4u);
  for (unsigned i = 0; i < 4; ++i)
    EXPECT_EQ(std::string(kept[i]->buffer.getData(), kept[i]->buffer.getDataLength()),
              frames[2 * i]);
  EXPECT_GT(transceiver->getSpareInputBytes(), 0u);
  transceiver->disconnect();
  EXPECT_EQ(transceiver->getSpareInputBytes(), 0u);
}

TEST_F(TCPTransceiverTest, LargeFrameReadIntoItsStorageStopsAtItsLastByte) {
  make(true);
  std::string payload(10000, '\0');
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 7);
  const std::string large = frameOf(4, 1, payload), next = frameOf(4, 2, "next");
  // The rest of the large frame and the next frame arrive together: the read into the frame's
  // storage must take only what belongs to it.
  fake->addChunk(large.substr(0, 3000));
  fake->addChunk(large.substr(3000) + next);
  // A short read ends a callback as the socket would then be drained: one call per chunk here.
  for (int i = 0; i < 3; ++i) readable();
  ASSERT_EQ(received.size(), 2u);
  EXPECT_EQ(received[0], large);
  EXPECT_EQ(received[1], next);

  fake->addChunks(large + next, 4096);  // a frame split across several reads of its storage
  for (int i = 0; i < 6; ++i) readable();
  ASSERT_EQ(received.size(), 4u);
  EXPECT_EQ(received[2], large);
  EXPECT_EQ(received[3], next);

  // Each read into a frame's storage also takes the next header, or the part of it that is there.
  const std::string a = frameOf(4, 5, std::string(2100, 'a'));
  const std::string b = frameOf(4, 6, std::string(2200, 'b')), c = frameOf(4, 7, "c");
  fake->addChunk(a + b.substr(0, 2));
  fake->addChunk(b.substr(2) + c);
  for (int i = 0; i < 6; ++i) readable();
  EXPECT_EQ(received, (std::vector<std::string>{large, next, large, next, a, b, c}));
}

TEST_F(TCPTransceiverTest, FramingErrorsCloseTheConnectionBeforeDelivery) {
  std::string badEnd = frameOf(4, 0, "abc");
  badEnd.back() = 0x00;
  // Length 3 is shorter than any frame: the 8 bytes it describes end in 0x5A but do not verify.
  const std::string shortLength("\xA5\x03\x00\x00\x00\x01\x02\x5A", 8);
  const std::string hugeLength("\xA5\xFF\xFF\xFF\x7F\x04", 6);
  // Under a bound of 20 bytes set on this connection a 20-byte frame passes, the next does not.
  const std::string bounded = frameOf(4, 0, std::string(9, 'a')) + frameOf(4, 0, "0123456789");
  const struct {
    std::string stream;
    std::string log;
    unsigned maxFrameLength;
  } cases[] = {
      {"\x5A" + frameOf(4, 0, ""), "Start delimiter missing, closing the connection!", 0},
      {badEnd, "End delimiter missing, closing the connection!", 0},
      {shortLength, "validity check failed, closing the connection!", 0},
      {hugeLength, "Length 2147483647 exceeds the maximum frame length of 1048576 bytes", 0},
      {bounded, "Length 16 exceeds the maximum frame length of 20 bytes", 20},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.log);
    make(true);
    if (c.maxFrameLength) transceiver->setMaxFrameLength(c.maxFrameLength);
    fake->addChunk(c.stream);
    EXPECT_EQ(readable(), IOWatchItem::Removed);
    EXPECT_EQ(received.size(), c.maxFrameLength ? 1u : 0u);
    expectClosedOnceWith(c.log);
  }
  transceiver->setMaxFrameLength(3);  // raised to the shortest frame
  EXPECT_EQ(transceiver->getMaxFrameLength(), 11u);
}

TEST_F(TCPTransceiverTest, FrameStorageGrowsWithTheBytesThatArriveNotWithTheHeader) {
  make(true);
  std::string payload(1000000, '\0');
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 13);
  const std::string large = frameOf(4, 7, payload);
  const size_t before = tavrinTesting::heldHeapBytes();
  fake->addChunk(large.substr(0, 5));  // a header that declares a megabyte, and nothing more
  readable();
  EXPECT_LT(tavrinTesting::heldHeapBytes(), before + 16 * 1024);
  fake->addChunks(large.substr(5), 3000);
  while (fake->pendingReads() > 0) readable();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0], large);
}

TEST_F(TCPTransceiverTest, APeerThatDoesNotReadIsClosedWhenItsQueueOutgrowsTheBound) {
  make(true);
  transceiver->setMaxSendQueueBytes(2000);
  fake->addSendLimit(0);  // the peer's window is full
  size_t queued = 0;
  while (fake->valid() && queued < 1000) {
    EXPECT_EQ(transceiver->isSendQueueAboveLowWatermark(), transceiver->getSendQueueBytes() > 500);
    auto pong = std::make_unique<OutputMessage>(0);
    pong->finalizeMessage(1, 0);
    transceiver->send(std::move(pong));
    ++queued;
  }
  expectClosedOnceWith("Send queue of TCP connection socket 127.0.0.1:4000 holds ");
  EXPECT_TRUE(
      log.contains("more than its bound of 2000 bytes: the peer does not read, closing the "
                   "connection!"));
  EXPECT_TRUE(transceiver->wasClosedAsSlowConsumer());
  // What counts is the heap a queued 11-byte frame holds, several times its size.
  EXPECT_LT(queued, 2000u / 44);
  EXPECT_EQ(transceiver->getSendQueueBytes(), 0u);
}

TEST_F(TCPTransceiverTest, ReadErrorsAndEndOfStreamCloseButEagainDoesNot) {
  make(true);
  fake->addReceiveError(EAGAIN);
  EXPECT_EQ(readable(), kIn);
  EXPECT_EQ(disconnected, 0);
  fake->addReceiveError(ECONNRESET);
  EXPECT_EQ(readable(), IOWatchItem::Removed);
  expectClosedOnceWith("Failed to receive data on TCP connection socket 127.0.0.1:4000 (104 (");

  make(true);
  fake->addChunk(frameOf(4, 0, "z"));
  fake->addEndOfStream();
  readable();  // the frame; its read was short, so the end of stream waits for the next wake-up
  EXPECT_EQ(received.size(), 1u);
  EXPECT_EQ(readable(), IOWatchItem::Removed);
  EXPECT_EQ(disconnected, 1);
  EXPECT_EQ(fake->receiveCalls, 2);
}

TEST_F(TCPTransceiverTest, PartialWritesAndEagainWaitForTheWritableEvent) {
  make(true);
  const std::string first = frameOf(4, 1, "first"), second = frameOf(4, 1, "second");
  fake->addSendLimit(4);
  transceiver->send(messageOf("first"));
  EXPECT_EQ(fake->written, first.substr(0, 4));
  EXPECT_EQ(changes, std::vector<int>{kIn | kOut});
  fake->addSendLimit(0);  // EAGAIN on the next attempt
  transceiver->send(messageOf("second"));
  EXPECT_EQ(fake->sendCalls, 1);  // queued behind the pending frame, not written yet
  EXPECT_EQ(transceiver->socketCallback(kOut), kIn | kOut);
  EXPECT_EQ(transceiver->socketCallback(kOut), kIn);
  EXPECT_EQ(fake->written, first + second);
  EXPECT_EQ(changes, (std::vector<int>{kIn | kOut, kIn}));
  EXPECT_EQ(transceiver->getBytesSent(), first.size() + second.size());
  EXPECT_EQ(transceiver->getSendQueueSize(), 0u);
  EXPECT_EQ(disconnected, 0);
}

TEST_F(TCPTransceiverTest, SendErrorClosesAndUnfinalizedOrLateMessagesAreDropped) {
  make(true);
  auto unfinished = std::make_unique<OutputMessage>();
  transceiver->send(std::move(unfinished));
  EXPECT_EQ(fake->sendCalls, 0);
  EXPECT_EQ(transceiver->getSendQueueSize(), 0u);

  fake->addSendError(EIO);
  transceiver->send(messageOf("x"));
  expectClosedOnceWith(
      "Failed to send data (12 bytes) on TCP connection socket 127.0.0.1:4000 "
      "(5 (Input/output error)), closing the connection!");
  transceiver->send(messageOf("y"));
  EXPECT_EQ(fake->sendCalls, 1);
  EXPECT_EQ(transceiver->getSendQueueSize(), 0u);

  // The peer's reset: what it sent before is read first, then the connection ends.
  make(true);
  fake->addSendError(EPIPE);
  transceiver->send(messageOf("x"));
  transceiver->send(messageOf("y"));  // dropped: the connection is ending
  EXPECT_EQ(fake->sendCalls, 1);
  EXPECT_EQ(disconnected, 0);
  fake->addChunk(frameOf(4, 1, "last"));
  fake->addEndOfStream();
  EXPECT_EQ(transceiver->socketCallback(kIn), IOWatchItem::Removed);
  EXPECT_EQ(received.size(), 1u);
  expectClosedOnceWith(
      "(32 (Broken pipe)), closing the connection once what the peer sent has "
      "been read!");
}

TEST_F(TCPTransceiverTest, MessageSentWhileConnectingIsWrittenOnceConnected) {
  make(false);
  ASSERT_EQ(registrations.size(), 1u);
  EXPECT_EQ(registrations[0].events, kOut);
  transceiver->send(messageOf("early"));
  EXPECT_EQ(fake->sendCalls, 0);
  EXPECT_EQ(transceiver->socketCallback(kIn), kOut);  // not writable yet: keep waiting
  EXPECT_FALSE(transceiver->isConnected());
  EXPECT_EQ(transceiver->socketCallback(kOut), kIn);
  EXPECT_TRUE(transceiver->isConnected());
  EXPECT_EQ(fake->written, frameOf(4, 1, "early"));

  make(false);
  fake->pendingError = true;
  EXPECT_EQ(transceiver->socketCallback(kOut), IOWatchItem::Removed);
  expectClosedOnceWith("Failed to finalize TCP connection socket 127.0.0.1:4000");
}

TEST_F(TCPTransceiverTest, OwnerClosingDuringDeliveryStopsTheReadAndIsToldOnce) {
  make(true);
  disconnectOnReceive = true;
  fake->addSendLimit(1);
  transceiver->send(messageOf("queued"));
  fake->addChunk(frameOf(4, 1, "a") + frameOf(4, 2, "b"));
  EXPECT_EQ(readable(), IOWatchItem::Removed);
  EXPECT_EQ(received.size(), 1u);
  EXPECT_EQ(dataReceived, 0);
  transceiver->disconnect();
  EXPECT_EQ(fake->closeCalls, 1);
  EXPECT_EQ(transceiver->getSendQueueSize(), 0u);
  transceiver.reset();
  EXPECT_EQ(disconnected, 1);
}

TEST_F(TCPTransceiverTest, ReceiveCallbackMayReplaceItselfOrDestroyTheTransceiver) {
  make(true);
  std::vector<std::string> seen;
  const std::string tag(40, 'x');  // too large for std::function's inline storage
  transceiver->setCallbacks(
      [&, tag](std::unique_ptr<InputMessage>&&) {
        transceiver->setCallbacks(
            [&](std::unique_ptr<InputMessage>&&) {
              seen.push_back("destroying");
              transceiver.reset();
            },
            nullptr, [&] { seen.push_back("disconnected"); });
        seen.push_back(tag.substr(0, 1));
      },
      nullptr, nullptr);
  fake->addChunk(frameOf(4, 1, "a") + frameOf(4, 2, "b") + frameOf(4, 3, "c"));
  EXPECT_EQ(readable(), IOWatchItem::Removed);
  EXPECT_FALSE(transceiver);
  EXPECT_EQ(seen, (std::vector<std::string>{"x", "destroying", "disconnected"}));
}

}  // namespace
}  // namespace tavrinConnector
