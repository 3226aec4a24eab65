#include "tavrincommon/scheduler/IOWatchList.h"

#include "tavrincommon/log/GlobalLogging.h"

#include <iomanip>
#include <ostream>

namespace tavrinScheduler {

using tavrinCommon::TinyMutexGuard;

IOWatchList::~IOWatchList() { clear({}); }

IOWatchListEntry* IOWatchList::add(std::unique_ptr<IOWatchListEntry>&& entry) {
  TinyMutexGuard guard(mutex);
  IOWatchListEntry* raw = entry.get();
  raw->position = entries.insert(entries.end(), std::move(entry));
  return raw;
}

void IOWatchList::remove(const IOWatchListEntry* entry) {
  TinyMutexGuard guard(mutex);
  auto position = entry->position;
  removedEntries.push_back(std::move(*position));
  entries.erase(position);
}

void IOWatchList::clearRemovedEntries() {
  TinyMutexGuard guard(mutex);
  removedEntries.clear();
}

void IOWatchList::clear(const std::function<void(IOWatchListEntry*)>& fn) {
  TinyMutexGuard guard(mutex);
  if (fn) {
    for (auto& entry : entries) fn(entry.get());
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
