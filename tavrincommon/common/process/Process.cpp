#include "tavrincommon/common/process/Process.h"

#include "tavrincommon/common/process/internal/Deadline.h"
#include "tavrincommon/common/process/internal/PidfdSignal.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/GlobalLogging.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>
#include <utility>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tavrinCommon {
namespace process {

using tavrinLog::globalLogging;
using tavrinLog::SeverityLevel;

using internal::SteadyClock;

namespace {

constexpr int kOrigin = DefaultOrigins::Firmware;

// Polls `fd` for readability until `deadline`, without the state lock. 1 readable, 0 not by then,
// -1 with errno. poll needs no descriptor of its own, so it works when descriptors run out.
int pollUntil(std::unique_lock<std::shared_mutex>& lock, int fd, SteadyClock::time_point deadline) {
  for (;;) {
    pollfd entry{fd, POLLIN, 0};
    const int timeout = internal::millisecondsUntil(deadline);
    lock.unlock();
    const int count = ::poll(&entry, 1, timeout);
    const int error = errno;
    lock.lock();
    if (count == 0) return 0;
    if (count > 0) {
      if ((entry.revents & POLLIN) != 0) return 1;
      errno = EBADF;  // POLLNVAL: not an open descriptor
      return -1;
    }
    if (error != EINTR) {
      errno = error;
      return -1;
    }
  }
}

}  // namespace

Process::Process(int pid_, int pidfd_, IoFds&& fds, bool ownGroup_)
    : childPid(pid_),
      childPidfd(pidfd_),
      childStdin(std::move(fds.stdin)),
      childStdout(std::move(fds.stdout)),
      childStderr(std::move(fds.stderr)),
      groupLeader(ownGroup_ && pid_ > 0) {}

Process::Process(Process&& other) {
  StateLock lock(other.stateLock);
  childPid = std::exchange(other.childPid, -1);
  childPidfd = std::exchange(other.childPidfd, -1);
  childStdin = std::move(other.childStdin);
  childStdout = std::move(other.childStdout);
  childStderr = std::move(other.childStderr);
  other.childStdin.reset();
  other.childStdout.reset();
  other.childStderr.reset();
  exitStatus = other.exitStatus;
  killedBySignal = other.killedBySignal;
  groupLeader = std::exchange(other.groupLeader, false);
}

Process::~Process() {
  StateLock lock(stateLock);
  if (!exitStatus && (childPid > 0 || childPidfd >= 0)) stopAndReap(lock);
  lock.unlock();
  childStderr.reset();
  childStdout.reset();
  childStdin.reset();
  if (childPidfd >= 0) ::close(childPidfd);
}

void Process::stopAndReap(StateLock& lock) {
  TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Debug,
             "Process object destructed while process is still running. Killing and waiting on "
             "process %d",
             childPid);
  // Whether the child has ended; it is not reaped yet, so a group it led keeps its id.
  bool ended = false;
  if (childPidfd >= 0) {
    TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Detailed,
               "Sending SIGTERM to process %d", childPid);
    if (!killInternal(SIGTERM)) {
      int error = errno;
      TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Debug,
                 "Cannot kill (SIGTERM) process with pid %d. %s (%d).", childPid,
                 std::strerror(error), error);
    } else {
      // Any failure of this wait leads to SIGKILL, not only the time running out.
      ended = pollUntil(lock, childPidfd,
                        internal::deadlineAfter(SteadyClock::now(), SIGTERM_WAIT_TIMEOUT)) == 1;
    }
  }
  // Members of the group that outlived the SIGTERM get no more time than the child had.
  if (!ended || groupLeader) {
    TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Detailed,
               "Sending SIGKILL to process %d", childPid);
    if (!killInternal(SIGKILL)) {
      int error = errno;
      TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Debug,
                 "Cannot kill (SIGKILL) process with pid %d. %s (%d).", childPid,
                 std::strerror(error), error);
    }
  }
  const int pid = childPid;
  if (!waitUnbounded(lock)) {
    int error = errno;
    TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Debug,
               "Cannot wait upon killed process with pid %d. %s (%d).", pid, std::strerror(error),
               error);
  }
}

int Process::pid() const {
  std::shared_lock<std::shared_mutex> lock(stateLock);
  return childPid;
}

int Process::pidfd() const {
  std::shared_lock<std::shared_mutex> lock(stateLock);
  return childPidfd;
}

std::optional<int> Process::status() const {
  std::shared_lock<std::shared_mutex> lock(stateLock);
  return exitStatus;
}

std::optional<int> Process::exitSignal() const {
  std::shared_lock<std::shared_mutex> lock(stateLock);
  return killedBySignal ? exitStatus : std::nullopt;
}

std::optional<SafeFileDescriptor>& Process::stdin() {
  std::shared_lock<std::shared_mutex> lock(stateLock);
  return childStdin;
}

const std::optional<SafeFileDescriptor>& Process::stdout() const {
  std::shared_lock<std::shared_mutex> lock(stateLock);
  return childStdout;
}

const std::optional<SafeFileDescriptor>& Process::stderr() const {
  std::shared_lock<std::shared_mutex> lock(stateLock);
  return childStderr;
}

int Process::reap(StateLock& lock, bool block) {
  if (!waitMutex.try_lock()) {
    lock.unlock();
    if (block) {
      waitMutex.lock();
    } else {
      std::this_thread::yield();
      if (!waitMutex.try_lock()) {
        lock.lock();
        return 0;  // another thread is waiting; report what is known so far
      }
    }
    lock.lock();
    if (exitStatus) {
      waitMutex.unlock();
      return 0;
    }
  }
  int error = reapLocked(lock, block);
  waitMutex.unlock();
  return error;
}

int Process::reapLocked(StateLock& lock, bool block) {
  if (childPid < 0) return ECHILD;
  siginfo_t info{};
  if (block) {
    // WNOWAIT leaves the child a zombie, so its pid cannot be reused by another process before
    // the real reap below runs under the state lock: kill() on the pid stays safe meanwhile.
    const int pid = childPid;
    lock.unlock();
    int result = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
    int error = errno;
    lock.lock();
    // EINTR: a signal handler ran; the caller simply waits again.
    if (result != 0) return (error == EAGAIN || error == EINTR) ? 0 : error;
    info = siginfo_t{};
  }
  if (waitid(P_PID, static_cast<id_t>(childPid), &info, WEXITED | WNOHANG) != 0) {
    return errno == EAGAIN ? 0 : errno;
  }
  if (info.si_pid == 0) return 0;  // still running
  TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Debug,
             "Process with pid %d and pidfd %d exited with return code %d.", childPid, childPidfd,
             info.si_status);
  exitStatus = info.si_status;
  killedBySignal = info.si_code == CLD_KILLED || info.si_code == CLD_DUMPED;
  childPid = -1;
  return 0;
}

std::optional<std::optional<int>> Process::tryWait() {
  StateLock lock(stateLock);
  if (!exitStatus) {
    int error = reap(lock, false);
    if (error != 0) {
      errno = error;
      return std::nullopt;
    }
  }
  return std::optional<std::optional<int>>(std::in_place, exitStatus);
}

std::optional<int> Process::wait(const std::optional<std::chrono::milliseconds>& limit) {
  StateLock lock(stateLock);
  if (exitStatus) return exitStatus;
  childStdin.reset();
  if (limit) {
    if (childPidfd >= 0) return waitWithPidfd(lock, *limit);
    TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Warning,
               "Waiting on process %d with timeout is not supported without pidfds. Falling back "
               "to unbounded wait.",
               childPid);
  }
  return waitUnbounded(lock);
}

std::optional<int> Process::waitUnbounded(StateLock& lock) {
  while (!exitStatus) {
    int error = reap(lock, true);
    if (error != 0) {
      errno = error;
      return std::nullopt;
    }
  }
  return exitStatus;
}

std::optional<int> Process::waitWithPidfd(StateLock& lock, std::chrono::milliseconds limit) {
  const SteadyClock::time_point end = internal::deadlineAfter(SteadyClock::now(), limit);
  for (;;) {
    if (SteadyClock::now() >= end) {
      errno = ETIME;
      return std::nullopt;
    }
    if (!waitMutex.try_lock()) {
      lock.unlock();
      bool locked = true;
      if (end == SteadyClock::time_point::max()) {
        waitMutex.lock();
      } else {
        locked = waitMutex.try_lock_until(end);
      }
      lock.lock();
      if (!locked) continue;
    }
    std::unique_lock<std::timed_mutex> waitGuard(waitMutex, std::adopt_lock);
    if (exitStatus) return exitStatus;  // another thread reaped it meanwhile
    if (childPidfd < 0) {
      TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Error,
                 "Requested epoll with only pidfd. Pidfd is invalid.");
      errno = EINVAL;
      return std::nullopt;
    }
    const int readable = pollUntil(lock, childPidfd, end);
    if (readable < 0) return std::nullopt;
    if (readable > 0) {
      int error = reapLocked(lock, false);
      if (error != 0) {
        errno = error;
        return std::nullopt;
      }
      if (exitStatus) return exitStatus;
    }
  }
}

bool Process::kill(int signal) {
  StateLock lock(stateLock);
  return killInternal(signal);
}

bool Process::killInternal(int signal) {
  if (exitStatus) {
    errno = ESRCH;
    return false;
  }
  // The leader is not reaped while the status is unknown, so its group id cannot have been reused.
  if (groupLeader && childPid > 0) return ::kill(-childPid, signal) == 0;
  if (childPidfd >= 0) {
    // The pidfd names this very child even after its pid could have been reused.
    if (internal::pidfdSendSignal(childPidfd, signal) == 0) return true;
    if (errno != ENOSYS) return false;
  }
  if (childPid > 0) return ::kill(childPid, signal) == 0;
  errno = ESRCH;
  return false;
}

}  // namespace process
}  // namespace tavrinCommon
