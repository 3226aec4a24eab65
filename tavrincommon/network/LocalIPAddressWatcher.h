// Keeps the IPv4 address and netmask of named network interfaces and reports every change through
// one callback. Listens to the kernel's address and link notifications on a route netlink socket
// watched by the scheduler, and re-reads all addresses on each burst of them. An interface that is
// missing or down (not IFF_UP; a lost carrier keeps the address) has no address. An interface
// that was removed and created again (a USB adapter plugged back, a bridge re-created) is
// reported even when it comes back with the same address: sockets bound to the old one no longer
// work and must be opened again. Keeps, never owns, the scheduler and the logging object.
// Everything, callback included, runs on the loop thread.
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
  // Index in the list given to start, then the new address and mask (NO_IP for none). Called
  // once per burst of notifications for each interface whose address or mask changed, which went
  // down or away (NO_IP, once) or was re-created (possibly the same values again).
  using IpChangedCallback = std::function<void(int index, const SimpleIp& ip, const SimpleIp& mask)>;

  struct SingleInterface {
    std::string name;
    SimpleIp ip;
    SimpleIp mask;
    // The kernel's index of the interface when last read; 0 when it was missing.
    unsigned ifIndex;
    // A removal of the interface was notified since it was last read.
    bool removed;
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

  // Reads the interface's first IPv4 address and mask (NO_IP when it is missing or down); true
  // when either changed, or when the interface has an address and was re-created since the last
  // reading (another index, or a notified removal).
  bool resolveIP(SingleInterface& iface);
  // Calls the callback for each interface whose values changed, in list order.
  void resolveAllInterfaces();
  // The netlink socket's IO callback: drains every pending notification, noting removed
  // interfaces, then re-reads once.
  tavrinScheduler::IOWatchItem::Result netlinkEvent(int events);

 private:
  // Marks the watched interfaces whose removal one datagram of notifications reports.
  void noteRemovedInterfaces(const char* messages, int length);

  tavrinLog::TavrinLogging* logging;
  tavrinScheduler::Scheduler* scheduler;
  // Shared_ptr-held, so that the callback may replace itself while it runs.
  tavrinCommon::CallbackSlot<IpChangedCallback> ipChangedCallback;
  std::vector<SingleInterface> interfaces;
  NetlinkSocket netlink;
  tavrinScheduler::IOWatchHandle ioHandle;
  tavrinCommon::LivenessToken liveness;
  // One datagram of notifications. A longer one is cut, which keeps what is looked at: the
  // header, the interface index and the name come first.
  char receiveBuffer[4096];
};

}  // namespace tavrinNetwork
