// Logical-connection data from a TCP connector slave's handler to a master's handler over
// 127.0.0.1, each connector on a thread of its own with its own scheduler, and the round trip of a
// small message that the master's handler echoes. Beside them, in the same run, the same traffic
// without the connector: framed messages over a bare socket written with one send() per message
// (the limit of a design that writes every message as soon as it is sent) or batched, a bare TCP
// ping-pong and, when libzmq is there, ZeroMQ PUSH/PULL and REQ/REP.
// Every iteration moves a fixed number of messages; times are wall-clock times, and the CPU time
// per message is the whole process's (every thread, the peers' I/O threads included).
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

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#ifdef TAVRIN_PEER_ZMQ
#include <zmq.h>
#endif

namespace {

// operator new calls per side: the benchmark's thread (the slave, or the sending peer) and the
// master's thread; anything else (peers' I/O threads) counts as other.
enum AllocationSide { kSlaveSide, kMasterSide, kOtherSide };
std::atomic<uint64_t> allocationCounts[3];
thread_local int allocationSide = kOtherSide;

}  // namespace

// Out of line, so that the compiler does not pair a new it inlined with a free it sees.
[[gnu::noinline]] void* operator new(std::size_t size) {
  allocationCounts[allocationSide].fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using Clock = std::chrono::steady_clock;
using tavrinConnector::ConnectionHandlerBase;
using tavrinConnector::InputMessage;
using tavrinConnector::OutputMessage;
using tavrinConnector::TCPTransceiver;

constexpr size_t kPayloadSizes[] = {16, 256, 2048, 65536};
// About 0.2 s of one-send-per-message traffic per iteration at every size.
int64_t messagesPerIteration(size_t payload) {
  return payload >= 65536 ? 6000 : payload >= 2048 ? 30000 : 40000;
}
constexpr int64_t kRoundTrips = 2000;  // per iteration
constexpr int64_t kWarmUpRoundTrips = 1000;
constexpr size_t kRoundTripPayload = 16;
// A side that hears nothing for this long has lost its peer: the benchmark fails, never hangs.
constexpr int kSilenceMs = 5000;

double processCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Wall-clock and process CPU time over a benchmark's loop, turned into its counters, and the
// allocations of the connector's two sides.
class Meter {
 public:
  Meter()
      : wallStart(Clock::now()),
        cpuStart(processCpuSeconds()),
        slaveAllocations(allocationCounts[kSlaveSide].load()),
        masterAllocations(allocationCounts[kMasterSide].load()) {}

  void allocations(benchmark::State& state, double messages) const {
    if (messages <= 0) return;
    state.counters["allocs/msg_slave"] =
        static_cast<double>(allocationCounts[kSlaveSide].load() - slaveAllocations) / messages;
    state.counters["allocs/msg_master"] =
        static_cast<double>(allocationCounts[kMasterSide].load() - masterAllocations) / messages;
  }

  void throughput(benchmark::State& state, double messages, size_t payload) const {
    const double wall = std::chrono::duration<double>(Clock::now() - wallStart).count();
    const double cpu = processCpuSeconds() - cpuStart;
    if (messages <= 0 || wall <= 0) return;
    state.counters["msgs/s"] = messages / wall;
    state.counters["MB/s"] = messages * static_cast<double>(payload) / wall / 1e6;
    state.counters["cpu_us/msg"] = cpu / messages * 1e6;
  }
  void roundTrips(benchmark::State& state, double trips) const {
    const double wall = std::chrono::duration<double>(Clock::now() - wallStart).count();
    const double cpu = processCpuSeconds() - cpuStart;
    if (trips <= 0) return;
    state.counters["rtt_us"] = wall / trips * 1e6;
    state.counters["cpu_us/rtt"] = cpu / trips * 1e6;
  }

 private:
  Clock::time_point wallStart;
  double cpuStart;
  uint64_t slaveAllocations;
  uint64_t masterAllocations;
};

void pinSelfToCpu0() {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(0, &set);
  pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

// Pins the calling thread to CPU 0 while it lives and gives it its old set back afterwards;
// threads started meanwhile inherit the pin.
class PinnedToCpu0 {
 public:
  PinnedToCpu0() {
    CPU_ZERO(&previous);
    pthread_getaffinity_np(pthread_self(), sizeof previous, &previous);
    pinSelfToCpu0();
  }
  ~PinnedToCpu0() { pthread_setaffinity_np(pthread_self(), sizeof previous, &previous); }
  PinnedToCpu0(const PinnedToCpu0&) = delete;
  PinnedToCpu0& operator=(const PinnedToCpu0&) = delete;

 private:
  cpu_set_t previous;
};

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

// ---- bare TCP: the same frames with nothing but the sockets ----

// The connector's frame: A5 | length u32 LE | type u8 | info u32 LE | payload | 5A.
constexpr size_t kHeader = 10;
constexpr size_t kOverhead = 11;

void put32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}
uint32_t get32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// A connected loopback TCP pair, both ends non-blocking with TCP_NODELAY.
class LoopbackPair {
 public:
  LoopbackPair() {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof at;
    auto* address = reinterpret_cast<sockaddr*>(&at);
    if (listener >= 0 && bind(listener, address, sizeof at) == 0 && listen(listener, 1) == 0 &&
        getsockname(listener, address, &length) == 0) {
      client = socket(AF_INET, SOCK_STREAM, 0);
      if (client >= 0 && connect(client, address, sizeof at) == 0)
        server = accept(listener, nullptr, nullptr);
    }
    if (listener >= 0) close(listener);
    const int one = 1;
    for (int fd : {client, server}) {
      if (fd < 0) continue;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    }
  }
  ~LoopbackPair() {
    if (client >= 0) close(client);
    if (server >= 0) close(server);
  }
  LoopbackPair(const LoopbackPair&) = delete;
  LoopbackPair& operator=(const LoopbackPair&) = delete;

  bool ok() const { return client >= 0 && server >= 0; }

  int client = -1;
  int server = -1;
};

class Epoll {
 public:
  Epoll(int fd, uint32_t events) : epollFd(epoll_create1(0)) {
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event);
  }
  ~Epoll() { close(epollFd); }
  Epoll(const Epoll&) = delete;
  Epoll& operator=(const Epoll&) = delete;

  bool wait() {
    epoll_event event{};
    return epoll_wait(epollFd, &event, 1, kSilenceMs) > 0;
  }

 private:
  int epollFd;
};

// The sending thread: frames encoded into a buffer of max(64 KiB, 4 frames) and written either
// one send() per frame or as much of the buffer as the socket takes.
void sendFrames(int fd, size_t payload, int64_t count, bool perMessage) {
  Epoll writable(fd, EPOLLOUT | EPOLLET);
  const std::vector<uint8_t> body(payload, 0x42);
  std::vector<uint8_t> out(std::max<size_t>(64 * 1024, 4 * (payload + kOverhead)));
  size_t head = 0;
  size_t tail = 0;
  int64_t sequence = 0;
  while (sequence < count || head < tail) {
    if (head == tail) head = tail = 0;
    while (sequence < count && out.size() - tail >= payload + kOverhead &&
           (!perMessage || head == tail)) {
      uint8_t* p = out.data() + tail;
      p[0] = 0xA5;
      put32(p + 1, static_cast<uint32_t>(payload));
      p[5] = 1;
      put32(p + 6, static_cast<uint32_t>(sequence++));
      std::memcpy(p + kHeader, body.data(), payload);
      p[kHeader + payload] = 0x5A;
      tail += payload + kOverhead;
    }
    const ssize_t written = send(fd, out.data() + head, tail - head, MSG_NOSIGNAL);
    if (written > 0) {
      head += static_cast<size_t>(written);
    } else if (written < 0 && errno == EAGAIN) {
      if (!writable.wait()) return;
    } else {
      return;
    }
  }
}

// The receiving side: reads of kReadChunkSize bytes (the connector's own read size) appended to
// a reassembly buffer, every frame checked and its info and first byte touched.
class FrameReceiver {
 public:
  FrameReceiver(int fd_, size_t chunk) : fd(fd_), readable(fd_, EPOLLIN | EPOLLET), buffer(chunk) {}

  // False when the stream is damaged or falls silent.
  bool receive(int64_t count, size_t payload) {
    int64_t frames = 0;
    while (frames < count) {
      const ssize_t r = recv(fd, buffer.data(), buffer.size(), 0);
      if (r < 0 && errno == EAGAIN) {
        if (!readable.wait()) return false;
        continue;
      }
      if (r <= 0) return false;
      const size_t n = static_cast<size_t>(r);
      if (assembly.size() - end < n) {
        std::memmove(assembly.data(), assembly.data() + start, end - start);
        end -= start;
        start = 0;
        if (assembly.size() - end < n) assembly.resize(std::max(assembly.size() * 2, end + n));
      }
      std::memcpy(assembly.data() + end, buffer.data(), n);
      end += n;
      while (end - start >= kOverhead) {
        const uint8_t* p = assembly.data() + start;
        const uint32_t length = get32(p + 1);
        if (p[0] != 0xA5 || length != payload) return false;
        if (end - start < length + kOverhead) break;
        if (p[kHeader + length] != 0x5A) return false;
        checksum += get32(p + 6) + (length > 0 ? p[kHeader] : 0u);
        start += length + kOverhead;
        ++frames;
      }
      if (start == end) start = end = 0;
    }
    return true;
  }

  uint64_t checksum = 0;

 private:
  int fd;
  Epoll readable;
  std::vector<uint8_t> buffer;
  std::vector<uint8_t> assembly = std::vector<uint8_t>(256 * 1024);
  size_t start = 0;
  size_t end = 0;
};

void tcpFrames(benchmark::State& state, size_t payload, bool perMessage) {
  const int64_t count = messagesPerIteration(payload);
  LoopbackPair pair;
  if (!pair.ok()) {
    state.SkipWithError("no loopback TCP connection");
    return;
  }
  FrameReceiver receiver(pair.server, TCPTransceiver::kReadChunkSize);
  const Meter meter;
  for (auto _ : state) {
    std::thread sender(sendFrames, pair.client, payload, count, perMessage);
    const bool ok = receiver.receive(count, payload);
    sender.join();
    if (!ok) {
      state.SkipWithError("frames lost or damaged");
      return;
    }
  }
  benchmark::DoNotOptimize(receiver.checksum);
  meter.throughput(state, static_cast<double>(state.iterations() * count), payload);
}

constexpr size_t kPingFrame = kRoundTripPayload + kOverhead;

bool readPingFrame(int fd, Epoll& readable, uint8_t* frame) {
  size_t got = 0;
  while (got < kPingFrame) {
    const ssize_t r = recv(fd, frame + got, kPingFrame - got, 0);
    if (r > 0) {
      got += static_cast<size_t>(r);
    } else if (r < 0 && errno == EAGAIN) {
      if (!readable.wait()) return false;
    } else {
      return false;
    }
  }
  return frame[0] == 0xA5 && frame[kPingFrame - 1] == 0x5A;
}

// One framed 16-byte message bounced between two threads on CPU 0, each waiting in epoll_wait.
void tcpPingPong(benchmark::State& state) {
  const PinnedToCpu0 pin;
  LoopbackPair pair;
  if (!pair.ok()) {
    state.SkipWithError("no loopback TCP connection");
    return;
  }
  Epoll clientReadable(pair.client, EPOLLIN);
  std::thread echo([&pair] {
    Epoll readable(pair.server, EPOLLIN);
    uint8_t frame[kPingFrame];
    while (readPingFrame(pair.server, readable, frame))
      if (send(pair.server, frame, kPingFrame, MSG_NOSIGNAL) != static_cast<ssize_t>(kPingFrame))
        break;
  });
  uint8_t message[kPingFrame] = {0xA5, static_cast<uint8_t>(kRoundTripPayload), 0, 0, 0, 1};
  message[kPingFrame - 1] = 0x5A;
  uint8_t reply[kPingFrame];
  auto trips = [&](int64_t n) {
    for (int64_t i = 0; i < n; ++i)
      if (send(pair.client, message, kPingFrame, MSG_NOSIGNAL) !=
              static_cast<ssize_t>(kPingFrame) ||
          !readPingFrame(pair.client, clientReadable, reply))
        return false;
    return true;
  };
  bool ok = trips(kWarmUpRoundTrips);
  const Meter meter;
  for (auto _ : state) {
    if (!ok || !(ok = trips(kRoundTrips))) break;
  }
  shutdown(pair.client, SHUT_WR);  // the echo thread sees the end of the stream
  echo.join();
  if (!ok) {
    state.SkipWithError("the echo stopped");
    return;
  }
  meter.roundTrips(state, static_cast<double>(state.iterations() * kRoundTrips));
}

// ---- ZeroMQ: each end with a context (and so an I/O thread) of its own, as two processes ----

#ifdef TAVRIN_PEER_ZMQ
class ZmqEnd {
 public:
  explicit ZmqEnd(int type) : context(zmq_ctx_new()), socket(zmq_socket(context, type)) {
    const int timeoutMs = kSilenceMs;
    zmq_setsockopt(socket, ZMQ_RCVTIMEO, &timeoutMs, sizeof timeoutMs);
    zmq_setsockopt(socket, ZMQ_SNDTIMEO, &timeoutMs, sizeof timeoutMs);
    const int lingerMs = 1000;
    zmq_setsockopt(socket, ZMQ_LINGER, &lingerMs, sizeof lingerMs);
  }
  ~ZmqEnd() {
    zmq_close(socket);
    zmq_ctx_term(context);
  }
  ZmqEnd(const ZmqEnd&) = delete;
  ZmqEnd& operator=(const ZmqEnd&) = delete;

  // Binds to a port the system chooses and returns the endpoint; empty on failure.
  std::string bindLoopback() {
    if (zmq_bind(socket, "tcp://127.0.0.1:*") != 0) return {};
    char endpoint[256] = {};
    size_t length = sizeof endpoint;
    zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, endpoint, &length);
    return endpoint;
  }

  void* context;
  void* socket;
};

// The sender does what a PUSH sender of the throughput test does: a message of the size, its
// first 16 bytes set, sent.
bool zmqPush(void* socket, size_t payload, int64_t count) {
  for (int64_t i = 0; i < count; ++i) {
    zmq_msg_t message;
    if (zmq_msg_init_size(&message, payload) != 0) return false;
    std::memset(zmq_msg_data(&message), 0x42, std::min<size_t>(payload, 16));
    if (zmq_msg_send(&message, socket, 0) < 0) {
      zmq_msg_close(&message);
      return false;
    }
  }
  return true;
}

bool zmqPull(void* socket, size_t payload, int64_t count) {
  zmq_msg_t message;
  zmq_msg_init(&message);
  bool ok = true;
  for (int64_t i = 0; i < count && ok; ++i)
    ok = zmq_msg_recv(&message, socket, 0) >= 0 && zmq_msg_size(&message) == payload;
  zmq_msg_close(&message);
  return ok;
}

void zmqPushPull(benchmark::State& state, size_t payload) {
  const int64_t count = messagesPerIteration(payload);
  ZmqEnd pull(ZMQ_PULL);
  ZmqEnd push(ZMQ_PUSH);
  const std::string endpoint = pull.bindLoopback();
  // The connection comes up in the background; one message carried proves that it stands.
  if (endpoint.empty() || zmq_connect(push.socket, endpoint.c_str()) != 0 ||
      !zmqPush(push.socket, payload, 1) || !zmqPull(pull.socket, payload, 1)) {
    state.SkipWithError("no ZeroMQ connection");
    return;
  }
  const Meter meter;
  for (auto _ : state) {
    // The socket moves to the new thread; starting and joining it orders its uses.
    std::thread sender([&] { zmqPush(push.socket, payload, count); });
    const bool ok = zmqPull(pull.socket, payload, count);
    sender.join();
    if (!ok) {
      state.SkipWithError("messages lost");
      return;
    }
  }
  meter.throughput(state, static_cast<double>(state.iterations() * count), payload);
}

// REQ/REP with every thread (both application threads and both I/O threads) on CPU 0.
void zmqReqRep(benchmark::State& state) {
  const PinnedToCpu0 pin;
  ZmqEnd rep(ZMQ_REP);
  const std::string endpoint = rep.bindLoopback();
  if (endpoint.empty()) {
    state.SkipWithError("no ZeroMQ endpoint");
    return;
  }
  // Echoes until it has echoed an empty message.
  std::thread server([&rep] {
    zmq_msg_t message;
    zmq_msg_init(&message);
    for (;;) {
      if (zmq_msg_recv(&message, rep.socket, 0) < 0) break;
      const size_t size = zmq_msg_size(&message);
      if (zmq_msg_send(&message, rep.socket, 0) < 0 || size == 0) break;
    }
    zmq_msg_close(&message);
  });
  ZmqEnd req(ZMQ_REQ);
  char buffer[256] = {};
  auto trips = [&](int64_t n, size_t size) {
    for (int64_t i = 0; i < n; ++i)
      if (zmq_send(req.socket, buffer, size, 0) < 0 ||
          zmq_recv(req.socket, buffer, sizeof buffer, 0) < 0)
        return false;
    return true;
  };
  bool ok =
      zmq_connect(req.socket, endpoint.c_str()) == 0 && trips(kWarmUpRoundTrips, kRoundTripPayload);
  const Meter meter;
  for (auto _ : state) {
    if (!ok || !(ok = trips(kRoundTrips, kRoundTripPayload))) break;
  }
  if (ok) meter.roundTrips(state, static_cast<double>(state.iterations() * kRoundTrips));
  if (!trips(1, 0)) {
    // The server may wait for a request that never comes: its receive times out.
    ok = false;
  }
  server.join();
  if (!ok) state.SkipWithError("no ZeroMQ echo");
}
#endif

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
