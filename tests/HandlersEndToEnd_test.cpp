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
using Ended = std::vector<std::pair<unsigned, int>>;

// One device's handlers of both kinds: simple handlers by local id while connected, and the test
// counter data that links every test counter handler that connects.
struct Side {
  void addFactories(TCPConnectorBase& connector, tavrinLog::TavrinLogging* logging) {
    // Registered as version 2: the bits above the low 12 are not part of the version.
    connector.addConnectionHandler(SimpleConnectorHandler::kType, 2, [this, logging] {
      return std::make_unique<SimpleConnectorHandler>(
          0x1002,
          [this](SimpleIp, unsigned, unsigned id, SimpleConnectorHandler* h) {
            if (accept) simple[id] = h;
            return accept;
          },
          [this](SimpleIp, unsigned, unsigned id, int reason) {
            simple.erase(id);
            states.emplace_back(id, reason);
          },
          [this](SimpleIp ip, unsigned, unsigned, std::unique_ptr<Block>&& block) {
            EXPECT_EQ(ip, SimpleIp("127.0.0.1"));
            blocks.push_back(std::move(*block));
          },
          logging);
    });
    connector.addConnectionHandler(TestCounterHandler::kType, 1, [this] {
      return std::make_unique<TestCounterHandler>(
          [this](unsigned, TestCounterHandler* h) {
            if (data) data->linkHandler(h);
            counter = h;
            return true;
          },
          [this](unsigned id) { countersEnded.push_back(id); });
    });
  }
  bool sees(int value, const std::string& name) const {
    return data->getRemoteCounter() == value && data->getRemoteName() == name;
  }
  bool accept = true;
  std::map<unsigned, SimpleConnectorHandler*> simple;
  Ended states;
  std::vector<Block> blocks;
  std::unique_ptr<TestCounterData> data = std::make_unique<TestCounterData>(nullptr, nullptr);
  TestCounterHandler* counter = nullptr;
  std::vector<unsigned> countersEnded;
};

class HandlersEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    master.init(1, 100, ConnectorInterfaceType::PanelMaster, 8, SimpleIp("127.0.0.1"), 0, false,
                false, {}, false);
    slave->initCommon(2, 200, ConnectorInterfaceType::Client, SimpleIp("127.0.0.1"), {}, false);
    m.addFactories(master, log.logging());
    s.addFactories(*slave, log.logging());
    for (unsigned id : {12u, 13u}) master.addAllowedConnection(id, SimpleConnectorHandler::kType);
    master.addAllowedConnection(20, TestCounterHandler::kType);
    master.setEnabled(true);
    slave->setEnabled(true);
  }
  bool run(const std::function<bool()>& condition) {
    return tavrinTesting::runUntil(scheduler, condition, 5s);
  }
  void connect(unsigned short type, unsigned id, unsigned own) {
    ASSERT_TRUE(slave->connect(master.getListeningEndpoint(), 8, type, id, own, nullptr));
  }
  // Waits until each side shows the other's counter and name.
  void connectCounters() {
    connect(TestCounterHandler::kType, 20, 21);
    ASSERT_TRUE(run([&] {
      return m.sees(s.data->getCounter(), s.data->getName()) &&
             s.sees(m.data->getCounter(), m.data->getName());
    })) << log.text();
  }

  tavrinTesting::LogCapture log;
  tavrinScheduler::Scheduler scheduler{log.logging()};
  Side m, s;  // master, slave
  TCPConnectorMaster master{&scheduler, log.logging()};
  std::unique_ptr<TCPConnectorSlave> slave =
      std::make_unique<TCPConnectorSlave>(&scheduler, log.logging());
};

TEST_F(HandlersEndToEndTest, SimpleConnectorCarriesBlocksBothWaysUnchanged) {
  connect(SimpleConnectorHandler::kType, 12, 7);
  ASSERT_TRUE(run([&] { return m.simple.count(12) && s.simple.count(7); })) << log.text();
  Block big(64 * 1024);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<unsigned char>(i * 7 + i / 256);
  for (SimpleConnectorHandler* h : {m.simple[12], s.simple[7]}) {
    EXPECT_EQ(h->getVersion(), 2);
    h->sendData("", 0);
    h->sendData("\xff", 1);
    h->sendData(reinterpret_cast<const char*>(big.data()), static_cast<unsigned>(big.size()));
    h->sendData(std::vector<std::string>{"ab", "", "c"});
  }
  ASSERT_TRUE(run([&] { return m.blocks.size() == 3 && s.blocks.size() == 3; }));
  const std::vector<Block> expected = {{0xff}, big, {'a', 'b', 'c'}};
  EXPECT_EQ(m.blocks, expected);
  EXPECT_EQ(s.blocks, expected);
}

TEST_F(HandlersEndToEndTest, ARefusedConnectionReachesBothStateCallbacksOnceWithReasonMinus9) {
  m.accept = false;
  connect(SimpleConnectorHandler::kType, 12, 7);
  ASSERT_TRUE(run([&] { return m.states.size() == 1 && s.states.size() == 1; })) << log.text();
  m.accept = true;
  s.accept = false;
  connect(SimpleConnectorHandler::kType, 13, 8);
  ASSERT_TRUE(run([&] { return m.states.size() == 2 && s.states.size() == 2; }));
  tavrinTesting::runFor(scheduler, 200ms);
  const int reason = DisconnectReason::noConnectionHandler;
  EXPECT_EQ(m.states, (Ended{{12, reason}, {13, reason}}));
  EXPECT_EQ(s.states, (Ended{{7, reason}, {8, reason}}));
  EXPECT_TRUE(log.contains("SimpleConnectorHandler 12 (remote: 7 @ 0x000000C8 (127.0.0.1:"));
}

TEST_F(HandlersEndToEndTest, TestCountersExchangeChangesAndEndWhenTheDataLetsGoOnly) {
  m.data->setName("master");
  m.data->setCounter(5);
  s.data->setCounter(9);
  connectCounters();
  s.data->setCounter(10);
  s.data->setName("s2");
  ASSERT_TRUE(run([&] { return m.sees(10, "s2"); }));
  m.data->sendRemoteCounterReset();
  ASSERT_TRUE(run([&] { return m.sees(0, "s2"); }));

  m.counter->unlinkData(m.data.get(), false);  // the handler lets go: the connection stays
  EXPECT_TRUE(m.sees(INT_MIN, ""));
  EXPECT_TRUE(m.counter->isConnected());
  s.data->unlinkHandler();
  ASSERT_TRUE(run([&] { return m.countersEnded.size() == 1 && s.countersEnded.size() == 1; }));
  EXPECT_EQ(m.countersEnded[0], 20u);
  EXPECT_EQ(s.countersEnded[0], 21u);

  connectCounters();
  m.data.reset();
  ASSERT_TRUE(run([&] { return s.countersEnded.size() == 2; }));
  EXPECT_TRUE(s.sees(INT_MIN, ""));

  m.data = std::make_unique<TestCounterData>(nullptr, nullptr);
  connectCounters();
  slave.reset();  // destroys its handler
  EXPECT_EQ(s.data->getHandler(), nullptr);
  ASSERT_TRUE(run([&] { return m.countersEnded.size() == 3; }));
  EXPECT_TRUE(m.sees(INT_MIN, ""));
}

}  // namespace
}  // namespace tavrinConnector
