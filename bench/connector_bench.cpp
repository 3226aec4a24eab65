// Logical-connection data from a TCP connector slave's handler to a master's handler over
// 127.0.0.1, each connector on a thread of its own with its own scheduler, and the round trip of a
// small message that the master's handler echoes. Beside them, in the same run, the same traffic
// without the connector (wire_peers.cpp): framed messages over a bare socket written with one
// send() per message (the limit of a design that writes every message as soon as it is sent) or
// batched, a bare TCP ping-pong and, when libzmq is there, ZeroMQ PUSH/PULL and REQ/REP.
// Every iteration moves a fixed number of messages; times are wall-clock times, and the CPU time
// per message is the whole process's (every thread, the peers' I/O threads included).
#include "bench/wire_bench.h"
#include "tavrincommon/connector/ConnectionHandlerBase.h"
#include "tavrincommon/connector/ConnectionHandlerType.h"
#include "tavrincommon/connector/ConnectionTimeout.h"
#include "tavrincommon/connector/ConnectorInterfaceType.h"
#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/connector/TCPConnectorMaster.h"
#include "tavrincommon/connector/TCPConnectorSlave.h"
#include "tavrincommon/connector/TCPTransceiver.h"
#include "tavrincommon/network/SimpleEndpoint.h"
#include "tavrincommon/network/SimpleIp.h"
#include "tavrincommon/network/TCPSocketInterface.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>

#include <poll.h>

namespace tavrinBench {

std::atomic<uint64_t> allocationCounts[3];
thread_local int allocationSide = kOtherSide;

}  // namespace tavrinBench

// Out of line, so that the compiler does not pair a new it inlined with a free it sees.
[[gnu::noinline]] void* operator new(std::size_t size) {
  tavrinBench::allocationCounts[tavrinBench::allocationSide].fetch_add(1,
                                                                       std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using namespace tavrinBench;
using tavrinConnector::ConnectionHandlerBase;
using tavrinConnector::InputMessage;
using tavrinConnector::OutputMessage;
using tavrinConnector::TCPTransceiver;

// ---- the connector ----

constexpr unsigned short kType = tavrinConnector::ConnectionHandlerType::SimpleConnector;
constexpr unsigned kCluster = 8;
constexpr unsigned kConnectionId = 1;

// What the master's handler is told and what it counts; written on the master's thread only.
struct MasterSide {
  bool echo = false;
  size_t payload = 0;
  // The count of received messages at which the handler acknowledges with one byte.
  std::atomic<uint64_t> acknowledgeAt{0};
  std::atomic<uint64_t> received{0};
  std::atomic<uint64_t> wrongSize{0};
  uint64_t checksum = 0;
};

// The message comes from the connection's spare ones, as a handler that sends much takes it.
void sendPayload(ConnectionHandlerBase& handler, const ConnectionHandlerBase::SendFunction& send,
                 const char* data, size_t n) {
  std::unique_ptr<OutputMessage> message = handler.createMessage(static_cast<unsigned>(n));
  message->getBuffer().write(data, static_cast<unsigned>(n));
  send(std::move(message));
}

// The payload runs from the cursor to the end delimiter.
const char* payloadOf(InputMessage& message, unsigned& n) {
  const unsigned remaining = message.buffer.getRemaining();
  n = remaining > 0 ? remaining - 1 : 0;
  return message.buffer.accessRawData(n);
}

class SinkHandler : public ConnectionHandlerBase {
 public:
  explicit SinkHandler(MasterSide& side_) : side(side_) {}

  void receive(std::unique_ptr<InputMessage>&& message) override {
    unsigned n = 0;
    const char* data = payloadOf(*message, n);
    if (side.echo) {
      sendPayload(*this, sendFunction, data, n);
      return;
    }
    // Touch what a real handler would read: the header's info and the payload.
    side.checksum +=
        message->getAdditionalInfo() + (n > 0 ? static_cast<unsigned char>(data[0]) : 0u);
    if (n != side.payload) side.wrongSize.fetch_add(1, std::memory_order_relaxed);
    const uint64_t count = side.received.load(std::memory_order_relaxed) + 1;
    side.received.store(count, std::memory_order_relaxed);
    if (count == side.acknowledgeAt.load(std::memory_order_acquire))
      sendPayload(*this, sendFunction, data, 1);
  }
  unsigned short getType() const override { return kType; }
  unsigned short getVersion() const override { return 1; }

 protected:
  void specificConnected() override {}
  void specificDisconnected(unsigned, int, bool) override {}

 private:
  MasterSide& side;
};

// Sends on the benchmark's demand; counts replies and, while a round-trip run lasts, answers each
// reply with the next message.
class SourceHandler : public ConnectionHandlerBase {
 public:
  explicit SourceHandler(size_t payload) : bytes(payload, 'x') {}

  void sendOne() { sendPayload(*this, sendFunction, bytes.data(), bytes.size()); }
  void receive(std::unique_ptr<InputMessage>&& message) override {
    unsigned n = 0;
    benchmark::DoNotOptimize(payloadOf(*message, n));
    if (++replies < echoUntil) sendOne();
  }
  unsigned short getType() const override { return kType; }
  unsigned short getVersion() const override { return 1; }

  uint64_t replies = 0;
  uint64_t echoUntil = 0;

 protected:
  void specificConnected() override {}
  void specificDisconnected(unsigned, int, bool) override {}

 private:
  std::string bytes;
};

// A master on a thread of its own and a slave on the benchmark's thread, each with its own
// scheduler, and one logical connection between their handlers.
class ConnectorPair {
 public:
  ConnectorPair(size_t payload, bool echo, bool pinMaster) {
    side.echo = echo;
    side.payload = payload;
    std::promise<tavrinNetwork::SimpleEndpoint> listening;
    auto listeningAt = listening.get_future();
    allocationSide = kSlaveSide;
    masterThread = std::thread([this, pinMaster, &listening] {
      allocationSide = kMasterSide;
      if (pinMaster) pinSelfToCpu0();
      tavrinScheduler::Scheduler masterScheduler(nullptr);
      tavrinConnector::TCPConnectorMaster master(&masterScheduler, nullptr);
      master.init(1, 100, tavrinConnector::ConnectorInterfaceType::PanelMaster, kCluster,
                  tavrinNetwork::SimpleIp("127.0.0.1"), 0, false, false,
                  tavrinConnector::ConnectionTimeout{}, false);
      master.addConnectionHandler(kType, 1, [this] { return std::make_unique<SinkHandler>(side); });
      master.addAllowedConnection(kConnectionId, kType);
      master.setEnabled(true);
      listening.set_value(master.isListening() ? master.getListeningEndpoint()
                                               : tavrinNetwork::SimpleEndpoint());
      while (!stop.load(std::memory_order_relaxed)) {
        if (held.load(std::memory_order_acquire)) {
          std::unique_lock<std::mutex> lock(holdMutex);
          released.wait(lock, [this] { return !held.load() || stop.load(); });
        }
        masterScheduler.run(10);
      }
      master.setEnabled(false);
    });
    endpoint = listeningAt.get();

    slave.initCommon(2, 200, tavrinConnector::ConnectorInterfaceType::Client,
                     tavrinNetwork::SimpleIp("127.0.0.1"), tavrinConnector::ConnectionTimeout{},
                     false);
    slave.addConnectionHandler(kType, 1,
                               [payload] { return std::make_unique<SourceHandler>(payload); });
    slave.setEnabled(true);
    if (!slave.connect(endpoint, kCluster, kType, kConnectionId, kConnectionId, nullptr)) return;
    const auto giveUp = Clock::now() + std::chrono::milliseconds(kSilenceMs);
    while (!source() || !source()->isConnected()) {
      if (Clock::now() > giveUp) return;
      turn(10);
    }
    auto* tcp = slave.getTCPConnection(endpoint);
    if (tcp) transceiver = &tcp->getTransceiver();
  }
  ~ConnectorPair() {
    slave.setEnabled(false);
    {
      std::lock_guard<std::mutex> lock(holdMutex);
      stop = true;
    }
    hold(false);
    masterThread.join();
  }
  ConnectorPair(const ConnectorPair&) = delete;
  ConnectorPair& operator=(const ConnectorPair&) = delete;

  bool ok() const { return transceiver != nullptr; }
  // Holds the master's loop before its next turn, or lets it go on.
  void hold(bool on) {
    {
      std::lock_guard<std::mutex> lock(holdMutex);
      held = on;
    }
    released.notify_all();
  }
  SourceHandler* source() const {
    return static_cast<SourceHandler*>(slave.getConnection(kConnectionId));
  }
  // One turn of the slave's loop: when its connector has work waiting the turn does it and does
  // not wait; otherwise it waits for IO up to `ms`.
  void turn(int ms) { scheduler.run(slave.isScheduled() ? 0 : ms); }

  // `count` round trips, each started by the slave's handler and echoed by the master's.
  bool roundTrips(int64_t count) {
    SourceHandler& handler = *source();
    handler.echoUntil = handler.replies + static_cast<uint64_t>(count);
    handler.sendOne();
    const auto giveUp = Clock::now() + std::chrono::milliseconds(kSilenceMs);
    while (handler.replies < handler.echoUntil) {
      turn(100);
      if (Clock::now() > giveUp) return false;
    }
    return true;
  }

  MasterSide side;
  TCPTransceiver* transceiver = nullptr;

 private:
  std::atomic<bool> stop{false};
  std::atomic<bool> held{false};
  std::mutex holdMutex;
  std::condition_variable released;
  std::thread masterThread;
  tavrinNetwork::SimpleEndpoint endpoint;
  tavrinScheduler::Scheduler scheduler{nullptr};
  tavrinConnector::TCPConnectorSlave slave{&scheduler, nullptr};
};

bool waitWritable(int fd) {
  pollfd p{fd, POLLOUT, 0};
  return poll(&p, 1, kSilenceMs) > 0;
}

void connectorData(benchmark::State& state, size_t payload) {
  const int64_t count = messagesPerIteration(payload);
  ConnectorPair pair(payload, false, false);
  if (!pair.ok()) {
    state.SkipWithError("no logical connection between slave and master");
    return;
  }
  SourceHandler& source = *pair.source();
  TCPTransceiver& transceiver = *pair.transceiver;
  const int fd = transceiver.getSocket()->getFd();
  uint64_t expected = 0;
  // `count` messages, acknowledged by the master once it has them all.
  // With `backlog` the master is held until the socket takes no more, so that it then reads a
  // backlog as deep as its receive queue allows.
  auto batch = [&](bool backlog) {
    expected += static_cast<uint64_t>(count);
    pair.side.acknowledgeAt.store(expected, std::memory_order_release);
    const uint64_t repliesBefore = source.replies;
    int64_t sent = 0;
    auto giveUp = Clock::now() + std::chrono::milliseconds(kSilenceMs);
    if (backlog) pair.hold(true);
    while (source.replies == repliesBefore) {
      // Like the bare sender of one send() per message: write while the socket takes it, and
      // wait for room once the transport has had to queue.
      while (sent < count && transceiver.getSendQueueSize() == 0) {
        source.sendOne();
        ++sent;
      }
      if (backlog) {
        pair.hold(false);
        backlog = false;
      }
      if (sent < count && !waitWritable(fd)) break;
      pair.turn(sent < count ? 0 : 100);
      if (sent < count)
        giveUp = Clock::now() + std::chrono::milliseconds(kSilenceMs);
      else if (Clock::now() > giveUp)
        break;
    }
    return source.replies != repliesBefore;
  };
  // Warm-up: a backlog fills the connection's spare messages and queues to their working size,
  // and a batch as measured follows it.
  if (!batch(true) || !batch(false)) {
    state.SkipWithError("the master stopped acknowledging");
    return;
  }
  const uint64_t warmUp = expected;
  const Meter meter;
  for (auto _ : state) {
    if (!batch(false)) {
      state.SkipWithError("the master stopped acknowledging");
      return;
    }
  }
  meter.throughput(state, static_cast<double>(expected - warmUp), payload);
  meter.allocations(state, static_cast<double>(expected - warmUp));
  if (pair.side.received.load() != expected || pair.side.wrongSize.load() != 0)
    state.SkipWithError("messages lost or damaged");
}

void connectorRoundTrip(benchmark::State& state) {
  const PinnedToCpu0 pin;
  ConnectorPair pair(kRoundTripPayload, true, true);
  if (!pair.ok() || !pair.roundTrips(kWarmUpRoundTrips)) {
    state.SkipWithError("no echo from the master");
    return;
  }
  const Meter meter;
  for (auto _ : state) {
    if (!pair.roundTrips(kRoundTrips)) {
      state.SkipWithError("the echo stopped");
      return;
    }
  }
  meter.roundTrips(state, static_cast<double>(state.iterations() * kRoundTrips));
  meter.allocations(state, static_cast<double>(state.iterations() * kRoundTrips));
}

void registerAll() {
  // Each size's runs next to each other, so that they share the machine's mood.
  for (const size_t payload : kPayloadSizes) {
    const std::string size = std::to_string(payload) + "B";
    benchmark::RegisterBenchmark(("connector_data/" + size).c_str(), connectorData, payload)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("tcp_frames_permsg/" + size).c_str(), tcpFrames, payload, true)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("tcp_frames_batched/" + size).c_str(), tcpFrames, payload, false)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
#ifdef TAVRIN_PEER_ZMQ
    benchmark::RegisterBenchmark(("zmq_pushpull/" + size).c_str(), zmqPushPull, payload)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
#endif
  }
  benchmark::RegisterBenchmark("connector_rtt_same_cpu/16B", connectorRoundTrip)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("tcp_pingpong_same_cpu/16B", tcpPingPong)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
#ifdef TAVRIN_PEER_ZMQ
  benchmark::RegisterBenchmark("zmq_reqrep_same_cpu/16B", zmqReqRep)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
#endif
}

}  // namespace

int main(int argc, char** argv) {
  registerAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}