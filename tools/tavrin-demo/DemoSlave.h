// The demo's slave device: finds the master through the announce slave, opens a SimpleConnector
// connection (automatic id) and the test counter connection with its TCP connector slave, sends
// blocks and checks every echoed byte, plays the counter round trip, ends the SimpleConnector
// connection with a reason and disables. Lives on one thread with its own Scheduler: create,
// drive and destroy it there.
#pragma once

#include "tools/tavrin-demo/DemoSettings.h"

#include "tavrincommon/connector/MCAnnounceSlave.h"
#include "tavrincommon/connector/TCPConnectorSlave.h"
#include "tavrincommon/connector/TestCounterData.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <memory>
#include <string>
#include <vector>

namespace tavrinConnector::simpleConnector {
class SimpleConnectorHandler;
}

namespace tavrinDemo {

class DemoSlave {
 public:
  enum class Step { FindMaster, Connect, Exchange, End, Done, Failed };

  DemoSlave(const DemoSettings& settings_, tavrinTools::LineWriter& writer_);
  ~DemoSlave();

  bool start();
  // Ends the run as failed (a signal asked the demo to stop).
  void interrupt() { fail("interrupted by a signal"); }
  // One loop turn, then whatever the turn made possible; false once done or failed.
  bool turn(int timeoutMs);
  std::string dump() const;
  // Taken just before disabling (or at the failure).
  const std::string& finalDump() const { return dumpText; }

  Step step() const { return current; }
  const std::string& failure() const { return failureText; }
  // What was achieved, for the summary line.
  std::string summary() const;

 private:
  void milestone(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void fail(const std::string& text);
  void advance();
  void connectToMaster();
  void sendBlocks();
  void checkBlock(const std::vector<unsigned char>& block);
  void onRemoteCounter(int value);
  const char* waitingFor() const;

  DemoSettings settings;
  tavrinTools::LineWriter& writer;
  tavrinLog::TavrinLogging logging;
  tavrinScheduler::Scheduler scheduler;
  tavrinConnector::MCAnnounceSlave listener;
  tavrinConnector::TCPConnectorSlave connector;
  tavrinConnector::TestCounterData counterData;

  Step current = Step::FindMaster;
  std::string failureText;
  double startSeconds = 0;
  bool announcementSeen = false;
  tavrinNetwork::SimpleEndpoint masterEndpoint;
  unsigned simpleId = 0xFFFFFFFFu;
  unsigned counterId = 0xFFFFFFFFu;
  tavrinConnector::simpleConnector::SimpleConnectorHandler* simpleHandler = nullptr;
  bool counterConnected = false;
  std::vector<std::vector<unsigned char>> blocks;
  size_t blocksChecked = 0;
  size_t bytesChecked = 0;
  bool blocksDone = false;
  bool resetSent = false;
  bool counterDone = false;
  int simpleEndReason = 0;
  std::string dumpText;
};

}  // namespace tavrinDemo
