// The two ready-made handlers between a connector master and a slave over 127.0.0.1.
#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/TCPConnectorMaster.h"
#include "tavrincommon/connector/TCPConnectorSlave.h"
#include "tavrincommon/connector/TestCounterData.h"
#include "tavrincommon/connector/TestCounterHandler.h"
#include "tavrincommon/connector/simpleConnector/SimpleConnectorHandler.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/RunUntil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tavrinConnector {
namespace {

using namespace std::chrono_literals;
using simpleConnector::SimpleConnectorHandler;
using tavrinNetwork::SimpleIp;
using Block = std::vector<unsigned char>;

constexpr unsigned kCluster = 8;

// One device's simple connector handlers, by local connection id while they are connected.
struct SimpleSide {
  TCPConnectorBase::HandlerFactory factory(tavrinLog::TavrinLogging* logging) {
    return [this, logging] {
      return std::make_unique<SimpleConnectorHandler>(
          0x1002,  // registered as version 2: the high bits are not part of the version
          [this](SimpleIp, unsigned, unsigned id, SimpleConnectorHandler* h) {
            if (accept) handlers[id] = h;
            return accept;
          },
          [this](SimpleIp, unsigned, unsigned id, int reason) {
            handlers.erase(id);
            states.emplace_back(id, reason);
          },
          [this](SimpleIp ip, unsigned, unsigned, std::unique_ptr<Block>&& block) {
            EXPECT_EQ(ip, SimpleIp("127.0.0.1"));
            blocks.push_back(std::move(*block));
          },
          logging);
    };
  }
  bool accept = true;
  std::map<unsigned, SimpleConnectorHandler*> handlers;
  std::vector<std::pair<unsigned, int>> states;
  std::vector<Block> blocks;
};

// One device's test counter: its data links every handler that connects.
struct CounterSide {
  TCPConnectorBase::HandlerFactory factory() {
    return [this] {
      return std::make_unique<TestCounterHandler>(
          [this](unsigned, TestCounterHandler* h) {
            if (data) data->linkHandler(h);
            handler = h;
            return true;
          },
          [this](unsigned id) {
            ended.push_back(id);
            handler = nullptr;
          });
    };
  }
  bool sees(int counter, const std::string& name) const {
    return data->getRemoteCounter() == counter && data->getRemoteName() == name;
  }
  std::unique_ptr<TestCounterData> data = std::make_unique<TestCounterData>(nullptr, nullptr);
  TestCounterHandler* handler = nullptr;
  std::vector<unsigned> ended;
};

class HandlersEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    master.init(1, 100, ConnectorInterfaceType::PanelMaster, kCluster, SimpleIp("127.0.0.1"), 0,
                false, false, {}, false);
    slave->initCommon(2, 200, ConnectorInterfaceType::Client, SimpleIp("127.0.0.1"), {}, false);
    master.addConnectionHandler(SimpleConnectorHandler::kType, 2, masterSimple.factory(log.logging()));
    slave->addConnectionHandler(SimpleConnectorHandler::kType, 2, slaveSimple.factory(log.logging()));
    master.addConnectionHandler(TestCounterHandler::kType, 1, masterCounter.factory());
    slave->addConnectionHandler(TestCounterHandler::kType, 1, slaveCounter.factory());
    for (unsigned id : {12u, 13u}) master.addAllowedConnection(id, SimpleConnectorHandler::kType);
    master.addAllowedConnection(20, TestCounterHandler::kType);
    master.setEnabled(true);
    slave->setEnabled(true);
  }
  bool run(const std::function<bool()>& condition) {
    return tavrinTesting::runUntil(scheduler, condition, 5s);
  }
  void connect(unsigned short type, unsigned id, unsigned own) {
    ASSERT_TRUE(slave->connect(master.getListeningEndpoint(), kCluster, type, id, own, nullptr));
  }
  void connectCounters() {
    connect(TestCounterHandler::kType, 20, 21);
    ASSERT_TRUE(run([&] {
      return masterCounter.sees(slaveCounter.data->getCounter(), slaveCounter.data->getName()) &&
             slaveCounter.sees(masterCounter.data->getCounter(), masterCounter.data->getName());
    })) << log.text();
  }

  tavrinTesting::LogCapture log;
  tavrinScheduler::Scheduler scheduler{log.logging()};
  SimpleSide masterSimple, slaveSimple;
  CounterSide masterCounter, slaveCounter;
  TCPConnectorMaster master{&scheduler, log.logging()};
  std::unique_ptr<TCPConnectorSlave> slave =
      std::make_unique<TCPConnectorSlave>(&scheduler, log.logging());
};

TEST_F(HandlersEndToEndTest, SimpleConnectorCarriesBlocksBothWaysUnchanged) {
  connect(SimpleConnectorHandler::kType, 12, 7);
  ASSERT_TRUE(run([&] { return masterSimple.handlers.count(12) && slaveSimple.handlers.count(7); }))
      << log.text();
  Block big(64 * 1024);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<unsigned char>(i * 7 + i / 256);
  for (SimpleConnectorHandler* h : {masterSimple.handlers[12], slaveSimple.handlers[7]}) {
    EXPECT_EQ(h->getVersion(), 2);
    h->sendData("", 0);
    h->sendData("\xff", 1);
    h->sendData(reinterpret_cast<const char*>(big.data()), static_cast<unsigned>(big.size()));
    h->sendData(std::vector<std::string>{"ab", "", "c"});
  }
  ASSERT_TRUE(run([&] { return masterSimple.blocks.size() == 3 && slaveSimple.blocks.size() == 3; }));
  const std::vector<Block> expected = {{0xff}, big, {'a', 'b', 'c'}};
  EXPECT_EQ(masterSimple.blocks, expected);
  EXPECT_EQ(slaveSimple.blocks, expected);
}

TEST_F(HandlersEndToEndTest, ARefusedConnectionReachesBothStateCallbacksOnceWithReasonMinus9) {
  using Ended = std::vector<std::pair<unsigned, int>>;
  masterSimple.accept = false;
  connect(SimpleConnectorHandler::kType, 12, 7);
  ASSERT_TRUE(run([&] { return masterSimple.states.size() == 1 && slaveSimple.states.size() == 1; }))
      << log.text();
  masterSimple.accept = true;
  slaveSimple.accept = false;
  connect(SimpleConnectorHandler::kType, 13, 8);
  ASSERT_TRUE(run([&] { return masterSimple.states.size() == 2 && slaveSimple.states.size() == 2; }));
  tavrinTesting::runFor(scheduler, 200ms);
  const int reason = DisconnectReason::noConnectionHandler;
  EXPECT_EQ(masterSimple.states, (Ended{{12, reason}, {13, reason}}));
  EXPECT_EQ(slaveSimple.states, (Ended{{7, reason}, {8, reason}}));
}

TEST_F(HandlersEndToEndTest, TestCountersExchangeCountersNamesAndResets) {
  masterCounter.data->setName("master");
  masterCounter.data->setCounter(5);
  slaveCounter.data->setName("slave");
  slaveCounter.data->setCounter(9);
  connectCounters();
  slaveCounter.data->setCounter(10);
  slaveCounter.data->setName("s2");
  ASSERT_TRUE(run([&] { return masterCounter.sees(10, "s2"); }));
  masterCounter.data->sendRemoteCounterReset();
  ASSERT_TRUE(run([&] { return masterCounter.sees(0, "s2"); }));
  EXPECT_EQ(slaveCounter.data->getCounter(), 0);
}

TEST_F(HandlersEndToEndTest, TestCounterUnlinkAndDestructionFromEitherSide) {
  slaveCounter.data->setCounter(3);
  connectCounters();
  // From the handler's side the connection stays; only the remote values go.
  masterCounter.handler->unlinkData(masterCounter.data.get(), false);
  EXPECT_TRUE(masterCounter.sees(INT_MIN, ""));
  EXPECT_TRUE(masterCounter.handler->isConnected());

  // From the data's side it ends at both ends.
  slaveCounter.data->unlinkHandler();
  ASSERT_TRUE(run([&] { return masterCounter.ended.size() == 1 && slaveCounter.ended.size() == 1; }));
  EXPECT_EQ(masterCounter.ended[0], 20u);
  EXPECT_EQ(slaveCounter.ended[0], 21u);

  connectCounters();
  masterCounter.data.reset();
  ASSERT_TRUE(run([&] { return slaveCounter.ended.size() == 2; }));
  EXPECT_TRUE(slaveCounter.sees(INT_MIN, ""));

  masterCounter.data = std::make_unique<TestCounterData>(nullptr, nullptr);
  connectCounters();
  slave.reset();  // takes its handler along
  EXPECT_EQ(slaveCounter.data->getHandler(), nullptr);
  EXPECT_TRUE(slaveCounter.sees(INT_MIN, ""));
  ASSERT_TRUE(run([&] { return masterCounter.ended.size() == 3; }));
  EXPECT_TRUE(masterCounter.sees(INT_MIN, ""));
}

}  // namespace
}  // namespace tavrinConnector
