// Routes POSIX signals to functions that run in normal context: the installed process-level
// handler only records the signal number, and mainLoopSignalCheck(), called once per loop turn,
// runs the registered function. One pending signal per process, shared by all objects; a later
// signal replaces an unchecked one. Use from the application's main thread.
#pragma once

#include <functional>
#include <map>

namespace tavrinCommon {

class SignalHandler {
 public:
  SignalHandler() = default;
  // Gives every signal it registered back its default disposition.
  ~SignalHandler();
  SignalHandler(const SignalHandler&) = delete;
  SignalHandler& operator=(const SignalHandler&) = delete;

  // Installs the recording handler for a new signal; for a known one only replaces the function.
  void addSignal(int signalNumber, std::function<void()> function);
  // Default disposition again, entry removed; nothing for an unknown signal.
  void removeSignal(int signalNumber);
  void clear();
  // Runs the function of the pending signal, if any; an unregistered pending signal is dropped.
  void mainLoopSignalCheck();

 private:
  std::map<int, std::function<void()>> signals;
};

}  // namespace tavrinCommon
