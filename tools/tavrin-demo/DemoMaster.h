// The demo's master device: a TCP connector master with an automatic SimpleConnector range and an
// allowed test counter connection, announced on the multicast group. It echoes every block it
// receives and answers every counter value. Lives on one thread with its own Scheduler: create,
// drive and destroy it there.
#pragma once

#include "tools/tavrin-demo/DemoSettings.h"

#include "tavrincommon/connector/MCAnnounceMaster.h"
#include "tavrincommon/connector/TCPConnectorMaster.h"
#include "tavrincommon/connector/TestCounterData.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <map>
#include <string>

namespace tavrinConnector::simpleConnector {
class SimpleConnectorHandler;
}

namespace tavrinDemo {

class DemoMaster {
 public:
  DemoMaster(const DemoSettings& settings_, tavrinTools::LineWriter& writer_);
  ~DemoMaster();

  // Listens and announces; false (with failure() set) when either cannot start.
  bool start();
  void turn(int timeoutMs) { scheduler.run(timeoutMs); }
  // Waits up to `graceMs` for the slaves to leave, then disables both objects (the announce
  // master says farewell).
  void stop(int graceMs);
  std::string dump() const;

  const std::string& failure() const { return failureText; }
  unsigned blocksEchoed() const { return echoed; }
  // The reason the first SimpleConnector connection ended with; 0 while it is up (or none came).
  int simpleEndReason() const { return simpleReason; }

 private:
  void milestone(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void fail(const std::string& text);

  DemoSettings settings;
  tavrinTools::LineWriter& writer;
  tavrinLog::TavrinLogging logging;
  tavrinScheduler::Scheduler scheduler;
  tavrinConnector::TCPConnectorMaster connector;
  tavrinConnector::MCAnnounceMaster announcer;
  tavrinConnector::TestCounterData counterData;
  std::map<unsigned, tavrinConnector::simpleConnector::SimpleConnectorHandler*> simpleHandlers;
  std::string failureText;
  unsigned echoed = 0;
  int simpleReason = 0;
};

}  // namespace tavrinDemo
