// Small polymorphic wrappers of one POSIX mutex: TinyMutex (normal type) and TinyRecursiveMutex
// (recursive type). Used through TinyMutex& by the scheduler, its worker lists and the IO watch
// list. Not copyable. lock() reports a failure as std::system_error.
#pragma once

#include <pthread.h>

namespace tavrinCommon {

class TinyMutex {
 public:
  TinyMutex();
  virtual ~TinyMutex();
  TinyMutex(const TinyMutex&) = delete;
  TinyMutex& operator=(const TinyMutex&) = delete;

  virtual void lock();
  // True when acquired; never waits.
  virtual bool trylock();
  virtual void unlock();

 protected:
  struct RecursiveTag {};
  explicit TinyMutex(RecursiveTag);

  pthread_mutex_t mutex;
};

class TinyRecursiveMutex : public TinyMutex {
 public:
  TinyRecursiveMutex() : TinyMutex(RecursiveTag{}) {}
};

// Locks for the lifetime of the guard; unlocks also when an exception passes.
class TinyMutexGuard {
 public:
  explicit TinyMutexGuard(TinyMutex& mutex_) : mutex(&mutex_) { mutex->lock(); }
  // A null mutex makes the guard do nothing.
  explicit TinyMutexGuard(TinyMutex* mutex_) : mutex(mutex_) {
    if (mutex) mutex->lock();
  }
  ~TinyMutexGuard() {
    if (mutex) mutex->unlock();
  }
  TinyMutexGuard(const TinyMutexGuard&) = delete;
  TinyMutexGuard& operator=(const TinyMutexGuard&) = delete;

 private:
  TinyMutex* mutex;
};

}  // namespace tavrinCommon
