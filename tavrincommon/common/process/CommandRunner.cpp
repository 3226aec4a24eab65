#include "tavrincommon/common/process/CommandRunner.h"

#include "tavrincommon/common/process/Command.h"
#include "tavrincommon/log/GlobalLogging.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/epoll.h>

namespace tavrinCommon {

using tavrinLog::globalLogging;
using tavrinLog::SeverityLevel;
using tavrinScheduler::IOWatchItem;

std::unique_ptr<CommandRunner> CommandRunner::start(
    int origin, tavrinScheduler::Scheduler* scheduler,
    const std::function<void(int)>& finishedCallback, const char* program,
    const std::vector<std::string>& args, const std::optional<std::string>& stdinFile,
    const std::optional<std::string>& stdoutFile, const std::optional<std::string>& stderrFile) {
  process::Command command(program);
  command.args(args).processGroup(true);

  // Never the application's own input: a child reading it would steal it.
  if (!stdinFile) {
    command.stdin(process::Stdio::Null);
  } else {
    SafeFileDescriptor fd(::open(stdinFile->c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
      int error = errno;
      TAVRIN_LOG(globalLogging.get(), origin, SeverityLevel::Error,
                 "Cannot start process \"%s\". Cannot open stdin file: %s (%d)",
                 cmdToLogString(program, args).c_str(), std::strerror(error), error);
      return nullptr;
    }
    command.stdin(std::move(fd));
  }

  constexpr int kOutputFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  if (stdoutFile) {
    SafeFileDescriptor fd(::open(stdoutFile->c_str(), kOutputFlags, 0600));
    if (!fd.valid()) {
      int error = errno;
      TAVRIN_LOG(globalLogging.get(), origin, SeverityLevel::Error,
                 "Cannot start process \"%s\". Cannot open stdout file: %s (%d)",
                 cmdToLogString(program, args).c_str(), std::strerror(error), error);
      return nullptr;
    }
    command.stdout(std::move(fd));
  }
  if (stderrFile) {
    SafeFileDescriptor fd(::open(stderrFile->c_str(), kOutputFlags, 0600));
    if (!fd.valid()) {
      int error = errno;
      TAVRIN_LOG(globalLogging.get(), origin, SeverityLevel::Error,
                 "Cannot start process \"%s\". Cannot open stderr file: %s (%d)",
                 cmdToLogString(program, args).c_str(), std::strerror(error), error);
      return nullptr;
    }
    command.stderr(std::move(fd));
  }

  std::optional<process::Process> child = command.spawn();
  if (!child) {
    int error = errno;
    TAVRIN_LOG(globalLogging.get(), origin, SeverityLevel::Error,
               "Cannot start process \"%s\". %s (%d)", cmdToLogString(program, args).c_str(),
               std::strerror(error), error);
    return nullptr;
  }
  return std::make_unique<CommandRunner>(std::move(*child), finishedCallback, origin, scheduler);
}

CommandRunner::CommandRunner(process::Process&& process_,
                             const std::function<void(int)>& finishedCallback, int origin_,
                             tavrinScheduler::Scheduler* scheduler_)
    : TaskResultThread<int>(origin_, scheduler_),
      process(std::move(process_)),
      scheduler(scheduler_),
      origin(origin_) {
  startWatch(finishedCallback);
}

CommandRunner::~CommandRunner() {
  if (callbackRunning) {
    TAVRIN_LOG(globalLogging.get(), origin, SeverityLevel::Emergency,
               "Deleting CommandRunner instance while callback is active. Will lead to memory "
               "corruption.");
  }
  cleanup();
}

void CommandRunner::startWatch(const std::function<void(int)>& finishedCallback) {
  const int pidfd = process.pidfd();
  std::function<void(int)> callback =
      finishedCallback ? finishedCallback : std::function<void(int)>([](int) {});
  if (scheduler && pidfd >= 0) {
    IOWatchItem item;
    item.fd = pidfd;
    item.events = EPOLLIN;
    item.callback = [this, callback](int) { return handleEpollCallback(callback); };
    watchHandle = scheduler->addIOItem(item, origin);
    return;
  }
  TaskResultThread<int>::start(
      [this] {
        std::optional<int> status = process.wait(std::nullopt);
        if (status) return *status;
        int error = errno;
        TAVRIN_LOG(globalLogging.get(), origin, SeverityLevel::Error,
                   "Error waiting for process. %s (%d)", std::strerror(error), error);
        return -error;
      },
      [this, callback](int status) { reportFinished(callback, status); });
}

bool CommandRunner::reportFinished(const std::function<void(int)>& finishedCallback, int status) {
  LivenessToken::Watch alive(liveness);
  callbackRunning = true;
  finishedCallback(status);
  if (!alive) return false;
  callbackRunning = false;
  return true;
}

IOWatchItem::Result CommandRunner::handleEpollCallback(
    const std::function<void(int)>& finishedCallback) {
  std::optional<std::optional<int>> waitResult = process.tryWait();
  if (!waitResult) {
    int error = errno;
    TAVRIN_LOG(globalLogging.get(), origin, SeverityLevel::Error,
               "Cannot retrieve process return value. %s (%d)", std::strerror(error), error);
    scheduler->removeIOItem(watchHandle);
    return IOWatchItem::Removed;
  }
  if (!*waitResult) {
    TAVRIN_LOG(globalLogging.get(), origin, SeverityLevel::Warning,
               "Child process is unexpectedly still running after epoll trigger.");
    return IOWatchItem::Unchanged;
  }
  if (!reportFinished(finishedCallback, **waitResult)) return IOWatchItem::Removed;
  // The callback may have cleared the watch itself (clearFinishedCallback); a cleared handle is
  // ignored.
  scheduler->removeIOItem(watchHandle);
  return IOWatchItem::Removed;
}

bool CommandRunner::running() const {
  std::optional<std::optional<int>> waitResult = process.tryWait();
  if (waitResult) return !*waitResult;
  int error = errno;
  TAVRIN_LOG(globalLogging.get(), origin, SeverityLevel::Warning,
             "Cannot retrieve process status. %s (%d)", std::strerror(error), error);
  return !process.status();
}

bool CommandRunner::kill(bool force) { return process.kill(force ? SIGKILL : SIGTERM); }

bool CommandRunner::tryKillWithSigTerm() {
  TAVRIN_LOG(globalLogging.get(), origin, SeverityLevel::Warning,
             "Process with pid %d is still running at CommandRunner cleanup. Sending SIGTERM.",
             process.pid());
  kill(false);
  // Whatever made the wait fail (time out, descriptors run out), SIGKILL must follow.
  return !process.wait(KILL_TIMEOUT);
}

void CommandRunner::clearFinishedCallback() {
  setFinishedCallback(nullptr);
  if (scheduler) scheduler->removeIOItem(watchHandle);
}

void CommandRunner::cleanup() {
  clearFinishedCallback();
  std::optional<std::optional<int>> waitResult = process.tryWait();
  if (waitResult && !*waitResult) {
    if (process.pidfd() < 0 || tryKillWithSigTerm()) {
      TAVRIN_LOG(globalLogging.get(), origin, SeverityLevel::Warning,
                 "Process with pid %d is still running at CommandRunner cleanup. Sending SIGKILL.",
                 process.pid());
      kill(true);
    }
  }
  join();
  if (waitResult && !process.wait(std::nullopt)) {
    int error = errno;
    TAVRIN_LOG(globalLogging.get(), origin, SeverityLevel::Warning,
               "Cannot retrieve process status at cleanup after killing. %s (%d)",
               std::strerror(error), error);
  }
}

std::string CommandRunner::cmdToLogString(const std::string& program,
                                          const std::vector<std::string>& args) {
  std::string text = program;
  for (const std::string& arg : args) {
    text += " '";
    text += arg;
    text += '\'';
  }
  return text;
}

}  // namespace tavrinCommon
