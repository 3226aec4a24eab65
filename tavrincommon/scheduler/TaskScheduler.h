// The main-loop runner of workers: one pass runs scheduled workers in first-in first-out order
// for at most kWorkerPassBudgetMs. Keeps, never owns, its workers. add/remove from any thread;
// run() on the loop thread.
#pragma once

#include "tavrincommon/scheduler/WorkerList.h"

#include <cstdint>
#include <ctime>
#include <iosfwd>

namespace tavrinLog {
class TavrinLogging;
}

namespace tavrinScheduler {

class TaskScheduler {
 public:
  static constexpr int kWorkerPassBudgetMs = 750;
  // A worker that runs longer than this is reported.
  static constexpr int kSlowWorkerMs = 100;

  explicit TaskScheduler(tavrinLog::TavrinLogging* logging_) : logging(logging_) {}

  bool add(Worker* worker) { return workers.add(worker, false); }
  void remove(Worker* worker) { workers.remove(worker); }
  // One worker pass. True when the budget ran out with workers still scheduled.
  bool run() { return run(nullptr); }
  // The same, starting from the caller's reading of the monotonic clock when `start` is given.
  bool run(const timespec* start);
  // A pass that would find no worker: counted as a pass, without touching the list's mutex.
  bool skipIfNothingToRun() {
    if (!workers.emptyNow()) return false;
    ++runCounter;
    ranWorkers = false;
    return true;
  }
  // Whether the last pass called a worker, and then the monotonic clock read after the last call.
  bool lastPassRanWorkers() const { return ranWorkers; }
  const timespec& lastReading() const { return reading; }
  // While a worker runs (loop thread): the clock as read just before it was called; null
  // outside workers.
  const timespec* runningWorkerStart() const { return workerStart; }

  void setLogging(tavrinLog::TavrinLogging* logging_) { logging = logging_; }
  uint32_t getRunCounter() const { return runCounter; }
  WorkerList& getWorkerList() { return workers; }
  void dump(std::ostream& out, const char* prefix) { workers.dump(out, prefix); }

 private:
  tavrinLog::TavrinLogging* logging;
  uint32_t runCounter = 0;
  bool ranWorkers = false;
  timespec reading{};
  const timespec* workerStart = nullptr;
  WorkerList workers;
};

}  // namespace tavrinScheduler
