// Feeds the frames of a fake peer to a TCP connector master or slave through scripted sockets and
// a real scheduler: control messages of every type, well formed or not, data for live and unknown
// ids, raw bytes, socket failures, and the application's own calls in between. After every step
// the connector's books must agree with its handlers; everything it writes must be a well-formed
// frame stream of its side; at the end nothing it made may outlive it.
//
// Input layout: byte 0 holds the options, the rest is a list of records [head][fields...] (a
// field past the end reads as 0).
// Options: bit 0 slave (else master), bit 1 overwrite existing, bit 2 allow moves, bit 3 slave
// sockets connect at once, bits 4-6 cut scripted reads into chunks of 2^(n-1) bytes (0: one chunk
// per record), bit 7 peers reconnect from the same port.
// Head: bits 0-3 the kind (see Kind; 0-9 are the frame types), bits 4-5 the peer (0-2), bit 6
// delivers the record in two halves with a turn of the loop in between, bit 7 turns the loop after
// the record.
#include "FuzzCheck.h"
#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/connector/TCPConnectorMaster.h"
#include "tavrincommon/connector/TCPConnectorSlave.h"
#include "tavrincommon/connector/TestCounterData.h"
#include "tavrincommon/connector/TestCounterHandler.h"
#include "tavrincommon/connector/simpleConnector/SimpleConnectorHandler.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/ConnectorFrames.h"
#include "tavrincommon/testing/FakeTCPSocket.h"
#include "tavrincommon/testing/RecordingHandler.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using tavrinConnector::ConnectionHandlerBase;
using tavrinConnector::ConnectorInterfaceType;
using tavrinConnector::TCPConnectorBase;
using tavrinConnector::TCPConnectorMaster;
using tavrinConnector::TCPConnectorSlave;
using tavrinConnector::TestCounterData;
using tavrinConnector::TestCounterHandler;
using tavrinConnector::simpleConnector::SimpleConnectorHandler;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;
using tavrinNetwork::TCPSocketInterface;
using tavrinTesting::Bytes;
using tavrinTesting::frame;
using tavrinTesting::RecordingHandler;

enum Kind {
  kPing,
  kPong,
  kVersion,
  kConnect,
  kData,
  kMove,
  kDisconnect,
  kNotFound,
  kReject,
  kAccept,
  kRaw,
  kAnyFrame,
  kPeerEvent,
  kAction,
  kRequest,
  kFlood
};

constexpr uint32_t kCluster = 8;
constexpr unsigned short kRecordingType = 7;
constexpr unsigned short kMasterPort = 4000;
constexpr int kPeers = 3;
// Requests that handler and rejected-callback code may make on its own: each may cause another.
constexpr int kRequestBudget = 4;
constexpr int kSettleTurns = 8;
// Frame types each side may write: the master answers, the slave asks.
constexpr uint32_t kMasterWrites = 1u << 1 | 1u << 4 | 1u << 6 | 1u << 7 | 1u << 8 | 1u << 9;
constexpr uint32_t kSlaveWrites =
    1u << 1 | 1u << 2 | 1u << 3 | 1u << 4 | 1u << 5 | 1u << 6 | 1u << 7;

// Every line is formatted (the level is Maximum) and dropped, unless TAVRIN_FUZZ_LOG is set: then
// a crashing input tells its story on stderr.
tavrinLog::TavrinLogging& fuzzLogging() {
  static const bool print = std::getenv("TAVRIN_FUZZ_LOG") != nullptr;
  static tavrinLog::TavrinLogging logging(
      tavrinLog::SeverityLevel::Maximum, [](int, tavrinLog::SeverityLevel::Type, const char* line) {
        if (print) std::fprintf(stderr, "%s\n", line);
      });
  return logging;
}

struct Reader {
  const uint8_t* data;
  size_t size;
  size_t at = 0;
  bool done() const { return at >= size; }
  uint8_t u8() { return at < size ? data[at++] : 0; }
  std::string bytes(size_t n) {
    n = std::min(n, size - at);
    std::string s(reinterpret_cast<const char*>(data) + at, n);
    at += n;
    return s;
  }
};

// Ids the connectors know: 0 (invalid), 1-7 (allowed and requested ones), 100-107 (an automatic
// range and its edge), far ids, and 0xFFFFFFFF (automatic, or none).
uint32_t idOf(uint8_t b) {
  if (b == 0xFF) return 0xFFFFFFFFu;
  if (b >= 0xF0) return static_cast<uint32_t>(b) << 24;
  if (b >= 0x80) return 100u + b % 8;
  return b % 8u;
}
unsigned short typeOf(uint8_t b) {
  static const unsigned short types[] = {5, kRecordingType, 1, 9, 0, 5, kRecordingType, 0xFFFF};
  return types[b % 8];
}
uint32_t clusterOf(uint8_t b) { return b < 0xC0 ? kCluster : b; }
SimpleEndpoint masterEndpoint(int peer) {
  return SimpleEndpoint(SimpleIp("127.0.0.1"), static_cast<unsigned short>(kMasterPort + peer));
}

// Payload sizes of the control messages with a fixed layout; -1: variable.
int fixedPayload(uint8_t type) {
  switch (type) {
    case kPing:
    case kPong:
    case kVersion:
    case kNotFound: return 0;
    case kDisconnect: return 4;
    case kReject: return 14;
    case kAccept: return 16;
    default: return -1;
  }
}

// A scripted socket that checks, when it goes, that what was written to it is a frame stream its
// writer's side may send (the last frame may be cut short by the end of the connection), and that
// clears the harness's pointer to it.
class TrackedSocket : public tavrinTesting::FakeTCPSocket {
 public:
  TrackedSocket(TrackedSocket** slot_, int* live_, uint32_t allowedTypes_)
      : slot(slot_), live(live_), allowedTypes(allowedTypes_) {
    ++*live;
  }
  ~TrackedSocket() override {
    checkWritten();
    --*live;
    if (*slot == this) *slot = nullptr;
  }

 private:
  void checkWritten() const {
    size_t at = 0;
    while (written.size() - at >= 5) {
      FUZZ_CHECK(static_cast<uint8_t>(written[at]) == 0xA5);
      const uint32_t length = tavrinTesting::readU32(written, at + 1);
      FUZZ_CHECK(length >= 6);
      if (written.size() - at < size_t{length} + 5) return;
      const uint8_t type = static_cast<uint8_t>(written[at + 5]);
      FUZZ_CHECK(type < 32 && ((allowedTypes >> type) & 1));
      FUZZ_CHECK(fixedPayload(type) < 0 ||
                 length == 6u + static_cast<unsigned>(fixedPayload(type)));
      FUZZ_CHECK(static_cast<uint8_t>(written[at + length + 4]) == 0x5A);
      at += size_t{length} + 5;
    }
  }

  TrackedSocket** slot;
  int* live;
  uint32_t allowedTypes;
};

class Harness {
 public:
  explicit Harness(uint8_t options_);
  void step(Reader& in);
  // Settles, tears everything down and checks that nothing is left.
  void finish();

 private:
  void registerHandlers();
  TrackedSocket* peerFor(int peer);
  void deliver(int peer, const std::string& bytes, bool halves);
  void feed(TrackedSocket& socket, const std::string& bytes) const;
  std::string frameOf(int kind, Reader& in) const;
  void peerEvent(int peer, Reader& in);
  void action(Reader& in);
  void request(int peer, Reader& in);
  void sendFrom(unsigned id, uint8_t b);
  void onPayload(RecordingHandler& handler, const std::string& payload);
  void onBlock(unsigned id, const std::vector<unsigned char>& block);
  void requestAgain();
  std::unique_ptr<tavrinTesting::CountedTag> makeTag() {
    ++tagsMade;
    return std::make_unique<tavrinTesting::CountedTag>(&tagsGone);
  }
  // `settled`: the loop has turned since the last step, so ended handlers are gone.
  void checkBooks(bool settled) const;

  const uint8_t options;
  tavrinScheduler::Scheduler scheduler{&fuzzLogging()};
  int liveSockets = 0;
  int tagsMade = 0;
  int tagsGone = 0;
  long simpleUp = 0, simpleDown = 0, counterUp = 0, counterDown = 0;
  int requestBudget = kRequestBudget;
  uint8_t nextSocket = 0;  // the slave's next socket: 1 none, 2 failing connect, 3 pending connect
  bool acceptFails = false;
  std::set<SimpleEndpoint> endpoints;  // every peer there has been
  std::set<unsigned> seenIds;          // every id a handler has been connected under
  // The master's TCP connections: limits apply to what comes next, not to what is there.
  size_t tcpCeiling = tavrinConnector::ConnectionLimits::kDefaultMaxTCPConnections;
  unsigned short nextPort = 50000;
  std::shared_ptr<tavrinTesting::HandlerRecord> record =
      std::make_shared<tavrinTesting::HandlerRecord>();
  TestCounterData counterData{{}, {}};
  TrackedSocket* server = nullptr;
  TrackedSocket* peers[kPeers] = {};
  std::deque<std::pair<std::unique_ptr<TrackedSocket>, unsigned short>> acceptQueue;
  std::unique_ptr<TCPConnectorMaster> master;
  std::unique_ptr<TCPConnectorSlave> slave;
  TCPConnectorBase* connector = nullptr;
};

Harness::Harness(uint8_t options_) : options(options_) {
  record->onReceive = [this](RecordingHandler& handler, const std::string& payload) {
    onPayload(handler, payload);
  };
  record->onConnected = [this](RecordingHandler& handler) {
    seenIds.insert(handler.getConnectionId());
  };
  record->onDisconnected = [this](RecordingHandler&, unsigned, int) { requestAgain(); };
  if (options & 1) {
    slave = std::make_unique<TCPConnectorSlave>(
        &scheduler,
        [this](const SimpleEndpoint& remote, const SimpleIp&, bool& connectedNow,
               bool) -> std::unique_ptr<TCPSocketInterface> {
          const uint8_t mode = nextSocket;
          nextSocket = 0;
          if (mode == 1) return nullptr;
          const int peer = std::min(std::max(remote.getPort() - kMasterPort, 0), kPeers - 1);
          auto socket = std::make_unique<TrackedSocket>(&peers[peer], &liveSockets, kSlaveWrites);
          socket->pendingError = mode == 2;
          connectedNow = mode == 0 && (options & 8);
          peers[peer] = socket.get();
          return socket;
        },
        &fuzzLogging());
    connector = slave.get();
    for (int peer = 0; peer < kPeers; ++peer) endpoints.insert(masterEndpoint(peer));
    slave->initCommon(2, 200, ConnectorInterfaceType::Client, SimpleIp("127.0.0.1"),
                      tavrinConnector::ConnectionTimeout{}, false);
    registerHandlers();
    auto again = [this](const SimpleEndpoint&, unsigned, unsigned, int, unsigned, unsigned short,
                        const tavrinConnector::CustomConnectData*) { requestAgain(); };
    slave->addConnectionRejectedCallback(kRecordingType, again);
    slave->addConnectionRejectedCallback(SimpleConnectorHandler::kType, again);
  } else {
    master = std::make_unique<TCPConnectorMaster>(
        &scheduler,
        [this](const SimpleEndpoint&, bool) -> std::unique_ptr<TCPSocketInterface> {
          auto socket = std::make_unique<TrackedSocket>(&server, &liveSockets, 0);
          server = socket.get();
          for (size_t i = 0; i < acceptQueue.size(); ++i) socket->addChunk("a");
          return socket;
        },
        [this](TCPSocketInterface* listening,
               SimpleEndpoint& peer) -> std::unique_ptr<TCPSocketInterface> {
          if (acceptFails) {  // the pending client stays queued
            acceptFails = false;
            errno = EMFILE;
            return nullptr;
          }
          char request;
          listening->receive(&request, 1);
          if (acceptQueue.empty()) return nullptr;
          auto next = std::move(acceptQueue.front());
          acceptQueue.pop_front();
          peer = SimpleEndpoint(SimpleIp("127.0.0.1"), next.second);
          return std::move(next.first);
        },
        &fuzzLogging());
    connector = master.get();
    master->init(3, 0xABCD, ConnectorInterfaceType::PanelMaster, kCluster, SimpleIp("127.0.0.1"),
                 kMasterPort, options & 2, options & 4, tavrinConnector::ConnectionTimeout{},
                 false);
    registerHandlers();
    master->addAllowedConnection(1, SimpleConnectorHandler::kType);
    master->addAllowedConnection(2, kRecordingType);
    master->addAllowedConnection(3, TestCounterHandler::kType);
    master->addAllowedConnection(4, 9);  // no handler for the type
    master->addAllowedConnection(5, kRecordingType);
    master->addAutomaticConnection(SimpleConnectorHandler::kType, 100, 103);
    master->addAutomaticConnection(kRecordingType);
  }
  connector->setEnabled(true);
  FUZZ_CHECK(connector->isEnabled());
}

void Harness::registerHandlers() {
  connector->addConnectionHandler(SimpleConnectorHandler::kType, 1, [this] {
    return std::make_unique<SimpleConnectorHandler>(
        1,
        [this](SimpleIp, unsigned remoteId, unsigned id, SimpleConnectorHandler*) {
          ++simpleUp;
          seenIds.insert(id);
          return remoteId % 8 != 7;
        },
        [this](SimpleIp, unsigned, unsigned, int) { ++simpleDown; },
        [this](SimpleIp, unsigned, unsigned id,
               std::unique_ptr<std::vector<unsigned char>>&& block) { onBlock(id, *block); },
        &fuzzLogging());
  });
  connector->addConnectionHandler(TestCounterHandler::kType, TestCounterHandler::kVersion, [this] {
    // Linking the one data object to a new handler ends the connection of the one before.
    return std::make_unique<TestCounterHandler>(
        [this](unsigned id, TestCounterHandler* handler) {
          ++counterUp;
          seenIds.insert(id);
          handler->linkData(&counterData);
          return true;
        },
        [this](unsigned) { ++counterDown; });
  });
  connector->addConnectionHandler(kRecordingType, 1,
                                  RecordingHandler::factory(kRecordingType, 1, record, true));
  connector->addConnectionHandler(kRecordingType, 2,
                                  RecordingHandler::factory(kRecordingType, 2, record, true));
}

void Harness::requestAgain() {
  if (!slave || !slave->isEnabled() || requestBudget <= 0) return;
  --requestBudget;
  slave->connect(masterEndpoint(0), kCluster, kRecordingType, 2, makeTag());
}

void Harness::onPayload(RecordingHandler& handler, const std::string& payload) {
  const uint8_t op = payload.empty() ? 0 : static_cast<uint8_t>(payload[0]);
  switch (op % 8) {
    case 1: handler.send(payload); break;
    case 2:
      handler.requestDisconnect(payload.size() > 1 ? static_cast<int8_t>(payload[1]) : 1);
      break;
    case 3: connector->disconnectAllConnections(5); break;
    case 4: connector->setEnabled(false); break;
    case 5: connector->disconnectRemoteDevice(handler.getRemoteDeviceId(), 6); break;
    case 6: connector->disconnectAllTCPConnections(7); break;
    case 7: requestAgain(); break;
    default: break;
  }
}

void Harness::onBlock(unsigned id, const std::vector<unsigned char>& block) {
  auto* handler = static_cast<SimpleConnectorHandler*>(connector->getConnection(id));
  if (!handler || block.empty()) return;
  if (block[0] % 4 == 1)
    handler->sendData(reinterpret_cast<const char*>(block.data()),
                      static_cast<unsigned>(block.size()));
  if (block[0] % 4 == 2) handler->disconnect();
}

void Harness::sendFrom(unsigned id, uint8_t b) {
  ConnectionHandlerBase* handler = connector->getConnection(id);
  if (!handler) return;
  const std::string payload(1 + b % 16, static_cast<char>(b));
  switch (handler->getType()) {
    case SimpleConnectorHandler::kType:
      if (b & 1) {
        static_cast<SimpleConnectorHandler*>(handler)->sendData({payload, payload});
      } else {
        static_cast<SimpleConnectorHandler*>(handler)->sendData(
            payload.data(), static_cast<unsigned>(payload.size()));
      }
      break;
    case TestCounterHandler::kType: counterData.setCounter(b); break;
    case kRecordingType: static_cast<RecordingHandler*>(handler)->send(payload); break;
    default: break;
  }
}

TrackedSocket* Harness::peerFor(int peer) {
  if (peers[peer] || !master) return peers[peer];
  auto socket = std::make_unique<TrackedSocket>(&peers[peer], &liveSockets, kMasterWrites);
  peers[peer] = socket.get();
  const unsigned short port =
      (options & 0x80) ? static_cast<unsigned short>(50000 + peer) : nextPort++;
  acceptQueue.emplace_back(std::move(socket), port);
  endpoints.insert(SimpleEndpoint(SimpleIp("127.0.0.1"), port));
  if (server) server->addChunk("a");
  return peers[peer];
}

void Harness::feed(TrackedSocket& socket, const std::string& bytes) const {
  // An empty chunk would read as the end of the stream.
  if (bytes.empty()) return;
  const int chunkBits = (options >> 4) & 7;
  if (chunkBits == 0) {
    socket.addChunk(bytes);
  } else {
    socket.addChunks(bytes, size_t{1} << (chunkBits - 1));
  }
}

void Harness::deliver(int peer, const std::string& bytes, bool halves) {
  TrackedSocket* socket = peerFor(peer);
  if (!socket) return;
  if (!halves || bytes.size() < 2) {
    feed(*socket, bytes);
    return;
  }
  feed(*socket, bytes.substr(0, bytes.size() / 2));
  scheduler.run(0);
  if (peers[peer]) feed(*peers[peer], bytes.substr(bytes.size() / 2));
}

std::string Harness::frameOf(int kind, Reader& in) const {
  Bytes b;
  switch (kind) {
    case kPing:
    case kPong:
    case kNotFound: return frame(static_cast<uint8_t>(kind), idOf(in.u8()));
    case kVersion: {
      const uint8_t version = in.u8();
      return frame(kVersion, version < 0xC0 ? 0 : version);
    }
    case kConnect:
    case kMove: {
      const uint8_t cluster = in.u8(), id = in.u8(), type = in.u8(), remote = in.u8();
      const uint8_t device = in.u8(), count = in.u8();
      b.u32(idOf(id)).u16(typeOf(type)).u32(idOf(remote)).u32(device);
      // A forged count promises more versions than follow.
      b.u16((count & 0x80) ? 0xFFFF : count % 4);
      for (int i = 0; i < count % 4; ++i) b.u16(in.u8() % 4);
      return frame(static_cast<uint8_t>(kind), clusterOf(cluster), b.data);
    }
    case kData: {
      const uint8_t id = in.u8(), mode = in.u8(), length = in.u8();
      const std::string bytes = in.bytes(length);
      // A simple-connector block: its length field, true or forged.
      if (mode & 1)
        b.u32((mode & 2)   ? 0x100000u
              : (mode & 4) ? 0xFFFFFFFFu
                           : static_cast<uint32_t>(bytes.size()));
      b.data += bytes;
      return frame(kData, idOf(id), b.data);
    }
    case kDisconnect: {
      const uint8_t id = in.u8(), reason = in.u8();
      if (reason != 0x7F) b.u32(static_cast<uint32_t>(static_cast<int8_t>(reason)));
      return frame(kDisconnect, idOf(id), b.data);
    }
    case kReject: {
      const uint8_t cluster = in.u8(), id = in.u8(), type = in.u8(), remote = in.u8();
      const uint8_t reason = in.u8();
      b.u32(idOf(id)).u16(typeOf(type)).u32(idOf(remote));
      b.u32(static_cast<uint32_t>(static_cast<int8_t>(reason)));
      return frame(kReject, clusterOf(cluster), b.data);
    }
    case kAccept: {
      const uint8_t cluster = in.u8(), id = in.u8(), type = in.u8(), version = in.u8();
      const uint8_t remote = in.u8(), device = in.u8();
      b.u32(idOf(id)).u16(typeOf(type)).u16(version % 4).u32(idOf(remote)).u32(device);
      return frame(kAccept, clusterOf(cluster), b.data);
    }
    case kRaw: return in.bytes(in.u8());
    case kAnyFrame: {
      const uint8_t type = in.u8(), info = in.u8();
      return frame(type, idOf(info), in.bytes(in.u8()));
    }
    default: {  // kFlood: pings, keep-alives, or data for an id nobody has
      const uint8_t what = in.u8(), count = in.u8();
      std::string frames;
      for (int i = 0; i <= count % 64; ++i) {
        frames += what % 3 == 0   ? frame(kPing, static_cast<uint32_t>(i))
                  : what % 3 == 1 ? frame(kPong, 0)
                                  : frame(kData, 0x7777, "x");
      }
      return frames;
    }
  }
}

void Harness::peerEvent(int peer, Reader& in) {
  const uint8_t event = in.u8(), arg = in.u8();
  if (event % 8 == 6) {  // a new TCP connection in this peer's place; the old one lives on unfed
    peers[peer] = nullptr;
    peerFor(peer);
    return;
  }
  if (event % 8 == 7) {  // the process is out of descriptors at the next accept
    acceptFails = true;
    return;
  }
  TrackedSocket* socket = peers[peer];
  if (!socket) return;
  switch (event % 8) {
    case 0: socket->addEndOfStream(); break;
    case 1: socket->addReceiveError((arg & 1) ? EINTR : ECONNRESET); break;
    case 2: socket->addSendLimit(arg % 40); break;
    case 3: socket->addSendError((arg & 1) ? EINTR : EPIPE); break;
    case 4: socket->dscpResult = false; break;
    default: socket->pendingError = true; break;
  }
}

void Harness::action(Reader& in) {
  const uint8_t what = in.u8(), a = in.u8(), b = in.u8();
  TCPConnectorBase& c = *connector;
  switch (what % 13) {
    case 0: c.disconnect(idOf(a), static_cast<int8_t>(b)); break;
    case 1: c.disconnectAllConnections(b); break;
    case 2: c.disconnectRemoteDevice(SimpleIp("127.0.0.1"), 2); break;
    case 3: c.setEnabled(!c.isEnabled()); break;
    case 4: c.setMaxFrameLength(a == 0 ? 0 : 11u + a * 3u); break;
    case 5: c.removeConnectionHandler(kRecordingType, 1 + a % 2); break;
    case 6: c.removeConnectionHandlerType(typeOf(a)); break;
    case 7: registerHandlers(); break;  // replacing a factory ends its connections
    case 8: {
      std::ostringstream out;
      c.dump(out, "  ");
      break;
    }
    case 9: sendFrom(idOf(a), b); break;
    case 10: c.disconnectType(typeOf(a), b & 1, 3); break;
    case 11: c.setDscp(a % 64); break;
    default: {
      // Tight enough for a few frames to reach every bound.
      tavrinConnector::ConnectionLimits limits;
      limits.maxSendQueueBytes = 16u + a * 8u;
      limits.maxReceiveQueueFrames = 1u + b % 8;
      limits.maxReceiveQueueBytes = 16u + b * 8u;
      limits.maxTCPConnections = 1u + a % 4;
      limits.maxTCPConnectionsPerAddress = 1u + b % 3;
      limits.maxLogicalConnectionsPerTCPConnection = 1u + a % 3;
      tcpCeiling = std::max(limits.maxTCPConnections, c.getTCPConnectionCount());
      c.setConnectionLimits(limits);
      break;
    }
  }
}

void Harness::request(int peer, Reader& in) {
  const uint8_t how = in.u8(), cluster = in.u8(), type = in.u8(), id = in.u8(), remote = in.u8();
  if (master) {
    switch (how % 6) {
      case 0: master->addAllowedConnection(idOf(id), typeOf(type)); break;
      case 1: master->removeAllowedConnection(idOf(id)); break;
      case 2: master->removeAllowedConnectionType(typeOf(type)); break;
      case 3: master->addAutomaticConnection(typeOf(type), idOf(id), idOf(remote)); break;
      case 4: master->removeAutomaticConnection(typeOf(type), cluster & 1); break;
      default: master->clearAutomaticConnections(cluster & 1); break;
    }
    return;
  }
  nextSocket = static_cast<uint8_t>((how >> 4) % 4);
  const SimpleEndpoint to = masterEndpoint(peer);
  switch (how % 5) {
    case 0:
      slave->connect(to, clusterOf(cluster), typeOf(type), idOf(remote), idOf(id), makeTag());
      break;
    case 1: slave->connect(to, clusterOf(cluster), typeOf(type), idOf(remote), makeTag()); break;
    case 2:
      slave->connectAutomatic(to, clusterOf(cluster), typeOf(type), idOf(id), makeTag());
      break;
    case 3:
      slave->moveConnection(to, clusterOf(cluster), typeOf(type), idOf(remote), idOf(id),
                            makeTag());
      break;
    default: slave->connectAutomatic(to, clusterOf(cluster), typeOf(type), makeTag()); break;
  }
  nextSocket = 0;
}

void Harness::step(Reader& in) {
  const uint8_t head = in.u8();
  const int kind = head & 15;
  const int peer = ((head >> 4) & 3) % kPeers;
  switch (kind) {
    case kPeerEvent: peerEvent(peer, in); break;
    case kAction: action(in); break;
    case kRequest: request(peer, in); break;
    default: deliver(peer, frameOf(kind, in), head & 0x40); break;
  }
  if (head & 0x80) scheduler.run(0);
  checkBooks(false);
}

// Between turns every connected handler is in the active table and every one there is connected.
// Once settled, no ended handler lingers and custom connect data lives only with a pending
// request or a connection.
void Harness::checkBooks(bool settled) const {
  const long recorded = static_cast<long>(record->count("connected")) -
                        static_cast<long>(record->count("disconnected"));
  const long up = recorded + (simpleUp - simpleDown) + (counterUp - counterDown);
  const size_t active = connector->getActiveConnectionCount();
  const size_t pending = connector->getPendingConnectionCount();
  FUZZ_CHECK(up == static_cast<long>(active));
  FUZZ_CHECK(connector->getTCPConnectionCount() <= static_cast<size_t>(liveSockets));
  FUZZ_CHECK(master == nullptr || (pending == 0 && master->getTCPConnectionCount() <= tcpCeiling));
  // Every id a TCP connection carries belongs to a connection on it or to a request; every
  // connection is on a TCP connection that carries its id.
  for (const SimpleEndpoint& peer : endpoints) {
    const tavrinConnector::SingleTCPConnectionEndpoint* tcp = connector->getTCPConnection(peer);
    if (!tcp) continue;
    for (unsigned id : tcp->getLogicalConnections()) {
      const ConnectionHandlerBase* handler = connector->getConnection(id);
      FUZZ_CHECK(connector->isPending(id) || (handler && handler->getRemoteEndpoint() == peer));
    }
  }
  for (unsigned id : seenIds) {
    const ConnectionHandlerBase* handler = connector->getConnection(id);
    if (!handler) continue;
    FUZZ_CHECK(handler->isConnected() && handler->getConnectionId() == id);
    const tavrinConnector::SingleTCPConnectionEndpoint* tcp =
        connector->getTCPConnection(handler->getRemoteEndpoint());
    FUZZ_CHECK(tcp && tcp->hasLogicalConnection(id));
  }
  if (!settled) return;
  FUZZ_CHECK(record->alive() == recorded);
  FUZZ_CHECK(tagsMade >= tagsGone);
  FUZZ_CHECK(static_cast<size_t>(tagsMade - tagsGone) <= active + pending);
}

void Harness::finish() {
  for (int i = 0; i < kSettleTurns; ++i) scheduler.run(0);
  checkBooks(true);
  // A connector disabled along the way may still hold requests made since.
  if (!connector->isEnabled()) connector->setEnabled(true);
  connector->setEnabled(false);
  checkBooks(false);
  FUZZ_CHECK(connector->getActiveConnectionCount() == 0);
  FUZZ_CHECK(connector->getPendingConnectionCount() == 0);
  FUZZ_CHECK(connector->getTCPConnectionCount() == 0);
  scheduler.run(0);
  master.reset();
  slave.reset();
  connector = nullptr;
  acceptQueue.clear();
  FUZZ_CHECK(liveSockets == 0);
  FUZZ_CHECK(record->alive() == 0);
  FUZZ_CHECK(tagsMade == tagsGone);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 8192) return 0;
  Reader in{data, size, 1};
  Harness harness(data[0]);
  while (!in.done()) harness.step(in);
  harness.finish();
  return 0;
}
