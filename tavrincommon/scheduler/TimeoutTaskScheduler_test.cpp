#include "tavrincommon/scheduler/TimeoutTaskScheduler.h"

#include "tavrincommon/testing/LogCapture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace {

using tavrinCommon::MonotonicMs;
using tavrinScheduler::TimeoutTask;
using tavrinScheduler::TimeoutTaskScheduler;

class RecordingTask : public TimeoutTask {
 public:
  RecordingTask(std::vector<int>& order_, int id_) : TimeoutTask(8), order(order_), id(id_) {}
  void timeout() override {
    order.push_back(id);
    if (onTimeout) onTimeout();
  }
  std::vector<int>& order;
  int id;
  std::function<void()> onTimeout;
};

class TimeoutTaskSchedulerTest : public ::testing::Test {
 protected:
  tavrinTesting::LogCapture log;
  TimeoutTaskScheduler timeouts{log.logging()};
  std::vector<int> order;
};

TEST_F(TimeoutTaskSchedulerTest, OrdersByDueTimeAcrossTheWrapThenByAddress) {
  const MonotonicMs base(0xFFFFFF00u);  // 256 ms before the 32-bit stamp wraps
  RecordingTask late(order, 1000);
  RecordingTask early(order, 500);
  timeouts.add(&late, 1000, base);
  timeouts.add(&early, 500, base);
  EXPECT_LT(late.getDue().getValue(), base.getValue());  // wrapped

  MonotonicMs next = base + 10000;
  timeouts.runAndReturnNextTimeout(next, base + 499);
  EXPECT_TRUE(order.empty());
  EXPECT_EQ(next, base + 500);  // the deadline is lowered to the earliest due time

  timeouts.runAndReturnNextTimeout(next, base + 500);
  EXPECT_EQ(order, (std::vector<int>{500}));
  EXPECT_EQ(next, base + 500);  // later due times never raise it

  next = base + 10000;
  timeouts.runAndReturnNextTimeout(next, base + 1000);
  EXPECT_EQ(order, (std::vector<int>{500, 1000}));
  EXPECT_TRUE(timeouts.empty());
  EXPECT_EQ(next, base + 10000);

  // Tasks due in the same millisecond run in address order.
  order.clear();
  RecordingTask tasks[3] = {{order, 0}, {order, 1}, {order, 2}};
  for (int i : {2, 0, 1}) timeouts.add(&tasks[i], 5, base);
  timeouts.runAndReturnNextTimeout(next, base + 5);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

TEST_F(TimeoutTaskSchedulerTest, ReArmingMovesTheDueTimeInsteadOfArmingTwice) {
  RecordingTask task(order, 1);
  const MonotonicMs base(50);
  timeouts.add(&task, 10, base);
  timeouts.add(&task, 30, base);
  EXPECT_EQ(timeouts.size(), 1u);
  MonotonicMs next = base + 100;
  timeouts.runAndReturnNextTimeout(next, base + 10);
  EXPECT_TRUE(order.empty());
  timeouts.runAndReturnNextTimeout(next, base + 30);
  EXPECT_EQ(order, (std::vector<int>{1}));
  EXPECT_EQ(task.getCallCount(), 1u);
  EXPECT_FALSE(task.isActive());

  timeouts.removeTask(&task);  // disarming an idle task is harmless
  timeouts.add(&task, 0, base);
  timeouts.stop();  // dropped without being called
  EXPECT_FALSE(task.isActive());
  timeouts.runAndReturnNextTimeout(next, base + 1000);
  EXPECT_EQ(order.size(), 1u);
}

TEST_F(TimeoutTaskSchedulerTest, TaskReArmedInsideTimeoutWaitsForTheNextPass) {
  RecordingTask task(order, 1);
  uint32_t clock = 1000;
  // Re-armed with 0 ms at a clock that has moved on since the pass began.
  task.onTimeout = [&] { timeouts.add(&task, 0, MonotonicMs(clock + 1)); };
  timeouts.add(&task, 0, MonotonicMs(1000));
  MonotonicMs next(5000);
  timeouts.runAndReturnNextTimeout(next, MonotonicMs(1000));
  EXPECT_EQ(order.size(), 1u);
  EXPECT_TRUE(task.isActive());
  EXPECT_EQ(next, MonotonicMs(1001));
  clock = 1001;
  timeouts.runAndReturnNextTimeout(next, MonotonicMs(1001));
  EXPECT_EQ(order.size(), 2u);
  timeouts.removeTask(&task);
}

TEST_F(TimeoutTaskSchedulerTest, TaskMayDestroyAnotherOrDisarmItselfWhileRunning) {
  auto victim = std::make_unique<RecordingTask>(order, 2);
  RecordingTask killer(order, 1);
  killer.onTimeout = [&] {
    timeouts.removeTask(victim.get());
    victim.reset();
  };
  const MonotonicMs base(10);
  timeouts.add(&killer, 0, base);
  timeouts.add(victim.get(), 1, base);
  MonotonicMs next(100);
  timeouts.runAndReturnNextTimeout(next, base + 5);
  EXPECT_EQ(order, (std::vector<int>{1}));
  EXPECT_TRUE(timeouts.empty());
}

TEST_F(TimeoutTaskSchedulerTest, WaitingTasksBecomeActiveWithTheirPendingDueTime) {
  RecordingTask task(order, 1);
  RecordingTask dropped(order, 2);
  timeouts.addThreadsafe(&task, 20);
  timeouts.addThreadsafe(&task, 40);  // only updates the pending due time
  timeouts.addThreadsafe(&dropped, 0);
  timeouts.removeFromWaitingTasks(&dropped);
  EXPECT_TRUE(timeouts.empty());
  const MonotonicMs armedAt;
  timeouts.activateWaitingTasks();
  ASSERT_EQ(timeouts.size(), 1u);
  EXPECT_GE(task.getDue() - armedAt, 39);
  EXPECT_LE(task.getDue() - armedAt, 40);
  timeouts.stop();
}

TEST_F(TimeoutTaskSchedulerTest, SlowTaskIsReportedAtService) {
  RecordingTask task(order, 1);
  task.onTimeout = [] { std::this_thread::sleep_for(std::chrono::milliseconds(150)); };
  const MonotonicMs now;
  timeouts.add(&task, 0, now);
  MonotonicMs next = now + 1000;
  timeouts.runAndReturnNextTimeout(next, now);
  EXPECT_EQ(log.count("Scheduler: Service: TimeoutTask UnitTests took "), 1u) << log.text();
}

}  // namespace
