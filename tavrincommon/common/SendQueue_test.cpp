#include "tavrincommon/common/SendQueue.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/RunUntil.h"

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace tavrinCommon {
namespace {

using Message = std::vector<unsigned char>;
using tavrinScheduler::Worker;

class SendQueueTest : public ::testing::Test {
 protected:
  void fill(SendQueue& queue, int count) {
    for (int i = 0; i < count; ++i) queue.push(Message{static_cast<unsigned char>(i)});
  }

  tavrinTesting::LogCapture log;
  tavrinScheduler::Scheduler scheduler{log.logging()};
  std::vector<Message> sent;
  bool accept = true;
  SendQueue::SendCallback recordAll = [this](Message& message) {
    if (accept) sent.push_back(message);
    return accept;
  };
};

TEST_F(SendQueueTest, RefusedMessageStaysFirstThenEveryMessageGoesInOrderInOnePass) {
  accept = false;
  SendQueue queue(DefaultOrigins::UnitTests, nullptr, recordAll, log.logging());
  fill(queue, 10);
  EXPECT_EQ(queue.doWork(), Worker::Finished);
  EXPECT_EQ(queue.size(), 10u);
  EXPECT_TRUE(sent.empty());

  accept = true;
  EXPECT_EQ(queue.doWork(), Worker::Finished);
  ASSERT_EQ(sent.size(), 10u);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(sent[i], Message{static_cast<unsigned char>(i)});
  EXPECT_TRUE(queue.empty());
}

TEST_F(SendQueueTest, YieldsAfterItsSliceAndSaysHowManyRemain) {
  SendQueue queue(
      DefaultOrigins::UnitTests, nullptr,
      [&](Message& message) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // a slow link
        sent.push_back(message);
        return true;
      },
      log.logging());
  fill(queue, 10);
  EXPECT_EQ(queue.doWork(), Worker::Continue);
  // Three sends of 100 ms fill the 300 ms slice; a stalled machine may fit fewer.
  ASSERT_GE(sent.size(), 1u);
  ASSERT_LE(sent.size(), 3u);
  EXPECT_EQ(queue.size(), 10u - sent.size());
  const std::string line = "SendQueue worker took longer than 300ms, yielding (" +
                           std::to_string(queue.size()) + " messages remaining in queue)";
  EXPECT_EQ(log.count(line), 1u) << log.text();
  EXPECT_EQ(log.lines().back().severity, tavrinLog::SeverityLevel::Debug);
}

TEST_F(SendQueueTest, PushSchedulesTheWorkerOnTheLoop) {
  SendQueue queue(DefaultOrigins::UnitTests, &scheduler, recordAll, log.logging());
  fill(queue, 3);
  EXPECT_TRUE(tavrinTesting::runUntil(scheduler, [&] { return sent.size() == 3; }));
  EXPECT_TRUE(queue.empty());

  // An empty send callback drops the messages one by one.
  queue.setSendCallback(nullptr);
  fill(queue, 2);
  EXPECT_TRUE(tavrinTesting::runUntil(scheduler, [&] { return queue.empty(); }));
  EXPECT_EQ(sent.size(), 3u);
}

TEST_F(SendQueueTest, SendCallbackMayReplaceItselfOrClearTheQueue) {
  SendQueue queue(DefaultOrigins::UnitTests, nullptr, nullptr, log.logging());
  std::vector<std::string> seen;
  const std::string tag(40, 'x');  // too large for std::function's inline storage
  queue.setSendCallback([&, tag](Message& message) {
    queue.setSendCallback([&](Message& next) {
      seen.push_back("new" + std::to_string(next[0]));
      return true;
    });
    seen.push_back(tag.substr(0, 1) + std::to_string(message[0]));
    return true;
  });
  fill(queue, 2);
  EXPECT_EQ(queue.doWork(), Worker::Finished);
  EXPECT_EQ(seen, (std::vector<std::string>{"x0", "new1"}));

  // Cleared inside the call, the message handed over is gone: what was pushed since stays.
  int calls = 0;
  queue.setSendCallback([&](Message& message) {
    seen.push_back(std::to_string(message[0]));
    if (++calls == 1) queue.clear();
    if (calls == 2) {
      queue.clear();
      queue.push(Message{9});
    }
    return true;
  });
  fill(queue, 3);
  EXPECT_EQ(queue.doWork(), Worker::Finished);
  fill(queue, 3);
  EXPECT_EQ(queue.doWork(), Worker::Finished);
  EXPECT_EQ(seen, (std::vector<std::string>{"x0", "new1", "0", "0", "9"}));
  EXPECT_TRUE(queue.empty());
}

}  // namespace
}  // namespace tavrinCommon
