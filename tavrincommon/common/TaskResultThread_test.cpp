#include "tavrincommon/common/TaskResultThread.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/RunUntil.h"

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include <gtest/gtest.h>

namespace tavrinCommon {
namespace {

using std::chrono::milliseconds;

class TaskResultThreadTest : public ::testing::Test {
 protected:
  tavrinScheduler::Scheduler scheduler{nullptr};
  const std::thread::id loopThread = std::this_thread::get_id();
};

TEST_F(TaskResultThreadTest, HandsTheResultToTheLoopThreadOnceAfterTheTask) {
  TaskResultThread<int> runner(DefaultOrigins::UnitTests, &scheduler);
  std::atomic<bool> taskDone{false};
  std::thread::id taskThread;
  std::thread::id callbackThread;
  int calls = 0;
  int received = 0;
  runner.start(
      [&] {
        taskThread = std::this_thread::get_id();
        taskDone = true;
        return 42;
      },
      [&](int value) {
        EXPECT_TRUE(taskDone.load());
        callbackThread = std::this_thread::get_id();
        received = value;
        ++calls;
      });
  EXPECT_TRUE(runner.isRunning());
  ASSERT_TRUE(tavrinTesting::runUntil(scheduler, [&] { return calls > 0; }));
  tavrinTesting::runFor(scheduler, milliseconds(50));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(received, 42);
  EXPECT_NE(taskThread, loopThread);
  EXPECT_EQ(callbackThread, loopThread);
  EXPECT_FALSE(runner.isRunning());

  // The runner can be started again.
  runner.start([] { return -5; },
               [&](int value) {
                 received = value;
                 ++calls;
               });
  ASSERT_TRUE(tavrinTesting::runUntil(scheduler, [&] { return calls == 2; }));
  EXPECT_EQ(received, -5);
}

TEST_F(TaskResultThreadTest, WithoutSchedulerCallsBackOnTheHelperThread) {
  TaskResultThread<int> runner(DefaultOrigins::UnitTests, nullptr);
  std::promise<std::thread::id> callbackThread;
  std::future<std::thread::id> done = callbackThread.get_future();
  runner.start([] { return 7; },
               [&](int value) {
                 EXPECT_EQ(value, 7);
                 callbackThread.set_value(std::this_thread::get_id());
               });
  ASSERT_EQ(done.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_NE(done.get(), loopThread);
  runner.join();
  EXPECT_FALSE(runner.isRunning());
}

TEST_F(TaskResultThreadTest, JoinOrAClearedCallbackDropsTheHandOverAndDestructionWaits) {
  int calls = 0;
  TaskResultThread<int> joined(DefaultOrigins::UnitTests, &scheduler);
  joined.start([] { return 1; }, [&](int) { ++calls; });
  joined.join();  // the task has returned and scheduled the hand-over
  EXPECT_FALSE(joined.isRunning());
  std::atomic<bool> returned{false};
  {
    TaskResultThread<int> runner(DefaultOrigins::UnitTests, &scheduler);
    runner.start(
        [&] {
          std::this_thread::sleep_for(milliseconds(50));  // blocking work
          returned = true;
          return 1;
        },
        [&](int) { ++calls; });
    runner.setFinishedCallback(nullptr);
  }
  EXPECT_TRUE(returned.load());
  tavrinTesting::runFor(scheduler, milliseconds(30));
  EXPECT_EQ(calls, 0);
}

}  // namespace
}  // namespace tavrinCommon
