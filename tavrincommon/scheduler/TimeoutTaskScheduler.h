// The armed timeouts of one scheduler, ordered by due time (an indexed binary heap: O(log n) arm
// and disarm without allocation, each task knowing its position), and the waiting set of tasks
// armed from other threads until the loop activates them. Keeps, never owns, its tasks. The active set
// is used on the loop thread only; the waiting set under the scheduler's timeouts mutex.
#pragma once

#include "tavrincommon/common/WrapTS.h"
#include "tavrincommon/scheduler/TimeoutTask.h"

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <set>
#include <vector>

namespace tavrinLog {
class TavrinLogging;
}

namespace tavrinScheduler {

class TimeoutTaskScheduler {
 public:
  static constexpr int kSlowTimeoutMs = 100;

  explicit TimeoutTaskScheduler(tavrinLog::TavrinLogging* logging_) : logging(logging_) {}
  ~TimeoutTaskScheduler();
  TimeoutTaskScheduler(const TimeoutTaskScheduler&) = delete;
  TimeoutTaskScheduler& operator=(const TimeoutTaskScheduler&) = delete;

  // (Re-)arms the task `ms` milliseconds from now (or from `now`); 0 or less: due at once.
  void add(TimeoutTask* task, int ms) { add(task, ms, tavrinCommon::MonotonicMs()); }
  void add(TimeoutTask* task, int ms, tavrinCommon::MonotonicMs now);
  // Inserts the task by its due time; nothing if it is in the set already.
  void addTask(TimeoutTask* task);
  void removeTask(TimeoutTask* task);
  // The other-thread path; the caller holds the scheduler's timeouts mutex.
  void addThreadsafe(TimeoutTask* task, int ms);
  void activateWaitingTasks();
  void removeFromWaitingTasks(TimeoutTask* task);
  // Runs the tasks due at the start of the call and lowers `next` to the earliest due time left.
  void runAndReturnNextTimeout(tavrinCommon::MonotonicMs& next) {
    runAndReturnNextTimeout(next, tavrinCommon::MonotonicMs());
  }
  // With the caller's reading of the clock; true when a task was called.
  bool runAndReturnNextTimeout(tavrinCommon::MonotonicMs& next, tavrinCommon::MonotonicMs now);
  // Drops every armed task without calling it; the waiting set is kept.
  void stop();

  bool empty() const { return active.empty(); }
  // For the loop thread without the loop mutex: true when no armed task is due at `now`, and then
  // `next` lowered to the earliest due time. A task disarmed by another thread meanwhile may still
  // be seen as armed (a wake-up for nothing); arming happens on the loop thread only.
  bool nothingDue(tavrinCommon::MonotonicMs now, tavrinCommon::MonotonicMs& next) const {
    const uint64_t first = firstDue.load(std::memory_order_relaxed);
    if (first == kNoneArmed) return true;
    const tavrinCommon::MonotonicMs due(static_cast<uint32_t>(first));
    if (due - now <= 0) return false;
    if (next - due >= 1) next = due;
    return true;
  }
  // The earliest armed task, or null.
  TimeoutTask* first() const { return active.empty() ? nullptr : active.front(); }
  size_t size() const { return active.size(); }
  void setLogging(tavrinLog::TavrinLogging* logging_) { logging = logging_; }
  void dump(std::ostream& out, const char* prefix) const;

 private:
  void place(size_t index, TimeoutTask* task) {
    active[index] = task;
    task->position = index;
  }
  void siftUp(size_t index);
  void siftDown(size_t index);
  void publishFirst() {
    firstDue.store(active.empty() ? kNoneArmed : active.front()->due.getValue(),
                   std::memory_order_relaxed);
  }

  static constexpr uint64_t kNoneArmed = uint64_t{1} << 32;

  tavrinLog::TavrinLogging* logging;
  std::vector<TimeoutTask*> active;
  // The earliest due time of the active set, or kNoneArmed: written with the set, read by
  // nothingDue().
  std::atomic<uint64_t> firstDue{kNoneArmed};
  std::set<TimeoutTask*> waiting;
};

}  // namespace tavrinScheduler
