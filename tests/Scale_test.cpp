// A hall switching on: one master, and slaves on a thread of their own, each with one TCP
// connection from an address of its own, all asking for ten automatic SimpleConnector connections
// at the same moment, from scratch. Every request must be accepted on the first try, and every
// connection's end must reach the master with the reason the slave gave.
#include "tavrincommon/connector/ConnectionTimeout.h"
#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/TCPConnectorMaster.h"
#include "tavrincommon/connector/TCPConnectorSlave.h"
#include "tavrincommon/connector/simpleConnector/SimpleConnectorHandler.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/Emulation.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/RunUntil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace tavrinConnector {
namespace {

using namespace std::chrono_literals;
using simpleConnector::SimpleConnectorHandler;
using tavrinLog::SeverityLevel;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

constexpr unsigned short kType = SimpleConnectorHandler::kType;
constexpr unsigned kCluster = 8;
constexpr int kPerSlave = 10;
// Emulated, every system call costs tens of times more; half the hall still arrives at once.
int slaveCount() { return tavrinTesting::underEmulation() ? 10 : 20; }

// The slaves, on their own thread with their own loop, from 127.0.1.1 upwards. The test thread
// sees only the counters; the slaves' log lines are read once the thread has ended.
class Hall {
 public:
  Hall(const SimpleEndpoint& master, int slaves)
      : thread([this, master, slaves] { run(master, slaves); }) {}
  ~Hall() { end(); }
  Hall(const Hall&) = delete;
  Hall& operator=(const Hall&) = delete;

  // Returns once every request has gone out: the whole hall is then in the master's listening
  // queue, or was dropped from it.
  void waitForRequests() { requested.get_future().wait(); }
  void disable() { disableRequested = true; }
  void end() {
    stop = true;
    if (thread.joinable()) thread.join();
  }

  std::atomic<int> accepted{0};
  std::atomic<int> rejected{0};
  tavrinTesting::LogCapture log{SeverityLevel::Warning};

 private:
  void run(const SimpleEndpoint& master, int count) {
    tavrinScheduler::Scheduler scheduler(log.logging());
    std::vector<std::unique_ptr<TCPConnectorSlave>> slaves;
    for (int i = 0; i < count; ++i) {
      auto slave = std::make_unique<TCPConnectorSlave>(&scheduler, log.logging());
      const std::string address = "127.0.1." + std::to_string(i + 1);
      slave->initCommon(static_cast<unsigned>(i + 1), 1000u + static_cast<unsigned>(i),
                        ConnectorInterfaceType::Client, SimpleIp(address.c_str()),
                        ConnectionTimeout{}, false);
      slave->addConnectionHandler(kType, 1, [this] {
        return std::make_unique<SimpleConnectorHandler>(
            1,
            [this](SimpleIp, unsigned, unsigned, SimpleConnectorHandler*) {
              ++accepted;
              return true;
            },
            SimpleConnectorHandler::StateCallback(), SimpleConnectorHandler::DataCallback(),
            nullptr);
      });
      slave->addConnectionRejectedCallback(
          kType, [this](const SimpleEndpoint&, unsigned, unsigned, int, unsigned, unsigned short,
                        const CustomConnectData*) { ++rejected; });
      slave->setEnabled(true);
      slaves.push_back(std::move(slave));
    }
    // A request refused on the spot is counted by the rejected callback too.
    for (auto& slave : slaves)
      for (int k = 0; k < kPerSlave; ++k) slave->connectAutomatic(master, kCluster, kType, nullptr);
    requested.set_value();
    while (!stop) {
      scheduler.run(10);
      if (disableRequested.exchange(false))
        for (auto& slave : slaves) slave->setEnabled(false);
    }
  }

  std::atomic<bool> stop{false};
  std::atomic<bool> disableRequested{false};
  std::promise<void> requested;
  std::thread thread;
};

class ScaleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    master.init(1, 100, ConnectorInterfaceType::PanelMaster, kCluster, SimpleIp("127.0.0.1"), 0,
                false, false, ConnectionTimeout{}, false);
    master.addConnectionHandler(kType, 1, [this] {
      return std::make_unique<SimpleConnectorHandler>(
          1, SimpleConnectorHandler::AcceptCallback(),
          [this](SimpleIp, unsigned, unsigned, int reason) { endReasons.push_back(reason); },
          SimpleConnectorHandler::DataCallback(), nullptr);
    });
    master.addAutomaticConnection(kType);
    master.setEnabled(true);
    ASSERT_TRUE(master.isListening()) << masterLog.text();
  }

  bool runUntil(const std::function<bool()>& condition) {
    return tavrinTesting::runUntil(scheduler, condition, 60s);
  }

  const int slaves = slaveCount();
  const int total = slaves * kPerSlave;
  tavrinTesting::LogCapture masterLog{SeverityLevel::Warning};
  tavrinScheduler::Scheduler scheduler{masterLog.logging()};
  TCPConnectorMaster master{&scheduler, masterLog.logging()};
  std::vector<int> endReasons;
};

// Every request of the hall is accepted on the first try. A slave that disables resets its TCP
// connection right after its last disconnects: the master reads what the socket still holds before
// it tears the connection down, so no reason is lost. The loss needs the master between two reads
// of one slave's last frames: a few rounds.
TEST_F(ScaleTest, HallConnectingAtOnceIsAcceptedAndItsShutdownReachesTheMasterWhole) {
  for (int round = 0; round < 10; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    endReasons.clear();
    Hall hall(master.getListeningEndpoint(), slaves);
    // The whole hall connects at once, before the master accepts any.
    hall.waitForRequests();
    ASSERT_TRUE(runUntil([&] {
      return hall.accepted + hall.rejected >= total &&
             master.getActiveConnectionCount() >= static_cast<size_t>(hall.accepted);
    })) << hall.accepted
        << " accepted, " << hall.rejected << " rejected";
    EXPECT_EQ(hall.rejected, 0);
    ASSERT_EQ(hall.accepted, total);
    EXPECT_EQ(master.getActiveConnectionCount(), static_cast<size_t>(total));
    EXPECT_EQ(master.getTCPConnectionCount(), static_cast<size_t>(slaves));

    // The slaves disable while the master goes on turning its loop, as in a hall.
    hall.disable();
    ASSERT_TRUE(runUntil([&] {
      return endReasons.size() >= static_cast<size_t>(total) && master.getTCPConnectionCount() == 0;
    })) << endReasons.size()
        << " of " << total << " ended at the master";
    EXPECT_EQ(std::count(endReasons.begin(), endReasons.end(), DisconnectReason::shutdown), total);
    EXPECT_EQ(master.getActiveConnectionCount(), 0u);
    hall.end();
    EXPECT_TRUE(hall.log.lines().empty()) << hall.log.text();
  }
  EXPECT_EQ(master.getBoundCounters().tcpConnectionsRefused, 0u);
  EXPECT_TRUE(masterLog.lines().empty()) << masterLog.text();
}

}  // namespace
}  // namespace tavrinConnector
