#include "tavrincommon/scheduler/WorkerList.h"

#include "tavrincommon/log/GlobalLogging.h"
#include "tavrincommon/scheduler/Worker.h"

#include <iomanip>
#include <ostream>

namespace tavrinScheduler {

using tavrinCommon::TinyMutexGuard;

WorkerList::~WorkerList() { clear(); }

bool WorkerList::add(Worker* worker, bool putBack) {
  if (worker->scheduled.load(std::memory_order_acquire)) return false;
  TinyMutexGuard guard(mutex);
  if (worker->scheduled.load(std::memory_order_relaxed)) return false;
  worker->scheduled.store(true, std::memory_order_release);
  if (putBack) worker->callCount.fetch_sub(1, std::memory_order_relaxed);
  worker->previous = tail;
  worker->next = nullptr;
  if (tail) {
    tail->next = worker;
  } else {
    head = worker;
  }
  tail = worker;
  ++count;
  return true;
}

void WorkerList::unlink(Worker* worker) {
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
  worker->scheduled.store(false, std::memory_order_release);
  --count;
}

void WorkerList::remove(Worker* worker) {
  if (!worker->scheduled.load(std::memory_order_acquire)) return;
  TinyMutexGuard guard(mutex);
  if (!worker->scheduled.load(std::memory_order_relaxed)) return;
  unlink(worker);
}

Worker* WorkerList::pop() {
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
  for (Worker* worker = head; worker;) {
    Worker* following = worker->next;
    worker->callCount.fetch_add(1, std::memory_order_relaxed);
    if (fn(worker)) unlink(worker);
    worker = following;
  }
}

bool WorkerList::empty() {
  TinyMutexGuard guard(mutex);
  return head == nullptr;
}

unsigned WorkerList::size() {
  TinyMutexGuard guard(mutex);
  return count;
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
