// A worker that calls a function. Belongs to one scheduler, from which it removes itself when
// destroyed, so a destroyed worker is never run. setFunction on the loop thread only.
#pragma once

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
  Function function;
};

}  // namespace tavrinScheduler
