#include "tavrincommon/scheduler/SimpleTimer.h"

#include "tavrincommon/scheduler/Scheduler.h"

#include <utility>

namespace tavrinScheduler {

namespace {
std::function<void()> orNothing(std::function<void()> callback) {
  return callback ? std::move(callback) : std::function<void()>([] {});
}
}  // namespace

SimpleTimer::SimpleTimer(Scheduler* scheduler_, int intervalMs_, std::function<void()> callback_,
                         int origin_)
    : TimeoutTask(origin_),
      scheduler(scheduler_),
      intervalMs(intervalMs_),
      callback(orNothing(std::move(callback_))) {}

SimpleTimer::~SimpleTimer() {
  if (armed) scheduler->disableTimeout(this);
  armed = fired = false;
}

void SimpleTimer::start() {
  if (armed) scheduler->disableTimeout(this);
  armed = fired = false;
  scheduler->addTimeout(this, intervalMs);
  armed = true;
}

void SimpleTimer::start(std::function<void()> callback_) {
  callback = orNothing(std::move(callback_));
  start();
}

void SimpleTimer::stop() {
  if (armed) scheduler->disableTimeout(this);
  armed = fired = false;
}

void SimpleTimer::timeout() {
  fired = true;
  callback();
}

}  // namespace tavrinScheduler
