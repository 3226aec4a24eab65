// A connector master and slaves talking over 127.0.0.1: on one scheduler, and on two schedulers
// on two threads.
#include "tavrincommon/connector/ConnectionHandlerType.h"
#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/connector/TCPConnectorMaster.h"
#include "tavrincommon/connector/TCPConnectorSlave.h"
#include "tavrincommon/connector/TCPTransceiver.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/LoopbackFixture.h"
#include "tavrincommon/testing/RecordingHandler.h"
#include "tavrincommon/testing/RunUntil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace tavrinConnector {
namespace {

using namespace std::chrono_literals;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;
using tavrinTesting::HandlerRecord;
using tavrinTesting::RecordingHandler;

constexpr unsigned short kType = ConnectionHandlerType::SimpleConnector;
constexpr unsigned kCluster = 8;
constexpr unsigned kMasterDevice = 100;
constexpr unsigned kSlaveDevice = 200;

struct Rejection {
  unsigned clusterId;
  unsigned connectionId;
  int reason;
  unsigned remoteConnectionId;
  unsigned short type;
};

// One slave connector with its handler record and the rejections it reported.
struct Slave {
  Slave(tavrinScheduler::Scheduler& scheduler, tavrinLog::TavrinLogging* logging, unsigned device,
        const ConnectionTimeout& timing = {})
      : connector(&scheduler, logging) {
    connector.initCommon(2, device, ConnectorInterfaceType::Client, SimpleIp("127.0.0.1"), timing,
                         false);
    for (unsigned short version : {1, 2, 3})
      connector.addConnectionHandler(kType, version,
                                     RecordingHandler::factory(kType, version, record, true));
    for (unsigned short type :
         {kType, static_cast<unsigned short>(6), static_cast<unsigned short>(9)})
      connector.addConnectionRejectedCallback(
          type, [this](const SimpleEndpoint&, unsigned cluster, unsigned id, int reason,
                       unsigned remoteId, unsigned short t, const CustomConnectData*) {
            rejections.push_back({cluster, id, reason, remoteId, t});
          });
    connector.setEnabled(true);
  }
  RecordingHandler* handler(unsigned id) {
    return static_cast<RecordingHandler*>(connector.getConnection(id));
  }

  std::shared_ptr<HandlerRecord> record = std::make_shared<HandlerRecord>();
  std::vector<Rejection> rejections;
  TCPConnectorSlave connector;
};

class MasterSlaveTest : public ::testing::Test {
 protected:
  void startMaster(bool overwriteExisting = false, bool allowMove = false,
                   const ConnectionTimeout& timing = {}) {
    master.init(1, kMasterDevice, ConnectorInterfaceType::PanelMaster, kCluster,
                SimpleIp("127.0.0.1"), 0, overwriteExisting, allowMove, timing, false);
    for (unsigned short version : {1, 2})
      master.addConnectionHandler(kType, version,
                                  RecordingHandler::factory(kType, version, masterRecord, true));
    master.addConnectionHandler(6, 4, RecordingHandler::factory(6, 4, masterRecord));
    for (unsigned id : {12u, 13u, 14u, 15u}) master.addAllowedConnection(id, kType);
    master.addAllowedConnection(20, 6);
    master.addAllowedConnection(30, 9);
    master.setEnabled(true);
    ASSERT_TRUE(master.isListening()) << log.text();
    endpoint = master.getListeningEndpoint();
  }
  Slave& addSlave(unsigned device = kSlaveDevice, const ConnectionTimeout& timing = {}) {
    slaves.push_back(std::make_unique<Slave>(scheduler, log.logging(), device, timing));
    return *slaves.back();
  }
  bool run(const std::function<bool()>& condition, std::chrono::milliseconds limit = 5s) {
    return tavrinTesting::runUntil(scheduler, condition, limit);
  }
  RecordingHandler* masterHandler(unsigned id) {
    return static_cast<RecordingHandler*>(master.getConnection(id));
  }
  // Connects slave id `own` to master id `id` and waits until both ends are connected.
  void connectPair(Slave& slave, unsigned id, unsigned own) {
    const size_t before = masterRecord->count("connected");
    ASSERT_TRUE(slave.connector.connect(endpoint, kCluster, kType, id, own, nullptr));
    ASSERT_TRUE(run([&] {
      return slave.handler(own) && slave.handler(own)->isConnected() &&
             masterRecord->count("connected") > before;
    })) << log.text();
  }
  // The master and one slave; `connected`: with slave id 7 connected to master id 12.
  Slave& startWithSlave(bool connected) {
    startMaster();
    Slave& slave = addSlave();
    if (connected) connectPair(slave, 12, 7);
    return slave;
  }
  bool allClosed() {
    if (master.getTCPConnectionCount() != 0) return false;
    for (auto& slave : slaves)
      if (slave->connector.getTCPConnectionCount() != 0) return false;
    return true;
  }

  tavrinTesting::LogCapture log;
  tavrinScheduler::Scheduler scheduler{log.logging()};
  std::shared_ptr<HandlerRecord> masterRecord = std::make_shared<HandlerRecord>();
  TCPConnectorMaster master{&scheduler, log.logging()};
  std::vector<std::unique_ptr<Slave>> slaves;
  SimpleEndpoint endpoint;
};

TEST_F(MasterSlaveTest, AcceptsWithTheHighestCommonVersionAndCarriesDataBothWays) {
  Slave& slave = startWithSlave(true);
  RecordingHandler* own = slave.handler(7);
  RecordingHandler* remote = masterHandler(12);
  ASSERT_NE(remote, nullptr);
  EXPECT_EQ(own->getVersion(), 2);
  EXPECT_EQ(remote->getVersion(), 2);
  EXPECT_FALSE(own->isServerSide());
  EXPECT_TRUE(remote->isServerSide());
  EXPECT_EQ(own->getClusterId(), kCluster);

  own->send("hello");
  remote->send(std::string("w\0rld", 5));
  ASSERT_TRUE(run([&] {
    return masterRecord->count("received") == 1 && slave.record->count("received") == 1;
  }));
  EXPECT_EQ(masterRecord->lastOf("received").payload, "hello");
  EXPECT_EQ(masterRecord->lastOf("received").id, 12u);
  EXPECT_EQ(slave.record->lastOf("received").payload, std::string("w\0rld", 5));
}

TEST_F(MasterSlaveTest, RejectsWithTheReasonOfTheFirstFailingCheck) {
  Slave& slave = startWithSlave(false);
  slave.connector.addConnectionHandler(6, 1, RecordingHandler::factory(6, 1, slave.record));
  slave.connector.addConnectionHandler(9, 1, RecordingHandler::factory(9, 1, slave.record));
  connectPair(slave, 12, 1);

  struct Case {
    unsigned cluster, id;  // id 0xFFFFFFFF: automatic
    unsigned short type;
    int reason;
  };
  const std::vector<Case> cases = {
      {7, 99, kType, DisconnectReason::wrongClusterId},              // before the id is looked at
      {kCluster, 0xFFFFFFFFu, kType, DisconnectReason::notAllowed},  // no automatic range
      {kCluster, 99, kType, DisconnectReason::notAllowed},           // not an allowed id
      {kCluster, 20, kType, DisconnectReason::notAllowed},           // allowed for another type
      {kCluster, 12, kType, DisconnectReason::notAllowed},           // taken
      {kCluster, 30, 9, DisconnectReason::noConnectionHandler},
      {kCluster, 20, 6, DisconnectReason::noCompatibleConnectionHandler},
  };
  unsigned own = 100;
  for (const Case& c : cases) {
    const size_t before = slave.rejections.size();
    ASSERT_TRUE(c.id == 0xFFFFFFFFu
                    ? slave.connector.connectAutomatic(endpoint, c.cluster, c.type, own, nullptr)
                    : slave.connector.connect(endpoint, c.cluster, c.type, c.id, own, nullptr));
    ASSERT_TRUE(run([&] { return slave.rejections.size() > before; })) << log.text();
    const Rejection& r = slave.rejections.back();
    EXPECT_EQ(std::tie(r.reason, r.connectionId, r.remoteConnectionId, r.clusterId, r.type),
              std::tie(c.reason, own, c.id, c.cluster, c.type));
    EXPECT_FALSE(slave.connector.isPending(own));
    ++own;
  }
  EXPECT_TRUE(
      log.contains("Cannot create connection 99 (type 5, remote connection id: 100) on "
                   "TCP endpoint 127.0.0.1:"));
  // The refused requests left the first connection and its TCP connection alone.
  EXPECT_TRUE(slave.handler(1)->isConnected());
  EXPECT_EQ(slave.connector.getTCPConnectionCount(), 1u);
}

TEST_F(MasterSlaveTest, AutomaticConnectionsTakeFreeIdsAndEndWithTheirRange) {
  startMaster();
  master.addAutomaticConnection(kType, 100, 101);
  Slave& slave = addSlave();
  const unsigned first = slave.connector.connectAutomatic(endpoint, kCluster, kType, nullptr);
  const unsigned second = slave.connector.connectAutomatic(endpoint, kCluster, kType, nullptr);
  ASSERT_EQ(first, 1u);
  ASSERT_EQ(second, 2u);
  ASSERT_TRUE(run([&] { return masterRecord->count("connected") == 2; })) << log.text();
  ASSERT_TRUE(run([&] { return slave.record->count("connected") == 2; }));
  EXPECT_EQ(slave.handler(first)->getRemoteConnectionId(), 100u);
  EXPECT_EQ(slave.handler(second)->getRemoteConnectionId(), 101u);
  EXPECT_TRUE(masterHandler(100)->isAutomatic());

  // A freed id is given out again; removing the range ends the automatic connections.
  slave.handler(first)->requestDisconnect(1);
  ASSERT_TRUE(run([&] { return master.getConnection(100) == nullptr; }));
  ASSERT_TRUE(slave.connector.connectAutomatic(endpoint, kCluster, kType, first, nullptr));
  ASSERT_TRUE(run([&] { return slave.handler(first) != nullptr; }));
  EXPECT_EQ(slave.handler(first)->getRemoteConnectionId(), 100u);
  master.removeAutomaticConnection(kType, true);
  ASSERT_TRUE(run([&] { return slave.connector.getActiveConnectionCount() == 0; }));
  EXPECT_EQ(slave.record->lastOf("disconnected").reason,
            DisconnectReason::automaticConnectionRemoved)
      << log.text();
}

TEST_F(MasterSlaveTest, OverwriteExistingReplacesTheOldPeerAndMovesStayRefused) {
  startMaster(true);
  Slave& first = addSlave(201);
  Slave& second = addSlave(202);
  connectPair(first, 12, 5);
  connectPair(second, 12, 6);
  ASSERT_TRUE(run([&] { return first.record->count("disconnected") == 1; }));
  EXPECT_EQ(first.record->lastOf("disconnected").reason,
            DisconnectReason::replacedByOtherConnection);
  EXPECT_EQ(masterRecord->lastOf("disconnected").reason,
            DisconnectReason::replacedByOtherConnection);
  EXPECT_EQ(masterHandler(12)->getRemoteDeviceId(), 202u);
  EXPECT_TRUE(log.contains("Replacing existing connection 12 (type 5) on TCP endpoint"));
  // The first slave's TCP connection lost its only logical connection and is closed.
  ASSERT_TRUE(run([&] { return first.connector.getTCPConnectionCount() == 0; }));

  // Without allowMove a move is refused for the general setting, before the cluster id is looked
  // at.
  ASSERT_TRUE(first.connector.moveConnection(endpoint, 3, kType, 12, 9, nullptr));
  ASSERT_TRUE(run([&] { return first.rejections.size() == 1; }));
  EXPECT_EQ(first.rejections[0].reason, DisconnectReason::notAllowed);
  EXPECT_TRUE(log.contains("not allowed (general setting)!"));
  EXPECT_TRUE(second.handler(6)->isConnected());
}

// Both peers end the connection that the id named before and must not end the one it names now.
TEST_F(MasterSlaveTest, ReconnectingAtOnceKeepsEveryNewConnection) {
  Slave& slave = startWithSlave(true);
  connectPair(slave, 13, 8);  // on the same TCP connection throughout
  master.addAutomaticConnection(kType, 100, 103);
  unsigned automatic = slave.connector.connectAutomatic(endpoint, kCluster, kType, nullptr);
  ASSERT_TRUE(run([&] { return slave.handler(automatic) != nullptr; })) << log.text();
  // The usual pattern: ask again from the disconnected hook, here under the same ids.
  slave.record->onDisconnected = [&](RecordingHandler&, unsigned id, int reason) {
    if (id == 7 && reason == 1) {
      EXPECT_TRUE(slave.connector.connect(endpoint, kCluster, kType, 12, 7, nullptr));
    }
  };
  constexpr int kCycles = 1000;
  for (int cycle = 0; cycle < kCycles; ++cycle) {
    const size_t connected = masterRecord->count("connected");
    if (cycle % 2 == 0) {
      slave.handler(7)->requestDisconnect(1);
    } else {
      // The master ends the automatic connection while the slave asks for the next one.
      masterHandler(slave.handler(automatic)->getRemoteConnectionId())->requestDisconnect(2);
      automatic = slave.connector.connectAutomatic(endpoint, kCluster, kType, nullptr);
    }
    const unsigned own = cycle % 2 == 0 ? 7 : automatic;
    // Turns that never sleep: a turn waits for the socket even when the worker has work queued.
    ASSERT_TRUE(tavrinTesting::runUntil(
        scheduler,
        [&] {
          return masterRecord->count("connected") > connected && slave.handler(own) &&
                 slave.connector.getActiveConnectionCount() == 3;
        },
        5s, 0))
        << "cycle " << cycle << "\n"
        << log.text();
  }
  ASSERT_TRUE(
      run([&] { return slave.connector.getTCPConnection(endpoint)->getReceiveQueueSize() == 0; }));
  slave.handler(8)->send("ping");
  ASSERT_TRUE(run([&] { return masterRecord->count("received") == 1; }));
  EXPECT_EQ(slave.rejections.size(), 0u);
  for (const auto* record : {masterRecord.get(), slave.record.get()}) {
    std::map<int, int> ends;
    for (const auto& event : record->all())
      if (event.what == "disconnected") ++ends[event.reason];
    EXPECT_EQ(ends, (std::map<int, int>{{1, kCycles / 2}, {2, kCycles / 2}}));
  }
  EXPECT_EQ(master.getActiveConnectionCount(), 3u);
  EXPECT_EQ(master.getTCPConnectionCount(), 1u);
}

// A slave that asks again for an id it holds, or moves a connection onto the TCP connection it
// already uses: the new connection lives at both ends, the old one ends at both with its reason.
TEST_F(MasterSlaveTest, OverwriteAndMoveOnTheSameTCPConnectionKeepTheConnection) {
  startMaster(true, true);
  Slave& slave = addSlave();
  connectPair(slave, 12, 7);  // the only connection on its TCP connection
  ASSERT_TRUE(slave.connector.connect(endpoint, kCluster, kType, 12, 8, nullptr));
  ASSERT_TRUE(run([&] {
    return slave.handler(8) && slave.record->count("disconnected") == 1 &&
           masterRecord->count("disconnected") == 1;
  })) << log.text();
  EXPECT_EQ(slave.record->reasons(), (std::map<unsigned, int>{{7, -11}}));
  EXPECT_EQ(masterRecord->lastOf("disconnected").reason,
            DisconnectReason::replacedByOtherConnection);
  RecordingHandler* remote = masterHandler(12);
  EXPECT_EQ(remote->getRemoteConnectionId(), 8u);

  ASSERT_TRUE(slave.connector.moveConnection(endpoint, kCluster, kType, 12, 9, nullptr));
  ASSERT_TRUE(run([&] { return slave.handler(9) && slave.record->count("disconnected") == 2; }));
  EXPECT_EQ(slave.record->reasons(), (std::map<unsigned, int>{{7, -11}, {8, -14}}));
  EXPECT_EQ(masterHandler(12), remote);
  EXPECT_EQ(remote->getRemoteConnectionId(), 9u);
  EXPECT_FALSE(masterRecord->lastOf("moved").last);
  // Data both ways after the answers to both disconnects: nothing else ended.
  slave.handler(9)->send("up");
  remote->send("down");
  ASSERT_TRUE(run([&] {
    return masterRecord->count("received") == 1 && slave.record->count("received") == 1;
  }));
  EXPECT_EQ(masterRecord->count("disconnected"), 1u);
  EXPECT_EQ(slave.record->count("disconnected"), 2u);
  EXPECT_TRUE(slave.handler(9)->isConnected());
  EXPECT_EQ(master.getTCPConnectionCount(), 1u);
}

TEST_F(MasterSlaveTest, MovesAConnectionOntoASecondTCPConnection) {
  startMaster(false, true);
  Slave& first = addSlave(201);
  Slave& second = addSlave(202);
  connectPair(first, 12, 5);
  RecordingHandler* moved = masterHandler(12);

  ASSERT_TRUE(second.connector.moveConnection(endpoint, kCluster, kType, 12, 9, nullptr));
  ASSERT_TRUE(run([&] { return second.handler(9) && first.record->count("disconnected") == 1; }))
      << log.text();
  EXPECT_EQ(first.record->lastOf("disconnected").reason, DisconnectReason::connectionMoved);
  EXPECT_EQ(masterHandler(12), moved);
  EXPECT_EQ(moved->getRemoteConnectionId(), 9u);
  EXPECT_EQ(moved->getRemoteDeviceId(), 202u);
  EXPECT_EQ(masterRecord->lastOf("moved").last, true);
  EXPECT_EQ(second.handler(9)->getRemoteConnectionId(), 12u);
  moved->send("after move");
  ASSERT_TRUE(run([&] { return second.record->count("received") == 1; }));
  EXPECT_EQ(second.record->lastOf("received").payload, "after move");
  ASSERT_TRUE(run([&] { return first.connector.getTCPConnectionCount() == 0; }));
  EXPECT_EQ(master.getTCPConnectionCount(), 1u);

  // Refusals of a move: unknown connection, wrong cluster.
  ASSERT_TRUE(second.connector.moveConnection(endpoint, kCluster, kType, 77, 10, nullptr));
  ASSERT_TRUE(second.connector.moveConnection(endpoint, 3, kType, 12, 11, nullptr));
  ASSERT_TRUE(run([&] { return second.rejections.size() == 2; }));
  EXPECT_EQ(second.rejections[0].reason, DisconnectReason::notPresent);
  EXPECT_EQ(second.rejections[1].reason, DisconnectReason::wrongClusterId);
}

TEST_F(MasterSlaveTest, EveryDisconnectPathReachesBothEndsWithItsReason) {
  Slave& slave = startWithSlave(false);
  struct Path {
    const char* name;
    std::function<void()> end;
    int reason;
  };
  const std::vector<Path> paths = {
      {"slave handler", [&] { slave.handler(7)->requestDisconnect(42); }, 42},
      {"master handler", [&] { masterHandler(12)->requestDisconnect(43); }, 43},
      {"master by id", [&] { master.disconnectFromMaster(12, 44); }, 44},
      {"slave by id", [&] { slave.connector.disconnect(7, 45); }, 45},
      {"allowed id removed",
       [&] {
         master.removeAllowedConnection(12);
         master.addAllowedConnection(12, kType);
       },
       DisconnectReason::allowedConnectionRemoved},
      {"handler removed",
       [&] {
         master.removeConnectionHandler(kType, 2);
         master.addConnectionHandler(kType, 2, RecordingHandler::factory(kType, 2, masterRecord));
       },
       DisconnectReason::connectionHandlerRemoved},
      {"remote device", [&] { master.disconnectRemoteDeviceFromMaster(SimpleIp("127.0.0.1"), 46); },
       46},
      // Enabled again only at the next path: the worker that disabling leaves scheduled must
      // still destroy the ended handlers.
      {"slave disabled", [&] { slave.connector.setEnabled(false); }, DisconnectReason::shutdown},
      // The master restarts on the new address, where the next path finds it.
      {"new address",
       [&] {
         master.setIp(SimpleIp("127.0.0.2"));
         endpoint = master.getListeningEndpoint();
       },
       DisconnectReason::shutdown},
      {"master disabled",
       [&] {
         master.setEnabled(false);
         master.setEnabled(true);
         endpoint = master.getListeningEndpoint();
       },
       DisconnectReason::shutdown},
  };
  for (const Path& path : paths) {
    SCOPED_TRACE(path.name);
    masterRecord->clear();
    slave.record->clear();
    slave.connector.setEnabled(true);
    connectPair(slave, 12, 7);
    EXPECT_EQ(slave.handler(7)->getRemoteEndpoint(), endpoint);
    path.end();
    ASSERT_TRUE(run([&] {
      return masterRecord->count("disconnected") == 1 && slave.record->count("disconnected") == 1;
    })) << log.text();
    EXPECT_EQ(masterRecord->lastOf("disconnected").reason, path.reason);
    EXPECT_EQ(slave.record->lastOf("disconnected").reason, path.reason);
    EXPECT_TRUE(masterRecord->lastOf("disconnected").last);
    // The last logical connection took its TCP connection along at both ends.
    ASSERT_TRUE(run([&] { return allClosed(); }));
    ASSERT_TRUE(run([&] { return masterRecord->alive() == 0 && slave.record->alive() == 0; }));
  }
  EXPECT_EQ(endpoint.getIp(), SimpleIp("127.0.0.2"));
  EXPECT_TRUE(log.contains("for connection 12, reason: application reason (42)"));
  // Every end was told to the peer before its TCP connection closed: no side saw a reset.
  EXPECT_FALSE(log.contains("Connection reset by peer")) << log.text();
}

TEST_F(MasterSlaveTest, ABrokenTCPConnectionEndsItsConnectionsAsInterrupted) {
  Slave& slave = startWithSlave(true);
  connectPair(slave, 13, 8);
  SingleTCPConnectionEndpoint* connection =
      master.getTCPConnection(masterHandler(12)->getRemoteEndpoint());
  ASSERT_NE(connection, nullptr);
  connection->getTransceiver().disconnect();
  ASSERT_TRUE(run([&] {
    return masterRecord->count("disconnected") == 2 && slave.record->count("disconnected") == 2;
  })) << log.text();
  const int interrupted = DisconnectReason::connectionInterrupted;
  EXPECT_EQ(masterRecord->reasons(),
            (std::map<unsigned, int>{{12, interrupted}, {13, interrupted}}));
  EXPECT_EQ(slave.record->reasons(), (std::map<unsigned, int>{{7, interrupted}, {8, interrupted}}));
  EXPECT_TRUE(log.contains("Disconnecting TCP connection 127.0.0.1:"));
  ASSERT_TRUE(run([&] { return allClosed(); }));
}

TEST_F(MasterSlaveTest, KeepAliveClosesAPeerThatFallsSilent) {
  // The master expects traffic every second; the slave sends no keep-alives of its own.
  startMaster(false, false, ConnectionTimeout{1, 1});
  Slave& slave = addSlave(kSlaveDevice, ConnectionTimeout{0, 5});
  connectPair(slave, 12, 7);
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(run([&] { return masterRecord->count("disconnected") == 1; }, 5s)) << log.text();
  EXPECT_GE(std::chrono::steady_clock::now() - start, 700ms);
  EXPECT_EQ(masterRecord->lastOf("disconnected").reason, DisconnectReason::connectionInterrupted);
  ASSERT_TRUE(run([&] { return slave.record->count("disconnected") == 1; }));
  EXPECT_EQ(slave.record->lastOf("disconnected").reason, DisconnectReason::connectionInterrupted);
}

TEST_F(MasterSlaveTest, HandlersMayEndConnectionsFromInsideTheirOwnCalls) {
  Slave& slave = startWithSlave(false);
  // Master side: "bye" ends the receiving connection itself, "other" ends connection 14.
  masterRecord->onReceive = [&](RecordingHandler& handler, const std::string& payload) {
    const int aliveBefore = masterRecord->alive();
    if (payload == "bye") handler.requestDisconnect(50);
    if (payload == "other") master.disconnect(14, 51);
    // Ended handlers wait for the worker: nothing was destroyed inside this call.
    EXPECT_EQ(masterRecord->alive(), aliveBefore);
    EXPECT_EQ(handler.getType(), kType);
  };
  // Ending connection 13 takes connection 15 along, from inside the disconnect hook.
  masterRecord->onDisconnected = [&](RecordingHandler&, unsigned id, int) {
    if (id == 13) master.disconnect(15, 52);
  };
  // Slave side: connection 9 ends itself as soon as it is connected.
  slave.record->onConnected = [&](RecordingHandler& handler) {
    if (handler.getConnectionId() == 9) handler.requestDisconnect(53);
  };
  connectPair(slave, 12, 7);
  connectPair(slave, 13, 8);
  connectPair(slave, 14, 10);
  connectPair(slave, 15, 11);

  slave.handler(8)->send("other");
  ASSERT_TRUE(run([&] { return master.getConnection(14) == nullptr; }));
  slave.handler(8)->send("bye");
  ASSERT_TRUE(run(
      [&] { return master.getConnection(13) == nullptr && master.getConnection(15) == nullptr; }));
  ASSERT_TRUE(run([&] { return slave.connector.getActiveConnectionCount() == 1; }));
  EXPECT_EQ(slave.record->reasons(), (std::map<unsigned, int>{{8, 50}, {10, 51}, {11, 52}}));

  const size_t connectedBefore = masterRecord->count("connected");
  ASSERT_TRUE(slave.connector.connect(endpoint, kCluster, kType, 13, 9, nullptr));
  ASSERT_TRUE(run([&] { return masterRecord->count("connected") > connectedBefore; }));
  ASSERT_TRUE(run([&] { return master.getConnection(13) == nullptr; }));
  EXPECT_EQ(masterRecord->lastOf("disconnected").reason, 53);
  ASSERT_TRUE(run([&] { return slave.record->alive() == 1 && masterRecord->alive() == 1; }));
  EXPECT_TRUE(slave.handler(7)->isConnected());
}

TEST_F(MasterSlaveTest, AnAcceptTheSlaveCannotServeEndsTheMasterSideAndFreesTheId) {
  Slave& slave = startWithSlave(false);
  ASSERT_TRUE(slave.connector.connect(endpoint, kCluster, kType, 12, 7, nullptr));
  // The versions offered go out with the request; the slave loses them before the answer.
  slave.connector.removeConnectionHandler(kType, 1);
  slave.connector.removeConnectionHandler(kType, 2);
  ASSERT_TRUE(run([&] { return slave.rejections.size() == 1; })) << log.text();
  EXPECT_EQ(slave.rejections[0].reason, DisconnectReason::noCompatibleConnectionHandler);
  EXPECT_EQ(slave.rejections[0].remoteConnectionId, 12u);
  SingleTCPConnectionEndpoint* connection = slave.connector.getTCPConnection(endpoint);
  ASSERT_NE(connection, nullptr);
  EXPECT_FALSE(connection->hasLogicalConnection(7));
  EXPECT_TRUE(slave.connector.verifyFreeConnectionId(7));
  ASSERT_TRUE(run([&] { return masterRecord->count("disconnected") == 1; }));
  EXPECT_EQ(masterRecord->lastOf("disconnected").reason,
            DisconnectReason::noCompatibleConnectionHandler);
  // The master closes the TCP connection that lost its last logical connection.
  ASSERT_TRUE(run([&] { return allClosed(); }));
}

// The master runs on a thread of its own with its own scheduler; the slave on the test's thread.
TEST(MasterSlaveThreadsTest, ConnectExchangeAndDisconnectAcrossTwoLoops) {
  auto masterRecord = std::make_shared<HandlerRecord>();
  auto slaveRecord = std::make_shared<HandlerRecord>();
  masterRecord->onReceive = [](RecordingHandler& handler, const std::string& payload) {
    handler.send("echo:" + payload);
  };
  tavrinTesting::LoopbackFixture::Settings settings;
  settings.loops = tavrinTesting::LoopbackFixture::Loops::Two;
  tavrinTesting::LoopbackFixture loopback(settings);
  loopback.addMasterHandler(kType, 1, RecordingHandler::factory(kType, 1, masterRecord));
  for (unsigned short version : {1, 2, 3})
    loopback.addSlaveHandler(kType, version,
                             RecordingHandler::factory(kType, version, slaveRecord));
  ASSERT_TRUE(loopback.start()) << loopback.log().text();
  auto* own = static_cast<RecordingHandler*>(loopback.connect(kType));
  ASSERT_NE(own, nullptr) << loopback.log().text();
  EXPECT_EQ(own->getVersion(), 1);
  constexpr int kMessages = 200;
  for (int i = 0; i < kMessages; ++i) own->send(std::to_string(i));
  ASSERT_TRUE(loopback.runUntil([&] { return slaveRecord->count("received") == kMessages; }));
  EXPECT_EQ(slaveRecord->lastOf("received").payload, "echo:" + std::to_string(kMessages - 1));
  own->requestDisconnect(7);
  ASSERT_TRUE(loopback.runUntil([&] {
    return masterRecord->count("disconnected") == 1 &&
           loopback.slave().getTCPConnectionCount() == 0;
  }));
  EXPECT_EQ(masterRecord->lastOf("disconnected").reason, 7);
  loopback.stop();
  EXPECT_EQ(masterRecord->alive(), 0);
}

}  // namespace
}  // namespace tavrinConnector
