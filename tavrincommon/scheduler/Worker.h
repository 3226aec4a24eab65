// A unit of deferred, time-sliced work that a worker list runs while it is scheduled. The list
// keeps, never owns, its workers. Whether it is scheduled and the call count may be read from any
// thread; the list fields are changed only under the mutex of the list that holds the worker.
#pragma once

#include <atomic>
#include <cstdint>

namespace tavrinScheduler {

class WorkerList;

class Worker {
 public:
  // What work() asks of the runner. The main loop treats unknown values like Finished, the idle
  // loop like Continue.
  enum Result : int32_t {
    Continue = 0,   // run again: at the end of the list (main loop), next round (idle loop)
    Finished = -1,  // done until someone schedules it again; leaves the idle list
    Wait = -2,      // main loop: as Finished; idle loop: stays, lets the idle loop sleep
    Busy = -3,      // as Continue: the work could not be done now
  };

  explicit Worker(int origin_) : origin(origin_) {}
  virtual ~Worker() = default;
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  virtual Result work() = 0;

  int getOrigin() const { return origin; }
  int32_t getCallCount() const { return callCount.load(std::memory_order_relaxed); }
  bool isScheduled() const { return holder.load(std::memory_order_acquire) != nullptr; }

 private:
  friend class WorkerList;

  int origin;
  std::atomic<int32_t> callCount{0};
  // The list that holds the worker (the main list or the idle list), null while it is in none:
  // removal from another list leaves it alone.
  std::atomic<WorkerList*> holder{nullptr};
  // The worker's own link into the list that holds it: removal needs no search.
  Worker* previous = nullptr;
  Worker* next = nullptr;
};

}  // namespace tavrinScheduler
