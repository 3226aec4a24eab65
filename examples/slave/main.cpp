// example-slave: a minimal slave device. An announce slave listens on the multicast group for
// masters; the first SimpleConnector announcement of its cluster tells the TCP connector slave
// where to connect. It asks for a connection whose id the master chooses, has a few blocks echoed
// and checks them, ends the connection and exits. Everything stays on this machine: interface lo.
//
//   example-slave [--port N] [--seconds N]
//
// Exit status 0 when every block came back within --seconds (default 10), 1 otherwise.
#include <tavrincommon/connector/ConnectionHandlerType.h>
#include <tavrincommon/connector/ConnectorInterfaceType.h>
#include <tavrincommon/connector/DisconnectReason.h>
#include <tavrincommon/connector/ErrorType.h>
#include <tavrincommon/connector/MCAnnounceSlave.h>
#include <tavrincommon/connector/SingleAnnouncementData.h>
#include <tavrincommon/connector/TCPConnectorSlave.h>
#include <tavrincommon/connector/simpleConnector/SimpleConnectorHandler.h>
#include <tavrincommon/log/DefaultOrigins.h>
#include <tavrincommon/log/TavrinLogging.h>
#include <tavrincommon/scheduler/Scheduler.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using tavrinConnector::ConnectionHandlerType;
using tavrinConnector::ConnectorInterfaceType;
using tavrinConnector::CustomConnectData;
using tavrinConnector::DisconnectReason;
using tavrinConnector::ErrorType;
using tavrinConnector::SingleAnnouncementData;
using tavrinConnector::simpleConnector::SimpleConnectorHandler;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

// What master and slave agree on: where announcements go, and the cluster of the connection.
constexpr const char* kGroup = "239.255.77.1";
constexpr unsigned short kDefaultAnnouncePort = 30310;
constexpr const char* kInterface = "lo";
constexpr unsigned kNetworkId = 1;
constexpr unsigned kClusterId = 42;

constexpr unsigned kDeviceId = 4002;
constexpr unsigned kConnectorId = 2;
constexpr unsigned short kEchoVersion = 1;
// Ends the connection: an application's own reason is a positive number.
constexpr int kDoneReason = 1;

}  // namespace

int main(int argc, char** argv) {
  unsigned short announcePort = kDefaultAnnouncePort;
  int seconds = 10;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
      seconds = std::atoi(argv[++i]);
    } else if (std::strcmp(argv[i], "--port") == 0 && i + 1 < argc) {
      announcePort = static_cast<unsigned short>(std::atoi(argv[++i]));
    } else {
      std::fprintf(stderr, "usage: example-slave [--port N] [--seconds N]\n");
      return 2;
    }
  }

  // One line at a time, so that the library's lines (stderr) and these interleave in order.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  tavrinLog::TavrinLogging logging(
      tavrinLog::SeverityLevel::Service,
      [](int, tavrinLog::SeverityLevel::Type, const char* line) {
        std::fprintf(stderr, "slave: %s\n", line);
      },
      [](int origin) { return tavrinCommon::DefaultOrigins::getText(origin); });
  tavrinScheduler::Scheduler scheduler(&logging);
  tavrinConnector::MCAnnounceSlave listener(&scheduler, &logging);
  tavrinConnector::TCPConnectorSlave connector(&scheduler, &logging);

  std::string failure;
  auto onError = [&failure](ErrorType::Type error, const std::string& text) {
    failure = std::string(ErrorType::getText(error)) + ": " + text;
  };
  const std::vector<std::string> blocks = {"hello", "from the", "example slave"};
  size_t echoed = 0;
  bool ended = false;

  connector.initCommon(kConnectorId, kDeviceId, ConnectorInterfaceType::Client,
                       SimpleIp("127.0.0.1"), {}, false);
  connector.setGeneralErrorCallback(onError);
  connector.addConnectionHandler(ConnectionHandlerType::SimpleConnector, kEchoVersion, [&] {
    auto handler =
        std::make_unique<SimpleConnectorHandler>(kEchoVersion, nullptr, nullptr, nullptr, &logging);
    // The handler owns its callbacks, so they may keep a pointer to it.
    SimpleConnectorHandler* pipe = handler.get();
    handler->setCallbacks(
        [&blocks](SimpleIp, unsigned remoteId, unsigned id, SimpleConnectorHandler* h) {
          std::printf("slave: connection %u is up (the master's id %u)\n", id, remoteId);
          for (const std::string& block : blocks)
            h->sendData(block.data(), static_cast<unsigned>(block.size()));
          return true;
        },
        [&ended](SimpleIp, unsigned, unsigned id, int reason) {
          std::printf("slave: connection %u ended (reason %d)\n", id, reason);
          ended = true;
        },
        [&, pipe](SimpleIp, unsigned, unsigned,
                  std::unique_ptr<std::vector<unsigned char>>&& data) {
          const std::string got = data ? std::string(data->begin(), data->end()) : std::string();
          if (echoed >= blocks.size() || got != blocks[echoed]) {
            failure = "unexpected echo '" + got + "'";
            return;
          }
          std::printf("slave: echoed '%s'\n", got.c_str());
          if (++echoed == blocks.size()) pipe->requestDisconnect(kDoneReason);
        });
    return handler;
  });
  connector.addConnectionRejectedCallback(
      ConnectionHandlerType::SimpleConnector,
      [&failure](const SimpleEndpoint& at, unsigned, unsigned, int reason, unsigned, unsigned short,
                 const CustomConnectData*) {
        failure = "rejected by " + at.toString() + ": " + DisconnectReason::getText(long{reason});
      });
  connector.setEnabled(true);

  bool asked = false;
  listener.setCallbacks(
      [&](const SingleAnnouncementData& announcement) {
        if (asked || announcement.clusterId != kClusterId ||
            announcement.announcementType != ConnectionHandlerType::SimpleConnector)
          return;
        asked = true;
        std::printf("slave: '%s' announced at %s\n", announcement.name.c_str(),
                    announcement.connectorEndpoint.toString().c_str());
        connector.connectAutomatic(announcement.connectorEndpoint, kClusterId,
                                   ConnectionHandlerType::SimpleConnector, nullptr);
      },
      onError);
  listener.init(kNetworkId, SimpleIp(kGroup), announcePort, kInterface);
  listener.addSupportedConnector(0, ConnectorInterfaceType::PanelMaster);
  listener.setEnabled(true);
  std::printf("slave: listening for masters on %s:%u (interface %s)\n", kGroup, announcePort,
              kInterface);
  std::fflush(stdout);

  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!ended && failure.empty() && std::chrono::steady_clock::now() < end) scheduler.run(100);

  connector.setEnabled(false);
  listener.setEnabled(false);
  scheduler.run(0);
  if (failure.empty() && echoed < blocks.size())
    failure = asked ? "not every block came back" : "no master announced itself";
  if (!failure.empty()) {
    std::fprintf(stderr, "slave: FAILED: %s\n", failure.c_str());
    return 1;
  }
  std::printf("slave: OK, %zu blocks echoed\n", echoed);
  return 0;
}
