#include "tools/tavrin-soak/HostilePeers.h"

#include "tavrincommon/testing/ConnectorFrames.h"

#include <cerrno>
#include <chrono>
#include <cstdio>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tavrinSoak {

namespace {

using Clock = std::chrono::steady_clock;
// The frames of a peer that plays by hand, built as the tests build them.
using tavrinTesting::Bytes;
using tavrinTesting::frame;
using tavrinTesting::readU32;

constexpr int kAttackKinds = 5;
constexpr uint8_t kPing = 0, kPong = 1, kVersion = 2, kConnect = 3, kData = 4, kReject = 8,
                  kAccept = 9;
constexpr unsigned short kSimpleConnectorType = 5;
constexpr uint32_t kAutomatic = 0xFFFFFFFFu;
constexpr uint32_t kUnknownId = 0x7777;
// A whole frame of exactly the transport's default bound: accepted, and never completed.
constexpr uint32_t kDeclaredFrameLength = 1024 * 1024 - 5;
// One block length just past the largest block, one just inside it.
constexpr uint32_t kBlockTooLong = 1024 * 1024;
constexpr uint32_t kBlockJustInside = 1024 * 1024 - 64;

constexpr int kBatchFrames = 64;
constexpr double kPingBytesPerSecond = 256 * 1024;
constexpr double kFloodBytesPerSecond = 512 * 1024;
constexpr double kBigBlocksPerSecond = 500;
constexpr int kTrickleMs = 200;
constexpr int kReconnectPauseMs = 20;
constexpr int kBackoffMs = 100;
constexpr int kStallMs = 1000;
constexpr int kConnectWaitMs = 1000;
constexpr int kAcceptWaitMs = 3000;
constexpr auto kAtOnce = std::chrono::seconds(1);
constexpr short kClosedEvents = POLLRDHUP | POLLHUP | POLLERR;

// A version greeting and a request for an automatic SimpleConnector connection.
std::string hello(unsigned clusterId) {
  Bytes connect;
  connect.u32(kAutomatic).u16(kSimpleConnectorType).u32(1).u32(0xBAD).u16(1).u16(1);
  return frame(kVersion, 0) + frame(kConnect, clusterId, connect.data);
}

// Reads and drops what has arrived; false once the master has closed the connection.
bool drainInput(int fd, std::string* keep = nullptr) {
  char chunk[16384];
  for (;;) {
    const ssize_t n = ::recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (n > 0) {
      if (keep) keep->append(chunk, static_cast<size_t>(n));
      continue;
    }
    return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
  }
}

int msUntil(Clock::time_point due) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(due - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

const char* attackName(Attack attack) {
  switch (attack) {
    case Attack::PingNoRead: return "ping-no-read";
    case Attack::Flood: return "pong/data flood";
    case Attack::SlowHeader: return "slow header";
    case Attack::BigBlock: return "1 MiB blocks";
    case Attack::Reconnect: return "reconnect loop";
  }
  return "?";
}

HostilePeers::HostilePeers(const tavrinNetwork::SimpleEndpoint& master_, unsigned clusterId_)
    : master(master_),
      clusterId(clusterId_),
      stopFd(eventfd(0, EFD_CLOEXEC)),
      counters(std::make_unique<AttackCounters[]>(kAttackKinds)) {}

HostilePeers::~HostilePeers() {
  stop();
  ::close(stopFd);
}

void HostilePeers::start(Attack attack, int count) {
  for (int i = 0; i < count; ++i) {
    auto peer = std::make_unique<Peer>();
    peer->attack = attack;
    peer->counters = &counters[static_cast<int>(attack)];
    Peer& self = *peer;
    peers.push_back(std::move(peer));
    self.thread = std::thread([this, &self] { run(self); });
  }
}

void HostilePeers::stop() {
  const uint64_t one = 1;
  if (::write(stopFd, &one, sizeof one) != sizeof one) std::perror("tavrin-soak: eventfd");
  for (auto& peer : peers)
    if (peer->thread.joinable()) peer->thread.join();
}

std::string HostilePeers::report() const {
  std::string lines;
  for (int kind = 0; kind < kAttackKinds; ++kind) {
    int count = 0;
    for (const auto& peer : peers) count += static_cast<int>(peer->attack) == kind;
    if (count == 0) continue;
    const AttackCounters& c = counters[kind];
    char line[256];
    std::snprintf(line, sizeof line,
                  "  %-16s %d peer%s: %llu connections, %llu closed by the master (%llu within "
                  "a second), %llu frames (%llu bytes) sent\n",
                  attackName(static_cast<Attack>(kind)), count, count == 1 ? "" : "s",
                  static_cast<unsigned long long>(c.connections.load()),
                  static_cast<unsigned long long>(c.closedByMaster.load()),
                  static_cast<unsigned long long>(c.closedAtOnce.load()),
                  static_cast<unsigned long long>(c.framesSent.load()),
                  static_cast<unsigned long long>(c.bytesSent.load()));
    lines += line;
  }
  return lines;
}

int HostilePeers::waitFor(int fd, short events, int ms) const {
  pollfd fds[2] = {{stopFd, POLLIN, 0}, {fd, events, 0}};
  const int n = ::poll(fds, fd >= 0 ? 2 : 1, ms);
  if (fds[0].revents & POLLIN) return -1;
  if (n <= 0 || fd < 0) return 0;
  return fds[1].revents;
}

bool HostilePeers::sendAll(const Peer& peer, int fd, const std::string& bytes, bool& closed) const {
  closed = false;
  size_t at = 0;
  while (at < bytes.size()) {
    const ssize_t n = ::send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      at += static_cast<size_t>(n);
      peer.counters->bytesSent += static_cast<uint64_t>(n);
      continue;
    }
    if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
      closed = true;
      return false;
    }
    const int events = waitFor(fd, POLLOUT | POLLRDHUP, kStallMs);
    if (events < 0) return false;
    if (events & kClosedEvents) {
      closed = true;
      return false;
    }
  }
  return true;
}

void HostilePeers::run(const Peer& peer) {
  for (;;) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const bool started =
        fd >= 0 &&
        (::connect(fd, master.sockAddr(), tavrinNetwork::SimpleEndpoint::kSockAddrLength) == 0 ||
         errno == EINPROGRESS);
    int error = started ? 0 : 1;
    if (started) {
      const int events = waitFor(fd, POLLOUT, kConnectWaitMs);
      if (events < 0) {
        ::close(fd);
        return;
      }
      socklen_t length = sizeof error;
      if (events == 0 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = 1;
    }
    if (error != 0) {
      if (fd >= 0) ::close(fd);
      if (waitFor(-1, 0, kBackoffMs) < 0) return;
      continue;
    }
    ++peer.counters->connections;
    const auto opened = Clock::now();
    const bool closed = attack(peer, fd);
    ::close(fd);
    if (closed) ++peer.counters->closedByMaster;
    if (closed && Clock::now() - opened < kAtOnce) ++peer.counters->closedAtOnce;
    if (waitFor(-1, 0, closed ? kBackoffMs : 0) < 0) return;
  }
}

bool HostilePeers::attack(const Peer& peer, int fd) {
  switch (peer.attack) {
    case Attack::PingNoRead: return pingNoRead(peer, fd);
    case Attack::Flood: return flood(peer, fd);
    case Attack::SlowHeader: return slowHeader(peer, fd);
    case Attack::BigBlock: return bigBlock(peer, fd);
    case Attack::Reconnect: return reconnect(peer, fd);
  }
  return false;
}

bool HostilePeers::paced(const Peer& peer, int fd, const std::string& batch, int frames,
                         double bytesPerSecond, bool drain) {
  const auto start = Clock::now();
  uint64_t sent = 0;
  for (;;) {
    const auto due = start + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(sent / bytesPerSecond));
    const int events = waitFor(fd, drain ? POLLIN | POLLRDHUP : POLLRDHUP, msUntil(due));
    if (events < 0) return false;
    if ((events & kClosedEvents) || ((events & POLLIN) && !drainInput(fd))) return true;
    if (Clock::now() < due) continue;
    bool closed = false;
    if (!sendAll(peer, fd, batch, closed)) return closed;
    sent += batch.size();
    peer.counters->framesSent += static_cast<uint64_t>(frames);
  }
}

bool HostilePeers::pingNoRead(const Peer& peer, int fd) {
  std::string batch;
  for (uint32_t i = 0; i < kBatchFrames; ++i) batch += frame(kPing, i);
  return paced(peer, fd, batch, kBatchFrames, kPingBytesPerSecond, false);
}

bool HostilePeers::flood(const Peer& peer, int fd) {
  std::string batch;
  for (int i = 0; i < kBatchFrames; ++i)
    batch += (i % 2) ? frame(kPong, 0) : frame(kData, kUnknownId, std::string(16, 'u'));
  return paced(peer, fd, batch, kBatchFrames, kFloodBytesPerSecond, true);
}

bool HostilePeers::slowHeader(const Peer& peer, int fd) {
  Bytes header;
  header.u8(0xA5).u32(kDeclaredFrameLength);
  bool closed = false;
  if (!sendAll(peer, fd, header.data, closed)) return closed;
  ++peer.counters->framesSent;
  auto due = Clock::now() + std::chrono::milliseconds(kTrickleMs);
  for (;;) {
    const int events = waitFor(fd, POLLIN | POLLRDHUP, msUntil(due));
    if (events < 0) return false;
    // The master's keep-alives are read, or they would be what closes the connection.
    if ((events & kClosedEvents) || ((events & POLLIN) && !drainInput(fd))) return true;
    if (Clock::now() < due) continue;
    if (!sendAll(peer, fd, "x", closed)) return closed;
    due += std::chrono::milliseconds(kTrickleMs);
  }
}

bool HostilePeers::bigBlock(const Peer& peer, int fd) {
  bool closed = false;
  if (!sendAll(peer, fd, hello(clusterId), closed)) return closed;
  peer.counters->framesSent += 2;
  // The master's id for the connection comes with its accept.
  std::string in;
  uint32_t masterId = kAutomatic;
  const auto deadline = Clock::now() + std::chrono::milliseconds(kAcceptWaitMs);
  while (masterId == kAutomatic) {
    const int events = waitFor(fd, POLLIN | POLLRDHUP, msUntil(deadline));
    if (events < 0) return false;
    if (events == 0 || (events & kClosedEvents) || !drainInput(fd, &in)) return true;
    while (in.size() >= 11 && in.size() >= readU32(in, 1) + 5u) {
      const uint8_t type = static_cast<uint8_t>(in[5]);
      if (type == kReject) return true;
      if (type == kAccept && in.size() >= 22) masterId = readU32(in, 18);
      in.erase(0, readU32(in, 1) + 5u);
    }
  }
  std::string batch;
  for (int i = 0; i < kBatchFrames; ++i) {
    Bytes block;
    block.u32((i % 2) ? kBlockTooLong : kBlockJustInside).u32(static_cast<uint32_t>(i));
    batch += frame(kData, masterId, block.data);
  }
  const double bytesPerSecond =
      kBigBlocksPerSecond * static_cast<double>(batch.size()) / kBatchFrames;
  return paced(peer, fd, batch, kBatchFrames, bytesPerSecond, true);
}

bool HostilePeers::reconnect(const Peer& peer, int fd) {
  bool closed = false;
  if (!sendAll(peer, fd, hello(clusterId), closed)) return closed;
  peer.counters->framesSent += 2;
  // Every other connection ends with a reset instead of an orderly close.
  if (peer.counters->connections % 2) {
    const linger abort{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  }
  waitFor(-1, 0, kReconnectPauseMs);
  return false;
}

}  // namespace tavrinSoak
