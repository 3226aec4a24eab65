#include "tavrincommon/connector/TCPConnectorMaster.h"

#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/network/TCPSocketHelper.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/ConnectorFrames.h"
#include "tavrincommon/testing/FakeTCPSocket.h"
#include "tavrincommon/testing/LogCapture.h"
#include "tavrincommon/testing/RawPeer.h"
#include "tavrincommon/testing/RecordingHandler.h"
#include "tavrincommon/testing/RunUntil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace tavrinConnector {
namespace {

using namespace std::chrono_literals;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;
using tavrinTesting::Bytes;
using tavrinTesting::frame;
using tavrinTesting::HandlerRecord;
using tavrinTesting::readU32;
using tavrinTesting::RecordingHandler;

std::string connectPayload(uint32_t masterId, uint16_t type, uint32_t ownId, uint32_t device,
                           const std::vector<uint16_t>& versions) {
  Bytes b;
  b.u32(masterId).u16(type).u32(ownId).u32(device).u16(static_cast<uint16_t>(versions.size()));
  for (uint16_t v : versions) b.u16(v);
  return b.data;
}

std::string i32(int value) { return Bytes().u32(static_cast<uint32_t>(value)).data; }
// Accept: the slave's id first, type, the highest common version, the master's id and device.
std::string acceptFrame(uint32_t slaveId, uint16_t version, uint32_t masterId) {
  return frame(9, 8, Bytes().u32(slaveId).u16(5).u16(version).u32(masterId).u32(0xABCD).data);
}
std::string rejectFrame(uint32_t slaveId, uint16_t type, uint32_t masterId, int reason) {
  return frame(8, 8, Bytes().u32(slaveId).u16(type).u32(masterId).data + i32(reason));
}

// A second master of the test's own: cluster 8 on 127.0.0.1, default timing.
void initOther(TCPConnectorMaster& other, uint16_t port = 0) {
  other.init(4, 1, ConnectorInterfaceType::PanelMaster, 8, SimpleIp("127.0.0.1"), port, false,
             false, ConnectionTimeout{}, false);
}

class TCPConnectorMasterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    master.init(3, 0xABCD, ConnectorInterfaceType::PanelMaster, 8, SimpleIp("127.0.0.1"), 0, false,
                false, ConnectionTimeout{}, false);
    master.addConnectionHandler(5, 1, RecordingHandler::factory(5, 1, record));
    master.addConnectionHandler(5, 2, RecordingHandler::factory(5, 2, record));
    master.addAllowedConnection(12, 5);
    master.setEnabled(true);
    ASSERT_TRUE(master.isListening());
    peer = std::make_unique<tavrinTesting::RawPeer>(master.getListeningEndpoint().getPort());
    ASSERT_TRUE(run([&] { return master.getTCPConnectionCount() == 1; }));
  }
  bool run(const std::function<bool()>& condition) {
    return tavrinTesting::runUntil(scheduler, condition);
  }
  // The next whole frame from the master, skipping its keep-alive pongs (info 0).
  std::string next() {
    std::string out;
    EXPECT_TRUE(run([&] {
      received += peer->receiveSome();
      while (received.size() >= 11 && received.size() >= readU32(received, 1) + 5) {
        out = received.substr(0, readU32(received, 1) + 5);
        received.erase(0, out.size());
        if (out != frame(1, 0)) return true;
      }
      return false;
    })) << log.text();
    return out;
  }
  void send(tavrinTesting::RawPeer& to, const std::string& bytes) {
    ASSERT_EQ(to.sendSome(bytes), bytes.size());
  }
  void send(const std::string& bytes) { send(*peer, bytes); }
  bool peerClosed() {
    return run([&] { return peer->closedByOtherSide(); });
  }

  tavrinTesting::LogCapture log;
  tavrinScheduler::Scheduler scheduler{log.logging()};
  std::shared_ptr<HandlerRecord> record = std::make_shared<HandlerRecord>();
  TCPConnectorMaster master{&scheduler, log.logging()};
  std::unique_ptr<tavrinTesting::RawPeer> peer;
  std::string received;
};

TEST_F(TCPConnectorMasterTest, AnswersAHandBuiltConnectFieldByField) {
  send(frame(2, 0x00010000));  // only the low 16 bits are the version
  send(frame(3, 8, connectPayload(12, 5, 77, 0x1234, {3, 2, 1})));
  EXPECT_EQ(next(), acceptFrame(77, 2, 12));
  ASSERT_TRUE(run([&] { return record->count("connected") == 1; }));
  RecordingHandler* handler = static_cast<RecordingHandler*>(master.getConnection(12));
  EXPECT_EQ(handler->getRemoteDeviceId(), 0x1234u);

  // Data both ways, addressed with the receiver's id.
  send(frame(4, 12, "abc"));
  ASSERT_TRUE(run([&] { return record->count("received") == 1; }));
  EXPECT_EQ(record->lastOf("received").payload, "abc");
  handler->send("xyz");
  EXPECT_EQ(next(), frame(4, 77, "xyz"));

  // A disconnect ends the connection, is answered with one of the master's own, and the TCP
  // connection that carried nothing else is closed.
  send(frame(6, 12, i32(-42)));
  EXPECT_EQ(next(), frame(6, 77, i32(-42)));
  EXPECT_EQ(record->lastOf("disconnected").reason, -42);
  EXPECT_TRUE(peerClosed());
}

TEST_F(TCPConnectorMasterTest, AnswersControlMessagesAndUnknownIds) {
  send(frame(0, 1234));
  EXPECT_EQ(next(), frame(1, 1234));
  send(frame(10, 5, "announce"));  // a multicast type on TCP: ignored
  send(frame(1, 99));              // a pong: ignored
  send(frame(4, 555, "data"));
  EXPECT_EQ(next(), frame(7, 555));
  EXPECT_TRUE(log.contains("Unsupported message type 10 received from 127.0.0.1:"));
  EXPECT_TRUE(log.contains("(additional Info: 5, data length: 14 bytes), ignoring"));

  send(frame(6, 556, i32(1)));
  EXPECT_EQ(next(), frame(7, 556));
  send(frame(6, 0xFFFFFFFFu, i32(-1)));
  EXPECT_TRUE(peerClosed());
  EXPECT_TRUE(run([&] { return master.getTCPConnectionCount() == 0; }));
}

TEST_F(TCPConnectorMasterTest, AnIncompatibleVersionEndsTheTCPConnection) {
  send(frame(2, 1));
  EXPECT_EQ(next(), frame(6, 0xFFFFFFFFu, i32(DisconnectReason::incompatible)));
  EXPECT_TRUE(peerClosed());
  EXPECT_TRUE(run([&] { return master.getTCPConnectionCount() == 0; }));
}

TEST_F(TCPConnectorMasterTest, RejectsAreLaidOutFieldByField) {
  master.addAutomaticConnection(5, 100, 100);
  // No versions at all: refused for the version, after the id checks passed.
  send(frame(3, 8, connectPayload(12, 5, 70, 1, {})));
  EXPECT_EQ(next(), rejectFrame(70, 5, 12, DisconnectReason::noCompatibleConnectionHandler));
  // The reject of a foreign cluster carries the master's own cluster id.
  send(frame(3, 7, connectPayload(12, 5, 71, 1, {1})));
  EXPECT_EQ(next(), rejectFrame(71, 5, 12, DisconnectReason::wrongClusterId));

  // A factory that makes no handler: rejected before anything is accepted.
  master.addConnectionHandler(6, 1, [] { return std::unique_ptr<ConnectionHandlerBase>(); });
  master.addAllowedConnection(13, 6);
  send(frame(3, 8, connectPayload(13, 6, 77, 1, {1})));
  EXPECT_EQ(next(), rejectFrame(77, 6, 13, DisconnectReason::noConnectionHandler));
  EXPECT_EQ(master.getActiveConnectionCount(), 0u);
  EXPECT_TRUE(
      log.contains("Cannot create connection 13 (type 6, remote connection id: 77) on TCP "
                   "endpoint 127.0.0.1:"));
  EXPECT_TRUE(log.contains("(device id: 1): connection handler factory returned no handler!"));

  // An automatic request gets the free id of the range; the next finds it full and gets none.
  send(frame(3, 8, connectPayload(0xFFFFFFFFu, 5, 72, 1, {1})));
  EXPECT_EQ(next(), acceptFrame(72, 1, 100));
  send(frame(3, 8, connectPayload(0xFFFFFFFFu, 5, 73, 1, {1})));
  EXPECT_EQ(next(), rejectFrame(73, 5, 0xFFFFFFFFu, DisconnectReason::notAllowed));
  EXPECT_TRUE(log.contains("no free connection id found (range 100 - 100)!"));

  // A connectionNotFound ends every connection whose remote id matches, with a disconnect.
  send(frame(7, 72));
  EXPECT_EQ(next(), frame(6, 72, i32(DisconnectReason::notPresent)));
  EXPECT_EQ(master.getActiveConnectionCount(), 0u);
}

TEST_F(TCPConnectorMasterTest, ConnectAndMoveOfAnEndedTCPConnectionAreNotHandled) {
  master.addAllowedConnection(13, 5);
  send(frame(3, 8, connectPayload(12, 5, 77, 1, {1})) +
       frame(5, 8, connectPayload(13, 5, 78, 1, {1})));
  peer.reset();  // gone before the master has read a byte
  ASSERT_TRUE(run([&] { return master.getTCPConnectionCount() == 0; }));
  EXPECT_EQ(record->count("connected"), 0u);
  EXPECT_EQ(log.count("message from TCP endpoint 127.0.0.1:"), 2u) << log.text();
  EXPECT_TRUE(log.contains("Ignoring move connection message from TCP endpoint"));
}

TEST_F(TCPConnectorMasterTest, ConfigurationIsCheckedAndDumped) {
  master.addAllowedConnection(0, 5);
  EXPECT_TRUE(log.contains("Failed to add allowed connection 0 (type 5): Invalid connection id!"));
  master.addAutomaticConnection(5, 0, 10);
  EXPECT_TRUE(log.contains(
      "Failed to add automatic connection type 5: Invalid connection id range (0 - 10)!"));
  master.addAutomaticConnection(6);
  master.addAllowedConnection(13, 6);

  // Re-typing a live allowed connection ends it with allowedConnectionRemoved.
  send(frame(3, 8, connectPayload(12, 5, 77, 1, {1})));
  ASSERT_EQ(next(), acceptFrame(77, 1, 12));
  master.addAllowedConnection(12, 6);
  EXPECT_EQ(record->lastOf("disconnected").reason, DisconnectReason::allowedConnectionRemoved);

  std::ostringstream out;
  master.dump(out, "# ");
  EXPECT_NE(
      out.str().find("#   Allowed Connections (2 entries):\n#     12 (type 6)\n#     13 (type 6)\n"
                     "#   --- (2 allowed connections) --- \n"),
      std::string::npos)
      << out.str();
}

TEST_F(TCPConnectorMasterTest, AServerSocketThatCannotOpenDisablesTheMaster) {
  TCPConnectorMaster second(&scheduler, log.logging());
  std::vector<std::string> errors;
  second.setGeneralErrorCallback([&](ErrorType::Type type, const std::string& text) {
    errors.push_back(std::string(ErrorType::getText(type)) + ": " + text);
  });
  // The port the first master already listens on.
  initOther(second, master.getListeningEndpoint().getPort());
  second.setEnabled(true);
  EXPECT_FALSE(second.isEnabled());
  EXPECT_EQ(errors,
            std::vector<std::string>{"initializationFailed: Failed to initialize server socket!"});
  EXPECT_TRUE(
      log.contains("Error 1 (initializationFailed): 'Failed to initialize server socket!'"));
}

TEST_F(TCPConnectorMasterTest, DscpReachesTheListeningSocket) {
  tavrinTesting::FakeTCPSocket* server = nullptr;
  TCPConnectorMaster second(
      &scheduler,
      [&](const SimpleEndpoint&, bool) -> std::unique_ptr<tavrinNetwork::TCPSocketInterface> {
        auto socket = std::make_unique<tavrinTesting::FakeTCPSocket>();
        server = socket.get();
        return socket;
      },
      [](tavrinNetwork::TCPSocketInterface*, SimpleEndpoint&) { return nullptr; }, log.logging());
  initOther(second);
  second.setEnabled(true);
  ASSERT_NE(server, nullptr);
  second.setDscp(46);
  EXPECT_EQ(server->dscp, 46);
}

TEST_F(TCPConnectorMasterTest, DestructionEndsConnectionsWhileTheMasterIsWholeAndRefusesRestarts) {
  auto doomed = std::make_unique<TCPConnectorMaster>(&scheduler, log.logging());
  TCPConnectorMaster* raw = doomed.get();
  initOther(*raw);
  raw->addConnectionHandler(5, 1, RecordingHandler::factory(5, 1, record));
  raw->addAllowedConnection(12, 5);
  raw->setEnabled(true);
  tavrinTesting::RawPeer slave(raw->getListeningEndpoint().getPort());
  send(slave, frame(3, 8, connectPayload(12, 5, 77, 1, {1})));
  ASSERT_TRUE(run([&] { return record->count("connected") == 1; }));
  record->onDisconnected = [&](RecordingHandler&, unsigned, int) {
    raw->setEnabled(true);
    raw->addAllowedConnection(14, 5);
    raw->addConnectionHandler(6, 1, RecordingHandler::factory(6, 1, record));
  };
  doomed.reset();
  record->onDisconnected = nullptr;
  EXPECT_EQ(record->lastOf("disconnected").reason, DisconnectReason::shutdown);
  // The fixture's master and the doomed one opened a server socket; nothing reopened it.
  EXPECT_EQ(log.count("Successfully created server socket"), 2u);
  EXPECT_EQ(log.count("TCPConnector Panel Master 4 is being destroyed"), 3u) << log.text();
}

// The accept factory is the application's: it may disable or destroy the master while the master
// waits for the client it makes.
TEST_F(TCPConnectorMasterTest, AcceptFactoryMayDisableOrDestroyTheMaster) {
  for (const bool destroy : {false, true}) {
    std::unique_ptr<TCPConnectorMaster> doomed;
    doomed = std::make_unique<TCPConnectorMaster>(
        &scheduler,
        [this](const SimpleEndpoint& at, bool mptcp) {
          return tavrinNetwork::TCPSocketHelper::createListenSocket(at, mptcp, log.logging());
        },
        [&](tavrinNetwork::TCPSocketInterface* server, SimpleEndpoint& from) {
          auto client = tavrinNetwork::TCPSocketHelper::acceptClient(server, from, log.logging());
          if (destroy) {
            doomed.reset();
          } else {
            doomed->setEnabled(false);
          }
          return client;
        },
        log.logging());
    initOther(*doomed);
    doomed->setEnabled(true);
    tavrinTesting::RawPeer slave(doomed->getListeningEndpoint().getPort());
    ASSERT_TRUE(run([&] { return slave.closedByOtherSide(); }));
    EXPECT_EQ(doomed == nullptr, destroy);
  }
}

// A slave that ends its connections and resets at once: the master's answer to the first
// disconnect meets the reset while the later disconnects still wait in the socket. Each must
// still end its connection with its own reason.
TEST_F(TCPConnectorMasterTest, DisconnectsStillInTheSocketAtAResetKeepTheirReasons) {
  master.addAllowedConnection(13, 5);
  master.addAllowedConnection(14, 5);
  for (uint32_t id : {12u, 13u, 14u}) send(frame(3, 8, connectPayload(id, 5, id + 60, 1, {1})));
  ASSERT_TRUE(run([&] { return record->count("connected") == 3; }));
  const std::string shutdown = i32(-1);
  send(frame(6, 12, shutdown));
  // The IO part of a turn only: the first disconnect is read, its handling waits for the worker.
  scheduler.getIOWatcher().watch(tavrinCommon::MonotonicMs() + 100, &scheduler.getLoopMutex());
  send(frame(6, 13, shutdown) + frame(6, 14, shutdown));
  peer->reset();
  ASSERT_TRUE(run([&] { return record->count("disconnected") == 3; })) << log.text();
  const std::map<unsigned, int> expected{{12, DisconnectReason::shutdown},
                                         {13, DisconnectReason::shutdown},
                                         {14, DisconnectReason::shutdown}};
  EXPECT_EQ(record->reasons(), expected) << log.text();
}

TEST_F(TCPConnectorMasterTest, FrameSizeBoundAppliesToAcceptedConnections) {
  master.setMaxFrameLength(64);
  tavrinTesting::RawPeer second(master.getListeningEndpoint().getPort());
  ASSERT_TRUE(run([&] { return master.getTCPConnectionCount() == 2; }));
  // Both the connection accepted before and the one accepted after are bounded.
  send(second, frame(4, 1, std::string(100, 'x')));
  send(frame(4, 1, std::string(100, 'x')));
  EXPECT_TRUE(run([&] { return master.getTCPConnectionCount() == 0; })) << log.text();
  EXPECT_EQ(log.count("exceeds the maximum frame length of 64 bytes"), 2u);
}

}  // namespace
}  // namespace tavrinConnector
