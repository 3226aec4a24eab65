#include "tavrincommon/common/process/Command.h"

#include "tavrincommon/common/process/internal/PidfdSignal.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/GlobalLogging.h"

#include <atomic>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace tavrinCommon {
namespace process {

using tavrinLog::globalLogging;
using tavrinLog::SeverityLevel;

namespace {

constexpr int kOrigin = DefaultOrigins::Firmware;
// Not defined by older <sys/wait.h>; the kernel has it since 5.4.
constexpr idtype_t kPidfdIdType = static_cast<idtype_t>(3);

using PidfdSpawnFunction = int (*)(int*, const char*, const posix_spawn_file_actions_t*,
                                   const posix_spawnattr_t*, char* const*, char* const*);
using PidfdGetpidFunction = pid_t (*)(int);

struct PidfdCalls {
  PidfdSpawnFunction spawn = nullptr;
  PidfdGetpidFunction getpid = nullptr;
  bool available() const { return spawn != nullptr && getpid != nullptr; }
};

// Looked up at run time: the firmware runs on C libraries with and without them, and a library
// built against headers that lack them must still use them where they exist.
const PidfdCalls& pidfdCalls() {
  static const PidfdCalls calls = [] {
    PidfdCalls found;
    found.spawn = reinterpret_cast<PidfdSpawnFunction>(dlsym(RTLD_DEFAULT, "pidfd_spawn"));
    found.getpid = reinterpret_cast<PidfdGetpidFunction>(dlsym(RTLD_DEFAULT, "pidfd_getpid"));
    return found;
  }();
  return calls;
}

// Set once pidfd_spawn has failed for want of kernel support; from then on posix_spawn is used.
std::atomic<bool> pidfdSpawnUnsupported{false};

// Starts the child through pidfd_spawn. 0 with pid and pidfd set, or an error number;
// `started` tells whether pidfd_spawn itself succeeded (a child ran, even if it failed later).
int spawnWithPidfd(const PidfdCalls& calls, const std::string& program,
                   const posix_spawn_file_actions_t* actions, const posix_spawnattr_t* attributes,
                   char* const* argv, char* const* envp, int& pid, int& pidfd, bool& started) {
  int error = calls.spawn(&pidfd, program.c_str(), actions, attributes, argv, envp);
  started = error == 0;
  if (error != 0) return error;
  pid = calls.getpid(pidfd);
  if (pid != -1) return 0;
  // The child runs but cannot be named by pid: end and reap it through the pidfd rather than
  // leave it behind.
  error = errno;
  internal::pidfdSendSignal(pidfd, SIGKILL);
  siginfo_t info{};
  waitid(kPidfdIdType, static_cast<id_t>(pidfd), &info, WEXITED);
  ::close(pidfd);
  pidfd = -1;
  return error;
}

std::string joinArguments(const std::vector<std::string>& arguments) {
  std::string joined;
  for (const std::string& argument : arguments) {
    joined += ' ';
    joined += argument;
  }
  return joined;
}

}  // namespace

Command::StdioType Command::StdioData::toType(Stdio stdio) {
  switch (stdio) {
    case Stdio::Inherit:
      return StdioType::Inherit;
    case Stdio::Null:
      return StdioType::Null;
    case Stdio::Piped:
      return StdioType::Piped;
  }
  assert(!"invalid process::Stdio value");
  std::abort();  // also in builds without assertions
}

Command::PosixSpawnFileActions::PosixSpawnFileActions(PosixSpawnFileActions&& other) noexcept
    : actions(other.actions),
      initialised(std::exchange(other.initialised, false)),
      stdinInfo(std::move(other.stdinInfo)),
      stdoutInfo(std::move(other.stdoutInfo)),
      stderrInfo(std::move(other.stderrInfo)) {}

Command::PosixSpawnFileActions::~PosixSpawnFileActions() {
  if (initialised) {
    int error = posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
      TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Warning,
                 "Cannot destroy posix spawn actions. This may leak memory. %s (%d)",
                 std::strerror(error), error);
    }
  }
  // The FdInfo members close what they still hold as they are destroyed.
}

int Command::PosixSpawnFileActions::init() {
  int error = posix_spawn_file_actions_init(&actions);
  initialised = error == 0;
  return error;
}

Command::FdInfo Command::PosixSpawnFileActions::makePipeInfo(posix_spawn_file_actions_t* actions,
                                                             int childFd, bool input) {
  FdInfo info;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    info.error = errno;
    TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Warning,
               "Cannot set up redirection for child fd %d. Failed create pipe with %s (%d).",
               childFd, std::strerror(info.error), info.error);
    return info;
  }
  // fds[0] is the read end: the child reads its input from it, the parent its output.
  info.childFd.emplace(input ? fds[0] : fds[1]);
  info.parentFd.emplace(input ? fds[1] : fds[0]);
  info.error = posix_spawn_file_actions_adddup2(actions, info.childFd->get(), childFd);
  return info;
}

Command::FdInfo Command::PosixSpawnFileActions::makeNullInfo(posix_spawn_file_actions_t* actions,
                                                             int childFd, bool input) {
  FdInfo info;
  int fd = ::open(DEV_NULL, (input ? O_RDONLY : O_WRONLY) | O_CLOEXEC);
  if (fd < 0) {
    info.error = errno;
    TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Warning,
               "Cannot set up redirection for child fd %d to null device. Failed open %s with %s "
               "(%d).",
               childFd, DEV_NULL, std::strerror(info.error), info.error);
    return info;
  }
  info.childFd.emplace(fd);
  info.error = posix_spawn_file_actions_adddup2(actions, fd, childFd);
  return info;
}

Command::FdInfo Command::PosixSpawnFileActions::makeFdInfo(posix_spawn_file_actions_t* actions,
                                                           int childFd, SafeFileDescriptor& fd) {
  FdInfo info;
  if (!fd.valid()) {
    TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Warning,
               "Cannot set up file redirection for child fd %d. Received invalid file "
               "descriptor.",
               childFd);
    info.error = EBADF;
    return info;
  }
  // Close-on-exec keeps the caller's descriptor out of the child under its own number; the
  // duplicate onto 0, 1 or 2 does not inherit the flag.
  if (fcntl(fd.get(), F_SETFD, FD_CLOEXEC) != 0) {
    info.error = errno;
    TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Warning,
               "Cannot set up file redirection for child fd %d. Setting CLOEXEC flag failed for "
               "fd %d with %s (%d)",
               childFd, fd.get(), std::strerror(info.error), info.error);
    return info;
  }
  info.error = posix_spawn_file_actions_adddup2(actions, fd.get(), childFd);
  info.childFd.emplace(std::move(fd));
  return info;
}

Command::FdInfo Command::PosixSpawnFileActions::setupFd(posix_spawn_file_actions_t* actions,
                                                        StdioData& stdio, int childFd, bool input) {
  switch (stdio.type) {
    case StdioType::Inherit:
      return FdInfo();
    case StdioType::Null:
      return makeNullInfo(actions, childFd, input);
    case StdioType::Piped:
      return makePipeInfo(actions, childFd, input);
    case StdioType::Fd: {
      if (!stdio.fd) stdio.fd.emplace(-1);
      return makeFdInfo(actions, childFd, *stdio.fd);
    }
  }
  FdInfo info;
  info.error = EINVAL;
  return info;
}

Command::PosixSpawnAttributes::~PosixSpawnAttributes() {
  if (!initialised) return;
  int error = posix_spawnattr_destroy(&attributes);
  if (error != 0) {
    TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Warning,
               "Cannot destroy posix spawn attributes. This may leak memory. %s (%d)",
               std::strerror(error), error);
  }
}

int Command::PosixSpawnAttributes::init() {
  int error = posix_spawnattr_init(&attributes);
  initialised = error == 0;
  if (error != 0) return error;
  return posix_spawnattr_setflags(&attributes, 0);
}

Command& Command::args(const std::vector<std::string>& arguments_) {
  arguments = arguments_;
  return *this;
}

Command& Command::env(const std::unordered_map<std::string, std::string>& environment_) {
  environment = environment_;
  return *this;
}

Command& Command::currentDir(std::string&& directory) {
  workingDirectory = std::move(directory);
  return *this;
}

Command& Command::stdin(Stdio stdio) {
  stdinData = StdioData(stdio);
  return *this;
}

Command& Command::stdin(SafeFileDescriptor&& fd) {
  stdinData = StdioData(std::move(fd));
  return *this;
}

Command& Command::stdout(Stdio stdio) {
  stdoutData = StdioData(stdio);
  return *this;
}

Command& Command::stdout(SafeFileDescriptor&& fd) {
  stdoutData = StdioData(std::move(fd));
  return *this;
}

Command& Command::stderr(Stdio stdio) {
  stderrData = StdioData(stdio);
  return *this;
}

Command& Command::stderr(SafeFileDescriptor&& fd) {
  stderrData = StdioData(std::move(fd));
  return *this;
}

Command& Command::processGroup(bool own) {
  ownProcessGroup = own;
  return *this;
}

std::vector<char*> Command::prepareArgp() const {
  std::vector<char*> argp;
  argp.reserve(arguments.size() + 2);
  // posix_spawn takes char* const[] but never writes through the pointers.
  argp.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& argument : arguments) argp.push_back(const_cast<char*>(argument.c_str()));
  argp.push_back(nullptr);
  return argp;
}

std::vector<char*> Command::prepareEnvp(std::vector<std::string>& storage) const {
  std::vector<char*> envp;
  if (environment) {
    storage.reserve(storage.size() + environment->size());
    for (const auto& entry : *environment) storage.push_back(entry.first + '=' + entry.second);
  } else {
    size_t count = 0;
    for (char** variable = environ; variable && *variable; ++variable) ++count;
    storage.reserve(storage.size() + count);
    for (char** variable = environ; variable && *variable; ++variable)
      storage.emplace_back(*variable);
  }
  envp.reserve(storage.size() + 1);
  for (std::string& variable : storage) envp.push_back(&variable[0]);
  envp.push_back(nullptr);
  return envp;
}

std::optional<Process> Command::spawn() {
  PosixSpawnAttributes attributes;
  int error = attributes.init();
  if (error == 0 && ownProcessGroup) {
    error = posix_spawnattr_setpgroup(&attributes.attributes, 0);
    if (error == 0) error = posix_spawnattr_setflags(&attributes.attributes, POSIX_SPAWN_SETPGROUP);
  }
  if (error != 0) {
    errno = error;
    return std::nullopt;
  }
  PosixSpawnFileActions fileActions;
  error = fileActions.init();
  if (error == 0 && workingDirectory) {
    error = posix_spawn_file_actions_addchdir_np(&fileActions.actions, workingDirectory->c_str());
  }
  if (error != 0) {
    errno = error;
    return std::nullopt;
  }
  fileActions.stdinInfo = PosixSpawnFileActions::setupFd(&fileActions.actions, stdinData, 0, true);
  if (fileActions.stdinInfo.error != 0) {
    errno = fileActions.stdinInfo.error;
    return std::nullopt;
  }
  fileActions.stdoutInfo =
      PosixSpawnFileActions::setupFd(&fileActions.actions, stdoutData, 1, false);
  if (fileActions.stdoutInfo.error != 0) {
    errno = fileActions.stdoutInfo.error;
    return std::nullopt;
  }
  fileActions.stderrInfo =
      PosixSpawnFileActions::setupFd(&fileActions.actions, stderrData, 2, false);
  if (fileActions.stderrInfo.error != 0) {
    errno = fileActions.stderrInfo.error;
    return std::nullopt;
  }

  std::vector<char*> argp = prepareArgp();
  std::vector<std::string> envStorage;
  std::vector<char*> envp = prepareEnvp(envStorage);

  int pid = -1;
  int pidfd = -1;
  bool spawned = false;
  const PidfdCalls& pidfd_ = pidfdCalls();
  if (pidfd_.available() && !pidfdSpawnUnsupported.load(std::memory_order_relaxed)) {
    bool started = false;
    error = spawnWithPidfd(pidfd_, program, &fileActions.actions, &attributes.attributes,
                           argp.data(), envp.data(), pid, pidfd, started);
    if (!started && (error == ENOSYS || error == EINVAL)) {
      if (!pidfdSpawnUnsupported.exchange(true)) {
        TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Warning,
                   "pidfd_spawn failed with %s (%d). Spawning with posix_spawn from now on; "
                   "children have no pidfd.",
                   std::strerror(error), error);
      }
    } else if (error != 0) {
      errno = error;
      return std::nullopt;
    } else {
      spawned = true;
    }
  }
  if (!spawned) {
    error = posix_spawn(&pid, program.c_str(), &fileActions.actions, &attributes.attributes,
                        argp.data(), envp.data());
    if (error != 0) {
      errno = error;
      return std::nullopt;
    }
    pidfd = pidFdOpen(pid);
    if (pidfd == -1 && errno != ENODEV) {
      error = errno;
      ::kill(pid, SIGKILL);
      siginfo_t info{};
      waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED);
      errno = error;
      return std::nullopt;
    }
  }

  // The child puts itself into its group before exec; this closes the window where the C library
  // returns before that (a spawn emulated by fork does), so that signalling the group at once
  // reaches it. After the exec it fails harmlessly with EACCES.
  if (ownProcessGroup) setpgid(pid, pid);

  TAVRIN_LOG(globalLogging.get(), kOrigin, SeverityLevel::Debug,
             "Spawned process '%s%s' with pid %d and pidfd %d", program.c_str(),
             joinArguments(arguments).c_str(), pid, pidfd);
  return std::optional<Process>(
      std::in_place, pid, pidfd,
      IoFds{std::move(fileActions.stdinInfo.parentFd), std::move(fileActions.stdoutInfo.parentFd),
            std::move(fileActions.stderrInfo.parentFd)},
      ownProcessGroup);
}

std::optional<ProcessOutput> Command::runSync(
    const std::optional<std::chrono::milliseconds>& limit) {
  std::optional<Process> process = spawn();
  if (!process) return std::nullopt;
  process->stdin().reset();
  return process->waitWithOutput(limit);
}

int Command::pidFdOpen(int) {
  errno = ENODEV;
  return -1;
}

}  // namespace process
}  // namespace tavrinCommon
