// Test helper: the heap the process really holds, for tests that prove a memory bound. Resident
// size misses storage that was reserved but never touched, so this asks the allocator: glibc's
// arenas and mapped blocks after a trim, or the sanitizer's allocator in sanitizer builds (whose
// own allocator glibc's figures do not see). Any thread.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TAVRIN_TESTING_SANITIZER_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TAVRIN_TESTING_SANITIZER_HEAP 1
#endif
#endif

#ifdef TAVRIN_TESTING_SANITIZER_HEAP
// Part of every sanitizer runtime; declared here because g++ ships no header for it.
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#else
#include <malloc.h>
#endif

namespace tavrinTesting {

// True in sanitizer builds, whose runtime keeps an allocator (and needs descriptors) of its own.
constexpr bool sanitizerBuild() {
#ifdef TAVRIN_TESTING_SANITIZER_HEAP
  return true;
#else
  return false;
#endif
}

inline size_t heldHeapBytes() {
#ifdef TAVRIN_TESTING_SANITIZER_HEAP
  return __sanitizer_get_current_allocated_bytes();
#else
  malloc_trim(0);
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

}  // namespace tavrinTesting
