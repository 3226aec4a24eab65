// A first-in first-out list of workers, guarded by its own mutex; any thread may add and remove.
// Keeps, never owns, the workers. Each worker knows its position and the list that holds it, so
// every operation is O(1) and a worker is in at most one list.
#pragma once

#include "tavrincommon/common/TinyMutex.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <iosfwd>
#include <thread>

namespace tavrinScheduler {

class Worker;

class WorkerList {
 public:
  WorkerList() = default;
  ~WorkerList();
  WorkerList(const WorkerList&) = delete;
  WorkerList& operator=(const WorkerList&) = delete;

  // Appends `worker` unless it is in a list already, this one or another (then false).
  // `putBack`: the worker goes back without having run, so the call counted by pop() is taken
  // back.
  bool add(Worker* worker, bool putBack = false);
  // Takes the worker out if this list holds it; a worker of another list, or of none, is left
  // alone. While iterate() runs the worker on another thread, this waits until that call has
  // returned, so the caller may destroy the worker afterwards; from inside the worker's own call
  // it leaves at once and iterate() does not touch it again.
  void remove(Worker* worker);
  // The first worker, unscheduled and its call count raised; null when the list is empty.
  Worker* pop();
  void clear();
  // Calls fn for each worker in order, counting a call each; a worker for which fn returns true
  // leaves the list. fn runs without the list's mutex: it may add and remove workers, its own
  // included. One iterate() at a time.
  void iterate(const std::function<bool(Worker*)>& fn);
  bool empty();
  // Without the mutex: a snapshot for the loop's own fast path (a worker added meanwhile wakes it).
  bool emptyNow() const { return count.load(std::memory_order_relaxed) == 0; }
  unsigned size();
  void dump(std::ostream& out, const char* prefix);

 private:
  void unlink(Worker* worker);

  tavrinCommon::TinyMutex mutex;
  Worker* head = nullptr;
  Worker* tail = nullptr;
  // Written under the mutex; read without it by pop(), so that a pass over an empty list (most
  // turns of the loop) takes no lock.
  std::atomic<unsigned> count{0};
  // iterate(): the worker whose call runs now, the one it takes next, and its thread.
  Worker* running = nullptr;
  Worker* cursor = nullptr;
  std::thread::id iteratingThread;
  // Removals from other threads that wait for the running call to return.
  unsigned waitingRemovals = 0;
  std::condition_variable_any runningReturned;
};

}  // namespace tavrinScheduler
