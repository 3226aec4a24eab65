// A ready-made timeout that calls a function. Disarms itself when destroyed, so it can be
// destroyed at any time. Used on the loop thread.
#pragma once

#include "tavrincommon/common/CallbackSlot.h"
#include "tavrincommon/scheduler/TimeoutTask.h"

#include <functional>

namespace tavrinScheduler {

class Scheduler;

class SimpleTimer : public TimeoutTask {
 public:
  SimpleTimer(Scheduler* scheduler, int intervalMs, std::function<void()> callback, int origin);
  ~SimpleTimer() override;

  // (Re-)arms the timer for its interval.
  void start();
  // Replaces the callback, then arms the timer; also from inside the callback.
  void start(std::function<void()> callback_);
  void stop();
  // Called when due: sets fired, then calls the callback. The timer stays marked armed.
  void timeout() override;

  bool isArmed() const { return armed; }
  bool hasFired() const { return fired; }
  int getInterval() const { return intervalMs; }
  void setInterval(int intervalMs_) { intervalMs = intervalMs_; }

 private:
  bool armed = false;
  bool fired = false;
  Scheduler* scheduler;
  int intervalMs;
  // A call keeps its function alive when it replaces it or destroys the timer.
  tavrinCommon::CallbackSlot<void()> callback;
};

}  // namespace tavrinScheduler
