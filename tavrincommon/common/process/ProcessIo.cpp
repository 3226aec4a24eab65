// Process: the child's pipes. Reading the output while waiting, draining it once the child has
// ended, and writing its input.
#include "tavrincommon/common/process/Process.h"

#include "tavrincommon/common/process/internal/Deadline.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tavrinCommon {
namespace process {

using internal::SteadyClock;

namespace {

constexpr size_t kReadChunk = 1024;
// Poll interval for the exit of a child without pidfd while its output is read.
constexpr std::chrono::milliseconds kPollWithoutPidfd{20};

// Adds `fd` to the epoll set, reported readable with `id` as its data; -1 with errno.
int addToEpoll(int epollFd, int fd, Process::FdId id) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u32 = static_cast<uint32_t>(id);
  return epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event);
}

// Writes all of `data`, or -1 with errno. SIGPIPE is blocked for this thread meanwhile, and one
// that the write raised is consumed before the mask is restored: the caller sees EPIPE, and the
// application's disposition of the signal is never touched.
ssize_t writeAllWithoutSigpipe(int fd, const char* data, size_t length) {
  sigset_t pipeOnly;
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  sigset_t pending;
  sigpending(&pending);
  // A SIGPIPE that was pending before is not ours to consume.
  const bool pendingBefore = sigismember(&pending, SIGPIPE) == 1;
  sigset_t previous;
  pthread_sigmask(SIG_BLOCK, &pipeOnly, &previous);
  size_t written = 0;
  int error = 0;
  while (written < length) {
    const ssize_t count = ::write(fd, data + written, length - written);
    if (count < 0) {
      if (errno == EINTR) continue;
      error = errno;
      break;
    }
    written += static_cast<size_t>(count);
  }
  if (error == EPIPE && !pendingBefore) {
    const timespec zero{0, 0};
    while (sigtimedwait(&pipeOnly, nullptr, &zero) < 0 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (error != 0) {
    errno = error;
    return -1;
  }
  return static_cast<ssize_t>(written);
}

}  // namespace

std::optional<ProcessOutput> Process::waitWithOutput(
    const std::optional<std::chrono::milliseconds>& limit) {
  const SteadyClock::time_point start = SteadyClock::now();
  const SteadyClock::time_point end =
      limit ? internal::deadlineAfter(start, *limit) : SteadyClock::time_point::max();
  StateLock lock(stateLock);
  if (!ioValid(childStdout) && !ioValid(childStderr)) {
    lock.unlock();
    std::optional<int> result = wait(limit);
    if (!result) return std::nullopt;
    return ProcessOutput{std::string(), std::string(), *result, exitSignal()};
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

  ProcessOutput output{std::string(), std::string(), 0, std::nullopt};
  std::unique_lock<std::timed_mutex> waitGuard(waitMutex, std::defer_lock);
  for (;;) {
    if (SteadyClock::now() > end) {
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

  // Everything the child wrote is in the pipes now; a process it left behind may hold them open
  // for as long as it likes, so end of file is not waited for.
  std::optional<int> readError = drainLocked(output.stdout, output.stderr);
  if (readError) {
    errno = *readError;
    return std::nullopt;
  }
  if (waitGuard.owns_lock()) waitGuard.unlock();
  lock.unlock();
  // The child has ended: this only reaps it, if no other thread has.
  std::optional<int> result = wait(std::nullopt);
  if (!result) return std::nullopt;
  output.status = *result;
  output.exitSignal = exitSignal();
  return output;
}

std::optional<int> Process::drainLocked(std::string& out, std::string& err) {
  for (std::optional<SafeFileDescriptor>* fd : {&childStdout, &childStderr}) {
    if (!ioValid(*fd)) continue;
    pollfd entry{(*fd)->get(), POLLIN, 0};
    if (::poll(&entry, 1, 0) < 0 && errno != EINTR) return errno;
    // Only what is there now: a writer left behind could keep the pipe full forever.
    int available = 0;
    if ((entry.revents & POLLIN) != 0 && ioctl((*fd)->get(), FIONREAD, &available) != 0) {
      return errno;
    }
    std::string& text = fd == &childStdout ? out : err;
    char buffer[kReadChunk];
    while (available > 0) {
      const ssize_t count =
          ::read((*fd)->get(), buffer, std::min(sizeof buffer, static_cast<size_t>(available)));
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) return errno;
      if (count == 0) break;
      text.append(buffer, static_cast<size_t>(count));
      available -= static_cast<int>(count);
    }
    // No writer left: what was read was the rest.
    if ((entry.revents & POLLHUP) != 0) fd->reset();
  }
  return std::nullopt;
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
  for (std::optional<SafeFileDescriptor>* fd : {&childStdout, &childStderr}) {
    // The reads block, so they go to a duplicate read without the state lock: the pipe stays
    // this one even if another thread closes the original meanwhile.
    SafeFileDescriptor copy;
    {
      StateLock lock(stateLock);
      if (!ioValid(*fd)) continue;
      copy.reset(fcntl((*fd)->get(), F_DUPFD_CLOEXEC, 0));
      if (!copy.valid()) return errno;
    }
    std::string& text = fd == &childStdout ? out : err;
    char buffer[kReadChunk];
    for (;;) {
      const ssize_t count = ::read(copy.get(), buffer, sizeof buffer);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) return errno;
      if (count == 0) break;
      text.append(buffer, static_cast<size_t>(count));
    }
    StateLock lock(stateLock);
    fd->reset();
  }
  return std::nullopt;
}

ssize_t Process::writeStdin(const void* data, size_t length) {
  // A duplicate, so that the write may block without the state lock and still go to this pipe
  // if wait() closes the original meanwhile.
  SafeFileDescriptor copy;
  {
    std::shared_lock<std::shared_mutex> lock(stateLock);
    if (!ioValid(childStdin)) {
      errno = EBADF;
      return -1;
    }
    copy.reset(fcntl(childStdin->get(), F_DUPFD_CLOEXEC, 0));
  }
  if (!copy.valid()) return -1;
  return writeAllWithoutSigpipe(copy.get(), static_cast<const char*>(data), length);
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
  // From the saturated deadline: the limit itself may not fit in nanoseconds.
  const auto remaining = internal::deadlineAfter(start, *limit) - SteadyClock::now();
  const auto remainingNs = std::chrono::duration_cast<std::chrono::nanoseconds>(remaining);
  if (remainingNs.count() >= -999999) {
    return std::chrono::milliseconds(remainingNs.count() / 1000000);
  }
  return std::chrono::milliseconds(0);
}

int Process::convertForEpollWait(std::chrono::milliseconds timeout) {
  return timeout.count() > INT_MAX ? INT_MAX : static_cast<int>(timeout.count());
}

}  // namespace process
}  // namespace tavrinCommon
