// A worker that shares data with another thread without ever blocking the loop: work() tries the
// worker's mutex and returns Busy at once when another thread holds it.
#pragma once

#include "tavrincommon/common/TinyMutex.h"
#include "tavrincommon/scheduler/Worker.h"

namespace tavrinScheduler {

class MutexedWorker : public Worker {
 public:
  explicit MutexedWorker(int origin_) : Worker(origin_) {}

  Result work() override;
  // The actual work, called with the mutex held.
  virtual Result mutexedWork() = 0;

  // The mutex that other threads lock while they touch the shared data.
  tavrinCommon::TinyMutex& getMutex() { return mutex; }

 protected:
  tavrinCommon::TinyMutex mutex;
};

}  // namespace tavrinScheduler
