#include "tavrincommon/scheduler/TimeoutTaskScheduler.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"

#include <iomanip>
#include <ostream>

namespace tavrinScheduler {

using tavrinCommon::MonotonicMs;

TimeoutTaskScheduler::~TimeoutTaskScheduler() { stop(); }

void TimeoutTaskScheduler::add(TimeoutTask* task, int ms, MonotonicMs now) {
  removeTask(task);
  task->due = now + ms;
  addTask(task);
}

void TimeoutTaskScheduler::addTask(TimeoutTask* task) {
  // Tasks are mostly armed with the same interval, so a new one usually sorts last: the hint
  // makes that insertion constant time.
  task->position = active.insert(active.end(), task);
  task->active = true;
}

void TimeoutTaskScheduler::removeTask(TimeoutTask* task) {
  if (!task->active) return;
  active.erase(task->position);
  task->active = false;
}

void TimeoutTaskScheduler::addThreadsafe(TimeoutTask* task, int ms) {
  task->pendingDue = MonotonicMs() + ms;
  waiting.insert(task);
}

void TimeoutTaskScheduler::activateWaitingTasks() {
  for (TimeoutTask* task : waiting) {
    removeTask(task);
    task->due = task->pendingDue;
    addTask(task);
  }
  waiting.clear();
}

void TimeoutTaskScheduler::removeFromWaitingTasks(TimeoutTask* task) { waiting.erase(task); }

void TimeoutTaskScheduler::runAndReturnNextTimeout(MonotonicMs& next, MonotonicMs now) {
  if (active.empty()) return;
  TimeoutTask* first = *active.begin();
  while (first->due - now <= 0) {
    removeTask(first);
    ++first->callCount;
    // timeout() may destroy its own task: nothing of it is read after the call.
    const int origin = first->origin;
    const MonotonicMs before;
    first->timeout();
    int32_t took = MonotonicMs() - before;
    if (took > kSlowTimeoutMs) {
      TAVRIN_LOG(logging, tavrinCommon::DefaultOrigins::Scheduler, tavrinLog::SeverityLevel::Service,
                 "TimeoutTask %s took %d ms", logging->originToString(origin),
                 static_cast<int>(took));
    }
    if (active.empty()) return;
    first = *active.begin();
  }
  if (next - first->due >= 1) next = first->due;
}

void TimeoutTaskScheduler::stop() {
  for (TimeoutTask* task : active) task->active = false;
  active.clear();
}

void TimeoutTaskScheduler::dump(std::ostream& out, const char* prefix) const {
  for (const TimeoutTask* task : active) {
    out << prefix << "TimeoutTask " << std::setw(30) << tavrinLog::originName(logging, task->origin)
        << " called " << std::setw(4) << task->callCount << "x @ 0x" << std::hex
        << reinterpret_cast<uintptr_t>(task) << std::dec << "\n";
  }
}

}  // namespace tavrinScheduler
