#include "tavrincommon/scheduler/Scheduler.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/GlobalLogging.h"
#include "tavrincommon/scheduler/MutexedWorker.h"
#include "tavrincommon/scheduler/SimpleTimer.h"
#include "tavrincommon/scheduler/SimpleWorker.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/RunUntil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <sstream>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using tavrinLog::SeverityLevel;
using tavrinScheduler::IOWatchItem;
using tavrinScheduler::Scheduler;
using tavrinScheduler::SimpleTimer;
using tavrinScheduler::SimpleWorker;
using tavrinScheduler::Worker;
using tavrinTesting::runUntil;
using Clock = std::chrono::steady_clock;

class SchedulerTest : public ::testing::Test {
 protected:
  tavrinTesting::LogCapture log;
  Scheduler scheduler{log.logging()};
};

class CountingWatchdog : public tavrinScheduler::WatchdogInterface {
 public:
  explicit CountingWatchdog(int resetMs_, std::atomic<int>& resets_) : resetMs(resetMs_), resets(resets_) {}
  void reset() override { ++resets; }
  int getResetTimeoutMs() const override { return resetMs; }
  void setup(bool, bool) override {}
  int resetMs;
  std::atomic<int>& resets;
};

TEST_F(SchedulerTest, TurnRunsWorkersThenTimeoutsThenIO) {
  std::vector<std::string> order;
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
  ASSERT_EQ(write(fds[1], "x", 1), 1);
  IOWatchItem item;
  item.fd = fds[0];
  item.events = EPOLLIN;
  item.callback = [&](int) {
    order.push_back("io");
    EXPECT_NE(scheduler.getIOWatcher().runningCallbackStart(), nullptr);
    char c;
    EXPECT_EQ(read(fds[0], &c, 1), 1);
    return IOWatchItem::Unchanged;
  };
  auto handle = scheduler.addIOItem(item, 8);
  // The timer falls due while the worker runs: the turn looks at the clock again before the
  // timeouts.
  SimpleTimer timer(&scheduler, 20, [&] { order.push_back("timeout"); }, 8);
  timer.start();
  SimpleWorker worker(&scheduler, 8);
  worker.setFunction([&] {
    order.push_back("worker");
    EXPECT_NE(scheduler.getTaskScheduler().runningWorkerStart(), nullptr);
    std::this_thread::sleep_for(40ms);
    return Worker::Finished;
  });
  scheduler.addWorker(&worker);
  scheduler.run(0);
  EXPECT_EQ(order, (std::vector<std::string>{"worker", "timeout", "io"}));
  // The readings the loop lends its callbacks are gone once they return.
  EXPECT_EQ(scheduler.getIOWatcher().runningCallbackStart(), nullptr);
  EXPECT_EQ(scheduler.getTaskScheduler().runningWorkerStart(), nullptr);
  EXPECT_TRUE(timer.hasFired());
  scheduler.removeIOItem(handle);
  EXPECT_TRUE(handle.empty());
  close(fds[0]);
  close(fds[1]);
}

TEST_F(SchedulerTest, WorkerPassStopsAfterItsBudgetAndTheIOWaitThenDoesNotBlock) {
  SimpleWorker busy(&scheduler, 8);
  int calls = 0;
  busy.setFunction([&] {
    ++calls;
    std::this_thread::sleep_for(5ms);
    return Worker::Continue;
  });
  scheduler.addWorker(&busy);
  const auto start = Clock::now();
  scheduler.run(5000);
  const auto took = Clock::now() - start;
  EXPECT_GE(took, 740ms);
  EXPECT_LT(took, 2500ms);  // not the 5 s wait: the IO wait of this turn did not block
  EXPECT_TRUE(busy.isScheduled());
  EXPECT_EQ(busy.getCallCount(), calls);  // the call that did not happen is not counted
  EXPECT_GT(calls, 10);
}

TEST_F(SchedulerTest, WorkersRunFirstInFirstOut) {
  std::vector<int> order;
  SimpleWorker first(&scheduler, 8);
  SimpleWorker second(&scheduler, 8);
  int rounds = 0;
  first.setFunction([&] {
    order.push_back(1);
    return ++rounds < 6 ? Worker::Continue : Worker::Finished;
  });
  second.setFunction([&] {
    order.push_back(2);
    return rounds < 6 ? Worker::Busy : Worker::Finished;
  });
  scheduler.addWorker(&first);
  scheduler.addWorker(&second);
  scheduler.addWorker(&first);  // scheduled already: nothing
  EXPECT_EQ(scheduler.getTaskScheduler().getWorkerList().size(), 2u);
  scheduler.run(0);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 1, 2, 1, 2, 1, 2, 1, 2, 1, 2}));
  EXPECT_FALSE(first.isScheduled());
  EXPECT_FALSE(second.isScheduled());
}

TEST_F(SchedulerTest, FinishedWaitAndUnknownResultsRunOnceUntilReAdded) {
  for (int result : {static_cast<int>(Worker::Finished), static_cast<int>(Worker::Wait), 42}) {
    SimpleWorker worker(&scheduler, 8);
    int calls = 0;
    worker.setFunction([&] {
      ++calls;
      return static_cast<Worker::Result>(result);
    });
    scheduler.addWorker(&worker);
    scheduler.run(0);
    scheduler.run(0);
    EXPECT_EQ(calls, 1) << "result " << result;
    scheduler.addWorker(&worker);
    scheduler.run(0);
    EXPECT_EQ(calls, 2) << "result " << result;
  }
  SimpleWorker empty(&scheduler, 8);
  empty.setFunction({});  // an empty function finishes at once
  scheduler.addWorker(&empty);
  scheduler.run(0);
  EXPECT_FALSE(empty.isScheduled());
}

TEST_F(SchedulerTest, WorkerCanRemoveAndReAddItselfWhileRunning) {
  SimpleWorker worker(&scheduler, 8);
  int calls = 0;
  worker.setFunction([&] {
    ++calls;
    scheduler.removeWorker(&worker);  // not scheduled while running: harmless
    if (calls < 3) {
      scheduler.addWorker(&worker);
      scheduler.addWorker(&worker);
      EXPECT_EQ(scheduler.getTaskScheduler().getWorkerList().size(), 1u);
    }
    return calls < 3 ? Worker::Continue : Worker::Finished;  // Continue does not add it twice
  });
  scheduler.addWorker(&worker);
  scheduler.run(0);
  EXPECT_EQ(calls, 3);
  EXPECT_FALSE(worker.isScheduled());
  EXPECT_TRUE(scheduler.getTaskScheduler().getWorkerList().empty());
}

class SharedCounter : public tavrinScheduler::MutexedWorker {
 public:
  SharedCounter() : MutexedWorker(8) {}
  Result mutexedWork() override {
    ++runs;
    return Finished;
  }
  int runs = 0;
};

TEST_F(SchedulerTest, MutexedWorkerIsBusyWhileAnotherThreadHoldsItsMutex) {
  SharedCounter worker;
  std::atomic<bool> locked{false};
  std::atomic<bool> release{false};
  std::thread holder([&] {
    worker.getMutex().lock();
    locked = true;
    while (!release) std::this_thread::yield();
    worker.getMutex().unlock();
  });
  while (!locked) std::this_thread::yield();
  scheduler.addWorker(&worker);
  scheduler.run(0);
  EXPECT_EQ(worker.runs, 0);
  EXPECT_TRUE(worker.isScheduled());  // Busy puts it back
  EXPECT_GT(worker.getCallCount(), 1);  // and it was retried within the pass
  release = true;
  holder.join();
  scheduler.run(0);
  EXPECT_EQ(worker.runs, 1);
  EXPECT_FALSE(worker.isScheduled());
}

TEST_F(SchedulerTest, SlowWorkerIsReportedAtServiceOnly) {
  SimpleWorker slow(&scheduler, 8);
  slow.setFunction([] {
    std::this_thread::sleep_for(110ms);
    return Worker::Finished;
  });
  log.logging()->setComponentSeverity(6, SeverityLevel::Info);
  scheduler.addWorker(&slow);
  scheduler.run(0);
  EXPECT_EQ(log.count("took"), 0u);
  log.logging()->setComponentSeverity(6, SeverityLevel::Service);
  scheduler.addWorker(&slow);
  scheduler.run(0);
  ASSERT_EQ(log.count("Scheduler: Service: Worker UnitTests took "), 1u) << log.text();
  EXPECT_TRUE(log.contains("ms (result: -1, called 2 times, scheduled: no, runCounter: 2)"))
      << log.text();

  // A slow worker that destroys itself is reported without reading it again.
  auto* selfDestroying = new SimpleWorker(&scheduler, 8);
  selfDestroying->setFunction([selfDestroying] {
    std::this_thread::sleep_for(110ms);
    delete selfDestroying;
    return Worker::Finished;
  });
  scheduler.addWorker(selfDestroying);
  scheduler.run(0);
  EXPECT_EQ(log.count("Scheduler: Service: Worker UnitTests took "), 2u) << log.text();
}

TEST_F(SchedulerTest, DestroyedWorkerAndTimerNeverRun) {
  int runs = 0;
  {
    SimpleWorker worker(&scheduler, 8);
    worker.setFunction([&] {
      ++runs;
      return Worker::Finished;
    });
    scheduler.addWorker(&worker);
    SimpleTimer timer(&scheduler, 0, [&] { ++runs; }, 8);
    timer.start();
  }
  EXPECT_TRUE(scheduler.getTaskScheduler().getWorkerList().empty());
  EXPECT_TRUE(scheduler.getTimeoutTaskScheduler().empty());
  scheduler.run(0);
  EXPECT_EQ(runs, 0);
}

TEST_F(SchedulerTest, SimpleTimerRestartsAndStops) {
  int fired = 0;
  SimpleTimer timer(&scheduler, 30, [&] { ++fired; }, 8);
  timer.start();
  timer.start();  // re-armed, not armed twice
  EXPECT_EQ(scheduler.getTimeoutTaskScheduler().size(), 1u);
  EXPECT_TRUE(runUntil(scheduler, [&] { return fired == 1; }, 3s));
  EXPECT_TRUE(timer.isArmed());  // stays marked armed after firing
  EXPECT_TRUE(timer.hasFired());
  timer.start([&] { fired += 10; });
  timer.stop();
  EXPECT_FALSE(timer.isArmed());
  tavrinTesting::runFor(scheduler, 100ms);
  EXPECT_EQ(fired, 1);
}

TEST_F(SchedulerTest, OtherThreadWakesALoopWaitingWithALongDeadline) {
  SimpleWorker worker(&scheduler, 8);
  std::atomic<int> workerRuns{0};
  worker.setFunction([&] {
    ++workerRuns;
    return Worker::Finished;
  });
  int timerFired = 0;
  Clock::time_point firedAt;
  SimpleTimer timer(&scheduler, 50, [&] {
    ++timerFired;
    firedAt = Clock::now();
  }, 8);
  std::atomic<bool> armedFromThread{false};

  std::thread other([&] {
    std::this_thread::sleep_for(50ms);  // let the loop enter its long wait
    scheduler.addWorker(&worker);
  });
  auto start = Clock::now();
  scheduler.run(9000);
  scheduler.run(0);
  other.join();
  EXPECT_EQ(workerRuns, 1);
  EXPECT_LT(Clock::now() - start, 2000ms);

  Clock::time_point armedAt;
  std::thread arming([&] {
    std::this_thread::sleep_for(50ms);
    armedAt = Clock::now();
    timer.start();  // from another thread: the waiting set, then the wake-up
    armedFromThread = true;
  });
  // The turn that runs the timeout then waits its full time, so watch the firing itself.
  start = Clock::now();
  while (timerFired == 0 && Clock::now() - start < 5s) scheduler.run(2000);
  arming.join();
  EXPECT_EQ(timerFired, 1);
  EXPECT_TRUE(armedFromThread);
  EXPECT_GE(firedAt - armedAt, 45ms);  // measured from the moment of the call
  EXPECT_LT(firedAt - armedAt, 1000ms);
}

// Two threads arm and disarm while the loop turns: once disableTimeout has returned, the
// callback must not start (and ThreadSanitizer must find nothing on the timeout sets).
TEST_F(SchedulerTest, TimeoutsDisarmedFromOtherThreadsNeverFireAfterwards) {
  struct Probe : tavrinScheduler::TimeoutTask {
    Probe() : TimeoutTask(8) {}
    void timeout() override {
      if (!armed) ++late;
      ++fired;
    }
    std::atomic<bool> armed{false};
    std::atomic<int> fired{0};
    std::atomic<int> late{0};
  };
  Probe probes[2];
  std::atomic<bool> stop{false};
  auto armAndDisarm = [&](Probe* probe) {
    for (unsigned round = 0; !stop; ++round) {
      probe->armed = true;
      scheduler.addTimeout(probe, 0);
      if (round % 2 == 1) {  // every other round lets the loop fire it first
        const int before = probe->fired;
        const auto end = Clock::now() + 100ms;
        while (probe->fired == before && Clock::now() < end) std::this_thread::yield();
      }
      scheduler.disableTimeout(probe);
      probe->armed = false;
    }
  };
  std::thread first(armAndDisarm, &probes[0]);
  std::thread second(armAndDisarm, &probes[1]);
  tavrinTesting::runFor(scheduler, 1000ms, 0);
  stop = true;
  first.join();
  second.join();
  tavrinTesting::runFor(scheduler, 20ms);
  for (const Probe& probe : probes) {
    EXPECT_EQ(probe.late, 0);
    EXPECT_GT(probe.fired, 0);
  }
}

TEST_F(SchedulerTest, EmptyTurnsWaitNoLongerThanAskedOrTheWatchdogAllows) {
  auto start = Clock::now();
  for (int i = 0; i < 100; ++i) scheduler.run(0);
  EXPECT_LT(Clock::now() - start, 500ms);
  std::atomic<int> resets{0};
  scheduler.setWatchdog(std::make_unique<CountingWatchdog>(100, resets));
  start = Clock::now();
  scheduler.run(60000);
  const auto waited = Clock::now() - start;
  EXPECT_GE(waited, 90ms);
  EXPECT_LT(waited, 1000ms);
  EXPECT_EQ(resets, 2);
  scheduler.setWatchdog(nullptr);  // back to the default
  EXPECT_EQ(scheduler.getWatchdog().getResetTimeoutMs(), 10000);
}

TEST_F(SchedulerTest, DumpListsIOWorkersAndTimeouts) {
  tavrinLog::initGlobalLogging(SeverityLevel::Info, {}, true,
                               [](int origin) { return tavrinCommon::DefaultOrigins::getText(origin); });
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
  IOWatchItem item;
  item.fd = fds[0];
  item.events = EPOLLIN;
  item.callback = [](int) { return IOWatchItem::Unchanged; };
  auto handle = scheduler.addIOItem(item, 4);
  SimpleWorker worker(&scheduler, 1);
  scheduler.addWorker(&worker);
  SimpleTimer timer(&scheduler, 1000, {}, 6);
  timer.start();
  std::ostringstream out;
  scheduler.dump(out, "# ");
  std::ostringstream timerLine;
  timerLine << "#   TimeoutTask " << std::string(21, ' ') << "Scheduler called    0x @ 0x" << std::hex
            << reinterpret_cast<uintptr_t>(static_cast<tavrinScheduler::TimeoutTask*>(&timer)) << "\n";
  EXPECT_EQ(out.str(), "# Scheduler:\n"
                       "#   IOEntry " + std::string(23, ' ') + "Sockets called    0x\n"
                       "#   Worker " + std::string(18, ' ') + "TCPConnector called    0x\n" +
                       timerLine.str());
  scheduler.removeIOItem(handle);
  close(fds[0]);
  close(fds[1]);
  tavrinLog::globalLogging.reset();
}

TEST_F(SchedulerTest, ApplicationLoopMutexIsHeldWhileWorkersRun) {
  tavrinCommon::TinyRecursiveMutex appMutex;
  Scheduler own(appMutex, log.logging());
  SimpleWorker worker(&own, 8);
  bool heldByLoop = false;
  worker.setFunction([&] {
    std::thread probe([&] { heldByLoop = !appMutex.trylock(); });
    probe.join();
    return Worker::Finished;
  });
  own.addWorker(&worker);
  own.run(0);
  EXPECT_TRUE(heldByLoop);
}

}  // namespace
