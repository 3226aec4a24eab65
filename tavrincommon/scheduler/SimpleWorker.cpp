#include "tavrincommon/scheduler/SimpleWorker.h"

#include "tavrincommon/scheduler/Scheduler.h"

#include <utility>

namespace tavrinScheduler {

SimpleWorker::SimpleWorker(Scheduler* scheduler_, int origin_)
    : Worker(origin_), scheduler(scheduler_) {
  setFunction({});
}

SimpleWorker::~SimpleWorker() {
  if (scheduler) scheduler->removeWorker(this);
}

void SimpleWorker::setFunction(Function function_) {
  if (!function_) function_ = [] { return Worker::Finished; };
  function = std::move(function_);
}

}  // namespace tavrinScheduler
