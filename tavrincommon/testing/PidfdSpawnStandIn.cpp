// Test helper: pidfd_spawn and pidfd_getpid for C libraries that lack them, built on posix_spawn
// and the pidfd_open system call. A test program that links this file with exported symbols
// (ENABLE_EXPORTS) makes the library's run-time lookup find them, so the pidfd path of process
// spawning runs on such systems too. With TAVRIN_TEST_PIDFD_SPAWN_ERROR set to an error number,
// pidfd_spawn fails with it and starts nothing, as the C library does on a kernel that lacks what
// it needs (ENOSYS). Not part of the library.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {

int pidfd_spawn(int* pidfd, const char* path, const posix_spawn_file_actions_t* fileActions,
                const posix_spawnattr_t* attributes, char* const argv[], char* const envp[]) {
  if (const char* forced = std::getenv("TAVRIN_TEST_PIDFD_SPAWN_ERROR")) return std::atoi(forced);
  pid_t pid = -1;
  int error = posix_spawn(&pid, path, fileActions, attributes, argv, envp);
  if (error != 0) return error;
  // Nobody else reaps this child, so the pid still names it here.
  int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (fd < 0) {
    error = errno;
    kill(pid, SIGKILL);
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED);
    return error;
  }
  *pidfd = fd;
  return 0;
}

// The "Pid:" line of the descriptor's fdinfo: the pid, or -1 once the child has been reaped.
pid_t pidfd_getpid(int pidfd) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/self/fdinfo/%d", pidfd);
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  char text[1024];
  ssize_t length = read(fd, text, sizeof text - 1);
  close(fd);
  if (length <= 0) {
    errno = EBADF;
    return -1;
  }
  text[length] = '\0';
  const char* line = std::strstr(text, "\nPid:");
  if (!line) {
    errno = EBADF;  // not a pidfd
    return -1;
  }
  int pid = -1;
  if (std::sscanf(line + 5, "%d", &pid) != 1 || pid <= 0) {
    errno = ESRCH;
    return -1;
  }
  return pid;
}

}  // extern "C"
