// A task that the loop calls once when its due time has come. It is disarmed before timeout()
// runs, so timeout() may arm it again for periodic behaviour. The scheduler keeps a pointer to an
// armed task: disable it (Scheduler::disableTimeout) before destroying it.
#pragma once

#include "tavrincommon/common/WrapTS.h"

#include <cstddef>
#include <cstdint>

namespace tavrinScheduler {

class TimeoutTask {
 public:
  // Order of the active set: due time by signed difference, then address, so equal due times run
  // in address order and a task is in the set at most once.
  struct TimeoutTaskSetCompare {
    bool operator()(const TimeoutTask* a, const TimeoutTask* b) const;
  };

  explicit TimeoutTask(int origin_) : origin(origin_) {}
  virtual ~TimeoutTask() = default;
  TimeoutTask(const TimeoutTask&) = delete;
  TimeoutTask& operator=(const TimeoutTask&) = delete;

  // Called on the loop thread, with the loop mutex held, when the task is due.
  virtual void timeout() = 0;

  int getOrigin() const { return origin; }
  bool isActive() const { return active; }
  uint32_t getCallCount() const { return callCount; }
  tavrinCommon::MonotonicMs getDue() const { return due; }

 private:
  friend class TimeoutTaskScheduler;

  bool active = false;
  // The task's own position in the active set, so that disarming needs no search.
  size_t position = 0;
  uint32_t callCount = 0;
  tavrinCommon::MonotonicMs due;
  // Computed when armed from another thread; becomes `due` when the loop activates the task.
  tavrinCommon::MonotonicMs pendingDue;
  int origin;
};

inline bool TimeoutTask::TimeoutTaskSetCompare::operator()(const TimeoutTask* a,
                                                           const TimeoutTask* b) const {
  int32_t difference = a->due - b->due;
  if (difference != 0) return difference < 0;
  return a < b;
}

}  // namespace tavrinScheduler
