#include "tavrincommon/common/process/Process.h"

#include "tavrincommon/common/process/internal/PidfdSignal.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/GlobalLogging.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <thread>
#include <utility>

#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tavrinCommon {
namespace process {

using tavrinLog::globalLogging;
using tavrinLog::SeverityLevel;

namespace {

constexpr int kOrigin = DefaultOrigins::Firmware;
constexpr size_t kReadChunk = 1024;
// Poll interval for the exit of a child without pidfd while its output is read.
constexpr std::chrono::milliseconds kPollWithoutPidfd{20};

// An epoll set (close-on-exec) that reports `fd` readable with `id` as its data; -1 with errno.
int addToEpoll(int epollFd, int fd, Process::FdId id) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u32 = static_cast<uint32_t>(id);
  return epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event);
}

}  // namespace

Process::Process(int pid_, int pidfd_, IoFds&& fds)
    : childPid(pid_),
      childPidfd(pidfd_),
      childStdin(std::move(fds.stdin)),
      childStdout(std::move(fds.stdout)),
      childStderr(std::move(fds.stderr)) {}

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
}

Process::~Process() {
  StateLock lock(stateLock);
  if (!exitStatus && (childPid > 0 || childPidfd >= 0)) {
    TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Debug,
               "Process object destructed while process is still running. Killing and waiting on "
               "process %d",
               childPid);
    bool sendKill = true;
    if (childPidfd >= 0) {
      TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Detailed,
                 "Sending SIGTERM to process %d", childPid);
      if (!killInternal(SIGTERM)) {
        int error = errno;
        TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Debug,
                   "Cannot kill (SIGTERM) process with pid %d. %s (%d).", childPid,
                   std::strerror(error), error);
      } else {
        std::optional<int> result = waitWithPidfd(lock, SIGTERM_WAIT_TIMEOUT);
        if (result || errno != ETIME) sendKill = false;
      }
    }
    if (sendKill) {
      TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Detailed,
                 "Sending SIGKILL to process %d", childPid);
      if (!killInternal(SIGKILL)) {
        int error = errno;
        TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Debug,
                   "Cannot kill (SIGKILL) process with pid %d. %s (%d).", childPid,
                   std::strerror(error), error);
      }
      const int pid = childPid;
      if (!waitUnbounded(lock)) {
        int error = errno;
        TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Debug,
                   "Cannot wait upon killed process with pid %d. %s (%d).", pid,
                   std::strerror(error), error);
      }
    }
  }
  lock.unlock();
  childStderr.reset();
  childStdout.reset();
  childStdin.reset();
  if (childPidfd >= 0) ::close(childPidfd);
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
  using std::chrono::steady_clock;
  const steady_clock::time_point start = steady_clock::now();
  const steady_clock::time_point end = start + limit;
  for (;;) {
    const steady_clock::time_point now = steady_clock::now();
    if (now - start >= limit) {
      errno = ETIME;
      return std::nullopt;
    }
    if (!waitMutex.try_lock()) {
      lock.unlock();
      bool locked = waitMutex.try_lock_until(end);
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
    SafeFileDescriptor epollFd(epoll_create1(EPOLL_CLOEXEC));
    if (!epollFd.valid() || addToEpoll(epollFd.get(), childPidfd, FdId::PidFd) != 0) {
      return std::nullopt;
    }
    // Rounded up: a wait that ends a fraction of a millisecond early would only spin.
    auto remaining = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now());
    int timeout = remaining.count() < 0 ? 0 : convertForEpollWait(remaining);
    epoll_event event{};
    lock.unlock();
    int count = epoll_wait(epollFd.get(), &event, 1, timeout);
    lock.lock();
    if (count > 0) {
      int error = reapLocked(lock, false);
      if (error != 0) {
        errno = error;
        return std::nullopt;
      }
      if (exitStatus) return exitStatus;
    }
  }
}

std::optional<ProcessOutput> Process::waitWithOutput(
    const std::optional<std::chrono::milliseconds>& limit) {
  using std::chrono::steady_clock;
  const steady_clock::time_point start = steady_clock::now();
  StateLock lock(stateLock);
  if (!ioValid(childStdout) && !ioValid(childStderr)) {
    lock.unlock();
    std::optional<int> result = wait(limit);
    if (!result) return std::nullopt;
    return ProcessOutput{std::string(), std::string(), *result};
  }

  SafeFileDescriptor epollFd(epoll_create1(EPOLL_CLOEXEC));
  if (!epollFd.valid()) return std::nullopt;
  if (ioValid(childStdout) && addToEpoll(epollFd.get(), childStdout->get(), FdId::Stdout) != 0) {
    return std::nullopt;
  }
  if (ioValid(childStderr) && addToEpoll(epollFd.get(), childStderr->get(), FdId::Stderr) != 0) {
    return std::nullopt;
  }
  if (childPidfd >= 0 && addToEpoll(epollFd.get(), childPidfd, FdId::PidFd) != 0) {
    return std::nullopt;
  }

  ProcessOutput output{std::string(), std::string(), 0};
  std::unique_lock<std::timed_mutex> waitGuard(waitMutex, std::defer_lock);
  for (;;) {
    if (limit && steady_clock::now() - start > *limit) {
      errno = ETIME;
      return std::nullopt;
    }
    if (!waitGuard.owns_lock()) waitGuard.try_lock();
    const int timeout = convertForEpollWait(getEpollTimeoutLocked(limit, start));
    epoll_event events[3];
    lock.unlock();
    int count = epoll_wait(epollFd.get(), events, 3, timeout);
    int error = errno;
    lock.lock();
    if (count < 0) {
      // A signal handler interrupting the wait is not a failure of the child.
      if (error == EINTR) continue;
      errno = error;
      return std::nullopt;
    }
    bool exited = false;
    for (int i = 0; i < count; ++i) {
      const auto id = static_cast<FdId>(events[i].data.u32);
      if (id == FdId::PidFd) {
        exited = true;
        continue;
      }
      std::optional<int> readError =
          readToStrLocked(id, static_cast<int>(events[i].events), output.stdout, output.stderr);
      if (readError) {
        errno = *readError;
        return std::nullopt;
      }
    }
    if (exited || exitStatus) break;
    if (waitGuard.owns_lock()) {
      int reapError = reapLocked(lock, false);
      if (reapError != 0) {
        errno = reapError;
        return std::nullopt;
      }
      if (exitStatus) break;
    }
  }

  std::optional<int> readError = readFdsToEndLocked(output.stdout, output.stderr);
  if (readError) {
    errno = *readError;
    return std::nullopt;
  }
  if (waitGuard.owns_lock()) waitGuard.unlock();
  lock.unlock();
  std::optional<int> result = wait(std::nullopt);
  if (!result) return std::nullopt;
  output.status = *result;
  return output;
}

std::optional<int> Process::readToStr(FdId id, int events, std::string& out, std::string& err) {
  StateLock lock(stateLock);
  return readToStrLocked(id, events, out, err);
}

std::optional<int> Process::readToStrLocked(FdId id, int events, std::string& out,
                                            std::string& err) {
  std::optional<SafeFileDescriptor>* fd;
  std::string* text;
  if (id == FdId::Stdout) {
    fd = &childStdout;
    text = &out;
  } else if (id == FdId::Stderr) {
    fd = &childStderr;
    text = &err;
  } else {
    return std::nullopt;
  }
  if (!ioValid(*fd)) return std::nullopt;
  char buffer[kReadChunk];
  ssize_t count = ::read((*fd)->get(), buffer, sizeof buffer);
  if (count < 0) {
    if (errno == EAGAIN || errno == EINTR) return std::nullopt;
    return errno;
  }
  if (count == 0) {
    fd->reset();
    return std::nullopt;
  }
  // A short read with the writer gone means the pipe is drained: no need for another round.
  if (static_cast<size_t>(count) < sizeof buffer && (events & EPOLLHUP) != 0) fd->reset();
  text->append(buffer, static_cast<size_t>(count));
  return std::nullopt;
}

std::optional<int> Process::readFdsToEnd(std::string& out, std::string& err) {
  StateLock lock(stateLock);
  return readFdsToEndLocked(out, err);
}

std::optional<int> Process::readFdsToEndLocked(std::string& out, std::string& err) {
  while (ioValid(childStdout)) {
    std::optional<int> error = readToStrLocked(FdId::Stdout, EPOLLIN, out, err);
    if (error) return error;
  }
  while (ioValid(childStderr)) {
    std::optional<int> error = readToStrLocked(FdId::Stderr, EPOLLIN, out, err);
    if (error) return error;
  }
  return std::nullopt;
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
  if (childPidfd >= 0) {
    // The pidfd names this very child even after its pid could have been reused.
    if (internal::pidfdSendSignal(childPidfd, signal) == 0) return true;
    if (errno != ENOSYS) return false;
  }
  if (childPid > 0) return ::kill(childPid, signal) == 0;
  errno = ESRCH;
  return false;
}

std::chrono::milliseconds Process::getEpollTimeout(
    const std::optional<std::chrono::milliseconds>& limit,
    const std::chrono::steady_clock::time_point& start) const {
  std::shared_lock<std::shared_mutex> lock(stateLock);
  return getEpollTimeoutLocked(limit, start);
}

std::chrono::milliseconds Process::getEpollTimeoutLocked(
    const std::optional<std::chrono::milliseconds>& limit,
    const std::chrono::steady_clock::time_point& start) const {
  if (!limit || childPidfd < 0) return kPollWithoutPidfd;
  const auto remaining = std::chrono::duration_cast<std::chrono::nanoseconds>(
      *limit - (std::chrono::steady_clock::now() - start));
  if (remaining.count() >= -999999) {
    return std::chrono::milliseconds(remaining.count() / 1000000);
  }
  return std::chrono::milliseconds(0);
}

int Process::convertForEpollWait(std::chrono::milliseconds timeout) {
  return timeout.count() > INT_MAX ? INT_MAX : static_cast<int>(timeout.count());
}

}  // namespace process
}  // namespace tavrinCommon
