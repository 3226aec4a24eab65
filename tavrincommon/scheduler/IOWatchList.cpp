#include "tavrincommon/scheduler/IOWatchList.h"

#include "tavrincommon/log/GlobalLogging.h"

#include <iomanip>
#include <ostream>

namespace tavrinScheduler {

using tavrinCommon::TinyMutexGuard;

IOWatchList::~IOWatchList() { clear({}); }

void IOWatchList::add(const std::shared_ptr<IOWatchListEntry>& entry) {
  TinyMutexGuard guard(mutex);
  entry->position = entries.insert(entries.end(), entry);
}

void IOWatchList::remove(IOWatchListEntry* entry) {
  TinyMutexGuard guard(mutex);
  if (entry->position == entries.end()) return;
  auto position = entry->position;
  removedEntries.push_back(std::move(*position));
  entries.erase(position);
  entry->position = entries.end();
  anyRemoved.store(true, std::memory_order_release);
}

// A removal that races with the first test is freed at the next wait instead.
void IOWatchList::clearRemovedEntries() {
  if (!anyRemoved.load(std::memory_order_acquire)) return;
  TinyMutexGuard guard(mutex);
  removedEntries.clear();
  anyRemoved.store(false, std::memory_order_relaxed);
}

void IOWatchList::clear(const std::function<void(IOWatchListEntry*)>& fn) {
  TinyMutexGuard guard(mutex);
  for (auto& entry : entries) {
    if (fn) fn(entry.get());
    entry->position = entries.end();
  }
  entries.clear();
  removedEntries.clear();
}

IOWatchListEntry* IOWatchList::getFirstEntry() {
  TinyMutexGuard guard(mutex);
  return entries.empty() ? nullptr : entries.front().get();
}

IOWatchListEntry* IOWatchList::getEntryByFd(int fd) {
  TinyMutexGuard guard(mutex);
  for (auto& entry : entries) {
    if (entry->fd == fd) return entry.get();
  }
  return nullptr;
}

void IOWatchList::forEach(const std::function<void(IOWatchListEntry*)>& fn) {
  TinyMutexGuard guard(mutex);
  for (auto& entry : entries) fn(entry.get());
}

bool IOWatchList::empty() {
  TinyMutexGuard guard(mutex);
  return entries.empty();
}

void IOWatchList::dump(std::ostream& out, const char* prefix) {
  TinyMutexGuard guard(mutex);
  const tavrinLog::TavrinLogging* logging = tavrinLog::getGlobalLogging();
  for (auto& entry : entries) {
    out << prefix << "IOEntry " << std::setw(30) << tavrinLog::originName(logging, entry->origin)
        << " called " << std::setw(4) << entry->callCount << "x\n";
  }
}

}  // namespace tavrinScheduler
