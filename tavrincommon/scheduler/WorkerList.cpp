#include "tavrincommon/scheduler/WorkerList.h"

#include "tavrincommon/log/GlobalLogging.h"
#include "tavrincommon/scheduler/Worker.h"

#include <iomanip>
#include <ostream>

namespace tavrinScheduler {

using tavrinCommon::TinyMutexGuard;

WorkerList::~WorkerList() { clear(); }

bool WorkerList::add(Worker* worker, bool putBack) {
  if (worker->holder.load(std::memory_order_acquire)) return false;
  TinyMutexGuard guard(mutex);
  WorkerList* none = nullptr;
  if (!worker->holder.compare_exchange_strong(none, this, std::memory_order_acq_rel)) return false;
  if (putBack) worker->callCount.fetch_sub(1, std::memory_order_relaxed);
  worker->previous = tail;
  worker->next = nullptr;
  if (tail) {
    tail->next = worker;
  } else {
    head = worker;
  }
  tail = worker;
  count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  return true;
}

void WorkerList::unlink(Worker* worker) {
  if (worker == cursor) cursor = worker->next;
  if (worker == running) running = nullptr;
  if (worker->previous) {
    worker->previous->next = worker->next;
  } else {
    head = worker->next;
  }
  if (worker->next) {
    worker->next->previous = worker->previous;
  } else {
    tail = worker->previous;
  }
  worker->previous = worker->next = nullptr;
  worker->holder.store(nullptr, std::memory_order_release);
  count.store(count.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
}

void WorkerList::remove(Worker* worker) {
  if (worker->holder.load(std::memory_order_acquire) != this) return;
  TinyMutexGuard guard(mutex);
  if (worker == running && std::this_thread::get_id() != iteratingThread) {
    ++waitingRemovals;
    while (worker == running) runningReturned.wait(mutex);
    --waitingRemovals;
  }
  if (worker->holder.load(std::memory_order_relaxed) != this) return;
  unlink(worker);
}

// A worker added by another thread at this very moment is taken by the next pass: adding wakes
// the loop.
Worker* WorkerList::pop() {
  if (count.load(std::memory_order_relaxed) == 0) return nullptr;
  TinyMutexGuard guard(mutex);
  Worker* worker = head;
  if (!worker) return nullptr;
  unlink(worker);
  worker->callCount.fetch_add(1, std::memory_order_relaxed);
  return worker;
}

void WorkerList::clear() {
  TinyMutexGuard guard(mutex);
  while (head) unlink(head);
}

void WorkerList::iterate(const std::function<bool(Worker*)>& fn) {
  TinyMutexGuard guard(mutex);
  iteratingThread = std::this_thread::get_id();
  cursor = head;
  while (Worker* worker = cursor) {
    cursor = worker->next;
    running = worker;
    worker->callCount.fetch_add(1, std::memory_order_relaxed);
    mutex.unlock();
    const bool leave = fn(worker);
    mutex.lock();
    // A worker removed during its own call is not touched again: unlink() cleared `running`.
    if (running == worker && leave) unlink(worker);
    running = nullptr;
    if (waitingRemovals > 0) runningReturned.notify_all();
  }
  iteratingThread = std::thread::id();
}

bool WorkerList::empty() {
  TinyMutexGuard guard(mutex);
  return head == nullptr;
}

unsigned WorkerList::size() {
  TinyMutexGuard guard(mutex);
  return count.load(std::memory_order_relaxed);
}

void WorkerList::dump(std::ostream& out, const char* prefix) {
  TinyMutexGuard guard(mutex);
  const tavrinLog::TavrinLogging* logging = tavrinLog::getGlobalLogging();
  for (Worker* worker = head; worker; worker = worker->next) {
    out << prefix << "Worker " << std::setw(30) << tavrinLog::originName(logging, worker->origin)
        << " called " << std::setw(4) << worker->getCallCount() << "x\n";
  }
}

}  // namespace tavrinScheduler
