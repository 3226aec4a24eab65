// Runs idle tasks, workers of low urgency, on a thread of their own at nice 15, without the loop
// mutex: an idle task that touches objects of the loop takes the loop mutex itself. A round runs
// every task once; after a round in which no task asked to continue, the thread sleeps until a
// task is added, stop() is called, or kIdleSleepSeconds have passed. addWorker from any thread;
// start and stop from the owner's thread.
#pragma once

#include "tavrincommon/scheduler/WorkerList.h"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace tavrinLog {
class TavrinLogging;
}

namespace tavrinScheduler {

class IdleTaskScheduler {
 public:
  static constexpr int kIdleNice = 15;
  // With every task waiting, the idle loop sleeps at most this long between rounds.
  static constexpr int kIdleSleepSeconds = 300;

  explicit IdleTaskScheduler(tavrinLog::TavrinLogging* logging_) : logging(logging_) {}
  ~IdleTaskScheduler();
  IdleTaskScheduler(const IdleTaskScheduler&) = delete;
  IdleTaskScheduler& operator=(const IdleTaskScheduler&) = delete;

  // Appends the worker unless it is in a worker list already, and wakes the idle thread.
  void addWorker(Worker* worker);
  // Stops a running idle thread first, then starts a new one.
  void start();
  // Joins the idle thread after its current round and empties the idle list.
  void stop();
  // The body of the idle thread.
  void runIdleTasks();

  bool isRunning() const { return running; }
  void setLogging(tavrinLog::TavrinLogging* logging_) { logging = logging_; }
  WorkerList& getWorkerList() { return tasks; }

 private:
  tavrinLog::TavrinLogging* logging;
  // Set by addWorker and stop, consumed by the idle thread before it decides to sleep.
  bool wake = false;
  std::mutex mutex;
  std::condition_variable condition;
  std::thread thread;
  bool running = false;
  bool stopRequested = false;
  WorkerList tasks;
};

}  // namespace tavrinScheduler
