// Test kit: a TCP connector master and a TCP connector slave talking over 127.0.0.1, with the
// handler factories of the caller's choosing, so that an application's handlers meet their peers
// end to end without any other network. Owns both connectors, their schedulers and a log capture
// that both log into. One loop (the default): everything runs on the thread that drives the
// fixture. Two loops: from start() to stop() the master runs on a thread of its own with its own
// scheduler; the test's thread reaches it only through onMaster().
#pragma once

#include "tavrincommon/connector/ConnectionTimeout.h"
#include "tavrincommon/connector/CustomConnectData.h"
#include "tavrincommon/connector/TCPConnectorBase.h"
#include "tavrincommon/network/SimpleEndpoint.h"
#include "tavrincommon/testing/LogCapture.h"

#include <chrono>
#include <functional>
#include <memory>

namespace tavrinConnector {
class ConnectionHandlerBase;
class TCPConnectorMaster;
class TCPConnectorSlave;
}  // namespace tavrinConnector
namespace tavrinScheduler {
class Scheduler;
}

namespace tavrinTesting {

class LoopbackFixture {
 public:
  enum class Loops { One, Two };
  struct Settings {
    Loops loops = Loops::One;
    unsigned clusterId = 1;
    unsigned masterDeviceId = 1;
    unsigned slaveDeviceId = 2;
    tavrinConnector::ConnectionTimeout timing{};
  };
  using HandlerFactory = tavrinConnector::TCPConnectorBase::HandlerFactory;

  LoopbackFixture();
  explicit LoopbackFixture(const Settings& settings);
  // Stops first.
  ~LoopbackFixture();
  LoopbackFixture(const LoopbackFixture&) = delete;
  LoopbackFixture& operator=(const LoopbackFixture&) = delete;

  // Before start(). The master makes handlers of `type` with `factory` and gives the connections
  // of this type ids of its own choosing.
  void addMasterHandler(unsigned short type, unsigned short version, HandlerFactory factory);
  // Before start(). The slave makes handlers of `type` with `factory`; a rejected request of this
  // type is kept as lastRejection().
  void addSlaveHandler(unsigned short type, unsigned short version, HandlerFactory factory);

  // Enables both connectors; the master listens on 127.0.0.1 at a port the system chooses. False
  // when it cannot listen (the reason is in log()).
  bool start();
  // Disables both connectors, which ends every connection with reason shutdown; the master's
  // thread ends. Nothing happens when not started.
  void stop();

  // Asks the master for a connection of `type` and turns the slave's loop until it is up: the
  // slave's handler, or null when it was rejected (lastRejection()) or `limit` passed.
  tavrinConnector::ConnectionHandlerBase* connect(
      unsigned short type, std::chrono::milliseconds limit = std::chrono::seconds(5),
      std::unique_ptr<tavrinConnector::CustomConnectData>&& data = nullptr);

  // Turns the slave's loop (one loop: both sides) until `condition` holds (true) or `limit` has
  // passed (false).
  bool runUntil(const std::function<bool()>& condition,
                std::chrono::milliseconds limit = std::chrono::seconds(5));
  void runFor(std::chrono::milliseconds duration);

  // Runs `function` with the master: at once with one loop, under the master loop's mutex with
  // two (between two of its turns). Only while started with two loops.
  void onMaster(const std::function<void(tavrinConnector::TCPConnectorMaster&)>& function);
  // The master's handler of the connection that `slaveSide` is the slave's end of; null when
  // there is none. With two loops, use it inside onMaster() only.
  tavrinConnector::ConnectionHandlerBase* masterSide(
      const tavrinConnector::ConnectionHandlerBase& slaveSide);

  // The slave's scheduler; with one loop the master's too.
  tavrinScheduler::Scheduler& scheduler();
  // With two loops: valid only between start() and stop(), and to be used inside onMaster().
  tavrinConnector::TCPConnectorMaster& master();
  tavrinConnector::TCPConnectorSlave& slave();
  LogCapture& log() { return capture; }
  // Where the master listens; empty before start().
  tavrinNetwork::SimpleEndpoint masterEndpoint() const { return endpoint; }
  // The reason of the last rejected request of the slave; 0 while none was rejected.
  int lastRejection() const { return rejection; }

 private:
  struct MasterLoop;

  Settings settings;
  LogCapture capture;
  std::unique_ptr<tavrinScheduler::Scheduler> slaveScheduler;
  std::unique_ptr<tavrinConnector::TCPConnectorSlave> slaveConnector;
  std::unique_ptr<MasterLoop> masterLoop;
  tavrinNetwork::SimpleEndpoint endpoint;
  int rejection = 0;
  bool started = false;
};

}  // namespace tavrinTesting
