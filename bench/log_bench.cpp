// The logging front end: a call below the level, an enabled call that formats 5 arguments, and,
// side by side, snprintf of the same text and (when installed) spdlog on the same work.
#include "tavrincommon/log/TavrinLogging.h"

#include <benchmark/benchmark.h>

#include <cstdio>

#if TAVRIN_PEER_SPDLOG
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

using tavrinLog::SeverityLevel;
using tavrinLog::TavrinLogging;

const char* kHost = "127.0.0.1";

TavrinLogging& discardingLogging() {
  static TavrinLogging logging(
      SeverityLevel::Info,
      [](int, SeverityLevel::Type, const char* text) { benchmark::DoNotOptimize(text); },
      [](int) { return "TCPConnector"; });
  return logging;
}

void BM_LogBelowLevel(benchmark::State& state) {
  TavrinLogging* logging = &discardingLogging();
  int i = 0;
  for (auto _ : state) {
    TAVRIN_LOG(logging, 1, SeverityLevel::Debug, "conn %d from %s:%d state %s ratio %.2f", i, kHost,
               5555, "open", 0.75);
    benchmark::ClobberMemory();
    ++i;
  }
}
BENCHMARK(BM_LogBelowLevel);

void BM_LogEnabledFiveArguments(benchmark::State& state) {
  TavrinLogging* logging = &discardingLogging();
  int i = 0;
  for (auto _ : state) {
    TAVRIN_LOG(logging, 1, SeverityLevel::Info, "conn %d from %s:%d state %s ratio %.2f", i, kHost,
               5555, "open", 0.75);
    ++i;
  }
}
BENCHMARK(BM_LogEnabledFiveArguments);

void BM_PeerSnprintfSameText(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    char buffer[2048];
    int n = std::snprintf(buffer, sizeof buffer, "conn %d from %s:%d state %s ratio %.2f", i, kHost,
                          5555, "open", 0.75);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(buffer);
    ++i;
  }
}
BENCHMARK(BM_PeerSnprintfSameText);

#if TAVRIN_PEER_SPDLOG
std::shared_ptr<spdlog::logger> nullLogger() {
  static auto logger = [] {
    auto made = std::make_shared<spdlog::logger>("net", std::make_shared<spdlog::sinks::null_sink_st>());
    made->set_level(spdlog::level::info);
    return made;
  }();
  return logger;
}

void BM_PeerSpdlogBelowLevel(benchmark::State& state) {
  auto logger = nullLogger();
  int i = 0;
  for (auto _ : state) {
    logger->debug("conn {} from {}:{} state {} ratio {:.2f}", i, kHost, 5555, "open", 0.75);
    benchmark::ClobberMemory();
    ++i;
  }
}
BENCHMARK(BM_PeerSpdlogBelowLevel);

void BM_PeerSpdlogEnabledFiveArguments(benchmark::State& state) {
  auto logger = nullLogger();
  int i = 0;
  for (auto _ : state) {
    logger->info("conn {} from {}:{} state {} ratio {:.2f}", i, kHost, 5555, "open", 0.75);
    ++i;
  }
}
BENCHMARK(BM_PeerSpdlogEnabledFiveArguments);
#endif

}  // namespace

BENCHMARK_MAIN();
