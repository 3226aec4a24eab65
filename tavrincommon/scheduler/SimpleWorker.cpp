#include "tavrincommon/scheduler/SimpleWorker.h"

#include "tavrincommon/scheduler/Scheduler.h"

#include <utility>

namespace tavrinScheduler {

SimpleWorker::SimpleWorker(Scheduler* scheduler_, int origin_)
    : Worker(origin_), scheduler(scheduler_), function([] { return Worker::Finished; }) {}

SimpleWorker::~SimpleWorker() {
  if (scheduler) scheduler->removeWorker(this);
}

void SimpleWorker::setFunction(Function function_) {
  function = function_ ? std::move(function_) : Function([] { return Worker::Finished; });
}

}  // namespace tavrinScheduler
