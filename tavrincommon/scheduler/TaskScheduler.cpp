#include "tavrincommon/scheduler/TaskScheduler.h"

#include "tavrincommon/common/Clock.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/scheduler/Worker.h"

namespace tavrinScheduler {

namespace {

using tavrinCommon::system::Clock;

timespec monotonicNow() { return Clock::getTime(Clock::Monotonic); }

bool atOrAfter(const timespec& now, const timespec& end) {
  return now.tv_sec > end.tv_sec || (now.tv_sec == end.tv_sec && now.tv_nsec >= end.tv_nsec);
}

int elapsedMs(const timespec& from, const timespec& to) {
  long long ns = (static_cast<long long>(to.tv_sec) - from.tv_sec) * 1000000000LL +
                 (to.tv_nsec - from.tv_nsec);
  return static_cast<int>(ns / 1000000LL);
}

}  // namespace

bool TaskScheduler::run(const timespec* start) {
  ++runCounter;
  Worker* worker = workers.pop();
  ranWorkers = worker != nullptr;
  // Nothing to run: the pass needs no clock. Otherwise one reading per worker: the reading after
  // a worker is the start of the next one.
  if (!worker) return false;
  timespec now = start ? *start : monotonicNow();
  timespec passEnd = now;
  passEnd.tv_sec += kWorkerPassBudgetMs / 1000;
  passEnd.tv_nsec += (kWorkerPassBudgetMs % 1000) * 1000000L;
  if (passEnd.tv_nsec >= 1000000000L) {
    passEnd.tv_nsec -= 1000000000L;
    passEnd.tv_sec += 1;
  }

  while (worker) {
    // The budget is checked before each worker, so a pass always runs at least one.
    if (atOrAfter(now, passEnd)) {
      workers.add(worker, true);
      return true;
    }
    // work() may destroy its own worker: what the report needs is read before the call.
    const int origin = worker->getOrigin();
    const int calls = static_cast<int>(worker->getCallCount());
    Worker::Result result;
    {
      struct Running {
        const timespec*& start;
        ~Running() { start = nullptr; }
      } running{workerStart};
      workerStart = &now;
      result = worker->work();
    }
    const bool runsAgain = result == Worker::Continue || result == Worker::Busy;
    const timespec after = monotonicNow();
    const int elapsed = elapsedMs(now, after);
    now = after;
    reading = after;
    if (elapsed > kSlowWorkerMs) {
      TAVRIN_LOG(logging, tavrinCommon::DefaultOrigins::Scheduler,
                 tavrinLog::SeverityLevel::Service,
                 "Worker %s took %dms (result: %d, called %d times, scheduled: %s, runCounter: %u)",
                 logging->originToString(origin), elapsed, static_cast<int>(result), calls,
                 runsAgain ? "yes" : "no", static_cast<unsigned>(runCounter));
    }
    if (runsAgain) workers.add(worker, false);
    worker = workers.pop();
  }
  return false;
}

}  // namespace tavrinScheduler
