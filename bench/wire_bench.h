// What the connector benchmark and the peers it is measured beside share: the sizes and counts of
// a run, the meter that turns a benchmark's loop into its counters, and pinning to one CPU.
#pragma once

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include <pthread.h>
#include <sched.h>

namespace tavrinBench {

// operator new calls per side: the benchmark's thread (the slave, or the sending peer) and the
// master's thread; anything else (peers' I/O threads) counts as other. Counted by the benchmark
// program's own operator new.
enum AllocationSide { kSlaveSide, kMasterSide, kOtherSide };
extern std::atomic<uint64_t> allocationCounts[3];
extern thread_local int allocationSide;

using Clock = std::chrono::steady_clock;

constexpr size_t kPayloadSizes[] = {16, 256, 2048, 65536};
// About 0.2 s of one-send-per-message traffic per iteration at every size.
inline int64_t messagesPerIteration(size_t payload) {
  return payload >= 65536 ? 6000 : payload >= 2048 ? 30000 : 40000;
}
constexpr int64_t kRoundTrips = 2000;  // per iteration
constexpr int64_t kWarmUpRoundTrips = 1000;
constexpr size_t kRoundTripPayload = 16;
// A side that hears nothing for this long has lost its peer: the benchmark fails, never hangs.
constexpr int kSilenceMs = 5000;

inline double processCpuSeconds() {
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

inline void pinSelfToCpu0() {
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

// The same traffic without the connector (wire_peers.cpp): framed messages over a bare loopback
// TCP pair, written with one send() per message (`perMessage`) or batched, and a bare TCP
// ping-pong; ZeroMQ PUSH/PULL and REQ/REP when libzmq is there.
void tcpFrames(benchmark::State& state, size_t payload, bool perMessage);
void tcpPingPong(benchmark::State& state);
#ifdef TAVRIN_PEER_ZMQ
void zmqPushPull(benchmark::State& state, size_t payload);
void zmqReqRep(benchmark::State& state);
#endif

}  // namespace tavrinBench
