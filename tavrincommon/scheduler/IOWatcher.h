// The part of the scheduler that waits: one epoll instance, one eventfd to interrupt the wait from
// any thread, and the list of registrations whose callbacks it runs on the loop thread.
// Owns its registrations and both descriptors. wakeup() from any thread; watch() on the loop
// thread only; other threads that add, remove or modify registrations hold the loop mutex.
#pragma once

#include "tavrincommon/common/WrapTS.h"
#include "tavrincommon/scheduler/IOWatchList.h"

#include <atomic>
#include <iosfwd>

namespace tavrinLog {
class TavrinLogging;
}

namespace tavrinScheduler {

class IOWatcher {
 public:
  static constexpr int kMaxEventsPerWait = 16;
  // watch() returns at the latest this long after it began, whatever the deadline.
  static constexpr int kMaxWatchMs = 1000;
  static constexpr int kSlowCallbackMs = 100;

  explicit IOWatcher(tavrinLog::TavrinLogging* logging_);
  ~IOWatcher();
  IOWatcher(const IOWatcher&) = delete;
  IOWatcher& operator=(const IOWatcher&) = delete;

  // The handle is returned even if epoll refused the descriptor; such a registration never fires.
  IOWatchHandle addItem(const IOWatchItem& item, int origin);
  // EPOLLET, once registered, is kept; a mask equal but for EPOLLET changes nothing.
  void modifyItem(const IOWatchHandle& handle, unsigned events);
  void modifyItem(IOWatchListEntry* entry, unsigned events);
  // Unregisters and clears the handle; an empty handle is ignored, a handle whose registration
  // was removed already is logged and ignored.
  void removeItem(IOWatchHandle& handle);
  // Unregisters the first registration of `fd`, if any.
  void removeItem(int fd);
  void removeItemFromPoll(IOWatchListEntry* entry);
  // Makes a running or the next watch() return as soon as nothing more is pending. Any thread.
  void wakeup();
  // Waits and dispatches until `deadline` (a monotonic millisecond stamp), holding `loopMutex`
  // (may be null) only while callbacks run.
  void watch(const tavrinCommon::MonotonicMs& deadline, tavrinCommon::TinyMutex* loopMutex);
  // The same, starting from the caller's reading of the clock, taken just before.
  void watch(const tavrinCommon::MonotonicMs& deadline, tavrinCommon::TinyMutex* loopMutex,
             tavrinCommon::MonotonicMs now);
  void clear();
  void stop();

  void setLogging(tavrinLog::TavrinLogging* logging_) { logging = logging_; }
  IOWatchList& getList() { return list; }
  void dump(std::ostream& out, const char* prefix) { list.dump(out, prefix); }

  // While a callback runs (loop thread): the clock as read just before it was called, which
  // spares a callback a reading of its own; null outside callbacks.
  const tavrinCommon::MonotonicMs* runningCallbackStart() const { return callbackStart; }

 private:
  void rebuild();

  tavrinLog::TavrinLogging* logging;
  const tavrinCommon::MonotonicMs* callbackStart = nullptr;
  int epollFd;
  // Set when a registration could not be taken back from epoll (its descriptor was closed before
  // its watch was removed); the next wait first moves to a new epoll instance.
  std::atomic<bool> rebuildNeeded{false};
  int eventFd;
  IOWatchList list;
  // A wake-up outside watch() needs no write: the next watch() sees the request before it waits.
  // Both flags are sequentially consistent, so a request is never missed by both sides.
  std::atomic<bool> inWatch{false};
  std::atomic<bool> wakeRequested{false};
};

}  // namespace tavrinScheduler
