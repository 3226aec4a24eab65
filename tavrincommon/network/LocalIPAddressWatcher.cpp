#include "tavrincommon/network/LocalIPAddressWatcher.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace tavrinNetwork {

using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;

const SimpleIp LocalIPAddressWatcher::NO_IP(SimpleIp::kNoIp);

namespace {

SimpleIp addressOf(const sockaddr* address) {
  if (!address || address->sa_family != AF_INET) return LocalIPAddressWatcher::NO_IP;
  sockaddr_in ipv4;
  std::memcpy(&ipv4, address, sizeof ipv4);
  return SimpleIp(static_cast<uint32_t>(ipv4.sin_addr.s_addr));
}

// The index and name of the interface that a removal notification (its payload after the
// netlink header, possibly cut) reports; false when it is not an interface's removal.
bool removedInterface(const char* payload, size_t length, int& index, std::string& name) {
  ifinfomsg info;
  if (length < sizeof info) return false;
  std::memcpy(&info, payload, sizeof info);
  // A bridge reports a port that leaves it as a removal of family AF_BRIDGE; the port stays.
  if (info.ifi_family != AF_UNSPEC) return false;
  index = info.ifi_index;
  for (size_t at = NLMSG_ALIGN(sizeof info); at + sizeof(rtattr) <= length;) {
    rtattr attribute;
    std::memcpy(&attribute, payload + at, sizeof attribute);
    if (attribute.rta_len < sizeof attribute || at + attribute.rta_len > length) break;
    if (attribute.rta_type == IFLA_IFNAME) {
      const char* text = payload + at + RTA_LENGTH(0);
      name.assign(text, strnlen(text, attribute.rta_len - RTA_LENGTH(0)));
      break;
    }
    at += RTA_ALIGN(attribute.rta_len);
  }
  return true;
}

}  // namespace

LocalIPAddressWatcher::LocalIPAddressWatcher(tavrinScheduler::Scheduler* scheduler_,
                                             tavrinLog::TavrinLogging* logging_)
    : logging(logging_),
      scheduler(scheduler_),
      ipChangedCallback([](int, const SimpleIp&, const SimpleIp&) {}) {}

LocalIPAddressWatcher::~LocalIPAddressWatcher() { stop(); }

void LocalIPAddressWatcher::setIpChangedCallback(IpChangedCallback callback) {
  ipChangedCallback = callback ? std::move(callback)
                               : IpChangedCallback([](int, const SimpleIp&, const SimpleIp&) {});
}

bool LocalIPAddressWatcher::start(const std::vector<std::string>& interfaceNames) {
  for (const auto& name : interfaceNames) interfaces.push_back({name, NO_IP, NO_IP, 0, false});
  // A start without stop reopens the socket: the registration of the old descriptor must go.
  if (scheduler && ioHandle) scheduler->removeIOItem(ioHandle);
  // Links too: taking an interface down or removing it leaves its addresses unreported.
  if (!netlink.open(NETLINK_ROUTE, RTMGRP_IPV4_IFADDR | RTMGRP_LINK)) {
    const int error = errno;
    TAVRIN_LOG(logging, DefaultOrigins::NetworkService, SeverityLevel::Error,
               "Could not open netlink socket: %s (%d)", std::strerror(error), error);
    return false;
  }
  if (!netlink.setNonblock()) {
    const int error = errno;
    TAVRIN_LOG(logging, DefaultOrigins::NetworkService, SeverityLevel::Error,
               "Could not set netlink socket to nonblock (%s (%d))", std::strerror(error), error);
    netlink.close();
    return false;
  }
  if (scheduler) {
    tavrinScheduler::IOWatchItem item;
    item.fd = netlink.getFd();
    item.events = EPOLLIN;
    item.callback = [this](int events) { return netlinkEvent(events); };
    ioHandle = scheduler->addIOItem(item, DefaultOrigins::NetworkService);
  }
  for (auto& iface : interfaces) resolveIP(iface);
  return true;
}

void LocalIPAddressWatcher::stop() {
  if (scheduler && ioHandle) scheduler->removeIOItem(ioHandle);
  ioHandle.clear();
  netlink.close();
  interfaces.clear();
}

const SimpleIp& LocalIPAddressWatcher::getIP(int index) const {
  if (index < 0 || static_cast<size_t>(index) >= interfaces.size()) return NO_IP;
  return interfaces[static_cast<size_t>(index)].ip;
}

const SimpleIp& LocalIPAddressWatcher::getMask(int index) const {
  if (index < 0 || static_cast<size_t>(index) >= interfaces.size()) return NO_IP;
  return interfaces[static_cast<size_t>(index)].mask;
}

tavrinScheduler::IOWatchItem::Result LocalIPAddressWatcher::netlinkEvent(int) {
  bool notified = false;
  for (;;) {
    const int length = netlink.receive(receiveBuffer, static_cast<int>(sizeof receiveBuffer));
    if (length >= 0) {
      notified = true;
      noteRemovedInterfaces(receiveBuffer, length);
    } else if (errno == ENOBUFS) {
      // The kernel's queue overflowed and notifications were lost: something changed all the
      // same, and a lost removal still shows as another interface index.
      notified = true;
    } else {
      break;
    }
  }
  if (notified) resolveAllInterfaces();
  return tavrinScheduler::IOWatchItem::Unchanged;
}

void LocalIPAddressWatcher::noteRemovedInterfaces(const char* messages, int length) {
  const size_t total = static_cast<size_t>(length);
  size_t offset = 0;
  while (offset + sizeof(nlmsghdr) <= total) {
    nlmsghdr header;
    std::memcpy(&header, messages + offset, sizeof header);
    if (header.nlmsg_len < sizeof header) break;
    int index = 0;
    std::string name;
    const size_t end = std::min(total, offset + header.nlmsg_len);
    if (header.nlmsg_type == RTM_DELLINK &&
        removedInterface(messages + offset + NLMSG_HDRLEN, end - offset - NLMSG_HDRLEN, index,
                         name)) {
      for (auto& iface : interfaces) {
        if (iface.name == name ||
            (iface.ifIndex != 0 && iface.ifIndex == static_cast<unsigned>(index)))
          iface.removed = true;
      }
    }
    offset += NLMSG_ALIGN(header.nlmsg_len);
  }
}

void LocalIPAddressWatcher::resolveAllInterfaces() {
  // Indexed, and the list looked at again after each call: the callback may stop (emptying the
  // list), start again (adding to it) or destroy the watcher.
  tavrinCommon::LivenessToken::Watch alive(liveness);
  for (size_t i = 0; alive && i < interfaces.size(); ++i) {
    if (resolveIP(interfaces[i])) {
      const SimpleIp ip = interfaces[i].ip;
      const SimpleIp mask = interfaces[i].mask;
      ipChangedCallback(static_cast<int>(i), ip, mask);
    }
  }
}

bool LocalIPAddressWatcher::resolveIP(SingleInterface& iface) {
  SimpleIp ip = NO_IP;
  SimpleIp mask = NO_IP;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    TAVRIN_LOG(logging, DefaultOrigins::NetworkService, SeverityLevel::Error,
               "%s has no valid IP setting!", iface.name.c_str());
  } else {
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
      if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET) continue;
      const SimpleIp address = addressOf(entry->ifa_addr);
      TAVRIN_LOG(logging, DefaultOrigins::NetworkService, SeverityLevel::Debug, "ip if: %s -> %s",
                 entry->ifa_name, SimpleIp::CharString(address).c_str());
      if (entry->ifa_name && iface.name == entry->ifa_name) {
        // A down interface keeps its addresses configured, but nothing can use them.
        if ((entry->ifa_flags & IFF_UP) != 0) {
          ip = address;
          mask = addressOf(entry->ifa_netmask);
        }
        break;
      }
    }
    freeifaddrs(list);
  }
  const unsigned index = if_nametoindex(iface.name.c_str());
  const bool recreated =
      ip != NO_IP && (iface.removed || (iface.ifIndex != 0 && index != iface.ifIndex));
  iface.removed = false;
  iface.ifIndex = index;
  if (ip == iface.ip && mask == iface.mask && !recreated) return false;
  iface.ip = ip;
  iface.mask = mask;
  TAVRIN_LOG(logging, DefaultOrigins::NetworkService, SeverityLevel::Debug,
             "resolveIP IF '%s': %s (netmask %s)%s", iface.name.c_str(),
             SimpleIp::CharString(ip).c_str(), SimpleIp::CharString(mask).c_str(),
             recreated ? ", interface re-created" : "");
  return true;
}

}  // namespace tavrinNetwork
