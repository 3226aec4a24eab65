// Runs one blocking task on a thread of its own and hands the task's result to a finished
// callback on the loop thread, through a worker of the scheduler (without a scheduler the
// callback runs on the helper thread). Owns the thread and the worker. start, join and the
// destructor on the loop thread (the owner's thread); setFinishedCallback from any thread.
// The destructor blocks until a running task has returned.
#pragma once

#include "tavrincommon/common/LivenessToken.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace tavrinScheduler {
class Scheduler;
class SimpleWorker;
}  // namespace tavrinScheduler

namespace tavrinCommon {

template <typename T>
class TaskResultThread {
 public:
  // With a scheduler, the result is handed over by a worker with `origin`.
  TaskResultThread(int origin, tavrinScheduler::Scheduler* scheduler);
  virtual ~TaskResultThread();
  TaskResultThread(const TaskResultThread&) = delete;
  TaskResultThread& operator=(const TaskResultThread&) = delete;

  // Joins a previous task, then runs `task` on a new thread. `finished` is called once with the
  // result; it must not call start itself, but it may destroy this object.
  void start(const std::function<T()>& task, const std::function<void(T)>& finished);
  // An empty callback is replaced by one that does nothing. Once this returns, the previous
  // callback is not called any more.
  void setFinishedCallback(const std::function<void(T)>& finished);
  // Waits for the thread, drops a pending hand-over and forgets task and callback: no finished
  // callback is made afterwards.
  void join();
  // True from start until the result has been handed over. Any thread.
  bool isRunning() const { return running.load(std::memory_order_acquire); }

 private:
  void runThread();
  // The worker's function: the hand-over on the loop thread.
  int handOver();
  void callFinished();
  // Joins, or detaches when called on the helper thread itself (from its own finished callback).
  void joinThread();

  std::atomic<bool> running{false};
  std::thread thread;
  std::function<T()> task;
  std::function<void(T)> finished;
  std::unique_ptr<tavrinScheduler::SimpleWorker> worker;
  T result{};
  tavrinScheduler::Scheduler* scheduler;
  // Guards `finished`, and is held while it runs, so that replacing it from another thread never
  // races a call in progress. Recursive: the callback may replace itself. Shared with the call in
  // progress, which outlives an object destroyed by its callback.
  std::shared_ptr<std::recursive_mutex> finishedMutex = std::make_shared<std::recursive_mutex>();
  LivenessToken liveness;
};

extern template class TaskResultThread<int>;

}  // namespace tavrinCommon
