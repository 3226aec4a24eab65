// The peers the connector benchmark is measured beside: the connector's frames over a bare
// loopback TCP pair with nothing but the sockets, and, when libzmq is there, ZeroMQ.
#include "bench/wire_bench.h"
#include "tavrincommon/connector/TCPTransceiver.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#ifdef TAVRIN_PEER_ZMQ
#include <zmq.h>
#endif

namespace tavrinBench {

namespace {

using tavrinConnector::TCPTransceiver;

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

}  // namespace

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

namespace {

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

}  // namespace

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
namespace {

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

}  // namespace

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

}  // namespace tavrinBench
