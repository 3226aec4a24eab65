// Test helpers for real sockets: waiting for readiness, and finding out whether this machine
// delivers multicast on interface lo at all before a multicast test relies on it.
#pragma once

#include "tavrincommon/network/SimpleIp.h"

namespace tavrinTesting {

// Polls `fd` for `events`; true when they are ready within `ms`.
bool waitFor(int fd, short events, int ms = 5000);

// Answered with plain system calls, so that a fault of the classes under test is never taken
// for a missing capability: a socket bound to 127.0.0.1 with TTL 0 sends to `group`:`port`.
bool loopbackDeliversMulticast(const tavrinNetwork::SimpleIp& group, unsigned short port);

}  // namespace tavrinTesting
