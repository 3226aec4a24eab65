// What a caller registers with the scheduler's IO watcher, and the handle it gets back.
// Plain values. A handle keeps its registration's record alive, so a handle (or a copy) that is
// used after its registration was removed is recognised; it must not be used after the scheduler
// is destroyed.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

namespace tavrinScheduler {

class IOWatchListEntry;

struct IOWatchItem {
  // What a callback returns: Unchanged, Removed, or else the new epoll event mask in the low 32
  // bits (applied as modifyIOItem does).
  using Result = int64_t;
  static constexpr Result Unchanged = 0;
  // The callback removed its own registration (or wants nothing done).
  static constexpr Result Removed = -1;

  int fd = -1;
  uint32_t events = 0;
  // Called on the loop thread, with the loop mutex held, with the reported epoll mask.
  std::function<Result(int)> callback;
};

class IOWatchHandle {
 public:
  IOWatchHandle() = default;
  explicit IOWatchHandle(std::shared_ptr<IOWatchListEntry> entry_) : entry(std::move(entry_)) {}

  bool empty() const { return entry == nullptr; }
  explicit operator bool() const { return entry != nullptr; }
  IOWatchListEntry* get() const { return entry.get(); }
  void clear() { entry.reset(); }

 private:
  std::shared_ptr<IOWatchListEntry> entry;
};

}  // namespace tavrinScheduler
