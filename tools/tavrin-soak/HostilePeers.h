// tavrin-soak's hostile peers: raw POSIX TCP clients of a master, one thread each, each misusing
// the protocol in one way and reconnecting whenever the master closes it. Every wait is a poll on
// the socket and on a shared stop descriptor, so stop() ends them all at once. Owns its threads;
// start, stop and report from one thread (the counters may be read at any time).
#pragma once

#include "tavrincommon/network/SimpleEndpoint.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace tavrinSoak {

enum class Attack {
  PingNoRead,  // pings as fast as allowed, never reads the pongs
  Flood,       // keep-alives and data for an id nobody has, reads and drops the answers
  SlowHeader,  // a header declaring a 1 MiB frame, then a byte now and then
  BigBlock,    // a real logical connection whose blocks declare 1 MiB and carry a few bytes
  Reconnect,   // connects, asks for a connection and closes, again and again
};

const char* attackName(Attack attack);

struct AttackCounters {
  std::atomic<uint64_t> connections{0};
  std::atomic<uint64_t> closedByMaster{0};
  // Of those, closed before a second had passed: refused rather than ended.
  std::atomic<uint64_t> closedAtOnce{0};
  std::atomic<uint64_t> framesSent{0};
  std::atomic<uint64_t> bytesSent{0};
};

class HostilePeers {
 public:
  HostilePeers(const tavrinNetwork::SimpleEndpoint& master_, unsigned clusterId_);
  ~HostilePeers();
  HostilePeers(const HostilePeers&) = delete;
  HostilePeers& operator=(const HostilePeers&) = delete;

  void start(Attack attack, int count);
  // Ends every peer's thread; the counters stay.
  void stop();
  // One line per attack kind that was started.
  std::string report() const;

 private:
  struct Peer {
    Attack attack;
    AttackCounters* counters;
    std::thread thread;
  };

  void run(const Peer& peer);
  // The master closed the connection: true.
  bool attack(const Peer& peer, int fd);
  // Sends `batch` (of `frames` frames) again and again at `bytesPerSecond`; with `drain` reads
  // and drops the answers, else leaves them to pile up.
  bool paced(const Peer& peer, int fd, const std::string& batch, int frames, double bytesPerSecond,
             bool drain);
  bool pingNoRead(const Peer& peer, int fd);
  bool flood(const Peer& peer, int fd);
  bool slowHeader(const Peer& peer, int fd);
  bool bigBlock(const Peer& peer, int fd);
  bool reconnect(const Peer& peer, int fd);
  // Polls `fd` (if >= 0) for `events` and the stop descriptor for at most `ms`: the returned
  // events of `fd`, 0 on time-out, -1 once stopped.
  int waitFor(int fd, short events, int ms) const;
  // Sends all of `bytes` within the stop rule; false when the master closed the connection or
  // the peer was stopped (then `closed` tells which).
  bool sendAll(const Peer& peer, int fd, const std::string& bytes, bool& closed) const;

  tavrinNetwork::SimpleEndpoint master;
  unsigned clusterId;
  int stopFd;
  std::vector<std::unique_ptr<Peer>> peers;
  std::unique_ptr<AttackCounters[]> counters;
};

}  // namespace tavrinSoak
