// The announce objects' log lines: ANNOUNCE_LOG for their own, ANNOUNCE_PEER_LOG (rate-limited
// per text) for lines that a datagram or a peer's payload causes, as often as a peer likes. Both
// expect the members `logger` and, for the second, `logLimiter`.
#pragma once

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/LogRateLimiter.h"
#include "tavrincommon/log/TavrinLogging.h"

#define ANNOUNCE_LOG(severity, ...)                              \
  TAVRIN_LOG(logger, ::tavrinCommon::DefaultOrigins::MCAnnounce, \
             ::tavrinLog::SeverityLevel::severity, __VA_ARGS__)
#define ANNOUNCE_PEER_LOG(severity, ...)                                             \
  TAVRIN_LOG_LIMITED(logLimiter, logger, ::tavrinCommon::DefaultOrigins::MCAnnounce, \
                     ::tavrinLog::SeverityLevel::severity, __VA_ARGS__)
