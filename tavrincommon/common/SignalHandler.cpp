#include "tavrincommon/common/SignalHandler.h"

#include <atomic>
#include <csignal>
#include <utility>

namespace tavrinCommon {

namespace {

// Lock-free, so that the store in signal context and the exchange on the main thread are safe.
std::atomic<int> pendingSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "the pending signal must be lock-free");

extern "C" void recordSignal(int signalNumber) {
  pendingSignal.store(signalNumber, std::memory_order_relaxed);
}

}  // namespace

SignalHandler::~SignalHandler() { clear(); }

void SignalHandler::addSignal(int signalNumber, std::function<void()> function) {
  if (!function) function = [] {};
  auto it = signals.find(signalNumber);
  if (it != signals.end()) {
    it->second = std::move(function);
    return;
  }
  signals.emplace(signalNumber, std::move(function));
  std::signal(signalNumber, recordSignal);
}

void SignalHandler::removeSignal(int signalNumber) {
  auto it = signals.find(signalNumber);
  if (it == signals.end()) return;
  std::signal(signalNumber, SIG_DFL);
  signals.erase(it);
}

void SignalHandler::clear() {
  for (const auto& entry : signals) std::signal(entry.first, SIG_DFL);
  signals.clear();
}

void SignalHandler::mainLoopSignalCheck() {
  const int signalNumber = pendingSignal.exchange(0, std::memory_order_relaxed);
  if (signalNumber == 0) return;
  auto it = signals.find(signalNumber);
  if (it == signals.end()) return;
  // A copy: the function may remove or replace its own entry.
  const std::function<void()> function = it->second;
  function();
}

}  // namespace tavrinCommon
