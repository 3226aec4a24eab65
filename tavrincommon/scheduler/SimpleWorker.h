// A worker that calls a function. Belongs to one scheduler, from whose main or idle list it removes
// itself when destroyed, so a destroyed worker is never run. Destroyed while the idle thread runs
// it, the destructor waits for that call to return; destroyed from inside its own call, it leaves
// the list at once. setFunction on the thread that runs the worker, or while it is in no list.
#pragma once

#include "tavrincommon/common/CallbackSlot.h"
#include "tavrincommon/scheduler/Worker.h"

#include <functional>

namespace tavrinScheduler {

class Scheduler;

class SimpleWorker : public Worker {
 public:
  using Function = std::function<Worker::Result()>;

  SimpleWorker(Scheduler* scheduler, int origin);
  ~SimpleWorker() override;

  // An empty function is replaced by one that returns Finished.
  void setFunction(Function function_);
  Result work() override { return function(); }

 private:
  Scheduler* scheduler;
  // A call keeps its function alive when it replaces the function or destroys the worker.
  tavrinCommon::CallbackSlot<Function> function;
};

}  // namespace tavrinScheduler
