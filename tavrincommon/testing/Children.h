// Test helpers for the tests that start child processes: which spawn path the test program
// expects, and the check that no child was left behind, running or as a zombie.
#pragma once

#include <cerrno>

#include <gtest/gtest.h>
#include <sys/wait.h>

namespace tavrinTesting {

// The test program built with the pidfd_spawn stand-in expects children with a pidfd.
#ifdef TAVRIN_TEST_EXPECT_PIDFD
constexpr bool kExpectPidfd = true;
#else
constexpr bool kExpectPidfd = false;
#endif

inline void expectNoChildLeft() {
  siginfo_t info{};
  errno = 0;
  EXPECT_EQ(waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT), -1);
  EXPECT_EQ(errno, ECHILD) << "a child was left behind";
}

}  // namespace tavrinTesting
