#include "tools/tavrin-demo/DemoSlave.h"

#include "tavrincommon/connector/ConnectionHandlerType.h"
#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/TestCounterHandler.h"
#include "tavrincommon/connector/simpleConnector/SimpleConnectorHandler.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <sstream>

namespace tavrinDemo {

using tavrinConnector::ConnectionHandlerType;
using tavrinConnector::ConnectorInterfaceType;
using tavrinConnector::CustomConnectData;
using tavrinConnector::DisconnectReason;
using tavrinConnector::ErrorType;
using tavrinConnector::SingleAnnouncementData;
using tavrinConnector::TestCounterData;
using tavrinConnector::TestCounterHandler;
using tavrinConnector::simpleConnector::SimpleConnectorHandler;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

namespace {

constexpr unsigned kNoId = 0xFFFFFFFFu;
// Sizes around the edges a transport gets wrong: single bytes, powers of two and their
// neighbours, blocks larger than a socket buffer.
constexpr size_t kBlockSizes[] = {1,     7,     64,    255,   256,   1000,   1500,   4096,
                                  8191,  16384, 32768, 65535, 65536, 100000, 200000, 262144};

std::vector<unsigned char> makeBlock(size_t index) {
  std::vector<unsigned char> block(kBlockSizes[index % (sizeof kBlockSizes / sizeof kBlockSizes[0])]);
  uint32_t state = static_cast<uint32_t>(index + 1) * 2654435761u;
  for (unsigned char& byte : block) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    byte = static_cast<unsigned char>(state);
  }
  return block;
}

}  // namespace

DemoSlave::DemoSlave(const DemoSettings& settings_, tavrinTools::LineWriter& writer_)
    : settings(settings_),
      writer(writer_),
      logging(settings.levels.defaultLevel(), tavrinTools::makeLogCallback(writer, "slave"),
              tavrinTools::defaultOriginName),
      scheduler(&logging),
      listener(&scheduler, &logging),
      connector(&scheduler, &logging),
      counterData([this](int value) { onRemoteCounter(value); },
                  [this](const std::string& name) {
                    if (!name.empty()) milestone("the master's test counter is named '%s'", name.c_str());
                  }) {
  settings.levels.apply(logging);
}

DemoSlave::~DemoSlave() {
  connector.setEnabled(false);
  listener.setEnabled(false);
}

void DemoSlave::milestone(const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  writer.write("slave", (std::string("-- ") + text).c_str());
}

void DemoSlave::fail(const std::string& text) {
  if (current == Step::Failed || current == Step::Done) return;
  failureText = text;
  current = Step::Failed;
  milestone("FAILED: %s", text.c_str());
  dumpText = dump();
}

bool DemoSlave::start() {
  startSeconds = writer.elapsedSeconds();
  auto onError = [this](ErrorType::Type error, const std::string& text) {
    fail(std::string(ErrorType::getText(error)) + ": " + text);
  };
  listener.setCallbacks(
      [this](const SingleAnnouncementData& a) {
        milestone("announcement %u '%s' (handler type %u) of %s connector at %s, cluster %u",
                  a.announcementId, a.name.c_str(), a.announcementType,
                  ConnectorInterfaceType::getText(a.connectorType),
                  a.connectorEndpoint.toString().c_str(), a.clusterId);
        if (a.announcementType == ConnectionHandlerType::SimpleConnector) announcementSeen = true;
      },
      onError);
  listener.init(settings.networkId, settings.group, settings.announcePort, settings.interface);
  listener.addSupportedConnector(0, ConnectorInterfaceType::PanelMaster);
  listener.setEnabled(true);
  if (!listener.isEnabled()) {
    fail("the announce slave could not open its socket");
    return false;
  }
  milestone("listening for masters on %s:%u (interface %s, network %u)",
            settings.group.toString().c_str(), settings.announcePort, settings.interface.c_str(),
            settings.networkId);

  connector.initCommon(kSlaveConnectorId, settings.slaveDeviceId, ConnectorInterfaceType::Client,
                       settings.bindIp, {}, false);
  connector.setGeneralErrorCallback(onError);
  connector.addConnectionHandler(
      ConnectionHandlerType::SimpleConnector, kHandlerVersion, [this] {
        return std::make_unique<SimpleConnectorHandler>(
            kHandlerVersion,
            [this](SimpleIp, unsigned remoteId, unsigned connectionId, SimpleConnectorHandler* h) {
              simpleHandler = h;
              milestone("SimpleConnector connection %u is up: the master gave it id %u (automatic)",
                        connectionId, remoteId);
              return true;
            },
            [this](SimpleIp, unsigned, unsigned connectionId, int reason) {
              simpleHandler = nullptr;
              simpleEndReason = reason;
              milestone("SimpleConnector connection %u ended: %s (%d)", connectionId,
                        tavrinTools::reasonText(reason),
                        reason);
              if (current != Step::End)
                fail(std::string("the SimpleConnector connection ended early: ") +
                     tavrinTools::reasonText(reason));
            },
            [this](SimpleIp, unsigned, unsigned, std::unique_ptr<std::vector<unsigned char>>&& data) {
              if (data) checkBlock(*data);
            },
            &logging);
      });
  connector.addConnectionHandler(
      ConnectionHandlerType::TestCounter, TestCounterHandler::kVersion, [this] {
        return std::make_unique<TestCounterHandler>(
            [this](unsigned connectionId, TestCounterHandler* h) {
              counterConnected = true;
              milestone("test counter connection %u is up (master id %u)", connectionId,
                        h->getRemoteConnectionId());
              h->linkData(&counterData);
              return true;
            },
            [this](unsigned connectionId) {
              counterConnected = false;
              if (current == Step::Connect || current == Step::Exchange)
                fail("the test counter connection " + std::to_string(connectionId) +
                     " ended early");
            });
      });
  auto rejected = [this](const SimpleEndpoint& endpoint, unsigned, unsigned connectionId,
                         int reason, unsigned, unsigned short type, const CustomConnectData*) {
    char text[256];
    std::snprintf(text, sizeof text, "%s connection %u to %s was rejected: %s (%d)",
                  ConnectionHandlerType::getText(static_cast<long>(type)), connectionId,
                  endpoint.toString().c_str(), tavrinTools::reasonText(reason), reason);
    fail(text);
  };
  connector.addConnectionRejectedCallback(ConnectionHandlerType::SimpleConnector, rejected);
  connector.addConnectionRejectedCallback(ConnectionHandlerType::TestCounter, rejected);
  counterData.setName("tavrin-demo slave");
  connector.setEnabled(true);
  return true;
}

bool DemoSlave::turn(int timeoutMs) {
  scheduler.run(timeoutMs);
  if (current == Step::Done || current == Step::Failed) return false;
  if (writer.elapsedSeconds() - startSeconds > settings.timeoutSeconds) {
    fail("no success within " + std::to_string(settings.timeoutSeconds) +
         " s: still waiting for " + waitingFor());
    return false;
  }
  advance();
  return current != Step::Done && current != Step::Failed;
}

const char* DemoSlave::waitingFor() const {
  switch (current) {
    case Step::FindMaster:
      return "a master's announcement (is a master running on this group, port and interface?)";
    case Step::Connect:
      return "the master to accept both connections";
    case Step::Exchange:
      return blocksDone ? "the test counter round trip" : "the echoed blocks";
    case Step::End:
      return "the end of the SimpleConnector connection";
    default:
      return "nothing";
  }
}

void DemoSlave::advance() {
  switch (current) {
    case Step::FindMaster:
      if (announcementSeen) connectToMaster();
      break;
    case Step::Connect:
      if (simpleHandler && counterConnected) {
        current = Step::Exchange;
        sendBlocks();
      }
      break;
    case Step::Exchange:
      if (blocksDone && counterDone) {
        current = Step::End;
        milestone("ending SimpleConnector connection %u with reason 1", simpleId);
        simpleHandler->disconnect();
      }
      break;
    case Step::End:
      if (simpleEndReason != 0) {
        dumpText = dump();
        connector.setEnabled(false);
        listener.setEnabled(false);
        scheduler.run(0);
        milestone("TCP connector slave and announce slave disabled");
        current = Step::Done;
      }
      break;
    default:
      break;
  }
}

void DemoSlave::connectToMaster() {
  // The callback said that something is there; the query says where, as an application asks.
  const std::vector<SingleAnnouncementData> pipes =
      listener.getTypeAnnouncements(settings.clusterId, ConnectionHandlerType::SimpleConnector);
  const std::unique_ptr<SingleAnnouncementData> counter = listener.getSingleAnnouncement(
      settings.clusterId, kCounterConnectionId, ConnectionHandlerType::TestCounter);
  if (pipes.empty() || !counter) {
    fail("the query found no echo pipe and test counter in cluster " +
         std::to_string(settings.clusterId));
    return;
  }
  masterEndpoint = pipes.front().connectorEndpoint;
  milestone("query: echo pipe and test counter %u of cluster %u at %s", counter->announcementId,
            settings.clusterId, masterEndpoint.toString().c_str());
  current = Step::Connect;
  simpleId = connector.connectAutomatic(masterEndpoint, settings.clusterId,
                                        ConnectionHandlerType::SimpleConnector, nullptr);
  if (current == Step::Failed) return;
  counterId = connector.connect(counter->connectorEndpoint, settings.clusterId,
                                ConnectionHandlerType::TestCounter, counter->announcementId,
                                nullptr);
  if (current == Step::Failed) return;
  if (simpleId == kNoId || counterId == kNoId) {
    fail("the connection requests could not be sent");
    return;
  }
  milestone("asked for SimpleConnector connection %u (automatic) and test counter connection %u",
            simpleId, counterId);
}

void DemoSlave::sendBlocks() {
  size_t bytes = 0;
  for (size_t i = 0; i < settings.blocks; ++i) {
    blocks.push_back(makeBlock(i));
    bytes += blocks.back().size();
  }
  for (const auto& block : blocks)
    simpleHandler->sendData(reinterpret_cast<const char*>(block.data()),
                            static_cast<unsigned>(block.size()));
  milestone("sent %zu blocks (%zu bytes) and counter 0", blocks.size(), bytes);
  if (blocks.empty()) blocksDone = true;
}

void DemoSlave::checkBlock(const std::vector<unsigned char>& block) {
  if (current != Step::Exchange) return;
  if (blocksChecked >= blocks.size()) {
    fail("an unexpected block of " + std::to_string(block.size()) + " bytes came back");
    return;
  }
  const std::vector<unsigned char>& expected = blocks[blocksChecked];
  if (block.size() != expected.size()) {
    fail("block " + std::to_string(blocksChecked) + " came back with " +
         std::to_string(block.size()) + " bytes instead of " + std::to_string(expected.size()));
    return;
  }
  for (size_t i = 0; i < block.size(); ++i) {
    if (block[i] != expected[i]) {
      fail("block " + std::to_string(blocksChecked) + " differs at byte " + std::to_string(i));
      return;
    }
  }
  ++blocksChecked;
  bytesChecked += block.size();
  if (blocksChecked == blocks.size()) {
    blocksDone = true;
    milestone("all %zu blocks came back, %zu bytes, every byte checked", blocksChecked,
              bytesChecked);
  }
}

void DemoSlave::onRemoteCounter(int value) {
  if (value == TestCounterData::kInvalidCounter) return;
  if (current != Step::Connect && current != Step::Exchange) return;
  if (resetSent) {
    if (value == 0) {
      counterDone = true;
      milestone("the master reset its counter to 0 on request");
    }
    return;
  }
  const int counter = counterData.getCounter();
  if (value != counter + kCounterAnswerOffset) return;
  if (counter < kCounterSteps) {
    counterData.setCounter(counter + 1);
    return;
  }
  milestone("counter 0..%d answered with %d..%d; asking the master to reset its counter",
            kCounterSteps, kCounterAnswerOffset, kCounterAnswerOffset + kCounterSteps);
  resetSent = true;
  counterData.sendRemoteCounterReset();
}

std::string DemoSlave::dump() const {
  std::ostringstream out;
  connector.dump(out, "  ");
  listener.dump(out, "  ");
  out << "  Test counter data:\n";
  counterData.dump(out, "    ");
  return out.str();
}

std::string DemoSlave::summary() const {
  char text[256];
  std::snprintf(text, sizeof text,
                "master found at %s, %zu blocks (%zu bytes) echoed byte-exact, counter round "
                "trip 0..%d and reset, connection ended with reason %d",
                masterEndpoint.toString().c_str(), blocksChecked, bytesChecked, kCounterSteps,
                simpleEndReason);
  return text;
}

}  // namespace tavrinDemo
