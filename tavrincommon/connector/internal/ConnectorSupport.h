// Small helpers shared by the connector's source files: log texts of endpoints, reasons and flags,
// the peer of a TCP connection, deadlines on the monotonic clock and a snapshot of a map's keys
// (for walks that call back into code that may change the map). No state; any thread.
#pragma once

#include "tavrincommon/common/Clock.h"
#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/network/SimpleEndpoint.h"

#include <ctime>
#include <vector>

namespace tavrinConnector {
namespace internal {

inline const char* yesNo(bool value) { return value ? "yes" : "no"; }

inline tavrinNetwork::SimpleEndpoint::CharString text(
    const tavrinNetwork::SimpleEndpoint& endpoint) {
  return tavrinNetwork::SimpleEndpoint::CharString(endpoint);
}

// A reason as log lines print it: positive codes belong to the application, 0 is no reason.
inline const char* reasonText(int reason) {
  if (reason > 0) return "application reason";
  if (reason == 0) return "no reason";
  return DisconnectReason::getText(long{reason});
}

inline const tavrinNetwork::SimpleEndpoint& peerOf(const SingleTCPConnectionEndpoint& connection) {
  return connection.getTransceiver().getEndpoint();
}

inline timespec later(timespec t, long long ms) {
  long long ns = static_cast<long long>(t.tv_nsec) + (ms % 1000) * 1000000;
  t.tv_sec += static_cast<time_t>(ms / 1000 + ns / 1000000000);
  t.tv_nsec = static_cast<long>(ns % 1000000000);
  return t;
}

inline timespec monotonicIn(long long ms) {
  using tavrinCommon::system::Clock;
  return later(Clock::getTime(Clock::Monotonic), ms);
}

inline bool reached(const timespec& deadline) {
  using tavrinCommon::system::Clock;
  const timespec now = Clock::getTime(Clock::Monotonic);
  return now.tv_sec > deadline.tv_sec ||
         (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec);
}

template <typename Map>
std::vector<typename Map::key_type> keysOf(const Map& map) {
  std::vector<typename Map::key_type> keys;
  keys.reserve(map.size());
  for (const auto& entry : map) keys.push_back(entry.first);
  return keys;
}

}  // namespace internal
}  // namespace tavrinConnector
