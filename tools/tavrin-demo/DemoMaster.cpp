#include "tools/tavrin-demo/DemoMaster.h"

#include "tavrincommon/connector/ConnectionHandlerType.h"
#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/TestCounterHandler.h"
#include "tavrincommon/connector/simpleConnector/SimpleConnectorHandler.h"
#include "tavrincommon/network/MulticastSocket.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <sstream>

namespace tavrinDemo {

using tavrinConnector::ConnectionHandlerBase;
using tavrinConnector::ConnectionHandlerType;
using tavrinConnector::ConnectorInterfaceType;
using tavrinConnector::DisconnectReason;
using tavrinConnector::ErrorType;
using tavrinConnector::TestCounterData;
using tavrinConnector::TestCounterHandler;
using tavrinConnector::simpleConnector::SimpleConnectorHandler;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

DemoMaster::DemoMaster(const DemoSettings& settings_, tavrinTools::LineWriter& writer_)
    : settings(settings_),
      writer(writer_),
      logging(settings.levels.defaultLevel(), tavrinTools::makeLogCallback(writer, "master"),
              tavrinTools::defaultOriginName),
      scheduler(&logging),
      connector(&scheduler, &logging),
      announcer(
          &scheduler,
          [this]() -> std::unique_ptr<tavrinNetwork::MulticastSocketInterface> {
            return std::make_unique<tavrinNetwork::MulticastSocket>(&logging);
          },
          settings.announceIntervalMs, &logging),
      counterData(
          // Every value of the slave is answered with a larger one, so the slave sees the round
          // trip.
          [this](int value) {
            if (value != TestCounterData::kInvalidCounter)
              counterData.setCounter(value + kCounterAnswerOffset);
          },
          {}) {
  settings.levels.apply(logging);
}

DemoMaster::~DemoMaster() {
  announcer.setEnabled(false);
  connector.setEnabled(false);
}

void DemoMaster::milestone(const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  writer.write("master", (std::string("-- ") + text).c_str());
}

void DemoMaster::fail(const std::string& text) {
  if (failureText.empty()) failureText = text;
  milestone("FAILED: %s", text.c_str());
}

bool DemoMaster::start() {
  auto onError = [this](ErrorType::Type error, const std::string& text) {
    fail(std::string(ErrorType::getText(error)) + ": " + text);
  };
  connector.init(kMasterConnectorId, settings.masterDeviceId, ConnectorInterfaceType::PanelMaster,
                 settings.clusterId, settings.bindIp, settings.tcpPort, false, false, {}, false);
  connector.setGeneralErrorCallback(onError);

  // SimpleConnector: every block comes straight back.
  connector.addMasterConnectionHandler(
      ConnectionHandlerType::SimpleConnector, kHandlerVersion, [this] {
        return std::make_unique<SimpleConnectorHandler>(
            kHandlerVersion,
            [this](SimpleIp, unsigned, unsigned connectionId, SimpleConnectorHandler* handler) {
              simpleHandlers[connectionId] = handler;
              return true;
            },
            [this](SimpleIp ip, unsigned, unsigned connectionId, int reason) {
              simpleHandlers.erase(connectionId);
              if (simpleReason == 0) simpleReason = reason;
              milestone("SimpleConnector connection %u from %s ended: %s (%d), %u blocks echoed",
                        connectionId, ip.toString().c_str(), tavrinTools::reasonText(reason),
                        reason, echoed);
            },
            [this](SimpleIp, unsigned, unsigned connectionId,
                   std::unique_ptr<std::vector<unsigned char>>&& data) {
              auto it = simpleHandlers.find(connectionId);
              if (it == simpleHandlers.end() || !data) return;
              it->second->sendData(reinterpret_cast<const char*>(data->data()),
                                   static_cast<unsigned>(data->size()));
              ++echoed;
            },
            &logging);
      });
  connector.addMasterConnectionHandler(ConnectionHandlerType::TestCounter, TestCounterHandler::kVersion,
                                       [this] {
                                         auto handler = std::make_unique<TestCounterHandler>(
                                             [this](unsigned, TestCounterHandler* h) {
                                               h->linkData(&counterData);
                                               return true;
                                             },
                                             [this](unsigned connectionId) {
                                               milestone("test counter connection %u ended",
                                                         connectionId);
                                             });
                                         return handler;
                                       });
  connector.addAutomaticConnection(ConnectionHandlerType::SimpleConnector);
  connector.addAllowedConnection(kCounterConnectionId, ConnectionHandlerType::TestCounter);
  counterData.setName("tavrin-demo master");
  connector.setEnabled(true);
  if (!connector.isListening()) {
    if (failureText.empty()) fail("the TCP connector master could not listen");
    return false;
  }
  const SimpleEndpoint endpoint = connector.getListeningEndpoint();
  milestone("TCP connector master %u listening on %s (device %u, cluster %u)", kMasterConnectorId,
            endpoint.toString().c_str(), settings.masterDeviceId, settings.clusterId);

  const unsigned ttl = static_cast<unsigned>(settings.ttl);
  announcer.setErrorCallback(onError);
  announcer.init(settings.networkId, settings.masterDeviceId, "tavrin-demo master", settings.group,
                 settings.announcePort, settings.bindIp, 0, settings.interface, true);
  announcer.setMulticastTtl(settings.ttl);
  announcer.setEnabled(true);
  if (!announcer.isEnabled()) {
    if (failureText.empty()) fail("the announce master could not open its socket");
    return false;
  }
  announcer.addConnector(kMasterConnectorId, ConnectorInterfaceType::PanelMaster, 0,
                         settings.clusterId, endpoint);
  announcer.addAnnouncement(kMasterConnectorId, kSimpleAnnouncementId,
                            ConnectionHandlerType::SimpleConnector, "echo pipe", true);
  announcer.addAnnouncement(kMasterConnectorId, kCounterConnectionId,
                            ConnectionHandlerType::TestCounter, "test counter", true);
  // Shown by browsers, never offered to slaves.
  announcer.addAnnouncement(kMasterConnectorId, 200, ConnectionHandlerType::SimpleConnector,
                            "spare pipe", false);
  milestone("announcing on %s:%u every %d ms from %s (interface %s, TTL %u): echo pipe, test "
            "counter, spare pipe", settings.group.toString().c_str(), settings.announcePort,
            settings.announceIntervalMs, settings.bindIp.toString().c_str(),
            settings.interface.c_str(), ttl);
  return true;
}

void DemoMaster::stop(int graceMs) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(graceMs);
  while (connector.getActiveConnectionCount() > 0 && std::chrono::steady_clock::now() < end)
    scheduler.run(20);
  announcer.setEnabled(false);
  connector.setEnabled(false);
  // The farewell and the last disconnects leave in this turn.
  scheduler.run(0);
  milestone("announce master and TCP connector master disabled");
}

std::string DemoMaster::dump() const {
  std::ostringstream out;
  connector.dump(out, "  ");
  announcer.dump(out, "  ");
  out << "  Test counter data:\n";
  counterData.dump(out, "    ");
  return out.str();
}

}  // namespace tavrinDemo
