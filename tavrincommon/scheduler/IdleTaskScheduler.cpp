#include "tavrincommon/scheduler/IdleTaskScheduler.h"

#include "tavrincommon/common/ThreadHelper.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/scheduler/Worker.h"

#include <chrono>

namespace tavrinScheduler {

IdleTaskScheduler::~IdleTaskScheduler() { stop(); }

void IdleTaskScheduler::addWorker(Worker* worker) {
  if (!tasks.add(worker)) return;
  {
    std::lock_guard<std::mutex> lock(mutex);
    wake = true;
  }
  condition.notify_all();
}

void IdleTaskScheduler::start() {
  stop();
  {
    std::lock_guard<std::mutex> lock(mutex);
    wake = false;
    stopRequested = false;
  }
  running = true;
  thread = std::thread([this] { runIdleTasks(); });
}

void IdleTaskScheduler::stop() {
  if (!running) return;
  {
    std::lock_guard<std::mutex> lock(mutex);
    stopRequested = true;
    wake = true;
  }
  condition.notify_all();
  if (thread.joinable()) thread.join();
  tasks.clear();
  running = false;
}

void IdleTaskScheduler::runIdleTasks() {
  tavrinCommon::ThreadHelper::setRunningThreadPriority(kIdleNice);
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (stopRequested) return;
  }
  for (;;) {
    TAVRIN_LOG(logging, tavrinCommon::DefaultOrigins::Scheduler, tavrinLog::SeverityLevel::Debug,
               "idle loop");
    bool allWaiting = true;
    tasks.iterate([&allWaiting](Worker* worker) {
      switch (worker->work()) {
        case Worker::Finished:
          return true;
        case Worker::Wait:
          return false;
        default:
          allWaiting = false;
          return false;
      }
    });

    std::unique_lock<std::mutex> lock(mutex);
    if (allWaiting) {
      condition.wait_for(lock, std::chrono::seconds(kIdleSleepSeconds), [this] { return wake; });
    }
    if (stopRequested) return;
    wake = false;
  }
}

}  // namespace tavrinScheduler
