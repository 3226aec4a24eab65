// Helpers for the calling thread's kernel id and scheduling priority. Stateless; any thread.
#pragma once

namespace tavrinCommon {

class ThreadHelper {
 public:
  // The kernel thread id of the caller.
  static int getRunningThreadId();
  // Sets the calling thread's nice value; returns setpriority's result (0, or -1 with errno).
  static int setRunningThreadPriority(int nice);
};

}  // namespace tavrinCommon
