// Describes a program to run (path, arguments, environment, working directory, what each
// standard stream is connected to, whether it gets a process group of its own) and spawns it as a
// Process, with pidfd_spawn where the C library provides it and the kernel supports it, and
// posix_spawn otherwise. A value built and consumed by one thread; spawn takes over the
// descriptors given with Fd. Logs through the process-wide logging object under origin Firmware.
#pragma once

#include "tavrincommon/common/process/Process.h"
#include "tavrincommon/common/process/SafeFileDescriptor.h"
#include "tavrincommon/common/process/Stdio.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include <spawn.h>

namespace tavrinCommon {
namespace process {

class Command {
 public:
  enum class StdioType : int32_t { Inherit = 0, Null = 1, Piped = 2, Fd = 3 };

  struct StdioData {
    StdioData() = default;
    StdioData(Stdio stdio) : type(toType(stdio)) {}  // NOLINT: converting on purpose
    StdioData(SafeFileDescriptor&& fd_) : type(StdioType::Fd), fd(std::move(fd_)) {}  // NOLINT
    // Any value outside the enumeration is a programming error and aborts.
    static StdioType toType(Stdio stdio);

    StdioType type = StdioType::Inherit;
    std::optional<SafeFileDescriptor> fd;  // the caller's descriptor for Fd
  };

  // The result of setting up one child stream.
  struct FdInfo {
    int error = 0;  // 0 or an errno value
    // Duplicated onto 0, 1 or 2 in the child; closed in the parent after spawning.
    std::optional<SafeFileDescriptor> childFd;
    // The pipe end the Process keeps.
    std::optional<SafeFileDescriptor> parentFd;
  };

  // Owns the spawn file actions and the descriptors set up for the child's three streams.
  class PosixSpawnFileActions {
   public:
    PosixSpawnFileActions() = default;
    PosixSpawnFileActions(PosixSpawnFileActions&& other) noexcept;
    PosixSpawnFileActions(const PosixSpawnFileActions&) = delete;
    PosixSpawnFileActions& operator=(const PosixSpawnFileActions&) = delete;
    PosixSpawnFileActions& operator=(PosixSpawnFileActions&&) = delete;
    ~PosixSpawnFileActions();

    // 0 or the error number of posix_spawn_file_actions_init.
    int init();

    static FdInfo makePipeInfo(posix_spawn_file_actions_t* actions, int childFd, bool input);
    static FdInfo makeNullInfo(posix_spawn_file_actions_t* actions, int childFd, bool input);
    static FdInfo makeFdInfo(posix_spawn_file_actions_t* actions, int childFd,
                             SafeFileDescriptor& fd);
    static FdInfo setupFd(posix_spawn_file_actions_t* actions, StdioData& stdio, int childFd,
                          bool input);

    posix_spawn_file_actions_t actions{};
    bool initialised = false;
    FdInfo stdinInfo;
    FdInfo stdoutInfo;
    FdInfo stderrInfo;
  };

  class PosixSpawnAttributes {
   public:
    PosixSpawnAttributes() = default;
    PosixSpawnAttributes(const PosixSpawnAttributes&) = delete;
    PosixSpawnAttributes& operator=(const PosixSpawnAttributes&) = delete;
    ~PosixSpawnAttributes();

    // 0 or the error number of posix_spawnattr_init.
    int init();

    posix_spawnattr_t attributes{};
    bool initialised = false;
  };

  static constexpr const char* DEV_NULL = "/dev/null";

  explicit Command(const char* program_) : program(program_) {}
  explicit Command(const std::string& program_) : program(program_) {}
  explicit Command(std::string&& program_) : program(std::move(program_)) {}

  Command& args(const std::vector<std::string>& arguments_);
  // The child's whole environment: the parent's is not merged in.
  Command& env(const std::unordered_map<std::string, std::string>& environment_);
  Command& currentDir(std::string&& directory);
  // Each replaces the stream's setting; a descriptor held by the previous setting is closed.
  Command& stdin(Stdio stdio);
  Command& stdin(SafeFileDescriptor&& fd);
  Command& stdout(Stdio stdio);
  Command& stdout(SafeFileDescriptor&& fd);
  Command& stderr(Stdio stdio);
  Command& stderr(SafeFileDescriptor&& fd);
  // Off by default: the child stays in the caller's process group, so terminal signals and job
  // control treat it as part of the application (a child in a group of its own that reads an
  // inherited terminal would be stopped). On: the child leads a new group, and stopping or
  // destroying its Process signals the whole group, so what the child started is not left behind.
  Command& processGroup(bool own);

  // The program, each argument, then a null pointer; the pointers point into this command.
  std::vector<char*> prepareArgp() const;
  // "key=value" strings (or copies of the parent's environment) stored in `storage`, then a null
  // pointer.
  std::vector<char*> prepareEnvp(std::vector<std::string>& storage) const;

  // Empty on failure, with errno set where a call reported one. The program is a path: no search
  // along PATH is made. When pidfd_spawn fails with ENOSYS or EINVAL (a C library newer than the
  // kernel), the spawn falls back to posix_spawn, and so does every later one in this process.
  std::optional<Process> spawn();
  // spawn, close a piped stdin, waitWithOutput with `limit`; a child still running when the
  // limit runs out is stopped when the Process is destroyed.
  std::optional<ProcessOutput> runSync(const std::optional<std::chrono::milliseconds>& limit);

  // A pidfd is only obtained from pidfd_spawn: this always fails with ENODEV.
  static int pidFdOpen(int pid);

 private:
  std::string program;
  std::vector<std::string> arguments;
  std::optional<std::unordered_map<std::string, std::string>> environment;
  StdioData stdinData;
  StdioData stdoutData;
  StdioData stderrData;
  std::optional<std::string> workingDirectory;
  bool ownProcessGroup = false;
};

}  // namespace process
}  // namespace tavrinCommon
