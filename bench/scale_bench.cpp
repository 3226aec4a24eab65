// A hall at scale: one TCP connector master, 100 slaves (one TCP connection each, from an address
// of its own on 127.0.1.0/24), each asking for 10 automatic SimpleConnector connections at once,
// from scratch. The slaves run in a child process, so that the master's process holds only the
// master: its heap (as the allocator counts it) and its CPU time are the master's alone.
// Figures, as counters of the one iteration (its time is the time to establish all 1,000):
// - accepted / rejected: answers to the 1,000 requests, each asked once (no retries);
// - conns/s: logical connections established per second in the burst;
// - heap_B/tcp, heap_B/logical: the master's heap per TCP and per logical connection, from the
//   heap with all 1,000 and with 1 per TCP connection left;
// - idle_cpu_%: the master's CPU over 10 s with nothing but keep-alives, in percent of one core;
// - p50_us, p99_us: delivery latency of one 16-byte block a second to each of the 1,000
//   connections (master's handler to slave's handler), sent 10 every 10 ms.
// `--short` shortens the idle and message phases to a fraction of a second for smoke runs.
#include "tavrincommon/connector/ConnectionTimeout.h"
#include "tavrincommon/connector/ConnectorInterfaceType.h"
#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/TCPConnectorMaster.h"
#include "tavrincommon/connector/TCPConnectorSlave.h"
#include "tavrincommon/connector/simpleConnector/SimpleConnectorHandler.h"
#include "tavrincommon/network/SimpleEndpoint.h"
#include "tavrincommon/network/SimpleIp.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/HeapUsage.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using tavrinConnector::ConnectionTimeout;
using tavrinConnector::ConnectorInterfaceType;
using tavrinConnector::DisconnectReason;
using tavrinConnector::TCPConnectorMaster;
using tavrinConnector::TCPConnectorSlave;
using tavrinConnector::simpleConnector::SimpleConnectorHandler;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

constexpr unsigned short kType = SimpleConnectorHandler::kType;
constexpr unsigned kCluster = 8;
constexpr int kSlaves = 100;
constexpr int kPerSlave = 10;
constexpr int kTotal = kSlaves * kPerSlave;
constexpr int kBatchEveryMs = 10;
constexpr int kBatch = kTotal * kBatchEveryMs / 1000;
// A side that hears nothing for this long has lost the other: the benchmark fails, never hangs.
constexpr auto kPatience = std::chrono::seconds(30);

bool shortRun = false;

int64_t monotonicNs() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

double processCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Commands and answers between the two processes: one datagram each on a SOCK_SEQPACKET pair.
enum Command : char { kConnect = 'c', kShrink = 's', kReport = 'r', kQuit = 'q' };

struct Report {
  int32_t accepted = 0;
  int32_t rejected = 0;
  double establishSeconds = 0;
  int32_t delivered = 0;
  double p50Us = 0;
  double p99Us = 0;
};

// Receives one datagram into `data` without blocking; true when one was there.
template <typename T>
bool tryReceive(int fd, T& data) {
  return recv(fd, &data, sizeof data, MSG_DONTWAIT) == static_cast<ssize_t>(sizeof data);
}

// Turns `scheduler` until a datagram arrives on `fd` (true) or the patience runs out.
template <typename T>
bool turnUntilReceived(tavrinScheduler::Scheduler& scheduler, int fd, T& data) {
  const auto end = Clock::now() + kPatience;
  while (!tryReceive(fd, data)) {
    if (Clock::now() >= end) return false;
    scheduler.run(5);
  }
  return true;
}

double percentile(std::vector<int64_t>& values, double fraction) {
  if (values.empty()) return 0;
  const size_t index = std::min(values.size() - 1, static_cast<size_t>(fraction * values.size()));
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(index),
                   values.end());
  return static_cast<double>(values[index]) / 1000.0;
}

// ---- the child: the hall ----

void runHall(int fd, unsigned short port) {
  tavrinScheduler::Scheduler scheduler(nullptr);
  Report report;
  int64_t firstRequestNs = 0;
  std::vector<int64_t> latenciesNs;
  latenciesNs.reserve(100000);
  std::vector<std::unique_ptr<TCPConnectorSlave>> slaves;
  for (int i = 0; i < kSlaves; ++i) {
    auto slave = std::make_unique<TCPConnectorSlave>(&scheduler, nullptr);
    const std::string address = "127.0.1." + std::to_string(i + 1);
    slave->initCommon(static_cast<unsigned>(i + 1), 1000u + static_cast<unsigned>(i),
                      ConnectorInterfaceType::Client, SimpleIp(address.c_str()),
                      ConnectionTimeout{}, false);
    slave->addConnectionHandler(kType, 1, [&] {
      return std::make_unique<SimpleConnectorHandler>(
          1,
          [&](SimpleIp, unsigned, unsigned, SimpleConnectorHandler*) {
            if (++report.accepted == kTotal)
              report.establishSeconds = static_cast<double>(monotonicNs() - firstRequestNs) * 1e-9;
            return true;
          },
          SimpleConnectorHandler::StateCallback(),
          [&](SimpleIp, unsigned, unsigned, std::unique_ptr<std::vector<unsigned char>>&& data) {
            int64_t sentNs = 0;
            if (data->size() < sizeof sentNs) return;
            std::memcpy(&sentNs, data->data(), sizeof sentNs);
            latenciesNs.push_back(monotonicNs() - sentNs);
          },
          nullptr);
    });
    slave->addConnectionRejectedCallback(
        kType, [&](const SimpleEndpoint&, unsigned, unsigned, int, unsigned, unsigned short,
                   const tavrinConnector::CustomConnectData*) { ++report.rejected; });
    slave->setEnabled(true);
    slaves.push_back(std::move(slave));
  }
  const SimpleEndpoint master(SimpleIp("127.0.0.1"), port);
  std::map<TCPConnectorSlave*, std::vector<unsigned>> ids;
  for (;;) {
    Command command{};
    if (!turnUntilReceived(scheduler, fd, command)) break;
    if (command == kConnect) {
      report.accepted = report.rejected = 0;
      firstRequestNs = monotonicNs();
      for (auto& slave : slaves)
        for (int k = 0; k < kPerSlave; ++k)
          ids[slave.get()].push_back(slave->connectAutomatic(master, kCluster, kType, nullptr));
      const auto end = Clock::now() + kPatience;
      while (report.accepted + report.rejected < kTotal && Clock::now() < end) scheduler.run(5);
      send(fd, &report, sizeof report, 0);
    } else if (command == kShrink) {
      // One logical connection stays on each TCP connection.
      for (auto& entry : ids)
        for (size_t k = 1; k < entry.second.size(); ++k)
          entry.first->disconnect(entry.second[k], 1);
      send(fd, &report, sizeof report, 0);
    } else if (command == kReport) {
      report.delivered = static_cast<int32_t>(latenciesNs.size());
      report.p50Us = percentile(latenciesNs, 0.50);
      report.p99Us = percentile(latenciesNs, 0.99);
      send(fd, &report, sizeof report, 0);
    } else {
      break;
    }
  }
  for (auto& slave : slaves) slave->setEnabled(false);
  slaves.clear();
}

// ---- the parent: the master ----

void scaleBurst(benchmark::State& state) {
  const double idleSeconds = shortRun ? 0.5 : 10.0;
  const double messageSeconds = shortRun ? 0.3 : 5.0;
  for (auto _ : state) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) < 0) {
      state.SkipWithError("socketpair failed");
      return;
    }
    tavrinScheduler::Scheduler scheduler(nullptr);
    // The application's own list, of a fixed capacity: it is no part of the master's heap.
    std::vector<std::pair<unsigned, SimpleConnectorHandler*>> handlers;
    handlers.reserve(kTotal + kSlaves);
    // The slaves' shutdown: every connection must end at the master with the slaves' reason.
    bool countingShutdown = false;
    int endedShutdown = 0;
    int endedOtherwise = 0;
    auto master = std::make_unique<TCPConnectorMaster>(&scheduler, nullptr);
    master->init(1, 100, ConnectorInterfaceType::PanelMaster, kCluster, SimpleIp("127.0.0.1"), 0,
                 false, false, ConnectionTimeout{}, false);
    master->addConnectionHandler(kType, 1, [&] {
      return std::make_unique<SimpleConnectorHandler>(
          1,
          [&](SimpleIp, unsigned, unsigned connectionId, SimpleConnectorHandler* handler) {
            handlers.emplace_back(connectionId, handler);
            return true;
          },
          [&](SimpleIp, unsigned, unsigned connectionId, int reason) {
            if (countingShutdown)
              ++(reason == DisconnectReason::shutdown ? endedShutdown : endedOtherwise);
            handlers.erase(
                std::remove_if(handlers.begin(), handlers.end(),
                               [&](const std::pair<unsigned, SimpleConnectorHandler*>& entry) {
                                 return entry.first == connectionId;
                               }),
                handlers.end());
          },
          SimpleConnectorHandler::DataCallback(), nullptr);
    });
    master->addAutomaticConnection(kType);
    master->setEnabled(true);
    const unsigned short port = master->getListeningEndpoint().getPort();

    const pid_t child = fork();
    if (child == 0) {
      // The master's objects came along as copies; they are left alone and never destroyed.
      close(pair[0]);
      runHall(pair[1], port);
      _exit(0);
    }
    close(pair[1]);
    const int fd = pair[0];
    auto fail = [&](const char* why) {
      state.SkipWithError(why);
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
      close(fd);
    };
    if (child < 0) return fail("fork failed");

    const size_t heapEmpty = tavrinTesting::heldHeapBytes();
    Report report;
    const Command connect = kConnect;
    send(fd, &connect, sizeof connect, 0);
    if (!turnUntilReceived(scheduler, fd, report)) return fail("the hall did not answer");
    const auto settled = Clock::now() + kPatience;
    while (master->getActiveConnectionCount() < static_cast<size_t>(report.accepted) &&
           Clock::now() < settled)
      scheduler.run(5);
    state.SetIterationTime(report.establishSeconds);
    const size_t heapFull = tavrinTesting::heldHeapBytes();

    // Nothing but keep-alives: the loop sleeps until its next timer.
    const double cpuBefore = processCpuSeconds();
    const auto idleEnd = Clock::now() + std::chrono::duration<double>(idleSeconds);
    while (Clock::now() < idleEnd) scheduler.run(1000);
    const double idleCpu = processCpuSeconds() - cpuBefore;

    // One block a second to every connection, a batch every 10 ms.
    size_t next = 0;
    auto nextBatch = Clock::now();
    const auto messagesEnd = Clock::now() + std::chrono::duration<double>(messageSeconds);
    while (Clock::now() < messagesEnd) {
      scheduler.run(1);
      if (Clock::now() < nextBatch || handlers.empty()) continue;
      nextBatch += std::chrono::milliseconds(kBatchEveryMs);
      for (int k = 0; k < kBatch; ++k) {
        const int64_t now = monotonicNs();
        handlers[next++ % handlers.size()].second->sendData(reinterpret_cast<const char*>(&now),
                                                            sizeof now);
      }
    }
    const Command askReport = kReport;
    send(fd, &askReport, sizeof askReport, 0);
    if (!turnUntilReceived(scheduler, fd, report)) return fail("the hall sent no report");

    const Command shrink = kShrink;
    send(fd, &shrink, sizeof shrink, 0);
    Report ignored;
    if (!turnUntilReceived(scheduler, fd, ignored)) return fail("the hall did not shrink");
    const auto shrunk = Clock::now() + kPatience;
    while (master->getActiveConnectionCount() > static_cast<size_t>(kSlaves) &&
           Clock::now() < shrunk)
      scheduler.run(5);
    // The ended handlers go at the end of the worker's next run.
    for (int turn = 0; turn < 10; ++turn) scheduler.run(1);
    const size_t heapOnePerTcp = tavrinTesting::heldHeapBytes();
    const size_t tcpConnections = master->getTCPConnectionCount();

    // A hall full again, then every slave disables at once (reason shutdown, abortive close).
    Report again;
    send(fd, &connect, sizeof connect, 0);
    if (!turnUntilReceived(scheduler, fd, again)) return fail("the hall did not answer");
    const size_t shuttingDown = static_cast<size_t>(kSlaves + again.accepted);
    const auto refilled = Clock::now() + kPatience;
    while (master->getActiveConnectionCount() < shuttingDown && Clock::now() < refilled)
      scheduler.run(5);
    countingShutdown = true;
    const Command quit = kQuit;
    send(fd, &quit, sizeof quit, 0);
    const auto gone = Clock::now() + kPatience;
    while (master->getTCPConnectionCount() > 0 && Clock::now() < gone) scheduler.run(5);
    waitpid(child, nullptr, 0);
    close(fd);
    master.reset();

    const double perLogical =
        (static_cast<double>(heapFull) - static_cast<double>(heapOnePerTcp)) / (kTotal - kSlaves);
    const double perTcp =
        (static_cast<double>(heapOnePerTcp) - static_cast<double>(heapEmpty)) / kSlaves -
        perLogical;
    state.counters["accepted"] = report.accepted;
    state.counters["rejected"] = report.rejected;
    state.counters["tcp"] = static_cast<double>(tcpConnections);
    state.counters["conns/s"] =
        report.establishSeconds > 0 ? report.accepted / report.establishSeconds : 0;
    state.counters["heap_B/tcp"] = perTcp;
    state.counters["heap_B/logical"] = perLogical;
    state.counters["idle_cpu_%"] = idleCpu / idleSeconds * 100.0;
    state.counters["delivered"] = report.delivered;
    state.counters["p50_us"] = report.p50Us;
    state.counters["p99_us"] = report.p99Us;
    state.counters["ended_shutdown"] = endedShutdown;
    state.counters["ended_otherwise"] = endedOtherwise;
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Our own flag, taken out before the library sees the rest.
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--short") == 0)
      shortRun = true;
    else
      argv[kept++] = argv[i];
  }
  argc = kept;
  benchmark::RegisterBenchmark("scale_burst/100x10", scaleBurst)
      ->Iterations(1)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
