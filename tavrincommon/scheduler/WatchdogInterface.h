// The hook by which an application plugs a hardware or software watchdog into the loop: run()
// feeds it before and after every IO wait and never sleeps longer than its reset time. Owned by
// the scheduler; called on the loop thread.
#pragma once

namespace tavrinScheduler {

class WatchdogInterface {
 public:
  static constexpr int kDefaultResetTimeoutMs = 10000;

  virtual ~WatchdogInterface() = default;
  // Feeds the watchdog.
  virtual void reset() = 0;
  // reset() must be called again within this many milliseconds.
  virtual int getResetTimeoutMs() const { return kDefaultResetTimeoutMs; }
  // Configures the watchdog; the flags mean what the concrete watchdog says they mean.
  virtual void setup(bool first, bool second) = 0;
};

// The watchdog of a scheduler that has none: does nothing.
class FakeWatchdog : public WatchdogInterface {
 public:
  void reset() override {}
  int getResetTimeoutMs() const override { return WatchdogInterface::getResetTimeoutMs(); }
  void setup(bool, bool) override {}
};

}  // namespace tavrinScheduler
