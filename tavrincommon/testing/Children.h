// Test helpers for the tests that start child processes: which spawn path the test program
// expects, the check that no child was left behind (running or as a zombie), adoption of the
// grandchildren a test's child leaves behind, and a process whose descriptors have run out.
#pragma once

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

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

// Whether `pid` has a child of its own (a shell has started its command).
inline bool hasChild(int pid) {
  const std::string id = std::to_string(pid);
  std::ifstream children("/proc/" + id + "/task/" + id + "/children");
  std::string first;
  return static_cast<bool>(children >> first);
}

// While it lives, processes orphaned below this one become its children instead of init's, so a
// grandchild left running by a stopped child can be seen (and is cleaned up here).
class AdoptOrphans {
 public:
  AdoptOrphans() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
  ~AdoptOrphans() { prctl(PR_SET_CHILD_SUBREAPER, 0); }
  AdoptOrphans(const AdoptOrphans&) = delete;
  AdoptOrphans& operator=(const AdoptOrphans&) = delete;

  // Reaps the adopted children as they end. False when one still runs after `limit`; those are
  // killed and reaped then, so the next test starts clean.
  static bool noneLeftRunning(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
      siginfo_t info{};
      // ECHILD: no child at all; a pid: one was reaped, look again.
      if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG) != 0) return true;
      if (info.si_pid != 0) continue;
      if (std::chrono::steady_clock::now() > end) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    const std::string self = std::to_string(getpid());
    std::ifstream children("/proc/" + self + "/task/" + self + "/children");
    for (int pid = 0; children >> pid;) kill(pid, SIGKILL);
    siginfo_t info{};
    while (waitid(P_ALL, 0, &info, WEXITED) == 0) {
    }
    return false;
  }
};

// While it lives, no new descriptor can be opened (EMFILE): the soft limit is lowered and the
// free numbers below it are taken.
class DescriptorsUsedUp {
 public:
  DescriptorsUsedUp() {
    getrlimit(RLIMIT_NOFILE, &saved);
    rlimit lowered = saved;
    lowered.rlim_cur = 256;
    setrlimit(RLIMIT_NOFILE, &lowered);
    for (int fd; (fd = dup(0)) >= 0;) taken.push_back(fd);
    EXPECT_EQ(errno, EMFILE);
  }
  ~DescriptorsUsedUp() {
    for (int fd : taken) close(fd);
    setrlimit(RLIMIT_NOFILE, &saved);
  }
  DescriptorsUsedUp(const DescriptorsUsedUp&) = delete;
  DescriptorsUsedUp& operator=(const DescriptorsUsedUp&) = delete;

 private:
  rlimit saved{};
  std::vector<int> taken;
};

}  // namespace tavrinTesting
