#include "tavrincommon/common/TinyMutex.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using tavrinCommon::TinyMutex;
using tavrinCommon::TinyRecursiveMutex;

bool trylockFromOtherThread(TinyMutex& mutex) {
  bool acquired = false;
  std::thread other([&] {
    acquired = mutex.trylock();
    if (acquired) mutex.unlock();
  });
  other.join();
  return acquired;
}

TEST(TinyMutexTest, TrylockFailsWhileAnotherThreadHoldsIt) {
  TinyMutex mutex;
  mutex.lock();
  EXPECT_FALSE(trylockFromOtherThread(mutex));
  mutex.unlock();
  EXPECT_TRUE(trylockFromOtherThread(mutex));
}

TEST(TinyMutexTest, RecursiveMutexLetsItsOwnerLockAgain) {
  TinyRecursiveMutex mutex;
  TinyMutex& base = mutex;
  base.lock();
  EXPECT_TRUE(base.trylock());
  base.unlock();
  EXPECT_FALSE(trylockFromOtherThread(mutex));
  base.unlock();
  EXPECT_TRUE(trylockFromOtherThread(mutex));
}

}  // namespace
