// The single-threaded epoll event loop of an application: IO callbacks, timeouts and workers all
// run on the loop thread, with the loop mutex held. Keeps, never owns, what it is given; owns its
// watchdog. addWorker, removeWorker, addTimeout, disableTimeout and addIdleTask may be called from
// any thread; everything else from the loop thread (or with the loop mutex held).
#pragma once

#include "tavrincommon/common/TinyMutex.h"
#include "tavrincommon/common/WrapTS.h"
#include "tavrincommon/scheduler/IOWatchItem.h"
#include "tavrincommon/scheduler/IOWatcher.h"
#include "tavrincommon/scheduler/IdleTaskScheduler.h"
#include "tavrincommon/scheduler/TaskScheduler.h"
#include "tavrincommon/scheduler/TimeoutTaskScheduler.h"
#include "tavrincommon/scheduler/WatchdogInterface.h"

#include <atomic>
#include <iosfwd>
#include <memory>

#include <pthread.h>

namespace tavrinLog {
class TavrinLogging;
}

namespace tavrinScheduler {

class TimeoutTask;
class Worker;

class Scheduler {
 public:
  // `loopMutex` is the application's own, so that its other threads can lock what the loop locks.
  Scheduler(tavrinCommon::TinyRecursiveMutex& loopMutex, tavrinLog::TavrinLogging* logging);
  explicit Scheduler(tavrinLog::TavrinLogging* logging);
  virtual ~Scheduler();
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  // Registers the item's descriptor; `origin` names the watch in messages and dumps.
  virtual IOWatchHandle addIOItem(const IOWatchItem& item, int origin);
  // Unregisters and clears the handle; a cleared handle is ignored.
  virtual void removeIOItem(IOWatchHandle& handle);
  // Unregisters the first registration of `fd`, if any.
  virtual void removeIOItem(int fd);
  virtual void modifyIOItem(IOWatchHandle& handle, int events);
  // Arms (or re-arms) the task `ms` milliseconds from now. Any thread; wakes the loop.
  virtual void addTimeout(TimeoutTask* task, int ms);
  // Disarms the task; harmless when it is not armed. Any thread: waits while a timeout callback
  // runs, and once it returns the task's callback is not running and does not start (unless it
  // is called from inside that callback).
  virtual void disableTimeout(TimeoutTask* task);
  // Schedules the worker at the end of the list unless it is scheduled. Any thread; wakes the loop.
  virtual void addWorker(Worker* worker);
  // Takes the worker out of the main or the idle list, whichever holds it; harmless when it is in
  // neither. Any thread. A worker that the idle thread is running is waited for (see
  // WorkerList::remove): do not call this holding a lock that the worker's work() takes.
  virtual void removeWorker(Worker* worker);
  // Hands the worker to the idle thread unless it is in a worker list already. Any thread.
  virtual void addIdleTask(Worker* worker);
  virtual void startIdleTask();

  // One turn of the loop: timeouts armed from other threads activated, a worker pass, due timeouts,
  // the watchdog fed, IO waited for and dispatched until the turn's deadline, the watchdog fed
  // again. Waits at most `timeoutMs` and never longer than the watchdog's reset time. Loop thread
  // only.
  void run(int timeoutMs);
  void runTasksAndTimeouts(tavrinCommon::MonotonicMs& deadline);
  // The worker pass; true when it ran out of budget with workers still scheduled.
  bool runTasks();
  void runTimeouts(tavrinCommon::MonotonicMs& deadline);
  // The other-thread path of addTimeout; does not wake the loop by itself.
  void addThreadsafeTimeout(TimeoutTask* task, int ms);

  void setLogging(tavrinLog::TavrinLogging* logging);
  // Takes ownership; an empty pointer installs a FakeWatchdog.
  void setWatchdog(std::unique_ptr<WatchdogInterface>&& watchdog_);
  WatchdogInterface& getWatchdog() { return *watchdog; }
  tavrinCommon::TinyRecursiveMutex& getLoopMutex() { return *loopMutex; }
  IOWatcher& getIOWatcher() { return ioWatcher; }
  TaskScheduler& getTaskScheduler() { return taskScheduler; }
  TimeoutTaskScheduler& getTimeoutTaskScheduler() { return timeoutTaskScheduler; }
  IdleTaskScheduler& getIdleTaskScheduler() { return idleTaskScheduler; }

  // Each line starts with `prefix`, which must not be null.
  void dump(std::ostream& out, const char* prefix);

 private:
  // runTasksAndTimeouts from the turn's reading of the clock (`now`, and `turnStart` when there is
  // one), which it brings up to date when a worker or a timeout ran.
  void runTasksAndTimeouts(tavrinCommon::MonotonicMs& deadline, tavrinCommon::MonotonicMs& now,
                           const timespec* turnStart);
  // With the loop mutex held.
  void activatePendingTimeouts();
  bool onOwnerThread() const { return pthread_equal(pthread_self(), ownerThread) != 0; }

  IdleTaskScheduler idleTaskScheduler;
  TaskScheduler taskScheduler;
  TimeoutTaskScheduler timeoutTaskScheduler;
  IOWatcher ioWatcher;
  tavrinCommon::TinyRecursiveMutex ownMutex;
  tavrinCommon::TinyRecursiveMutex* loopMutex;
  tavrinCommon::TinyMutex timeoutsMutex;
  // Set while timeouts armed from other threads wait to be activated; read without the lock first.
  std::atomic<bool> timeoutsPending{false};
  pthread_t ownerThread;
  std::unique_ptr<WatchdogInterface> watchdog;
  // The watchdog is the FakeWatchdog put in place here.
  bool ownWatchdog = true;
};

}  // namespace tavrinScheduler
