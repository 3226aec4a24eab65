#include "tavrincommon/common/TimeFunctions.h"
#include "tavrincommon/common/WrapTS.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

using tavrinCommon::MonotonicMs;

long long toNs(const timespec& time) { return time.tv_sec * 1000000000LL + time.tv_nsec; }

TEST(WrapTSTest, OrdersAndSubtractsAcrossTheWrap) {
  const MonotonicMs nearEnd(0xFFFFFF00u);
  const MonotonicMs wrapped = nearEnd + 1000;
  EXPECT_EQ(wrapped.getValue(), 1000u - 0x100u);
  EXPECT_EQ(wrapped - nearEnd, 1000);
  EXPECT_EQ(nearEnd - wrapped, -1000);
  EXPECT_TRUE(nearEnd < wrapped);
  EXPECT_TRUE(wrapped > nearEnd);
  EXPECT_TRUE(nearEnd + 500 < wrapped);
  EXPECT_EQ(wrapped - 1000, nearEnd);
  EXPECT_TRUE(nearEnd <= nearEnd && nearEnd >= nearEnd);
}

TEST(WrapTSTest, StampOfTheMonotonicClockInMilliseconds) {
  timespec before;
  clock_gettime(CLOCK_MONOTONIC, &before);
  const MonotonicMs now;
  timespec after;
  clock_gettime(CLOCK_MONOTONIC, &after);
  EXPECT_GE(now - MonotonicMs(MonotonicMs::ticksOf(before)), 0);
  EXPECT_LE(now - MonotonicMs(MonotonicMs::ticksOf(after)), 0);
  EXPECT_EQ(MonotonicMs::ticksOf(timespec{5, 999999999}), 5999u);
}

TEST(TimeFunctionsTest, AbsoluteTimeCarriesNanosecondsIntoSeconds) {
  for (int ms : {1500, 999, 0, 1, 60000}) {
    timespec before;
    clock_gettime(CLOCK_MONOTONIC, &before);
    timespec result;
    tavrinCommon::getAbsoluteTime(ms, result, CLOCK_MONOTONIC);
    timespec after;
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_GE(result.tv_nsec, 0);
    EXPECT_LE(result.tv_nsec, 999999999);
    EXPECT_GE(toNs(result), toNs(before) + ms * 1000000LL);
    EXPECT_LE(toNs(result), toNs(after) + ms * 1000000LL);
  }
}

TEST(TimeFunctionsTest, IncreasedTimestampAlwaysMovesForward) {
  const unsigned now = static_cast<unsigned>(time(nullptr));
  EXPECT_EQ(tavrinCommon::getIncreasedTimestampMonotonic(now + 100), now + 101);
  EXPECT_GE(tavrinCommon::getIncreasedTimestampMonotonic(5), now);
  unsigned stamp = now + 10;
  EXPECT_EQ(tavrinCommon::setTimestampMonotonic(stamp), now + 11);
  EXPECT_EQ(stamp, now + 11);
}

}  // namespace
