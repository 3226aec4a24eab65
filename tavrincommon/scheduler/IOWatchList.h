// The list of IO registrations of one watcher, and the queue of removed entries that are kept
// until the next wait begins so that a pending event of a removed registration is recognised.
// Shares its entries with the handles given out. Every operation takes the list's own mutex.
#pragma once

#include "tavrincommon/common/TinyMutex.h"
#include "tavrincommon/scheduler/IOWatchItem.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <iosfwd>
#include <list>
#include <memory>

namespace tavrinScheduler {

class IOWatchListEntry {
 public:
  IOWatchListEntry(int fd_, uint32_t events_, std::function<IOWatchItem::Result(int)> callback_,
                   int origin_)
      : fd(fd_), events(events_), callback(std::move(callback_)), origin(origin_) {}

  int fd;
  // The mask currently registered in epoll.
  uint32_t events;
  // Empty once the registration has been removed.
  std::function<IOWatchItem::Result(int)> callback;
  int origin;
  uint32_t callCount = 0;
  // Set with the callback emptied; lets the watcher tell a removal during the entry's own call.
  bool removed = false;
  // Its callback is being called: a removal meanwhile leaves the function object to the caller.
  bool running = false;
  // Registered in epoll under this entry. Cleared when its descriptor number was found to belong
  // to a newer registration: removing this entry must not unregister that one.
  bool inEpoll = false;
  std::list<std::shared_ptr<IOWatchListEntry>>::iterator position;
};

class IOWatchList {
 public:
  IOWatchList() = default;
  ~IOWatchList();
  IOWatchList(const IOWatchList&) = delete;
  IOWatchList& operator=(const IOWatchList&) = delete;

  void add(const std::shared_ptr<IOWatchListEntry>& entry);
  // Moves the entry to the removed-entries queue; it is not freed yet. An entry removed already
  // is left alone.
  void remove(IOWatchListEntry* entry);
  void clearRemovedEntries();
  // Calls fn (if set) for every registration in order, then frees every entry.
  void clear(const std::function<void(IOWatchListEntry*)>& fn);
  IOWatchListEntry* getFirstEntry();
  IOWatchListEntry* getEntryByFd(int fd);
  // Calls fn for every live entry, in order, with the list's mutex held: fn must not use the list.
  void forEach(const std::function<void(IOWatchListEntry*)>& fn);
  bool empty();
  void dump(std::ostream& out, const char* prefix);

 private:
  tavrinCommon::TinyMutex mutex;
  std::list<std::shared_ptr<IOWatchListEntry>> entries;
  std::deque<std::shared_ptr<IOWatchListEntry>> removedEntries;
  // Set under the mutex by remove(); lets the watcher skip the mutex on the turns (nearly all)
  // in which nothing was removed.
  std::atomic<bool> anyRemoved{false};
};

}  // namespace tavrinScheduler
