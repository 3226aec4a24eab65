// Signals a process through its pidfd. Stateless; any thread.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

namespace tavrinCommon {
namespace process {
namespace internal {

#ifdef SYS_pidfd_send_signal
constexpr long kPidfdSendSignal = SYS_pidfd_send_signal;
#else
constexpr long kPidfdSendSignal = 424;  // the same number on every architecture since Linux 5.1
#endif

// 0, or -1 with errno (ENOSYS on kernels older than 5.1).
inline int pidfdSendSignal(int pidfd, int signal) {
  return static_cast<int>(syscall(kPidfdSendSignal, pidfd, signal, nullptr, 0));
}

}  // namespace internal
}  // namespace process
}  // namespace tavrinCommon
