#include "tavrincommon/common/TinyMutex.h"

#include <system_error>

namespace tavrinCommon {

TinyMutex::TinyMutex() { pthread_mutex_init(&mutex, nullptr); }

TinyMutex::TinyMutex(RecursiveTag) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

TinyMutex::~TinyMutex() { pthread_mutex_destroy(&mutex); }

void TinyMutex::lockFailed(int error) {
  throw std::system_error(error, std::generic_category(), "pthread_mutex_lock");
}

}  // namespace tavrinCommon
