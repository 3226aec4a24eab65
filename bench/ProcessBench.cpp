// Spawns per second of a trivial program (/bin/true) waited for to its end: through Command and
// Process, and through bare posix_spawn + waitid as the floor the library is measured against.
// Real time is what counts: the child's work is not the parent's CPU time.
//   tavrin_bench_process --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include "tavrincommon/common/process/Command.h"

#include <benchmark/benchmark.h>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

constexpr const char* kProgram = "/bin/true";

void BM_BarePosixSpawnWaitid(benchmark::State& state) {
  char* argv[] = {const_cast<char*>(kProgram), nullptr};
  for (auto _ : state) {
    pid_t pid = -1;
    if (posix_spawn(&pid, kProgram, nullptr, nullptr, argv, environ) != 0) {
      state.SkipWithError("posix_spawn failed");
      break;
    }
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED) != 0 || info.si_status != 0) {
      state.SkipWithError("waitid failed");
      break;
    }
  }
  state.counters["spawns/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_CommandSpawnWait(benchmark::State& state) {
  for (auto _ : state) {
    std::optional<tavrinCommon::process::Process> child =
        tavrinCommon::process::Command(kProgram).spawn();
    if (!child) {
      state.SkipWithError("spawn failed");
      break;
    }
    std::optional<int> status = child->wait(std::nullopt);
    if (!status || *status != 0) {
      state.SkipWithError("wait failed");
      break;
    }
  }
  state.counters["spawns/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(BM_BarePosixSpawnWaitid)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_CommandSpawnWait)->UseRealTime()->MinTime(2.0);

BENCHMARK_MAIN();
