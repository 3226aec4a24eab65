#include "tavrincommon/scheduler/MutexedWorker.h"

namespace tavrinScheduler {

Worker::Result MutexedWorker::work() {
  if (!mutex.trylock()) return Busy;
  struct Unlock {
    tavrinCommon::TinyMutex& mutex;
    ~Unlock() { mutex.unlock(); }
  } unlock{mutex};
  return mutexedWork();
}

}  // namespace tavrinScheduler
