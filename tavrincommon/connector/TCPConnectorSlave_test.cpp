#include "tavrincommon/connector/TCPConnectorSlave.h"

#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/ConnectorFrames.h"
#include "tavrincommon/testing/FakeTCPSocket.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/RecordingHandler.h"
#include "tavrincommon/testing/RunUntil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tavrinConnector {
namespace {

using namespace std::chrono_literals;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;
using tavrinTesting::Bytes;
using tavrinTesting::CountedTag;
using tavrinTesting::FakeTCPSocket;
using tavrinTesting::frame;
using tavrinTesting::HandlerRecord;
using tavrinTesting::RecordingHandler;

std::string acceptFrame(uint32_t ownId, uint16_t type, uint16_t version, uint32_t masterId) {
  return frame(9, 8, Bytes().u32(ownId).u16(type).u16(version).u32(masterId).u32(100).data);
}
// A connect (3) or move (5) request of type 5 from device 200 with versions 5, 2 and 1.
std::string requestFrame(uint8_t type, uint32_t masterId, uint32_t ownId) {
  return frame(type, 8,
               Bytes().u32(masterId).u16(5).u32(ownId).u32(200).u16(3).u16(5).u16(2).u16(1).data);
}
std::string rejectFrame(uint32_t cluster, uint32_t ownId, uint16_t type, uint32_t masterId,
                        int reason) {
  return frame(8, cluster,
               Bytes().u32(ownId).u16(type).u32(masterId).u32(static_cast<uint32_t>(reason)).data);
}

struct Rejection {
  unsigned clusterId;
  unsigned connectionId;
  int reason;
  unsigned remoteConnectionId;
  bool hadData;
};

class TCPConnectorSlaveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    makeSlave(ConnectionTimeout{});
    onRejected(nullptr);
  }
  // Rejections of type 5 are recorded, then `then` runs with the one just recorded.
  void onRejected(std::function<void(Rejection)> then) {
    slave.addConnectionRejectedCallback(
        5, [this, then](const SimpleEndpoint&, unsigned cluster, unsigned id, int reason,
                        unsigned remote, unsigned short, const CustomConnectData* data) {
          rejections.push_back({cluster, id, reason, remote, data != nullptr});
          if (then) then(rejections.back());
        });
  }
  void makeSlave(const ConnectionTimeout& timing) {
    slave.initCommon(2, 200, ConnectorInterfaceType::Client, SimpleIp("127.0.0.1"), timing, false);
    for (unsigned short version : {1, 2, 5})
      slave.addConnectionHandler(5, version, RecordingHandler::factory(5, version, record));
    slave.setEnabled(true);
  }
  bool run(const std::function<bool()>& condition, std::chrono::milliseconds limit = 3s) {
    return tavrinTesting::runUntil(scheduler, condition, limit);
  }

  tavrinTesting::LogCapture log;
  tavrinScheduler::Scheduler scheduler{log.logging()};
  std::shared_ptr<HandlerRecord> record = std::make_shared<HandlerRecord>();
  std::vector<FakeTCPSocket*> sockets;
  bool factoryFails = false;
  // Before the connector: its destructor still reports the requests it drops.
  std::vector<Rejection> rejections;
  TCPConnectorSlave slave{&scheduler,
                          [this](const SimpleEndpoint&, const SimpleIp&, bool& connectedNow,
                                 bool) -> std::unique_ptr<tavrinNetwork::TCPSocketInterface> {
                            if (factoryFails) return nullptr;
                            auto socket = std::make_unique<FakeTCPSocket>();
                            sockets.push_back(socket.get());
                            connectedNow = true;
                            return socket;
                          },
                          log.logging()};
  const SimpleEndpoint master{SimpleIp("127.0.0.1"), 4000};
};

TEST_F(TCPConnectorSlaveTest, GreetsANewTCPConnectionThenAsksWithItsVersionsHighestFirst) {
  ASSERT_TRUE(slave.connect(master, 8, 5, 12, 7, nullptr));
  EXPECT_TRUE(slave.isPending(7));
  EXPECT_TRUE(slave.getTCPConnection(master)->hasLogicalConnection(7));
  // A slave has no address of its own: taking 0.0.0.0 at construction is no change to report.
  EXPECT_FALSE(log.contains("Changed TCPConnector")) << log.text();
  // Later requests reuse the connection; an automatic one asks for 0xFFFFFFFF, a move request
  // has the same layout under its own type.
  EXPECT_EQ(slave.connectAutomatic(master, 8, 5, nullptr), 1u);
  EXPECT_EQ(slave.moveConnection(master, 8, 5, 40, nullptr), 2u);
  ASSERT_EQ(sockets.size(), 1u);
  EXPECT_EQ(sockets[0]->written, frame(2, 0) + requestFrame(3, 12, 7) +
                                     requestFrame(3, 0xFFFFFFFFu, 1) + requestFrame(5, 40, 2));
}

// A rejected callback run by disabling may enable the connector again: it then stays enabled with
// its keep-alives running.
TEST_F(TCPConnectorSlaveTest, EnabledAgainFromACallbackOfDisablingKeepsItsKeepAlives) {
  ASSERT_TRUE(slave.connect(master, 8, 5, 12, 7, nullptr));
  onRejected([this](const Rejection&) { slave.setEnabled(true); });
  slave.setEnabled(false);
  EXPECT_TRUE(slave.isEnabled());
  EXPECT_EQ(scheduler.getTimeoutTaskScheduler().size(), 1u);  // the keep-alive timer
}

TEST_F(TCPConnectorSlaveTest, AnAcceptCreatesTheHandlerWithTheCustomData) {
  int destroyed = 0;
  ASSERT_TRUE(slave.connectAutomatic(master, 8, 5, 7, std::make_unique<CountedTag>(&destroyed)));
  sockets[0]->addChunk(acceptFrame(7, 5, 2, 300));
  ASSERT_TRUE(run([&] { return record->count("connected") == 1; })) << log.text();
  auto* handler = static_cast<RecordingHandler*>(slave.getConnection(7));
  EXPECT_EQ(handler->getVersion(), 2);
  EXPECT_TRUE(handler->isAutomatic());
  EXPECT_EQ(handler->getRemoteConnectionId(), 300u);
  EXPECT_EQ(handler->getRemoteDeviceId(), 100u);
  ASSERT_NE(handler->getCustomConnectData(), nullptr);
  EXPECT_FALSE(slave.isPending(7));
  EXPECT_EQ(destroyed, 0);

  // Data goes out addressed with the master's id.
  sockets[0]->written.clear();
  handler->send("hi");
  EXPECT_EQ(sockets[0]->written, frame(4, 300, "hi"));

  // A second accept for the same id is no longer pending: logged, nothing sent.
  sockets[0]->written.clear();
  sockets[0]->addChunk(acceptFrame(7, 5, 2, 300));
  ASSERT_TRUE(
      run([&] { return log.contains("Ignoring connection accept message for connection 7"); }));
  EXPECT_TRUE(sockets[0]->written.empty());

  // So is a connect message: a slave decides nothing.
  sockets[0]->addChunk(frame(3, 8, Bytes().u32(1).u16(5).u32(2).u32(3).u16(0).data));
  ASSERT_TRUE(
      run([&] { return log.contains("(cluster id 8, device id: 3); ignoring on client"); }));
  EXPECT_TRUE(sockets[0]->written.empty());
  slave.setEnabled(false);
  ASSERT_TRUE(run([&] { return destroyed == 1; }));
}

TEST_F(TCPConnectorSlaveTest, OnlyTheMasterThatWasAskedAnswersARequest) {
  const SimpleEndpoint other(SimpleIp("127.0.0.1"), 4001);
  ASSERT_TRUE(slave.connect(master, 8, 5, 12, 1, nullptr));
  ASSERT_TRUE(slave.connect(other, 8, 5, 12, 3, nullptr));
  ASSERT_EQ(sockets.size(), 2u);
  // The other master answers for request 1, and the asked one for the wrong type.
  sockets[1]->addChunk(acceptFrame(1, 5, 2, 300) + rejectFrame(8, 1, 5, 12, -8));
  sockets[0]->addChunk(acceptFrame(1, 6, 2, 300) + rejectFrame(8, 1, 6, 12, -8));
  ASSERT_TRUE(run([&] { return log.count("Connection not pending!") == 4; })) << log.text();
  EXPECT_TRUE(slave.isPending(1));
  EXPECT_TRUE(rejections.empty());
  EXPECT_FALSE(slave.getTCPConnection(other)->hasLogicalConnection(1));

  sockets[0]->addChunk(acceptFrame(1, 5, 2, 300));
  ASSERT_TRUE(run([&] { return record->count("connected") == 1; })) << log.text();
  EXPECT_TRUE(slave.getTCPConnection(master)->hasLogicalConnection(1));
}

TEST_F(TCPConnectorSlaveTest, LocalFailuresAreReportedBeforeTheCallReturns) {
  int destroyed = 0;
  ASSERT_TRUE(slave.connect(master, 8, 5, 12, 7, nullptr));
  const std::string before = sockets[0]->written;
  for (unsigned id : {0u, 0xFFFFFFFFu, 7u})
    EXPECT_FALSE(slave.connect(master, 8, 5, 12, id, std::make_unique<CountedTag>(&destroyed)));
  EXPECT_FALSE(slave.connect(master, 8, 6, 12, 8, std::make_unique<CountedTag>(&destroyed)));
  factoryFails = true;
  const SimpleEndpoint other(SimpleIp("127.0.0.1"), 4001);
  EXPECT_EQ(slave.connect(other, 8, 5, 12, std::make_unique<CountedTag>(&destroyed)), 0xFFFFFFFFu);

  ASSERT_EQ(rejections.size(), 4u);  // type 6 has no rejected callback
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(rejections[i].reason, DisconnectReason::notAllowed);
    EXPECT_EQ(rejections[i].clusterId, 0xFFFFFFFFu);
    EXPECT_TRUE(rejections[i].hadData);
  }
  EXPECT_EQ(rejections[3].reason, DisconnectReason::connectionInterrupted);
  EXPECT_EQ(destroyed, 5);
  EXPECT_EQ(sockets[0]->written, before);
  EXPECT_EQ(slave.getTCPConnection(other), nullptr);
  EXPECT_TRUE(
      log.contains("Failed to create connection 0 (type 5, remote connection id: 12) to TCP "
                   "endpoint 127.0.0.1:4000 (cluster id 8): Invalid connectionId!"));
  EXPECT_TRUE(log.contains("(cluster id 8): Failed to create TCP connection!"));
}

TEST_F(TCPConnectorSlaveTest, RejectsAndLocalDisconnectsEndPendingRequests) {
  ASSERT_TRUE(slave.connect(master, 8, 5, 12, 7, nullptr));
  ASSERT_TRUE(slave.connect(master, 8, 5, 13, 8, nullptr));
  sockets[0]->addChunk(rejectFrame(9, 7, 5, 12, -6));
  ASSERT_TRUE(run([&] { return rejections.size() == 1; }));
  // The pending entry's cluster id is reported, not the one in the reject.
  EXPECT_EQ(rejections[0].clusterId, 8u);
  EXPECT_EQ(rejections[0].reason, DisconnectReason::wrongClusterId);
  EXPECT_EQ(rejections[0].remoteConnectionId, 12u);
  EXPECT_TRUE(
      log.contains("Rejected connection 7 (type 5, remote connection id: 12) to TCP "
                   "endpoint 127.0.0.1:4000 (cluster id 9): wrongClusterId (-6)!"));
  EXPECT_FALSE(slave.getTCPConnection(master)->hasLogicalConnection(7));
  EXPECT_EQ(sockets[0]->closeCalls, 0);

  // Ending the last pending request with an application reason closes the TCP connection.
  slave.disconnect(8, 7);
  ASSERT_EQ(rejections.size(), 2u);
  EXPECT_EQ(rejections[1].reason, 7);
  EXPECT_FALSE(slave.getTCPConnection(master)->isConnected());
  ASSERT_TRUE(run([&] { return slave.getTCPConnectionCount() == 0; }));
  slave.disconnect(99, 7);
  EXPECT_EQ(rejections.size(), 2u);

  // A reject for a request that is no longer pending changes nothing.
  ASSERT_TRUE(slave.connect(master, 8, 5, 12, 7, nullptr));
  sockets[1]->addChunk(rejectFrame(8, 70, 5, 12, -8));
  ASSERT_TRUE(
      run([&] { return log.contains("Ignoring connection reject message for connection 70"); }));
  EXPECT_EQ(rejections.size(), 2u);
}

TEST_F(TCPConnectorSlaveTest, RejectedCallbacksMayChangeThePendingTableWhileItIsWalked) {
  bool retried = false;
  onRejected([&](const Rejection& r) {
    if (r.connectionId != 1 || retried) return;
    retried = true;
    slave.disconnect(2, 9);                                    // another request, not walked yet
    EXPECT_TRUE(slave.connect(master, 8, 5, 20, 1, nullptr));  // the id just freed
  });
  for (unsigned id : {1u, 2u, 3u}) ASSERT_TRUE(slave.connect(master, 8, 5, 10 + id, id, nullptr));
  slave.setEnabled(false);
  std::vector<std::pair<unsigned, int>> seen;
  for (const Rejection& r : rejections) seen.emplace_back(r.connectionId, r.reason);
  // The retry is ended with the TCP connection it went out on.
  const std::vector<std::pair<unsigned, int>> expected = {{1, -1}, {2, 9}, {3, -1}, {1, -1}};
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(slave.getPendingConnectionCount(), 0u);
  EXPECT_EQ(slave.getTCPConnectionCount(), 0u);
  EXPECT_FALSE(slave.isActive());
}

TEST_F(TCPConnectorSlaveTest, DestructionEndsRequestsWhileTheSlaveIsWholeAndRefusesNewOnes) {
  // The factory keeps state of its own, so that a call after the slave's part is gone shows under
  // the address sanitizer.
  auto state = std::make_shared<int>(0);
  for (bool enabled : {true, false}) {
    auto doomed = std::make_unique<TCPConnectorSlave>(
        &scheduler,
        [state](const SimpleEndpoint&, const SimpleIp&, bool& connectedNow,
                bool) -> std::unique_ptr<tavrinNetwork::TCPSocketInterface> {
          ++*state;
          connectedNow = true;
          return std::make_unique<FakeTCPSocket>();
        },
        log.logging());
    TCPConnectorSlave* raw = doomed.get();
    std::vector<int> reasons;
    std::vector<bool> retried;
    raw->addConnectionHandler(5, 1, RecordingHandler::factory(5, 1, record));
    raw->addConnectionRejectedCallback(5, [&](const SimpleEndpoint&, unsigned, unsigned, int reason,
                                              unsigned, unsigned short, const CustomConnectData*) {
      reasons.push_back(reason);
      retried.push_back(raw->connect(master, 8, 5, 12, 9, nullptr));
    });
    raw->setEnabled(enabled);
    ASSERT_TRUE(raw->connect(master, 8, 5, 12, 7, nullptr));
    doomed.reset();
    EXPECT_EQ(reasons, std::vector<int>{DisconnectReason::shutdown}) << enabled;
    EXPECT_EQ(retried, std::vector<bool>{false}) << enabled;
  }
  EXPECT_EQ(*state, 2);
  EXPECT_EQ(log.count("Failed to create connection 9 (type 5, remote connection id: 12) to TCP "
                      "endpoint 127.0.0.1:4000 (cluster id 8): Connector is being destroyed!"),
            2u);
}

TEST_F(TCPConnectorSlaveTest, ARequestWhoseHandlerTypeACallbackRemovedFailsWithNoHandler) {
  onRejected([&](const Rejection& r) {
    if (r.connectionId == 7) slave.removeConnectionHandlerType(5);
  });
  ASSERT_TRUE(slave.connect(master, 8, 5, 12, 7, nullptr));
  // The socket broke and the worker has not collected it yet: the next request ends 7 first.
  sockets[0]->close();
  EXPECT_FALSE(slave.connect(master, 8, 5, 13, 8, nullptr));
  ASSERT_EQ(rejections.size(), 2u);
  EXPECT_EQ(rejections[0].reason, DisconnectReason::connectionInterrupted);
  EXPECT_EQ(rejections[1].connectionId, 8u);
  EXPECT_EQ(rejections[1].reason, DisconnectReason::noConnectionHandler);
  EXPECT_EQ(sockets.size(), 1u);
  EXPECT_TRUE(
      log.contains("Failed to create connection 8 (type 5, remote connection id: 13) to TCP "
                   "endpoint 127.0.0.1:4000 (cluster id 8): No connection handler for this "
                   "type!"));
}

TEST_F(TCPConnectorSlaveTest, AnAcceptWhoseFactoryMakesNoHandlerIsReportedAndEndedAtTheMaster) {
  slave.addConnectionHandler(5, 3, [] { return std::unique_ptr<ConnectionHandlerBase>(); });
  int destroyed = 0;
  ASSERT_TRUE(slave.connect(master, 8, 5, 12, 7, std::make_unique<CountedTag>(&destroyed)));
  sockets[0]->written.clear();
  sockets[0]->addChunk(acceptFrame(7, 5, 3, 300));
  ASSERT_TRUE(run([&] { return rejections.size() == 1; })) << log.text();
  EXPECT_EQ(rejections[0].clusterId, 8u);
  EXPECT_EQ(rejections[0].reason, DisconnectReason::noConnectionHandler);
  EXPECT_TRUE(rejections[0].hadData);
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(sockets[0]->written,
            frame(6, 300,
                  Bytes().u32(static_cast<uint32_t>(DisconnectReason::noConnectionHandler)).data));
  EXPECT_EQ(slave.getActiveConnectionCount(), 0u);
  EXPECT_FALSE(slave.getTCPConnection(master)->hasLogicalConnection(7));
  EXPECT_TRUE(
      log.contains("Failed to accept connection 7 (type 5, remote connection id: 300, "
                   "version 3) to TCP endpoint 127.0.0.1:4000 (cluster id 8): Connection "
                   "handler factory returned no handler!"));
}

TEST_F(TCPConnectorSlaveTest, IdsAndHandlerRegistryFollowTheActiveAndPendingTables) {
  for (unsigned id : {5u, 6u, 7u}) ASSERT_TRUE(slave.connect(master, 8, 5, 10 + id, id, nullptr));
  sockets[0]->addChunk(acceptFrame(5, 5, 1, 15) + acceptFrame(6, 5, 2, 16));
  ASSERT_TRUE(run([&] { return record->count("connected") == 2; }));
  EXPECT_EQ(slave.getFreeConnectionId(5, 7), 0xFFFFFFFFu);
  EXPECT_EQ(slave.getFreeConnectionId(5, 8), 8u);
  EXPECT_EQ(slave.getFreeConnectionId(0xFFFFFFFFu, 1), 1u);  // wraps past the invalid ids

  // Replacing version 2's factory ends connection 6 only.
  slave.addConnectionHandler(5, 2, RecordingHandler::factory(5, 2, record));
  EXPECT_EQ(record->lastOf("disconnected").id, 6u);
  EXPECT_EQ(record->lastOf("disconnected").reason, DisconnectReason::connectionHandlerRemoved);
  EXPECT_EQ(slave.getFreeConnectionId(5, 7), 6u);
  EXPECT_NE(slave.getConnection(5), nullptr);

  // Pending requests are always reported with shutdown, active ones with the reason given.
  slave.disconnectAllConnections(DisconnectReason::connectionHandlerRemoved);
  ASSERT_EQ(rejections.size(), 1u);
  EXPECT_EQ(rejections[0].reason, DisconnectReason::shutdown);
  EXPECT_EQ(record->lastOf("disconnected").reason, DisconnectReason::connectionHandlerRemoved);
  EXPECT_EQ(slave.getTCPConnectionCount(), 0u);
  ASSERT_TRUE(run([&] { return record->alive() == 0; }));
}

TEST_F(TCPConnectorSlaveTest, KeepAlivesFollowTheConnectionTimeout) {
  makeSlave(ConnectionTimeout{0, 1});
  ASSERT_TRUE(slave.connect(master, 8, 5, 12, 7, nullptr));
  const size_t greeting = sockets[0]->written.size();
  tavrinTesting::runFor(scheduler, 1300ms);
  EXPECT_EQ(sockets[0]->written.size(), greeting);

  // An interval below a second is raised to one, and says so.
  makeSlave(ConnectionTimeout{3, 0});
  EXPECT_TRUE(log.contains("TCPConnector Client 2: keep alive interval 0s raised to 1s"));
  ASSERT_TRUE(slave.connect(master, 8, 5, 12, 7, nullptr));
  FakeTCPSocket* socket = sockets.back();
  const std::string sent = socket->written;
  ASSERT_TRUE(run([&] { return socket->written.size() > sent.size(); }, 2s));
  EXPECT_EQ(socket->written.substr(sent.size()), frame(1, 0));
}

TEST_F(TCPConnectorSlaveTest, FrameSizeBoundAppliesToCreatedConnections) {
  slave.setMaxFrameLength(100);
  ASSERT_TRUE(slave.connect(master, 8, 5, 12, 7, nullptr));
  sockets[0]->addChunk(frame(4, 7, std::string(200, 'x')));
  ASSERT_TRUE(run([&] { return rejections.size() == 1; }));
  EXPECT_EQ(rejections[0].reason, DisconnectReason::connectionInterrupted);
}

}  // namespace
}  // namespace tavrinConnector
