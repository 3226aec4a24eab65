// Feeds arbitrary bytes, cut into arbitrary chunks, to the transceiver's receive path through the
// fake socket, echoes what arrives through the send path against scripted partial writes, and
// checks that every delivered frame verifies and is exactly the next frame of the stream.
//
// Input layout: byte 0 and 1 seed the chunking and choose the options, the rest is the stream.
#include "FuzzCheck.h"
#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/connector/TCPTransceiver.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/testing/FakeTCPSocket.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

using tavrinConnector::InputMessage;
using tavrinConnector::OutputMessage;
using tavrinConnector::TCPTransceiver;

struct MessageBufferView {
  const char* data;
  unsigned length;
};

constexpr int kIn = 1;
constexpr int kOut = 4;

struct Random {
  uint32_t state;
  uint32_t next() {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    return state;
  }
  // Mostly small chunks, which split headers and delimiters, sometimes more than one read's worth.
  size_t chunkSize() {
    const uint32_t r = next();
    switch (r & 3) {
      case 0: return 1;
      case 1: return 1 + (r >> 2) % 8;
      case 2: return 1 + (r >> 2) % 300;
      default: return 1 + (r >> 2) % 5000;
    }
  }
};

// Every line is formatted (the level is Maximum) and dropped.
tavrinLog::TavrinLogging& fuzzLogging() {
  static tavrinLog::TavrinLogging logging(tavrinLog::SeverityLevel::Maximum,
                                          [](int, tavrinLog::SeverityLevel::Type, const char*) {});
  return logging;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const uint8_t options = data[1];
  Random random{0x9E3779B9u ^ (static_cast<uint32_t>(data[0]) << 8) ^ options};
  const std::string stream(reinterpret_cast<const char*>(data) + 2, size - 2);
  const bool smallLimit = options & 1;
  const bool connecting = options & 2;
  const bool echo = options & 4;
  const bool endOfStream = options & 8;

  auto socket = std::make_unique<tavrinTesting::FakeTCPSocket>();
  tavrinTesting::FakeTCPSocket* fake = socket.get();
  int disconnected = 0;
  size_t deliveredEnd = 0;  // delivered frames are exactly a prefix of the stream
  std::string echoed;
  TCPTransceiver* self = nullptr;
  TCPTransceiver transceiver(
      tavrinNetwork::SimpleEndpoint(tavrinNetwork::SimpleIp("127.0.0.1"), 5000), std::move(socket),
      !connecting,
      [&](std::unique_ptr<InputMessage>&& message) {
        FUZZ_CHECK(message && message->isValid());
        const MessageBufferView view{message->buffer.getData(), message->buffer.getDataLength()};
        FUZZ_CHECK(view.length == message->getLength() + 5);
        FUZZ_CHECK(view.length >= 11 && view.length <= self->getMaxFrameLength());
        FUZZ_CHECK(static_cast<uint8_t>(view.data[0]) == 0xA5);
        FUZZ_CHECK(static_cast<uint8_t>(view.data[view.length - 1]) == 0x5A);
        FUZZ_CHECK(stream.compare(deliveredEnd, view.length, view.data, view.length) == 0);
        deliveredEnd += view.length;
        FUZZ_CHECK(message->buffer.getOffset() == 10);
        if (echo) {
          auto reply = std::make_unique<OutputMessage>();
          unsigned n = message->getLength() - 6;
          const char* payload = message->buffer.accessRawData(n);
          reply->getBuffer().write(payload, n);
          reply->finalizeMessage(message->getType(), message->getAdditionalInfo());
          echoed.append(reply->getData(), reply->getFrameLength());
          self->send(std::move(reply));
        }
      },
      [] {}, [&] { ++disconnected; }, {}, {}, &fuzzLogging());
  self = &transceiver;
  if (smallLimit) transceiver.setMaxFrameLength(11 + random.next() % 200);

  bool open = true;
  if (connecting) {
    FUZZ_CHECK(transceiver.socketCallback(kIn) == kOut);
    open = transceiver.socketCallback(kOut) != tavrinScheduler::IOWatchItem::Removed;
  }
  size_t at = 0;
  while (open && at < stream.size()) {
    const size_t n = random.chunkSize();
    fake->addChunk(stream.substr(at, n));
    at += n;
    if (echo && (random.next() & 1)) fake->addSendLimit(static_cast<int>(random.next() % 40));
    if (random.next() % 4 == 0) continue;  // let two chunks wait for one wake-up
    const int events = (random.next() & 1) ? (kIn | kOut) : kIn;
    open = transceiver.socketCallback(events) != tavrinScheduler::IOWatchItem::Removed;
  }
  // A wake-up reads until a short read, so waiting chunks take one wake-up each.
  while (open && fake->pendingReads() > 0)
    open = transceiver.socketCallback(kIn) != tavrinScheduler::IOWatchItem::Removed;
  if (open && endOfStream) {
    fake->addEndOfStream();
    FUZZ_CHECK(transceiver.socketCallback(kIn) == tavrinScheduler::IOWatchItem::Removed);
    FUZZ_CHECK(disconnected == 1);
    open = false;
  }
  if (open) {
    // Once the scripted limits are used up the fake takes everything: the echo must come out whole.
    while (open && transceiver.getSendQueueSize() > 0)
      open = transceiver.socketCallback(kOut) != tavrinScheduler::IOWatchItem::Removed;
    FUZZ_CHECK(open);
    FUZZ_CHECK(fake->written == echoed);
    FUZZ_CHECK(disconnected == 0);
  } else {
    FUZZ_CHECK(disconnected == 1);
    FUZZ_CHECK(!fake->valid());
  }
  transceiver.disconnect();
  FUZZ_CHECK(disconnected <= 1);
  return 0;
}
