// A first-in first-out list of workers, guarded by its own mutex; any thread may add and remove.
// Keeps, never owns, the workers. Each worker knows its position, so every operation is O(1).
#pragma once

#include "tavrincommon/common/TinyMutex.h"

#include <functional>
#include <iosfwd>

namespace tavrinScheduler {

class Worker;

class WorkerList {
 public:
  WorkerList() = default;
  ~WorkerList();
  WorkerList(const WorkerList&) = delete;
  WorkerList& operator=(const WorkerList&) = delete;

  // Appends `worker` unless it is scheduled already (then false). `putBack`: the worker goes back
  // without having run, so the call counted by pop() is taken back.
  bool add(Worker* worker, bool putBack = false);
  void remove(Worker* worker);
  // The first worker, unscheduled and its call count raised; null when the list is empty.
  Worker* pop();
  void clear();
  // Calls fn for each worker in order, counting a call each; a worker for which fn returns true
  // leaves the list. fn runs with the list's mutex held: it must not use this list.
  void iterate(const std::function<bool(Worker*)>& fn);
  bool empty();
  unsigned size();
  void dump(std::ostream& out, const char* prefix);

 private:
  void unlink(Worker* worker);

  tavrinCommon::TinyMutex mutex;
  Worker* head = nullptr;
  Worker* tail = nullptr;
  unsigned count = 0;
};

}  // namespace tavrinScheduler
