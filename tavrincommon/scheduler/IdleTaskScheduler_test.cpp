#include "tavrincommon/scheduler/IdleTaskScheduler.h"

#include "tavrincommon/common/ThreadHelper.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/scheduler/SimpleWorker.h"
#include "tavrincommon/scheduler/Worker.h"
#include "tavrincommon/testing/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <time.h>

#include <sys/resource.h>

namespace {

using namespace std::chrono_literals;
using tavrinScheduler::SimpleWorker;
using tavrinScheduler::Worker;

class IdleWorker : public Worker {
 public:
  explicit IdleWorker(Result result_) : Worker(8), result(result_) {}
  Result work() override {
    priority = getpriority(PRIO_PROCESS, static_cast<id_t>(tavrinCommon::ThreadHelper::getRunningThreadId()));
    ++calls;
    return result;
  }
  std::atomic<Result> result;
  std::atomic<int> calls{0};
  std::atomic<int> priority{0};
};

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit = 5s) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

class IdleTaskSchedulerTest : public ::testing::Test {
 protected:
  tavrinTesting::LogCapture log;
  tavrinScheduler::Scheduler scheduler{log.logging()};
};

TEST_F(IdleTaskSchedulerTest, IdleTasksRunOnALowPriorityThread) {
  IdleWorker once(Worker::Finished);
  IdleWorker repeating(Worker::Continue);
  scheduler.startIdleTask();
  EXPECT_TRUE(waitFor([&] { return log.count("Scheduler: Debug: idle loop") >= 1; }));
  scheduler.addIdleTask(&once);
  scheduler.addIdleTask(&repeating);
  EXPECT_TRUE(waitFor([&] { return repeating.calls > 20; }));
  EXPECT_EQ(once.calls, 1);  // Finished: called once and removed
  EXPECT_FALSE(once.isScheduled());
  EXPECT_TRUE(repeating.isScheduled());
  EXPECT_EQ(repeating.priority, 15);

  scheduler.getIdleTaskScheduler().stop();
  EXPECT_FALSE(scheduler.getIdleTaskScheduler().isRunning());
  EXPECT_TRUE(scheduler.getIdleTaskScheduler().getWorkerList().empty());
  EXPECT_FALSE(repeating.isScheduled());
  const int callsAfterStop = repeating.calls;
  std::this_thread::sleep_for(20ms);  // nothing may run any more: no thread is left
  EXPECT_EQ(repeating.calls, callsAfterStop);
}

TEST_F(IdleTaskSchedulerTest, StopWithoutStartAndDestructionWhileRunningAreSafe) {
  scheduler.getIdleTaskScheduler().stop();
  IdleWorker repeating(Worker::Continue);
  auto temporary = std::make_unique<tavrinScheduler::Scheduler>(log.logging());
  temporary->startIdleTask();
  temporary->addIdleTask(&repeating);
  EXPECT_TRUE(waitFor([&] { return repeating.calls > 0; }));
  temporary.reset();  // joins the idle thread
  EXPECT_FALSE(repeating.isScheduled());
}

TEST_F(IdleTaskSchedulerTest, IdleThreadSleepsWhileEveryTaskWaitsAndRestartEmptiesTheList) {
  IdleWorker waiting(Worker::Wait);
  scheduler.startIdleTask();
  scheduler.addIdleTask(&waiting);
  ASSERT_TRUE(waitFor([&] { return waiting.calls >= 1; }));
  EXPECT_TRUE(waiting.isScheduled());  // a waiting task stays
  timespec before{};
  timespec after{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
  std::this_thread::sleep_for(1s);  // a window for measuring, not a synchronisation
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
  const double cpuSeconds =
      static_cast<double>(after.tv_sec - before.tv_sec) + (after.tv_nsec - before.tv_nsec) / 1e9;
  EXPECT_LT(cpuSeconds, 0.1);
  EXPECT_LT(waiting.calls, 10);

  IdleWorker added(Worker::Finished);  // an added task wakes it
  scheduler.addIdleTask(&added);
  EXPECT_TRUE(waitFor([&] { return added.calls == 1; }));
  scheduler.startIdleTask();  // stops first: the list does not survive
  EXPECT_FALSE(waiting.isScheduled());
  EXPECT_TRUE(scheduler.getIdleTaskScheduler().isRunning());
  scheduler.getIdleTaskScheduler().stop();
}

// The idle list and the main list are separate: removing a worker from one never touches the
// other, and a worker leaves whichever list holds it when destroyed, also from its own call.
TEST_F(IdleTaskSchedulerTest, DestroyedIdleWorkerLeavesOnlyTheIdleList) {
  int mainRuns = 0;
  SimpleWorker first(&scheduler, 8);
  SimpleWorker second(&scheduler, 8);
  for (SimpleWorker* worker : {&first, &second}) {
    worker->setFunction([&] {
      ++mainRuns;
      return Worker::Finished;
    });
    scheduler.addWorker(worker);
  }
  {
    SimpleWorker idle(&scheduler, 8);
    scheduler.addIdleTask(&idle);
    scheduler.addIdleTask(&first);  // in the main list already: refused
  }
  EXPECT_TRUE(scheduler.getIdleTaskScheduler().getWorkerList().empty());
  scheduler.run(0);
  EXPECT_EQ(mainRuns, 2);

  IdleWorker stays(Worker::Continue);
  std::atomic<int> selfDestroyed{0};
  auto* selfDestroying = new SimpleWorker(&scheduler, 8);
  selfDestroying->setFunction([&, selfDestroying] {
    delete selfDestroying;
    ++selfDestroyed;
    return Worker::Continue;
  });
  scheduler.addIdleTask(selfDestroying);
  scheduler.addIdleTask(&stays);
  scheduler.startIdleTask();
  const int before = stays.calls;
  EXPECT_TRUE(waitFor([&] { return stays.calls > before + 5; }));
  EXPECT_EQ(selfDestroyed, 1);
  EXPECT_EQ(scheduler.getIdleTaskScheduler().getWorkerList().size(), 1u);
  scheduler.getIdleTaskScheduler().stop();
}

}  // namespace
