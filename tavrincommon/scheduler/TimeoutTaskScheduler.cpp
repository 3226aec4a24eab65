#include "tavrincommon/scheduler/TimeoutTaskScheduler.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"

#include <algorithm>
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

namespace {
const TimeoutTask::TimeoutTaskSetCompare firesBefore;
}  // namespace

void TimeoutTaskScheduler::siftUp(size_t index) {
  TimeoutTask* task = active[index];
  while (index > 0) {
    size_t parent = (index - 1) / 2;
    if (!firesBefore(task, active[parent])) break;
    place(index, active[parent]);
    index = parent;
  }
  place(index, task);
}

void TimeoutTaskScheduler::siftDown(size_t index) {
  TimeoutTask* task = active[index];
  const size_t count = active.size();
  for (;;) {
    size_t child = 2 * index + 1;
    if (child >= count) break;
    if (child + 1 < count && firesBefore(active[child + 1], active[child])) ++child;
    if (!firesBefore(active[child], task)) break;
    place(index, active[child]);
    index = child;
  }
  place(index, task);
}

void TimeoutTaskScheduler::addTask(TimeoutTask* task) {
  if (task->active) return;
  active.push_back(task);
  siftUp(active.size() - 1);
  task->active = true;
  publishFirst();
}

void TimeoutTaskScheduler::removeTask(TimeoutTask* task) {
  if (!task->active) return;
  task->active = false;
  const size_t index = task->position;
  TimeoutTask* last = active.back();
  active.pop_back();
  if (index != active.size()) {
    place(index, last);
    if (index > 0 && firesBefore(last, active[(index - 1) / 2])) {
      siftUp(index);
    } else {
      siftDown(index);
    }
  }
  publishFirst();
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

bool TimeoutTaskScheduler::runAndReturnNextTimeout(MonotonicMs& next, MonotonicMs now) {
  if (active.empty()) return false;
  bool called = false;
  TimeoutTask* first = active.front();
  while (first->due - now <= 0) {
    removeTask(first);
    ++first->callCount;
    // timeout() may destroy its own task: nothing of it is read after the call.
    const int origin = first->origin;
    const MonotonicMs before;
    called = true;
    first->timeout();
    int32_t took = MonotonicMs() - before;
    if (took > kSlowTimeoutMs) {
      TAVRIN_LOG(logging, tavrinCommon::DefaultOrigins::Scheduler, tavrinLog::SeverityLevel::Service,
                 "TimeoutTask %s took %d ms", logging->originToString(origin),
                 static_cast<int>(took));
    }
    if (active.empty()) return called;
    first = active.front();
  }
  if (next - first->due >= 1) next = first->due;
  return called;
}

void TimeoutTaskScheduler::stop() {
  for (TimeoutTask* task : active) task->active = false;
  active.clear();
  publishFirst();
}

void TimeoutTaskScheduler::dump(std::ostream& out, const char* prefix) const {
  std::vector<TimeoutTask*> inFiringOrder(active);
  std::sort(inFiringOrder.begin(), inFiringOrder.end(), firesBefore);
  for (const TimeoutTask* task : inFiringOrder) {
    out << prefix << "TimeoutTask " << std::setw(30) << tavrinLog::originName(logging, task->origin)
        << " called " << std::setw(4) << task->callCount << "x @ 0x" << std::hex
        << reinterpret_cast<uintptr_t>(task) << std::dec << "\n";
  }
}

}  // namespace tavrinScheduler
