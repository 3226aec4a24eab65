// Keeps the IPv4 address and netmask of named network interfaces and reports every change through
// one callback. Listens to the kernel's address notifications on a route netlink socket watched
// by the scheduler, and re-reads all addresses on each burst of them. Keeps, never owns, the
// scheduler and the logging object. Everything, callback included, runs on the loop thread.
#pragma once

#include "tavrincommon/common/CallbackSlot.h"
#include "tavrincommon/common/LivenessToken.h"
#include "tavrincommon/network/NetlinkSocket.h"
#include "tavrincommon/network/SimpleIp.h"
#include "tavrincommon/scheduler/IOWatchItem.h"

#include <functional>
#include <string>
#include <vector>

namespace tavrinLog {
class TavrinLogging;
}
namespace tavrinScheduler {
class Scheduler;
}

namespace tavrinNetwork {

class LocalIPAddressWatcher {
 public:
  // Index in the list given to start, then the new address and mask (NO_IP for none).
  using IpChangedCallback = std::function<void(int index, const SimpleIp& ip, const SimpleIp& mask)>;

  struct SingleInterface {
    std::string name;
    SimpleIp ip;
    SimpleIp mask;
  };

  // No address (255.255.255.255).
  static const SimpleIp NO_IP;

  LocalIPAddressWatcher(tavrinScheduler::Scheduler* scheduler, tavrinLog::TavrinLogging* logging);
  ~LocalIPAddressWatcher();
  LocalIPAddressWatcher(const LocalIPAddressWatcher&) = delete;
  LocalIPAddressWatcher& operator=(const LocalIPAddressWatcher&) = delete;

  // Adds the interfaces (without clearing earlier ones: restart is stop, then start), subscribes
  // to address changes and reads the initial values without calling the callback. Fails only
  // when the netlink socket cannot be set up.
  bool start(const std::vector<std::string>& interfaceNames);
  // Unsubscribes and forgets the interfaces.
  void stop();
  // An empty function is replaced by one that does nothing. Also from inside the callback, which
  // may as well stop or destroy the watcher: the new one is told of the next change.
  void setIpChangedCallback(IpChangedCallback callback);

  // NO_IP for an index outside the list.
  const SimpleIp& getIP(int index) const;
  const SimpleIp& getMask(int index) const;

  // Reads the interface's first IPv4 address and mask; true when either changed.
  bool resolveIP(SingleInterface& iface);
  // Calls the callback for each interface whose values changed, in list order.
  void resolveAllInterfaces();
  // The netlink socket's IO callback: drains every pending notification, then re-reads once.
  tavrinScheduler::IOWatchItem::Result netlinkEvent(int events);

 private:
  tavrinLog::TavrinLogging* logging;
  tavrinScheduler::Scheduler* scheduler;
  // Shared_ptr-held, so that the callback may replace itself while it runs.
  tavrinCommon::CallbackSlot<IpChangedCallback> ipChangedCallback;
  std::vector<SingleInterface> interfaces;
  NetlinkSocket netlink;
  tavrinScheduler::IOWatchHandle ioHandle;
  tavrinCommon::LivenessToken liveness;
};

}  // namespace tavrinNetwork
