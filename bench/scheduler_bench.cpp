// The event loop: timeout arm plus disarm among 10,000 armed timeouts, a worker's add plus its
// run, and the cross-thread wake-up round trip, each side by side with what a peer does for the
// same work (a raw eventfd ping-pong always; libuv and asio when installed).
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/scheduler/SimpleWorker.h"
#include "tavrincommon/scheduler/TimeoutTask.h"
#include "tavrincommon/scheduler/TimeoutTaskScheduler.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#if TAVRIN_PEER_LIBUV
#include <uv.h>
#endif
#if TAVRIN_PEER_ASIO
#include <asio.hpp>
#endif

namespace {

using tavrinCommon::MonotonicMs;
using tavrinScheduler::Scheduler;
using tavrinScheduler::SimpleWorker;
using tavrinScheduler::TimeoutTask;
using tavrinScheduler::Worker;

constexpr int kArmed = 10000;
constexpr int kOps = 1 << 16;

class NoopTask : public TimeoutTask {
 public:
  NoopTask() : TimeoutTask(8) {}
  void timeout() override {}
};

// Random tasks re-armed with random due times, as a loop with many connections does.
struct RandomOps {
  RandomOps() : index(kOps), due(kOps) {
    std::mt19937 rng(42);
    for (int i = 0; i < kOps; ++i) {
      index[i] = rng() % kArmed;
      due[i] = 1 + static_cast<int>(rng() % 1000000);
    }
  }
  std::vector<uint32_t> index;
  std::vector<int> due;
};

void BM_TimeoutArmDisarmAmong10000(benchmark::State& state) {
  tavrinScheduler::TimeoutTaskScheduler timeouts(nullptr);
  std::vector<NoopTask> tasks(kArmed);
  RandomOps ops;
  const MonotonicMs now;
  std::mt19937 rng(7);
  for (auto& task : tasks) timeouts.add(&task, 1 + static_cast<int>(rng() % 1000000), now);
  size_t i = 0;
  for (auto _ : state) {
    NoopTask& task = tasks[ops.index[i]];
    timeouts.removeTask(&task);
    timeouts.add(&task, ops.due[i], now);
    i = (i + 1) & (kOps - 1);
  }
  timeouts.stop();
}
BENCHMARK(BM_TimeoutArmDisarmAmong10000);

// Through the scheduler's interface: the loop mutex and the wake-up of the IO wait included.
void BM_SchedulerAddDisableTimeoutAmong10000(benchmark::State& state) {
  Scheduler scheduler(nullptr);
  std::vector<NoopTask> tasks(kArmed);
  RandomOps ops;
  std::mt19937 rng(7);
  for (auto& task : tasks) scheduler.addTimeout(&task, 1 + static_cast<int>(rng() % 1000000));
  size_t i = 0;
  for (auto _ : state) {
    NoopTask& task = tasks[ops.index[i]];
    scheduler.disableTimeout(&task);
    scheduler.addTimeout(&task, ops.due[i]);
    i = (i + 1) & (kOps - 1);
  }
  for (auto& task : tasks) scheduler.disableTimeout(&task);
}
BENCHMARK(BM_SchedulerAddDisableTimeoutAmong10000);

#if TAVRIN_PEER_LIBUV
void BM_PeerLibuvTimerStopStartAmong10000(benchmark::State& state) {
  uv_loop_t loop;
  uv_loop_init(&loop);
  std::vector<uv_timer_t> timers(kArmed);
  RandomOps ops;
  std::mt19937 rng(7);
  for (auto& timer : timers) {
    uv_timer_init(&loop, &timer);
    uv_timer_start(&timer, [](uv_timer_t*) {}, 1 + rng() % 1000000, 0);
  }
  size_t i = 0;
  for (auto _ : state) {
    uv_timer_t& timer = timers[ops.index[i]];
    uv_timer_stop(&timer);
    uv_timer_start(&timer, [](uv_timer_t*) {}, static_cast<uint64_t>(ops.due[i]), 0);
    i = (i + 1) & (kOps - 1);
  }
  for (auto& timer : timers) uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
}
BENCHMARK(BM_PeerLibuvTimerStopStartAmong10000);
#endif

// addWorker plus the worker's run in the next pass, in batches like the loop sees them.
void BM_AddWorkerAndRun(benchmark::State& state) {
  Scheduler scheduler(nullptr);
  SimpleWorker worker(&scheduler, 8);
  uint64_t runs = 0;
  worker.setFunction([&runs] {
    ++runs;
    return Worker::Finished;
  });
  for (auto _ : state) {
    scheduler.addWorker(&worker);
    scheduler.runTasks();
  }
  benchmark::DoNotOptimize(runs);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AddWorkerAndRun);

// A worker that schedules the next one from inside its run: no wake-up write is needed then.
void BM_WorkerChain(benchmark::State& state) {
  Scheduler scheduler(nullptr);
  SimpleWorker worker(&scheduler, 8);
  int64_t left = 0;
  worker.setFunction([&] { return --left > 0 ? Worker::Continue : Worker::Finished; });
  for (auto _ : state) {
    left = 1000;
    scheduler.addWorker(&worker);
    scheduler.runTasks();
  }
  state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(BM_WorkerChain);

#if TAVRIN_PEER_ASIO
void BM_PeerAsioPostAndRun(benchmark::State& state) {
  asio::io_context io;
  uint64_t runs = 0;
  for (auto _ : state) {
    asio::post(io, [&runs] { ++runs; });
    io.restart();
    io.run();
  }
  benchmark::DoNotOptimize(runs);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PeerAsioPostAndRun);

void BM_PeerAsioPostChain(benchmark::State& state) {
  asio::io_context io;
  int64_t left = 0;
  std::function<void()> step = [&] {
    if (--left > 0) asio::post(io, [&] { step(); });
  };
  for (auto _ : state) {
    left = 1000;
    asio::post(io, [&] { step(); });
    io.restart();
    io.run();
  }
  state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(BM_PeerAsioPostChain);
#endif

// --- cross-thread wake-up round trip -------------------------------------------------------------
// Argument 0: both threads on CPU 0; 1: the two threads on CPUs 0 and 1.

void pinTo(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

struct AffinityRestore {
  AffinityRestore() { pthread_getaffinity_np(pthread_self(), sizeof saved, &saved); }
  ~AffinityRestore() { pthread_setaffinity_np(pthread_self(), sizeof saved, &saved); }
  cpu_set_t saved;
};

void BM_CrossThreadWakeupRoundTrip(benchmark::State& state) {
  const bool split = state.range(0) == 1;
  if (split && std::thread::hardware_concurrency() < 2) {
    state.SkipWithError("needs two CPUs");
    return;
  }
  AffinityRestore restore;
  pinTo(0);
  Scheduler schedulerA(nullptr);
  std::atomic<bool> answered{false};
  SimpleWorker answerWorker(&schedulerA, 8);
  answerWorker.setFunction([&] {
    answered.store(true, std::memory_order_relaxed);
    return Worker::Finished;
  });

  std::atomic<Scheduler*> schedulerB{nullptr};
  std::atomic<bool> stop{false};
  SimpleWorker* echo = nullptr;
  std::thread b([&] {
    pinTo(split ? 1 : 0);
    Scheduler own(nullptr);
    SimpleWorker echoWorker(&own, 8);
    echoWorker.setFunction([&] {
      schedulerA.addWorker(&answerWorker);
      return Worker::Finished;
    });
    echo = &echoWorker;
    schedulerB.store(&own);
    while (!stop.load()) own.run(100);
    schedulerB.store(nullptr);
  });
  while (!schedulerB.load()) std::this_thread::yield();

  // A turn runs workers before it waits, so A waits first and then runs the answer.
  for (auto _ : state) {
    answered.store(false, std::memory_order_relaxed);
    schedulerB.load()->addWorker(echo);
    while (!answered.load(std::memory_order_relaxed)) {
      schedulerA.getIOWatcher().watch(MonotonicMs() + 1000, &schedulerA.getLoopMutex());
      schedulerA.runTasks();
    }
  }
  stop.store(true);
  schedulerB.load()->getIOWatcher().wakeup();
  b.join();
}
BENCHMARK(BM_CrossThreadWakeupRoundTrip)->Arg(0)->Arg(1)->UseRealTime();

// The floor: two threads, each blocked in epoll_wait on its own eventfd, writing each other's.
struct EventSide {
  EventSide() : eventFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), epollFd(epoll_create1(EPOLL_CLOEXEC)) {
    epoll_event event{};
    event.events = EPOLLIN;
    epoll_ctl(epollFd, EPOLL_CTL_ADD, eventFd, &event);
  }
  ~EventSide() {
    close(eventFd);
    close(epollFd);
  }
  bool waitAndRead() const {
    epoll_event event;
    if (epoll_wait(epollFd, &event, 1, 2000) <= 0) return false;
    uint64_t value;
    return read(eventFd, &value, sizeof value) == sizeof value;
  }
  void signal() const {
    uint64_t one = 1;
    benchmark::DoNotOptimize(write(eventFd, &one, sizeof one));
  }
  int eventFd;
  int epollFd;
};

void BM_PeerEventfdPingPong(benchmark::State& state) {
  const bool split = state.range(0) == 1;
  if (split && std::thread::hardware_concurrency() < 2) {
    state.SkipWithError("needs two CPUs");
    return;
  }
  AffinityRestore restore;
  pinTo(0);
  EventSide a;
  EventSide b;
  std::atomic<bool> stop{false};
  std::thread echo([&] {
    pinTo(split ? 1 : 0);
    while (b.waitAndRead() && !stop.load()) a.signal();
  });
  for (auto _ : state) {
    b.signal();
    if (!a.waitAndRead()) {
      state.SkipWithError("echo thread timed out");
      break;
    }
  }
  stop.store(true);
  b.signal();
  echo.join();
}
BENCHMARK(BM_PeerEventfdPingPong)->Arg(0)->Arg(1)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
