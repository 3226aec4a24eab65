#include "tavrincommon/network/LocalIPAddressWatcher.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
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
  for (const auto& name : interfaceNames) interfaces.push_back({name, NO_IP, NO_IP});
  // A start without stop reopens the socket: the registration of the old descriptor must go.
  if (scheduler && ioHandle) scheduler->removeIOItem(ioHandle);
  if (!netlink.open(NETLINK_ROUTE, RTMGRP_IPV4_IFADDR)) {
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
  if (!netlink.receive()) return tavrinScheduler::IOWatchItem::Unchanged;
  while (netlink.receive()) {
  }
  resolveAllInterfaces();
  return tavrinScheduler::IOWatchItem::Unchanged;
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
        ip = address;
        mask = addressOf(entry->ifa_netmask);
        break;
      }
    }
    freeifaddrs(list);
  }
  if (ip == iface.ip && mask == iface.mask) return false;
  iface.ip = ip;
  iface.mask = mask;
  TAVRIN_LOG(logging, DefaultOrigins::NetworkService, SeverityLevel::Debug,
             "resolveIP IF '%s': %s (netmask %s)", iface.name.c_str(),
             SimpleIp::CharString(ip).c_str(), SimpleIp::CharString(mask).c_str());
  return true;
}

}  // namespace tavrinNetwork
