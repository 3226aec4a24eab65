// The connector transport's hot paths: the receive path (stream reassembly, verification and
// delivery of frames held in memory) beside a plain copy of the same bytes, and building and
// finalizing outgoing frames. Allocations are counted to show what each delivered frame costs.
#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/connector/TCPTransceiver.h"
#include "tavrincommon/network/TCPSocketInterface.h"

#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

namespace {

size_t allocations = 0;

}  // namespace

// Counting replacements of the global allocation functions. GCC cannot see that the deletes below
// pair with the news above them.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void* operator new(size_t size) {
  ++allocations;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void* operator new[](size_t size) { return operator new(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }

namespace {

using tavrinConnector::InputMessage;
using tavrinConnector::OutputMessage;
using tavrinConnector::TCPTransceiver;

constexpr size_t kStreamBytes = 1 << 20;

// Serves a stream held in memory the way a socket with all of it waiting would.
class MemoryStreamSocket : public tavrinNetwork::TCPSocketInterface {
 public:
  explicit MemoryStreamSocket(const std::string& stream_) : stream(stream_) {}
  void rewind() { at = 0; }
  void close() override { open = false; }
  bool setNonblock() override { return true; }
  bool setDSCP(int) override { return true; }
  int send(const void*, int length) override { return length; }
  int receive(void* buffer, int length) override {
    const size_t left = stream.size() - at;
    if (left == 0) {
      errno = EAGAIN;
      return -1;
    }
    const size_t n = left < static_cast<size_t>(length) ? left : static_cast<size_t>(length);
    std::memcpy(buffer, stream.data() + at, n);
    at += n;
    return static_cast<int>(n);
  }
  bool valid() const override { return open; }
  int getFd() const override { return 3; }
  tavrinNetwork::SimpleEndpoint getBoundEndpoint() const override { return {}; }
  bool hasError() const override { return false; }

 private:
  const std::string& stream;
  size_t at = 0;
  bool open = true;
};

std::string streamOf(size_t payloadSize, size_t& frames) {
  OutputMessage message(static_cast<unsigned>(payloadSize));
  message.getBuffer().setBytes(0x33, static_cast<unsigned>(payloadSize));
  message.finalizeMessage(4, 1);
  const std::string frame(message.getData(), message.getFrameLength());
  frames = kStreamBytes / frame.size() + 1;
  std::string stream;
  stream.reserve(frames * frame.size());
  for (size_t i = 0; i < frames; ++i) stream += frame;
  return stream;
}

// `recycled`: each frame goes back to the transceiver once handled, as a TCP connection of the
// connector gives back what its handlers let go; otherwise every frame is destroyed.
void receivePath(benchmark::State& state, bool recycled) {
  size_t frames = 0;
  const std::string stream = streamOf(static_cast<size_t>(state.range(0)), frames);
  auto socket = std::make_unique<MemoryStreamSocket>(stream);
  MemoryStreamSocket* source = socket.get();
  size_t delivered = 0;
  TCPTransceiver* self = nullptr;
  TCPTransceiver transceiver(
      tavrinNetwork::SimpleEndpoint(), std::move(socket), true,
      [&](std::unique_ptr<InputMessage>&& message) {
        benchmark::DoNotOptimize(message->getAdditionalInfo());
        ++delivered;
        if (recycled) self->recycle(std::move(message));
      },
      {}, {}, {}, {}, nullptr);
  self = &transceiver;
  const size_t allocationsBefore = allocations;
  for (auto _ : state) {
    source->rewind();
    transceiver.socketCallback(1);
  }
  if (delivered != frames * static_cast<size_t>(state.iterations()))
    state.SkipWithError("frames lost");
  state.SetItemsProcessed(static_cast<int64_t>(delivered));
  state.SetBytesProcessed(static_cast<int64_t>(stream.size() * state.iterations()));
  state.counters["allocs/frame"] =
      static_cast<double>(allocations - allocationsBefore) / static_cast<double>(delivered);
}

void BM_ReceivePath(benchmark::State& state) { receivePath(state, false); }
void BM_ReceivePathRecycled(benchmark::State& state) { receivePath(state, true); }

void BM_PlainCopy(benchmark::State& state) {
  size_t frames = 0;
  const std::string stream = streamOf(static_cast<size_t>(state.range(0)), frames);
  std::string target(stream.size(), '\0');
  for (auto _ : state) {
    std::memcpy(&target[0], stream.data(), stream.size());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(frames * state.iterations()));
  state.SetBytesProcessed(static_cast<int64_t>(stream.size() * state.iterations()));
}

// What the socket's own copy costs: the same bytes read through the same socket into a 2048-byte
// array, nothing else. The receive path's work beyond its reads is the difference.
void BM_SocketReadsOnly(benchmark::State& state) {
  size_t frames = 0;
  const std::string stream = streamOf(static_cast<size_t>(state.range(0)), frames);
  MemoryStreamSocket socket(stream);
  char chunk[TCPTransceiver::kReadChunkSize];
  for (auto _ : state) {
    socket.rewind();
    while (socket.receive(chunk, sizeof chunk) > 0) benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(frames * state.iterations()));
  state.SetBytesProcessed(static_cast<int64_t>(stream.size() * state.iterations()));
}

// A connect request: the fields of the largest control message, finalized.
void BM_BuildConnectMessage(benchmark::State& state) {
  for (auto _ : state) {
    OutputMessage message(32);
    message.putUInt32(0xFFFFFFFFu);
    message.putUInt16(5);
    message.putUInt32(17);
    message.putUInt32(42);
    message.putUInt16(3);
    for (unsigned short version = 3; version > 0; --version) message.putUInt16(version);
    message.finalizeMessage(3, 7);
    benchmark::DoNotOptimize(message.getData());
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_BuildDataMessage(benchmark::State& state) {
  const std::string payload(static_cast<size_t>(state.range(0)), 'd');
  for (auto _ : state) {
    OutputMessage message;
    message.getBuffer().write(payload.data(), static_cast<unsigned>(payload.size()));
    message.finalizeMessage(4, 9);
    benchmark::DoNotOptimize(message.getData());
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(payload.size() * state.iterations()));
}

BENCHMARK(BM_ReceivePath)->Arg(16)->Arg(256)->Arg(2048)->Arg(65536);
BENCHMARK(BM_ReceivePathRecycled)->Arg(16)->Arg(2048)->Arg(65536);
BENCHMARK(BM_PlainCopy)->Arg(16)->Arg(256)->Arg(2048)->Arg(65536);
BENCHMARK(BM_SocketReadsOnly)->Arg(16)->Arg(2048)->Arg(65536);
BENCHMARK(BM_BuildConnectMessage);
BENCHMARK(BM_BuildDataMessage)->Arg(16)->Arg(2048)->Arg(65536);

}  // namespace

BENCHMARK_MAIN();
