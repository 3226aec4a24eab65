// example-master: a minimal master device. A TCP connector master gives SimpleConnector
// connections ids of its own choosing and echoes every block it receives; an announce master
// tells slaves on the multicast group where to connect. Everything stays on this machine:
// interface lo, bound to 127.0.0.1, TTL 0.
//
//   example-master [--port N] [--once] [--seconds N]
//
// Runs until Ctrl-C, for --seconds (default 60), or with --once until its first connection ends.
// Exit status 0, or 1 when it could not start or --once served no connection in time.
#include <tavrincommon/connector/ConnectionHandlerType.h>
#include <tavrincommon/connector/ConnectorInterfaceType.h>
#include <tavrincommon/connector/ErrorType.h>
#include <tavrincommon/connector/MCAnnounceMaster.h>
#include <tavrincommon/connector/TCPConnectorMaster.h>
#include <tavrincommon/connector/simpleConnector/SimpleConnectorHandler.h>
#include <tavrincommon/log/DefaultOrigins.h>
#include <tavrincommon/log/TavrinLogging.h>
#include <tavrincommon/network/MulticastSocket.h>
#include <tavrincommon/scheduler/Scheduler.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

using tavrinConnector::ConnectionHandlerType;
using tavrinConnector::ConnectorInterfaceType;
using tavrinConnector::ErrorType;
using tavrinConnector::MCAnnounceMaster;
using tavrinConnector::TCPConnectorMaster;
using tavrinConnector::simpleConnector::SimpleConnectorHandler;
using tavrinNetwork::SimpleIp;

// What master and slave agree on: where announcements go, and the cluster of the connection.
constexpr const char* kGroup = "239.255.77.1";
constexpr unsigned short kDefaultAnnouncePort = 30310;
constexpr const char* kInterface = "lo";
constexpr unsigned kNetworkId = 1;
constexpr unsigned kClusterId = 42;

constexpr unsigned kDeviceId = 4001;
constexpr unsigned kConnectorId = 1;
constexpr unsigned kAnnouncementId = 1;
constexpr unsigned short kEchoVersion = 1;
// Short, so that a slave started after the master hears of it within a second.
constexpr int kAnnounceIntervalMs = 1000;

volatile std::sig_atomic_t interrupted = 0;

}  // namespace

int main(int argc, char** argv) {
  unsigned short announcePort = kDefaultAnnouncePort;
  bool once = false;
  int seconds = 60;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--once") == 0) {
      once = true;
    } else if (std::strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
      seconds = std::atoi(argv[++i]);
    } else if (std::strcmp(argv[i], "--port") == 0 && i + 1 < argc) {
      announcePort = static_cast<unsigned short>(std::atoi(argv[++i]));
    } else {
      std::fprintf(stderr, "usage: example-master [--port N] [--once] [--seconds N]\n");
      return 2;
    }
  }
  // One line at a time, so that the library's lines (stderr) and these interleave in order.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  std::signal(SIGINT, [](int) { interrupted = 1; });
  std::signal(SIGTERM, [](int) { interrupted = 1; });

  tavrinLog::TavrinLogging logging(
      tavrinLog::SeverityLevel::Service,
      [](int, tavrinLog::SeverityLevel::Type, const char* line) {
        std::fprintf(stderr, "master: %s\n", line);
      },
      [](int origin) { return tavrinCommon::DefaultOrigins::getText(origin); });
  tavrinScheduler::Scheduler scheduler(&logging);
  TCPConnectorMaster connector(&scheduler, &logging);
  MCAnnounceMaster announcer(
      &scheduler, [&logging] { return std::make_unique<tavrinNetwork::MulticastSocket>(&logging); },
      kAnnounceIntervalMs, &logging);

  bool failed = false;
  auto onError = [&failed](ErrorType::Type error, const std::string& text) {
    std::fprintf(stderr, "master: error %s: %s\n", ErrorType::getText(error), text.c_str());
    failed = true;
  };
  unsigned ended = 0;

  // Listen on 127.0.0.1 at a port the system chooses; the announcement says which.
  connector.init(kConnectorId, kDeviceId, ConnectorInterfaceType::PanelMaster, kClusterId,
                 SimpleIp("127.0.0.1"), 0, false, false, {}, false);
  connector.setGeneralErrorCallback(onError);
  connector.addMasterConnectionHandler(
      ConnectionHandlerType::SimpleConnector, kEchoVersion, [&logging, &ended] {
        auto handler = std::make_unique<SimpleConnectorHandler>(kEchoVersion, nullptr, nullptr,
                                                                nullptr, &logging);
        // The handler owns its callbacks, so they may keep a pointer to it.
        SimpleConnectorHandler* echo = handler.get();
        handler->setCallbacks(
            [](SimpleIp ip, unsigned, unsigned id, SimpleConnectorHandler*) {
              std::printf("master: connection %u from %s\n", id, ip.toString().c_str());
              return true;
            },
            [&ended](SimpleIp, unsigned, unsigned id, int reason) {
              std::printf("master: connection %u ended (reason %d)\n", id, reason);
              ++ended;
            },
            [echo](SimpleIp, unsigned, unsigned,
                   std::unique_ptr<std::vector<unsigned char>>&& data) {
              if (data)
                echo->sendData(reinterpret_cast<const char*>(data->data()),
                               static_cast<unsigned>(data->size()));
            });
        return handler;
      });
  connector.addAutomaticConnection(ConnectionHandlerType::SimpleConnector);
  connector.setEnabled(true);
  if (!connector.isListening()) {
    std::fprintf(stderr, "master: cannot listen\n");
    return 1;
  }
  const tavrinNetwork::SimpleEndpoint endpoint = connector.getListeningEndpoint();

  announcer.setErrorCallback(onError);
  announcer.init(kNetworkId, kDeviceId, "example master", SimpleIp(kGroup), announcePort,
                 SimpleIp("127.0.0.1"), 0, kInterface, true);
  announcer.setMulticastTtl(0);
  announcer.setEnabled(true);
  if (!announcer.isEnabled()) {
    std::fprintf(stderr, "master: cannot announce\n");
    return 1;
  }
  announcer.addConnector(kConnectorId, ConnectorInterfaceType::PanelMaster, 0, kClusterId,
                         endpoint);
  announcer.addAnnouncement(kConnectorId, kAnnouncementId, ConnectionHandlerType::SimpleConnector,
                            "echo", true);
  std::printf("master: listening on %s, announced on %s:%u (cluster %u)\n",
              endpoint.toString().c_str(), kGroup, announcePort, kClusterId);
  std::fflush(stdout);

  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!interrupted && !failed && !(once && ended > 0) && std::chrono::steady_clock::now() < end)
    scheduler.run(100);

  // The announce master withdraws the announcement; the connector ends what is left.
  announcer.setEnabled(false);
  connector.setEnabled(false);
  scheduler.run(0);
  std::printf("master: stopped after %u connection(s)\n", ended);
  return failed || (once && ended == 0) ? 1 : 0;
}
