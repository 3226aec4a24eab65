// A running (or reaped) child process: owns its pid, its pidfd (when it has one) and the parent's
// ends of its pipes. Destroying it stops a child that still runs (SIGTERM, then SIGKILL) and reaps
// it, so no zombie or orphan is left; a child that leads a process group of its own is stopped
// with its whole group. Every operation may be called from any thread: a shared mutex guards the
// fields and only one thread at a time blocks in the system waiting for the child; the state lock
// is never held while blocking. Logs through the process-wide logging object under origin
// Firmware.
#pragma once

#include "tavrincommon/common/process/SafeFileDescriptor.h"

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>

#include <sys/types.h>

namespace tavrinCommon {
namespace process {

// The parent's ends of the child's pipes: stdin is a write end, stdout and stderr are read ends.
struct IoFds {
  std::optional<SafeFileDescriptor> stdin;
  std::optional<SafeFileDescriptor> stdout;
  std::optional<SafeFileDescriptor> stderr;
};

// What waitWithOutput collects.
struct ProcessOutput {
  std::string stdout;
  std::string stderr;
  // The exit code, or the number of the signal that ended the child.
  int status;
  // Set when a signal ended the child: tells `kill -TERM` from `exit 15`.
  std::optional<int> exitSignal;
};

class Process {
 public:
  // The descriptors of the internal epoll sets; also their epoll data.
  enum class FdId : int32_t { Stdout = 1, Stderr = 2, PidFd = 3 };

  // How long destruction gives a child with a pidfd to end after SIGTERM before SIGKILL.
  static constexpr std::chrono::milliseconds SIGTERM_WAIT_TIMEOUT{20};

  // Takes over `pidfd` (-1 for none) and the pipe ends. `ownGroup`: the child leads a process
  // group of its own (its id is the pid), which kill() and destruction signal as a whole.
  Process(int pid, int pidfd, IoFds&& fds, bool ownGroup = false);
  Process(Process&& other);
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  Process& operator=(Process&&) = delete;
  ~Process();

  // -1 once the child has been reaped.
  int pid() const;
  int pidfd() const;
  // The exit status as waitid reports it (si_status), once known: the exit code, or the number of
  // the signal that ended the child.
  std::optional<int> status() const;
  // The signal that ended the child (killed, or dumped core); empty while it runs or when it
  // exited by itself.
  std::optional<int> exitSignal() const;
  bool ownGroup() const { return groupLeader; }
  // The parent's pipe ends. The references stay valid for the object's lifetime; use them only
  // while no other thread reads or waits on the same process.
  std::optional<SafeFileDescriptor>& stdin();
  const std::optional<SafeFileDescriptor>& stdout() const;
  const std::optional<SafeFileDescriptor>& stderr() const;
  static bool ioValid(const std::optional<SafeFileDescriptor>& fd) { return fd && fd->valid(); }

  // Never blocks. Empty on error (errno set); otherwise the status, or an empty inner value while
  // the child runs.
  std::optional<std::optional<int>> tryWait();
  // Closes a piped stdin first. Without a limit waits until the child ends; with one, empty with
  // errno ETIME when it runs out (milliseconds::max() waits as long as without one). A limit
  // needs a pidfd: without one the wait is unbounded (and a warning says so).
  std::optional<int> wait(const std::optional<std::chrono::milliseconds>& limit);
  // Reads stdout and stderr while the child runs; once it has ended, takes what the pipes hold
  // at that moment and returns with the status. Output that processes left behind by the child
  // (which share its pipes) write later is not waited for, so the limit holds even when such a
  // process keeps a pipe open. Empty on error, or with errno ETIME when the limit runs out
  // before the child ends.
  std::optional<ProcessOutput> waitWithOutput(
      const std::optional<std::chrono::milliseconds>& limit);
  // Writes all of `data` to the piped stdin. -1 with errno on failure: EPIPE once the child no
  // longer reads (no SIGPIPE is raised; the signal's disposition is left alone), EBADF without a
  // piped stdin. May block while the pipe is full; the state lock is not held meanwhile.
  ssize_t writeStdin(const void* data, size_t length);

  // One read of at most 1024 bytes from the pipe `id` (Stdout or Stderr) into `out` or `err`;
  // closes the pipe at end of file, or when `events` has EPOLLHUP and the read drained it.
  // Returns an errno value on error.
  std::optional<int> readToStr(FdId id, int events, std::string& out, std::string& err);
  // Blocking reads of stdout, then stderr, until end of file (which a process left behind by the
  // child may hold off indefinitely). Returns the first errno value.
  std::optional<int> readFdsToEnd(std::string& out, std::string& err);

  // Sends `signal` to the child, or to its whole group when it leads one (through the pidfd when
  // there is one and no group). False with errno ESRCH once the status is known.
  bool kill(int signal);

  // The epoll time-out of one round of waitWithOutput started at `start`.
  std::chrono::milliseconds getEpollTimeout(
      const std::optional<std::chrono::milliseconds>& limit,
      const std::chrono::steady_clock::time_point& start) const;
  static int convertForEpollWait(std::chrono::milliseconds timeout);

 private:
  using StateLock = std::unique_lock<std::shared_mutex>;

  bool killInternal(int signal);
  // Both return 0 or an errno value; a status found is stored. reap() takes the wait mutex for the
  // call; reapLocked() expects the caller to hold it. `lock` holds the state lock on entry and
  // exit.
  int reap(StateLock& lock, bool block);
  int reapLocked(StateLock& lock, bool block);
  std::optional<int> waitUnbounded(StateLock& lock);
  std::optional<int> waitWithPidfd(StateLock& lock, std::chrono::milliseconds limit);
  // Destruction: SIGTERM, up to SIGTERM_WAIT_TIMEOUT for the exit, SIGKILL, reap.
  void stopAndReap(StateLock& lock);
  std::optional<int> readToStrLocked(FdId id, int events, std::string& out, std::string& err);
  // Reads what the pipes hold now, without blocking; closes a pipe found at end of file.
  std::optional<int> drainLocked(std::string& out, std::string& err);
  std::chrono::milliseconds getEpollTimeoutLocked(
      const std::optional<std::chrono::milliseconds>& limit,
      const std::chrono::steady_clock::time_point& start) const;

  int childPid;
  int childPidfd;
  std::optional<SafeFileDescriptor> childStdin;
  std::optional<SafeFileDescriptor> childStdout;
  std::optional<SafeFileDescriptor> childStderr;
  std::optional<int> exitStatus;
  bool killedBySignal = false;
  bool groupLeader = false;
  mutable std::shared_mutex stateLock;
  // Held by the one thread that is inside waitid or epoll_wait for this child.
  std::timed_mutex waitMutex;
};

}  // namespace process
}  // namespace tavrinCommon
