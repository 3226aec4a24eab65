// tavrin-browse: listens on an announce group and shows the masters, their connectors and their
// announcements as they appear, change and time out: a live table, or one JSON object per line
// with --json. Runs until SIGINT or SIGTERM (or --duration, or --first).
#include "tools/common/ToolSupport.h"

#include "tavrincommon/common/SignalHandler.h"
#include "tavrincommon/connector/ConnectionHandlerType.h"
#include "tavrincommon/connector/ConnectorInterfaceType.h"
#include "tavrincommon/connector/MCAnnounceSlave.h"
#include "tavrincommon/network/MulticastSocket.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <string>

#include <unistd.h>

namespace {

using tavrinConnector::ConnectionHandlerType;
using tavrinConnector::ConnectorInterfaceType;
using tavrinConnector::MCAnnounceData;
using tavrinConnector::MCAnnounceSlave;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

constexpr int kExitUsage = 2;
constexpr int kExitNothingSeen = 3;

struct Options {
  SimpleIp group{"239.255.77.1"};
  unsigned short port = 30300;
  std::string interface = "lo";
  unsigned networkId = 1;
  int masterTimeoutMs = MCAnnounceSlave::kDefaultMasterTimeoutMs;
  int durationSeconds = 0;
  bool json = false;
  bool first = false;
  tavrinTools::LogLevels levels{tavrinLog::SeverityLevel::Warning};
};

// What the browser shows of one master; compared turn by turn to find what changed.
struct AnnouncementView {
  bool available;
  std::string name;
  bool operator==(const AnnouncementView& o) const {
    return available == o.available && name == o.name;
  }
};
struct ConnectorView {
  ConnectorInterfaceType::Type type;
  unsigned short version;
  unsigned clusterId;
  SimpleEndpoint endpoint;
  std::map<std::pair<unsigned, unsigned short>, AnnouncementView> announcements;
  bool operator==(const ConnectorView& o) const {
    return type == o.type && version == o.version && clusterId == o.clusterId &&
           endpoint == o.endpoint && announcements == o.announcements;
  }
};
struct MasterView {
  unsigned networkId;
  unsigned deviceId;
  std::string deviceName;
  uint32_t changeCount;
  std::map<unsigned, ConnectorView> connectors;
  bool operator==(const MasterView& o) const {
    return networkId == o.networkId && deviceId == o.deviceId && deviceName == o.deviceName &&
           changeCount == o.changeCount && connectors == o.connectors;
  }
};
using Picture = std::map<SimpleEndpoint, MasterView>;

Picture takePicture(const MCAnnounceSlave& listener) {
  Picture picture;
  for (const auto& master : listener.getMasters()) {
    const MCAnnounceData& data = master.second->data;
    MasterView& view = picture[master.first];
    view.networkId = data.getNetworkId();
    view.deviceId = data.getDeviceId();
    view.deviceName = data.getDeviceName();
    view.changeCount = master.second->changeCount;
    for (const auto& connector : data.getConnectors()) {
      ConnectorView& c = view.connectors[connector.first];
      c.type = connector.second->type;
      c.version = connector.second->version;
      c.clusterId = connector.second->clusterId;
      c.endpoint = connector.second->endpoint;
      for (const auto& a : connector.second->announcements)
        c.announcements[{a.first.id, a.first.type}] = {a.second.available, a.second.name};
    }
  }
  return picture;
}

// Names come from the network: any byte may be in them.
std::string jsonString(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c >= 0x7F) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

// Names printed in the table: unprintable bytes as '?', so that a name cannot drive the terminal.
std::string printable(const std::string& text) {
  std::string out;
  for (unsigned char c : text) out += (c < 0x20 || c >= 0x7F) ? '?' : static_cast<char>(c);
  return out;
}

void printJson(const char* state, double seconds, const SimpleEndpoint& endpoint,
               const MasterView* view) {
  std::string line = "{\"event\":\"master\",\"state\":\"" + std::string(state) + "\"";
  char number[64];
  std::snprintf(number, sizeof number, ",\"time\":%.3f", seconds);
  line += number;
  line += ",\"master\":" + jsonString(endpoint.toString());
  if (view) {
    line += ",\"networkId\":" + std::to_string(view->networkId) +
            ",\"deviceId\":" + std::to_string(view->deviceId) +
            ",\"deviceName\":" + jsonString(view->deviceName) +
            ",\"changeCount\":" + std::to_string(view->changeCount) + ",\"connectors\":[";
    bool firstConnector = true;
    for (const auto& c : view->connectors) {
      line += firstConnector ? "" : ",";
      firstConnector = false;
      line += "{\"id\":" + std::to_string(c.first) + ",\"type\":" +
              std::to_string(static_cast<int>(c.second.type)) + ",\"typeName\":" +
              jsonString(ConnectorInterfaceType::getText(static_cast<long>(c.second.type))) +
              ",\"version\":" + std::to_string(c.second.version) +
              ",\"clusterId\":" + std::to_string(c.second.clusterId) +
              ",\"endpoint\":" + jsonString(c.second.endpoint.toString()) + ",\"announcements\":[";
      bool firstAnnouncement = true;
      for (const auto& a : c.second.announcements) {
        line += firstAnnouncement ? "" : ",";
        firstAnnouncement = false;
        line += "{\"id\":" + std::to_string(a.first.first) +
                ",\"type\":" + std::to_string(a.first.second) +
                ",\"name\":" + jsonString(a.second.name) +
                ",\"available\":" + (a.second.available ? "true" : "false") + "}";
      }
      line += "]}";
    }
    line += "]";
  }
  line += "}\n";
  std::fputs(line.c_str(), stdout);
  std::fflush(stdout);
}

void printTable(const Options& options, double seconds, const Picture& picture, bool terminal) {
  // On a terminal the table is redrawn in place; into a file or pipe each state follows the last.
  if (terminal) std::fputs("\033[H\033[2J", stdout);
  std::printf("=== %s:%u on %s, network %u: %zu master%s (+%.3f s) ===\n",
              options.group.toString().c_str(), options.port, options.interface.c_str(),
              options.networkId, picture.size(), picture.size() == 1 ? "" : "s", seconds);
  for (const auto& master : picture) {
    const MasterView& m = master.second;
    std::printf("master %-21s device %u (0x%08X) '%s', change count %u\n",
                master.first.toString().c_str(), m.deviceId, m.deviceId,
                printable(m.deviceName).c_str(), m.changeCount);
    for (const auto& c : m.connectors) {
      std::printf("  connector %-4u %-16s v%u  cluster %-6u at %s\n", c.first,
                  ConnectorInterfaceType::getText(static_cast<long>(c.second.type)),
                  c.second.version, c.second.clusterId, c.second.endpoint.toString().c_str());
      for (const auto& a : c.second.announcements) {
        std::printf("    announcement %-6u type %-5u %-16s %-14s '%s'\n", a.first.first,
                    a.first.second, ConnectionHandlerType::getText(static_cast<long>(a.first.second)),
                    a.second.available ? "available" : "not available",
                    printable(a.second.name).c_str());
      }
    }
  }
  std::fflush(stdout);
}

void printHelp() {
  std::printf(
      "usage: tavrin-browse [options]\n"
      "Listens on an announce group and shows every master, its connectors and their\n"
      "announcements as they appear, change and time out. Runs until SIGINT or SIGTERM.\n"
      "\n"
      "  --group ADDR         announce multicast group (239.255.77.1)\n"
      "  --port N             announce UDP port (30300)\n"
      "  --interface NAME     interface to join the group on (lo)\n"
      "  --network-id N       announce network id (1)\n"
      "  --master-timeout MS  a silent master is dropped after this long (20100)\n"
      "  --json               one JSON object per line per change instead of the table:\n"
      "                       {\"event\":\"master\",\"state\":\"added|changed|removed\",...}\n"
      "  --duration SEC       stop after SEC seconds\n"
      "  --first              stop once the first master has been shown (exit status 3 if\n"
      "                       --duration ends before any)\n"
      "%s"
      "Log lines go to standard error.\n",
      tavrinTools::kCommonOptionsHelp);
}

int parseOptions(int argc, char** argv, Options& o) {
  tavrinTools::ArgReader args(argc, argv);
  while (!args.done()) {
    const std::string option = args.next();
    std::string text;
    unsigned long n = 0;
    bool ok = true;
    if (option == "--help") {
      printHelp();
      return 1;
    } else if (option == "--version") {
      tavrinTools::printVersion("tavrin-browse");
      return 1;
    } else if (option == "--json") {
      o.json = true;
    } else if (option == "--first") {
      o.first = true;
    } else if (option == "--group") {
      ok = args.value(text) && tavrinTools::parseIp(text, o.group) && o.group.isMulticast();
    } else if (option == "--port") {
      ok = args.value(text) && tavrinTools::parseUnsigned(text, 65535, n);
      o.port = static_cast<unsigned short>(n);
    } else if (option == "--interface") {
      ok = args.value(o.interface);
    } else if (option == "--network-id") {
      ok = args.value(text) && tavrinTools::parseUnsigned(text, 0xFFFFFFFFu, n);
      o.networkId = static_cast<unsigned>(n);
    } else if (option == "--master-timeout") {
      ok = args.value(text) && tavrinTools::parseUnsigned(text, 86400000, n) && n > 0;
      o.masterTimeoutMs = static_cast<int>(n);
    } else if (option == "--duration") {
      ok = args.value(text) && tavrinTools::parseUnsigned(text, 86400 * 365, n);
      o.durationSeconds = static_cast<int>(n);
    } else if (option == "--log-level") {
      ok = args.value(text) && o.levels.parse(text);
    } else {
      std::fprintf(stderr, "tavrin-browse: unknown argument '%s' (see --help)\n", option.c_str());
      return 1 + kExitUsage;
    }
    if (!ok) {
      std::fprintf(stderr, "tavrin-browse: bad value for %s: '%s'\n", option.c_str(), text.c_str());
      return 1 + kExitUsage;
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (const int done = parseOptions(argc, argv, options)) return done - 1;

  tavrinTools::LineWriter errors(stderr, false);
  tavrinLog::TavrinLogging logging(options.levels.defaultLevel(),
                                   tavrinTools::makeLogCallback(errors, "tavrin-browse:"),
                                   tavrinTools::defaultOriginName);
  options.levels.apply(logging);
  tavrinScheduler::Scheduler scheduler(&logging);
  MCAnnounceSlave listener(
      &scheduler,
      [&logging]() -> std::unique_ptr<tavrinNetwork::MulticastSocketInterface> {
        return std::make_unique<tavrinNetwork::MulticastSocket>(&logging);
      },
      options.masterTimeoutMs, &logging);

  bool running = true;
  std::string failure;
  listener.setCallbacks({}, [&](tavrinConnector::ErrorType::Type, const std::string& text) {
    failure = text;
    running = false;
  });
  listener.init(options.networkId, options.group, options.port, options.interface);
  // Every connector type, so that nothing a master announces is hidden from the queries.
  for (int type = 0; type < ConnectorInterfaceType::size(); ++type)
    listener.addSupportedConnector(0, static_cast<ConnectorInterfaceType::Type>(type));
  listener.setEnabled(true);
  if (!listener.isEnabled()) {
    std::fprintf(stderr, "tavrin-browse: cannot listen on %s:%u (interface %s)%s%s\n",
                 options.group.toString().c_str(), options.port, options.interface.c_str(),
                 failure.empty() ? "" : ": ", failure.c_str());
    return 1;
  }

  tavrinCommon::SignalHandler signals;
  signals.addSignal(SIGINT, [&] { running = false; });
  signals.addSignal(SIGTERM, [&] { running = false; });
  signals.addSignal(SIGUSR1, [&] {
    listener.dump(std::cerr, "");
    scheduler.dump(std::cerr, "");
    std::cerr.flush();
  });

  const bool terminal = !options.json && isatty(STDOUT_FILENO);
  const auto start = std::chrono::steady_clock::now();
  auto elapsed = [&] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  if (!options.json) printTable(options, 0, {}, terminal);

  Picture shown;
  bool seen = false;
  while (running) {
    scheduler.run(100);
    signals.mainLoopSignalCheck();
    Picture now = takePicture(listener);
    if (now != shown) {
      if (options.json) {
        for (const auto& m : now) {
          auto before = shown.find(m.first);
          if (before == shown.end())
            printJson("added", elapsed(), m.first, &m.second);
          else if (!(before->second == m.second))
            printJson("changed", elapsed(), m.first, &m.second);
        }
        for (const auto& m : shown)
          if (!now.count(m.first)) printJson("removed", elapsed(), m.first, nullptr);
      } else {
        printTable(options, elapsed(), now, terminal);
      }
      shown = std::move(now);
      if (!shown.empty()) seen = true;
    }
    if (options.first && seen) break;
    if (options.durationSeconds > 0 && elapsed() >= options.durationSeconds) break;
  }
  listener.setEnabled(false);
  if (!failure.empty()) {
    std::fprintf(stderr, "tavrin-browse: %s\n", failure.c_str());
    return 1;
  }
  return options.first && !seen ? kExitNothingSeen : 0;
}
