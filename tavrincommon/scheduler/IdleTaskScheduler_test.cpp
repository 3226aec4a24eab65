#include "tavrincommon/scheduler/IdleTaskScheduler.h"

#include "tavrincommon/common/ThreadHelper.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/scheduler/Worker.h"
#include "tavrincommon/testing/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <sys/resource.h>

namespace {

using namespace std::chrono_literals;
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

TEST_F(IdleTaskSchedulerTest, WaitingTasksStayAndRestartEmptiesTheList) {
  IdleWorker waiting(Worker::Wait);
  scheduler.startIdleTask();
  scheduler.addIdleTask(&waiting);
  EXPECT_TRUE(waitFor([&] { return waiting.calls >= 2; }));
  EXPECT_TRUE(waiting.isScheduled());
  scheduler.startIdleTask();  // stops first: the list does not survive
  EXPECT_FALSE(waiting.isScheduled());
  EXPECT_TRUE(scheduler.getIdleTaskScheduler().isRunning());
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

}  // namespace
