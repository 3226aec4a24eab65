#include "tavrincommon/scheduler/IOWatcher.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace tavrinScheduler {

using tavrinCommon::DefaultOrigins;
using tavrinCommon::MonotonicMs;
using tavrinLog::SeverityLevel;

namespace {
constexpr int kOrigin = DefaultOrigins::Scheduler;
// The watcher whose watch() runs on this thread, if any: its own callbacks need no eventfd write
// to wake it, the request flag is seen before the next wait.
thread_local const IOWatcher* watchingOnThisThread = nullptr;
constexpr uint32_t kEdgeTriggered = static_cast<uint32_t>(EPOLLET);
}  // namespace

IOWatcher::IOWatcher(tavrinLog::TavrinLogging* logging_)
    : logging(logging_), epollFd(epoll_create1(EPOLL_CLOEXEC)), eventFd(eventfd(0, EFD_CLOEXEC)) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = nullptr;  // marks the eventfd
  epoll_ctl(epollFd, EPOLL_CTL_ADD, eventFd, &event);
}

IOWatcher::~IOWatcher() {
  clear();
  if (eventFd >= 0) close(eventFd);
  if (epollFd >= 0) close(epollFd);
}

IOWatchHandle IOWatcher::addItem(const IOWatchItem& item, int origin) {
  auto entry = std::make_shared<IOWatchListEntry>(item.fd, item.events, item.callback, origin);
  epoll_event event{};
  event.events = item.events;
  event.data.ptr = entry.get();
  entry->inEpoll = epoll_ctl(epollFd, EPOLL_CTL_ADD, item.fd, &event) == 0;
  if (entry->inEpoll) {
    // epoll took a descriptor number that a live watch still claims: that watch's descriptor was
    // closed before the watch was removed, and the number has been given out again.
    list.forEach([this, &item](IOWatchListEntry* other) {
      if (other->fd != item.fd || !other->inEpoll || other->removed) return;
      TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error,
                 "IO watch %s (fd: %d) outlived its descriptor: close a descriptor only after "
                 "removing its watch",
                 logging->originToString(other->origin), other->fd);
      other->inEpoll = false;
      rebuildNeeded = true;  // the old file may still be open elsewhere, and registered
    });
  }
  list.add(entry);
  return IOWatchHandle(std::move(entry));
}

void IOWatcher::modifyItem(const IOWatchHandle& handle, unsigned events) {
  if (handle.empty()) return;
  modifyItem(handle.get(), events);
}

void IOWatcher::modifyItem(IOWatchListEntry* entry, unsigned events) {
  if (entry->removed || !entry->inEpoll) return;
  if (((entry->events ^ events) & ~kEdgeTriggered) == 0) return;
  entry->events = events | (entry->events & kEdgeTriggered);
  epoll_event event{};
  event.events = entry->events;
  event.data.ptr = entry;
  epoll_ctl(epollFd, EPOLL_CTL_MOD, entry->fd, &event);
}

void IOWatcher::removeItem(IOWatchHandle& handle) {
  if (handle.empty()) return;
  IOWatchListEntry* entry = handle.get();
  if (entry->removed) {
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error,
               "IO watch %s (fd: %d) removed again: ignored",
               logging->originToString(entry->origin), entry->fd);
  } else {
    removeItemFromPoll(entry);
    list.remove(entry);
  }
  handle.clear();
}

void IOWatcher::removeItem(int fd) {
  IOWatchListEntry* entry = list.getEntryByFd(fd);
  if (!entry) return;
  removeItemFromPoll(entry);
  list.remove(entry);
}

void IOWatcher::removeItemFromPoll(IOWatchListEntry* entry) {
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug, "Removing %s from IO Watch List",
             logging->originToString(entry->origin));
  if (entry->inEpoll && epoll_ctl(epollFd, EPOLL_CTL_DEL, entry->fd, nullptr) != 0) {
    int error = errno;
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error,
               "EPOLL_CTL_DEL remove failed (origin: %s, fd: %d): %s (%d)",
               logging->originToString(entry->origin), entry->fd, std::strerror(error), error);
    // The descriptor was closed (or its number reused) before the watch was removed: if its file
    // is still open elsewhere, epoll keeps reporting it under this entry, which is about to go.
    if (error == EBADF || error == ENOENT) rebuildNeeded = true;
  }
  entry->inEpoll = false;
  entry->removed = true;
  // A callback that removes its own registration is still running: watch() lets go of it after
  // it has returned.
  if (!entry->running) entry->callback = nullptr;
}

// Registrations that cannot be taken back one by one go with the whole epoll instance: a new one
// gets the eventfd and every live registration. Runs with the loop mutex held, before any
// removed entry is freed.
void IOWatcher::rebuild() {
  rebuildNeeded = false;
  const int fresh = epoll_create1(EPOLL_CLOEXEC);
  if (fresh < 0) {
    int error = errno;
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error, "epoll_create1 failed: %s (%d)",
               std::strerror(error), error);
    return;
  }
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = nullptr;
  epoll_ctl(fresh, EPOLL_CTL_ADD, eventFd, &event);
  list.forEach([fresh](IOWatchListEntry* entry) {
    if (!entry->inEpoll) return;
    epoll_event registration{};
    registration.events = entry->events;
    registration.data.ptr = entry;
    entry->inEpoll = epoll_ctl(fresh, EPOLL_CTL_ADD, entry->fd, &registration) == 0;
  });
  close(epollFd);
  epollFd = fresh;
  // Pending eventfd wake-ups were in the old instance: make the next wait return at once.
  wakeRequested.store(true);
}

void IOWatcher::wakeup() {
  if (wakeRequested.exchange(true)) return;  // whoever set it wakes the watcher
  if (!inWatch.load() || watchingOnThisThread == this) return;
  uint64_t one = 1;
  if (write(eventFd, &one, sizeof one) != static_cast<ssize_t>(sizeof one)) {
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug, "eventfd %d write failed", eventFd);
  }
}

void IOWatcher::watch(const MonotonicMs& deadline, tavrinCommon::TinyMutex* loopMutex) {
  watch(deadline, loopMutex, MonotonicMs());
}

void IOWatcher::watch(const MonotonicMs& deadline, tavrinCommon::TinyMutex* loopMutex,
                      MonotonicMs now) {
  if (rebuildNeeded) {
    tavrinCommon::TinyMutexGuard guard(loopMutex);
    rebuild();
  }
  list.clearRemovedEntries();
  inWatch.store(true);
  const IOWatcher* outerWatcher = watchingOnThisThread;
  watchingOnThisThread = this;
  struct LeaveWatch {
    std::atomic<bool>& inWatch;
    const IOWatcher* outerWatcher;
    ~LeaveWatch() {
      watchingOnThisThread = outerWatcher;
      inWatch.store(false);
    }
  } leave{inWatch, outerWatcher};
  // The clock is read after each callback and after a wait that blocked; a wait that did not
  // block leaves the reading before it valid.
  const MonotonicMs start = now;
  bool woken = false;
  epoll_event events[kMaxEventsPerWait];
  for (;;) {
    if (now - start > kMaxWatchMs) return;
    if (rebuildNeeded) {
      tavrinCommon::TinyMutexGuard guard(loopMutex);
      rebuild();
    }
    if (wakeRequested.exchange(false)) woken = true;
    const int timeout = (woken || now >= deadline) ? 0 : deadline - now;
    const int n = epoll_wait(epollFd, events, kMaxEventsPerWait, timeout);
    if (n <= 0) return;
    if (timeout > 0) now = MonotonicMs();

    tavrinCommon::TinyMutexGuard guard(loopMutex);
    for (int i = n - 1; i >= 0; --i) {
      auto* entry = static_cast<IOWatchListEntry*>(events[i].data.ptr);
      if (!entry) {
        uint64_t count;
        if (read(eventFd, &count, sizeof count) != static_cast<ssize_t>(sizeof count)) {
          TAVRIN_LOG(logging, kOrigin, SeverityLevel::Service, "eventfd read failed");
        }
        woken = true;
        continue;
      }
      if (entry->removed || entry->running || !entry->callback) {
        TAVRIN_LOG(logging, kOrigin, SeverityLevel::Service,
                   "Triggered already removed event (%s, fd: %d), ignoring",
                   logging->originToString(entry->origin), entry->fd);
        continue;
      }
      ++entry->callCount;
      const MonotonicMs before = now;
      // While the callback runs, removing its registration leaves the function object alone; it
      // is destroyed here once the call has returned.
      IOWatchItem::Result result;
      {
        struct Running {
          IOWatchListEntry* entry;
          const MonotonicMs*& start;
          ~Running() {
            entry->running = false;
            if (entry->removed) entry->callback = nullptr;
            start = nullptr;
          }
        } running{entry, callbackStart};
        entry->running = true;
        callbackStart = &before;
        result = entry->callback(static_cast<int>(events[i].events));
      }
      now = MonotonicMs();
      const int32_t took = now - before;
      if (took > kSlowCallbackMs) {
        TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug, "IOWatcher %s took %d ms",
                   logging->originToString(entry->origin), static_cast<int>(took));
      }
      if (result != IOWatchItem::Unchanged && result != IOWatchItem::Removed && !entry->removed) {
        modifyItem(entry, static_cast<uint32_t>(result));
      }
    }
  }
}

void IOWatcher::clear() {
  list.clear([this](IOWatchListEntry* entry) {
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug, "Freeing an entry (%s, events: 0x%08X)",
               logging->originToString(entry->origin), entry->events);
    removeItemFromPoll(entry);
  });
}

void IOWatcher::stop() { list.clearRemovedEntries(); }

}  // namespace tavrinScheduler
