#include "tavrincommon/scheduler/Scheduler.h"

#include <algorithm>
#include <ostream>
#include <string>

namespace tavrinScheduler {

using tavrinCommon::MonotonicMs;
using tavrinCommon::TinyMutexGuard;

Scheduler::Scheduler(tavrinCommon::TinyRecursiveMutex& loopMutex_, tavrinLog::TavrinLogging* logging)
    : idleTaskScheduler(logging),
      taskScheduler(logging),
      timeoutTaskScheduler(logging),
      ioWatcher(logging),
      loopMutex(&loopMutex_),
      ownerThread(pthread_self()),
      watchdog(std::make_unique<FakeWatchdog>()) {}

Scheduler::Scheduler(tavrinLog::TavrinLogging* logging)
    : idleTaskScheduler(logging),
      taskScheduler(logging),
      timeoutTaskScheduler(logging),
      ioWatcher(logging),
      loopMutex(&ownMutex),
      ownerThread(pthread_self()),
      watchdog(std::make_unique<FakeWatchdog>()) {}

// Members are then destroyed in reverse order: the watchdog, the mutexes, the IO watcher (clearing
// its registrations), the timeouts, the workers, and the idle scheduler. Its thread is joined
// first, so that no idle task can reach a part of the scheduler that is already gone.
Scheduler::~Scheduler() { idleTaskScheduler.stop(); }

IOWatchHandle Scheduler::addIOItem(const IOWatchItem& item, int origin) {
  return ioWatcher.addItem(item, origin);
}

void Scheduler::removeIOItem(IOWatchHandle& handle) { ioWatcher.removeItem(handle); }

void Scheduler::removeIOItem(int fd) { ioWatcher.removeItem(fd); }

void Scheduler::modifyIOItem(IOWatchHandle& handle, int events) {
  ioWatcher.modifyItem(handle, static_cast<unsigned>(events));
}

// The active set is touched only with the loop mutex held, by the loop and by any thread that
// disarms; tasks armed from other threads wait in their own set until the loop, holding both
// mutexes (loop mutex first), activates them.
void Scheduler::addTimeout(TimeoutTask* task, int ms) {
  if (onOwnerThread()) {
    TinyMutexGuard guard(loopMutex);
    // A later arming from the loop wins over an earlier one from another thread still waiting.
    if (timeoutsPending.load(std::memory_order_acquire)) {
      TinyMutexGuard waitingGuard(timeoutsMutex);
      timeoutTaskScheduler.removeFromWaitingTasks(task);
    }
    timeoutTaskScheduler.add(task, ms);
  } else {
    addThreadsafeTimeout(task, ms);
  }
  // Also from the loop thread: an IO callback arming an earlier timeout must shorten the wait.
  ioWatcher.wakeup();
}

void Scheduler::addThreadsafeTimeout(TimeoutTask* task, int ms) {
  TinyMutexGuard guard(timeoutsMutex);
  timeoutTaskScheduler.addThreadsafe(task, ms);
  timeoutsPending.store(true, std::memory_order_release);
}

// Holding the loop mutex, which every timeout callback runs under: once this returns, the task's
// callback is not running (unless this is called from inside it) and will not start.
void Scheduler::disableTimeout(TimeoutTask* task) {
  TinyMutexGuard guard(loopMutex);
  timeoutTaskScheduler.removeTask(task);
  if (timeoutsPending.load(std::memory_order_acquire)) {
    TinyMutexGuard waitingGuard(timeoutsMutex);
    timeoutTaskScheduler.removeFromWaitingTasks(task);
  }
}

void Scheduler::activatePendingTimeouts() {
  if (!timeoutsPending.load(std::memory_order_acquire)) return;
  TinyMutexGuard guard(timeoutsMutex);
  timeoutsPending.store(false, std::memory_order_relaxed);
  timeoutTaskScheduler.activateWaitingTasks();
}

void Scheduler::addWorker(Worker* worker) {
  if (taskScheduler.add(worker)) ioWatcher.wakeup();
}

// Each list leaves alone a worker that another list holds, so asking both is safe.
void Scheduler::removeWorker(Worker* worker) {
  taskScheduler.remove(worker);
  idleTaskScheduler.getWorkerList().remove(worker);
}

void Scheduler::addIdleTask(Worker* worker) { idleTaskScheduler.addWorker(worker); }

void Scheduler::startIdleTask() { idleTaskScheduler.start(); }

void Scheduler::run(int timeoutMs) {
  // The default watchdog does nothing and allows 10 s: its calls are skipped.
  const int wait = std::min(
      timeoutMs, ownWatchdog ? WatchdogInterface::kDefaultResetTimeoutMs : watchdog->getResetTimeoutMs());
  // One reading of the clock serves the deadline, the worker pass, the due timeouts and the start
  // of the IO wait, unless a worker or a timeout ran in between.
  const timespec turnStart = tavrinCommon::system::Clock::getTime(
      tavrinCommon::system::Clock::Monotonic);
  MonotonicMs now(MonotonicMs::ticksOf(turnStart));
  MonotonicMs deadline = now + wait;
  runTasksAndTimeouts(deadline, now, &turnStart);
  if (!ownWatchdog) watchdog->reset();
  ioWatcher.watch(deadline, loopMutex, now);
  if (!ownWatchdog) watchdog->reset();
}

void Scheduler::runTasksAndTimeouts(MonotonicMs& deadline) {
  MonotonicMs now;
  runTasksAndTimeouts(deadline, now, nullptr);
}

void Scheduler::runTasksAndTimeouts(MonotonicMs& deadline, MonotonicMs& now,
                                    const timespec* turnStart) {
  // A turn with no worker scheduled, no timeout armed from another thread and none due leaves
  // the loop mutex alone: most turns of a busy loop only wait for IO.
  if (!timeoutsPending.load(std::memory_order_acquire) &&
      timeoutTaskScheduler.nothingDue(now, deadline) && taskScheduler.skipIfNothingToRun())
    return;
  // Waiting for the mutex (another thread held it) makes the turn's reading stale.
  if (!loopMutex->trylock()) {
    loopMutex->lock();
    turnStart = nullptr;
    now = MonotonicMs();
  }
  struct Unlock {
    tavrinCommon::TinyMutex* mutex;
    ~Unlock() { mutex->unlock(); }
  } unlock{loopMutex};
  activatePendingTimeouts();
  // A pass that ran out of budget leaves work behind: the IO wait must not block.
  const bool leftWork = taskScheduler.run(turnStart);
  if (taskScheduler.lastPassRanWorkers())
    now = MonotonicMs(MonotonicMs::ticksOf(taskScheduler.lastReading()));
  if (leftWork) deadline = now;
  if (!timeoutTaskScheduler.empty() && timeoutTaskScheduler.runAndReturnNextTimeout(deadline, now))
    now = MonotonicMs();
}

bool Scheduler::runTasks() { return taskScheduler.run(); }

void Scheduler::runTimeouts(MonotonicMs& deadline) {
  if (!timeoutTaskScheduler.empty()) timeoutTaskScheduler.runAndReturnNextTimeout(deadline);
}

void Scheduler::setLogging(tavrinLog::TavrinLogging* logging) {
  idleTaskScheduler.setLogging(logging);
  taskScheduler.setLogging(logging);
  timeoutTaskScheduler.setLogging(logging);
  ioWatcher.setLogging(logging);
}

void Scheduler::setWatchdog(std::unique_ptr<WatchdogInterface>&& watchdog_) {
  ownWatchdog = !watchdog_;
  if (watchdog_) {
    watchdog = std::move(watchdog_);
  } else {
    watchdog = std::make_unique<FakeWatchdog>();
  }
}

void Scheduler::dump(std::ostream& out, const char* prefix) {
  const std::string inner = std::string(prefix) + "  ";
  out << prefix << "Scheduler:\n";
  ioWatcher.dump(out, inner.c_str());
  taskScheduler.dump(out, inner.c_str());
  timeoutTaskScheduler.dump(out, inner.c_str());
}

}  // namespace tavrinScheduler
