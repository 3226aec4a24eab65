// A worker that calls a function. Belongs to one scheduler, from whose main or idle list it removes
// itself when destroyed, so a destroyed worker is never run. Destroyed while the idle thread runs
// it, the destructor waits for that call to return; destroyed from inside its own call, it leaves
// the list at once. setFunction on the thread that runs the worker, or while it is in no list.
#pragma once

#include "tavrincommon/scheduler/Worker.h"

#include <functional>
#include <memory>

namespace tavrinScheduler {

class Scheduler;

class SimpleWorker : public Worker {
 public:
  using Function = std::function<Worker::Result()>;

  SimpleWorker(Scheduler* scheduler, int origin);
  ~SimpleWorker() override;

  // An empty function is replaced by one that returns Finished.
  void setFunction(Function function_);
  Result work() override;

 private:
  Scheduler* scheduler;
  // Shared so that a call keeps its function alive when it replaces the function or destroys the
  // worker: a reference count per call, no copy of the function object.
  std::shared_ptr<const Function> function;
};

}  // namespace tavrinScheduler
