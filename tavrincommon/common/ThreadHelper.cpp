#include "tavrincommon/common/ThreadHelper.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tavrinCommon {

int ThreadHelper::getRunningThreadId() { return static_cast<int>(::syscall(SYS_gettid)); }

int ThreadHelper::setRunningThreadPriority(int nice) {
  // On Linux PRIO_PROCESS with a thread id sets the priority of that thread alone.
  return ::setpriority(PRIO_PROCESS, static_cast<id_t>(getRunningThreadId()), nice);
}

}  // namespace tavrinCommon
