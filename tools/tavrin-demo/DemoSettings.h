// The settings of one demo run, from the command line; and the few values both devices must
// agree on. A plain value, copied into each device.
#pragma once

#include "tools/common/ToolSupport.h"

#include "tavrincommon/network/SimpleIp.h"

#include <string>

namespace tavrinDemo {

struct DemoSettings {
  tavrinNetwork::SimpleIp group{"239.255.77.1"};
  unsigned short announcePort = 30300;
  // 0: the system chooses; the announcement tells the slave.
  unsigned short tcpPort = 0;
  tavrinNetwork::SimpleIp bindIp{"127.0.0.1"};
  // Multicast stays on this interface; TTL 0 keeps it on the machine.
  std::string interface = "lo";
  int ttl = 0;
  // Shorter than the library's default, so that a slave started later finds the master soon.
  int announceIntervalMs = 1000;
  unsigned networkId = 1;
  unsigned masterDeviceId = 1001;
  unsigned slaveDeviceId = 1002;
  unsigned clusterId = 7;
  unsigned blocks = 16;
  int timeoutSeconds = 10;
  // Master role alone: 0 runs until SIGINT or SIGTERM.
  int durationSeconds = 0;
  tavrinTools::LogLevels levels{tavrinLog::SeverityLevel::Service};
};

// The master's connector and what it announces under it.
constexpr unsigned kMasterConnectorId = 1;
constexpr unsigned kSlaveConnectorId = 2;
// The test counter is an allowed connection with this id, announced under the same id.
constexpr unsigned kCounterConnectionId = 100;
// SimpleConnector connections get automatic ids; the announcement only tells where to ask.
constexpr unsigned kSimpleAnnouncementId = 1;
constexpr unsigned short kHandlerVersion = 1;
// The master answers every counter value with this much more.
constexpr int kCounterAnswerOffset = 100;
constexpr int kCounterSteps = 5;

}  // namespace tavrinDemo
