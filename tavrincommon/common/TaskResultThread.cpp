#include "tavrincommon/common/TaskResultThread.h"

#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/scheduler/SimpleWorker.h"

#include <utility>

namespace tavrinCommon {

namespace {
template <typename T>
std::function<void(T)> doNothing() {
  return [](T) {};
}
}  // namespace

template <typename T>
TaskResultThread<T>::TaskResultThread(int origin, tavrinScheduler::Scheduler* scheduler_)
    : finished(doNothing<T>()), scheduler(scheduler_) {
  if (scheduler) {
    worker = std::make_unique<tavrinScheduler::SimpleWorker>(scheduler, origin);
    worker->setFunction(
        [this] { return static_cast<tavrinScheduler::Worker::Result>(handOver()); });
  }
}

template <typename T>
TaskResultThread<T>::~TaskResultThread() {
  joinThread();
  if (worker) scheduler->removeWorker(worker.get());
}

template <typename T>
void TaskResultThread<T>::start(const std::function<T()>& task_,
                                const std::function<void(T)>& finished_) {
  joinThread();
  if (worker) scheduler->removeWorker(worker.get());
  task = task_;
  setFinishedCallback(finished_);
  running.store(true, std::memory_order_release);
  thread = std::thread([this] { runThread(); });
}

template <typename T>
void TaskResultThread<T>::setFinishedCallback(const std::function<void(T)>& finished_) {
  std::lock_guard<std::recursive_mutex> lock(*finishedMutex);
  finished = finished_ ? finished_ : doNothing<T>();
}

template <typename T>
void TaskResultThread<T>::join() {
  joinThread();
  if (worker) scheduler->removeWorker(worker.get());
  task = nullptr;
  setFinishedCallback(nullptr);
  running.store(false, std::memory_order_release);
}

template <typename T>
void TaskResultThread<T>::runThread() {
  T value = task ? task() : T{};
  if (worker) {
    result = value;
    // The last thing this thread does: the loop reads the result only after taking the worker
    // list's mutex that addWorker releases.
    scheduler->addWorker(worker.get());
    return;
  }
  result = value;
  LivenessToken::Watch alive(liveness);
  callFinished();
  if (alive) running.store(false, std::memory_order_release);
}

template <typename T>
void TaskResultThread<T>::joinThread() {
  if (!thread.joinable()) return;
  if (thread.get_id() == std::this_thread::get_id()) {
    thread.detach();
  } else {
    thread.join();
  }
}

template <typename T>
void TaskResultThread<T>::callFinished() {
  const std::shared_ptr<std::recursive_mutex> mutex = finishedMutex;
  std::lock_guard<std::recursive_mutex> lock(*mutex);
  // Taken out before the call, so that a callback replacing itself does not destroy the function
  // that is running; each start gets at most one call.
  std::function<void(T)> callback = std::exchange(finished, doNothing<T>());
  callback(result);
}

template <typename T>
int TaskResultThread<T>::handOver() {
  LivenessToken::Watch alive(liveness);
  callFinished();
  // The callback may have destroyed this object (a runner deleted in its own callback).
  if (!alive) return tavrinScheduler::Worker::Finished;
  joinThread();
  scheduler->removeWorker(worker.get());
  running.store(false, std::memory_order_release);
  task = nullptr;
  return tavrinScheduler::Worker::Finished;
}

template class TaskResultThread<int>;

}  // namespace tavrinCommon
