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

  // Inline, so that a mutex held by value (whose type the compiler knows) costs no extra call.
  virtual void lock() {
    const int error = pthread_mutex_lock(&mutex);
    if (error != 0) lockFailed(error);
  }
  // True when acquired; never waits.
  virtual bool trylock() { return pthread_mutex_trylock(&mutex) == 0; }
  virtual void unlock() { pthread_mutex_unlock(&mutex); }

 protected:
  struct RecursiveTag {};
  explicit TinyMutex(RecursiveTag);

  pthread_mutex_t mutex;

 private:
  [[noreturn]] static void lockFailed(int error);
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
