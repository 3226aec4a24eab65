// Runs one external program in the background of the event loop and reports its exit status once
// to a finished callback on the loop thread, without blocking the loop: through an IO watch on the
// child's pidfd, or, without a pidfd, through a helper thread that waits. Owns the child, which it
// starts in a process group of its own and stops with that group (SIGTERM, then SIGKILL) and reaps
// when cleaned up or destroyed, so nothing the child started is left behind. Loop thread only.
// Destroying a runner from inside its own finished callback is logged as an emergency (the caller's
// design is wrong); the runner itself survives it. Logs through the process-wide logging object.
#pragma once

#include "tavrincommon/common/LivenessToken.h"
#include "tavrincommon/common/TaskResultThread.h"
#include "tavrincommon/common/process/Process.h"
#include "tavrincommon/scheduler/IOWatchItem.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavrinScheduler {
class Scheduler;
}

namespace tavrinCommon {

class CommandRunner : public TaskResultThread<int> {
 public:
  // How long cleanup gives a child after SIGTERM before SIGKILL.
  static constexpr std::chrono::milliseconds KILL_TIMEOUT{20};

  // Spawns `program` with `args`. stdin reads the named file or the null device; stdout and
  // stderr write to the named files (created with mode 0600, truncated) or are inherited.
  // `finished` gets the exit status as waitid reports it (the exit code, or the number of the
  // signal that ended the child: exitSignal() tells which), or a negative errno value when
  // waiting failed on the helper thread. `origin` is used for the log lines and the IO watch. Empty
  // pointer on failure, after one Error line.
  static std::unique_ptr<CommandRunner> start(int origin, tavrinScheduler::Scheduler* scheduler,
                                              const std::function<void(int)>& finishedCallback,
                                              const char* program,
                                              const std::vector<std::string>& args,
                                              const std::optional<std::string>& stdinFile,
                                              const std::optional<std::string>& stdoutFile,
                                              const std::optional<std::string>& stderrFile);

  CommandRunner(process::Process&& process, const std::function<void(int)>& finishedCallback,
                int origin, tavrinScheduler::Scheduler* scheduler);
  ~CommandRunner() override;

  // True while the child has not been reaped.
  bool running() const;
  // The child's pid (also its process group's id); -1 once reaped.
  int pid() const { return process.pid(); }
  // The signal that ended the child; empty while it runs or when it exited by itself. Valid in
  // the finished callback and after it.
  std::optional<int> exitSignal() const { return process.exitSignal(); }
  // SIGKILL when `force`, else SIGTERM.
  bool kill(bool force);
  // SIGTERM, then up to KILL_TIMEOUT for the child to end: true unless it is known to have ended
  // (a wait that failed for any reason counts as still running).
  bool tryKillWithSigTerm();
  // No finished callback is made after this.
  void clearFinishedCallback();
  // Stops (SIGTERM, then SIGKILL) and reaps the child, and releases the helper thread.
  void cleanup();

  // program 'arg1' 'arg 2'
  static std::string cmdToLogString(const std::string& program,
                                    const std::vector<std::string>& args);

 private:
  void startWatch(const std::function<void(int)>& finishedCallback);
  tavrinScheduler::IOWatchItem::Result handleEpollCallback(
      const std::function<void(int)>& finishedCallback);
  // Calls the callback with the running flag set. False when the callback destroyed the runner.
  bool reportFinished(const std::function<void(int)>& finishedCallback, int status);

  // running() is a query but may reap the child.
  mutable process::Process process;
  tavrinScheduler::Scheduler* scheduler;
  int origin;
  tavrinScheduler::IOWatchHandle watchHandle;
  // Set on the helper thread when there is no scheduler.
  std::atomic<bool> callbackRunning{false};
  LivenessToken liveness;
};

}  // namespace tavrinCommon
