// tavrin-connect: netcat for the connector protocol. Opens a SimpleConnector logical connection to
// a master (explicit or automatic id) and copies standard input to the connection and the
// connection to standard output; with --listen it is the master and serves such connections.
// Every reject and disconnect reason has its own message and exit status.
#include "tools/common/ToolSupport.h"

#include "tavrincommon/common/SignalHandler.h"
#include "tavrincommon/connector/ConnectionHandlerType.h"
#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/connector/TCPConnectorMaster.h"
#include "tavrincommon/connector/TCPConnectorSlave.h"
#include "tavrincommon/connector/TCPTransceiver.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/connector/simpleConnector/SimpleConnectorHandler.h"
#include "tavrincommon/network/TCPSocketInterface.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using tavrinConnector::ConnectionHandlerType;
using tavrinConnector::ConnectorInterfaceType;
using tavrinConnector::DisconnectReason;
using tavrinConnector::simpleConnector::SimpleConnectorHandler;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitApplicationReason = 3;
constexpr int kExitInterrupted = 130;
// Connector reason -n exits with kExitReasonBase + n.
constexpr int kExitReasonBase = 64;
constexpr unsigned kNoId = 0xFFFFFFFFu;
// Reading stdin pauses while this many blocks wait to be sent, so memory stays bounded whatever
// the input's size.
constexpr size_t kMaxQueuedBlocks = 16;
constexpr size_t kChunkSize = 65536;

int exitStatusFor(int reason) {
  if (reason == 1 || reason == 0) return kExitOk;
  if (reason > 0) return kExitApplicationReason;
  return kExitReasonBase - reason;
}

struct Options {
  bool listen = false;
  SimpleEndpoint endpoint;
  SimpleIp bindIp{"0.0.0.0"};
  unsigned id = kNoId;
  unsigned clusterId = 0;
  unsigned deviceId = 1;
  unsigned short version = 1;
  bool keep = false;
  tavrinTools::LogLevels levels{tavrinLog::SeverityLevel::Warning};
};

void printHelp() {
  std::printf(
      "usage: tavrin-connect [options] ADDR:PORT\n"
      "       tavrin-connect --listen [ADDR:]PORT [options]\n"
      "Opens a SimpleConnector connection to the master at ADDR:PORT, sends standard input over it\n"
      "in blocks and writes what arrives to standard output; at the end of standard input it ends\n"
      "the connection with reason 1. With --listen it runs a master that accepts one such\n"
      "connection at a time (automatic ids, and --id if given) and copies the same way; the end\n"
      "of its standard input does not end a connection.\n"
      "\n"
      "  --id N               client: ask for master-side id N (default: an automatic id);\n"
      "                       --listen: also allow connections that ask for id N\n"
      "  --cluster-id N       cluster id of both sides (0)\n"
      "  --device-id N        own device id (1)\n"
      "  --handler-version N  SimpleConnector handler version (1)\n"
      "  --bind ADDR          client: local address of the TCP connection (any)\n"
      "  --keep               --listen: serve connection after connection until a signal\n"
      "%s"
      "\n"
      "Messages and log lines go to standard error. Exit status: 0 when the connection ended\n"
      "normally (the end of input, or the peer ended it with reason 1); 1 local failure; 2 wrong\n"
      "usage; 3 the peer ended it with another application reason; 130 interrupted; for a\n"
      "connection rejected or ended by the connector with reason -n, 64 + n:\n",
      tavrinTools::kCommonOptionsHelp);
  for (int reason = -1; reason >= -DisconnectReason::size(); --reason)
    std::printf("  %3d  %s (%d)\n", exitStatusFor(reason), DisconnectReason::getText(static_cast<long>(reason)),
                reason);
}

int parseOptions(int argc, char** argv, Options& o) {
  tavrinTools::ArgReader args(argc, argv);
  bool haveEndpoint = false;
  while (!args.done()) {
    const std::string option = args.next();
    std::string text;
    unsigned long n = 0;
    bool ok = true;
    if (option == "--help") {
      printHelp();
      return 1;
    } else if (option == "--version") {
      tavrinTools::printVersion("tavrin-connect");
      return 1;
    } else if (option == "--listen") {
      o.listen = true;
      ok = args.value(text);
      // A bare port listens on 127.0.0.1: nothing is offered beyond the machine unless asked.
      if (ok && text.find(':') == std::string::npos) text = "127.0.0.1:" + text;
      ok = ok && tavrinTools::parseEndpoint(text, o.endpoint);
      haveEndpoint = ok;
    } else if (option == "--id") {
      ok = args.value(text) && tavrinTools::parseUnsigned(text, 0xFFFFFFFEu, n) && n > 0;
      o.id = static_cast<unsigned>(n);
    } else if (option == "--cluster-id") {
      ok = args.value(text) && tavrinTools::parseUnsigned(text, 0xFFFFFFFFu, n);
      o.clusterId = static_cast<unsigned>(n);
    } else if (option == "--device-id") {
      ok = args.value(text) && tavrinTools::parseUnsigned(text, 0xFFFFFFFFu, n);
      o.deviceId = static_cast<unsigned>(n);
    } else if (option == "--handler-version") {
      ok = args.value(text) && tavrinTools::parseUnsigned(text, 4095, n);
      o.version = static_cast<unsigned short>(n);
    } else if (option == "--bind") {
      ok = args.value(text) && tavrinTools::parseIp(text, o.bindIp);
    } else if (option == "--keep") {
      o.keep = true;
    } else if (option == "--log-level") {
      ok = args.value(text) && o.levels.parse(text);
    } else if (option.compare(0, 2, "--") != 0 && !haveEndpoint && !o.listen) {
      text = option;
      ok = tavrinTools::parseEndpoint(text, o.endpoint);
      haveEndpoint = ok;
    } else {
      std::fprintf(stderr, "tavrin-connect: unexpected argument '%s' (see --help)\n",
                   option.c_str());
      return 1 + kExitUsage;
    }
    if (!ok) {
      std::fprintf(stderr, "tavrin-connect: bad value for %s: '%s'\n", option.c_str(),
                   text.c_str());
      return 1 + kExitUsage;
    }
  }
  if (!haveEndpoint) {
    std::fprintf(stderr, "tavrin-connect: a master's ADDR:PORT or --listen PORT is needed\n");
    return 1 + kExitUsage;
  }
  return 0;
}

// Writes all of a block to standard output. Blocking on purpose: a slow reader of the output
// slows the peer down through TCP instead of filling memory here.
bool writeAll(const unsigned char* data, size_t length) {
  while (length > 0) {
    const ssize_t n = ::write(STDOUT_FILENO, data, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

// Copies standard input into the current connection and its blocks to standard output. Pipes,
// sockets and terminals are watched by the loop; files (which epoll refuses) are read in chunks
// between turns, as they never block.
class Pump {
 public:
  Pump(tavrinScheduler::Scheduler& scheduler_, tavrinConnector::TCPConnectorBase& connector_)
      : scheduler(scheduler_), connector(connector_), buffer(kChunkSize) {
    struct stat info{};
    watchable = fstat(STDIN_FILENO, &info) == 0 &&
                (S_ISFIFO(info.st_mode) || S_ISSOCK(info.st_mode) || S_ISCHR(info.st_mode));
    if (watchable && S_ISCHR(info.st_mode) && !isatty(STDIN_FILENO)) watchable = false;
    if (watchable) fcntl(STDIN_FILENO, F_SETFL, fcntl(STDIN_FILENO, F_GETFL) | O_NONBLOCK);
  }
  ~Pump() { unwatch(); }

  void attach(SimpleConnectorHandler* handler_) { handler = handler_; }
  void detach() {
    handler = nullptr;
    unwatch();
  }
  SimpleConnectorHandler* current() const { return handler; }
  bool inputEnded() const { return eof; }
  uint64_t bytesIn() const { return sent; }
  uint64_t bytesOut() const { return received; }

  void deliver(const std::vector<unsigned char>& block) {
    received += block.size();
    if (!writeAll(block.data(), block.size()) && !outputBroken) {
      outputBroken = true;
      std::fprintf(stderr, "tavrin-connect: standard output is closed; ending the connection\n");
    }
  }
  bool outputFailed() const { return outputBroken; }

  // After every turn: reads on while the send queue has room, pauses while it is full.
  void service() {
    const bool wanted = handler && !eof && queuedBlocks() < kMaxQueuedBlocks;
    if (!watchable) {
      if (wanted) readChunk();
      return;
    }
    if (wanted && !watch) {
      tavrinScheduler::IOWatchItem item;
      item.fd = STDIN_FILENO;
      item.events = EPOLLIN;
      item.callback = [this](int) {
        if (handler && !eof && queuedBlocks() < kMaxQueuedBlocks) readChunk();
        return tavrinScheduler::IOWatchItem::Unchanged;
      };
      watch = scheduler.addIOItem(item, tavrinCommon::DefaultOrigins::Firmware);
    } else if (!wanted && watch) {
      unwatch();
    }
  }
  // Everything read has left this process and been acknowledged by the peer's TCP stack.
  bool drained() const {
    tavrinConnector::SingleTCPConnectionEndpoint* tcp = tcpConnection();
    if (!tcp) return true;
    if (tcp->getTransceiver().getSendQueueSize() > 0) return false;
    int unacknowledged = 0;
    tavrinNetwork::TCPSocketInterface* socket = tcp->getTransceiver().getSocket();
    if (socket && socket->valid() && ioctl(socket->getFd(), SIOCOUTQ, &unacknowledged) == 0)
      return unacknowledged == 0;
    return true;
  }
  // Whether the loop has work waiting (files are read between turns).
  bool busy() const { return handler && !eof && !watchable; }

 private:
  tavrinConnector::SingleTCPConnectionEndpoint* tcpConnection() const {
    return handler ? connector.getTCPConnection(handler->getRemoteEndpoint()) : nullptr;
  }
  size_t queuedBlocks() const {
    tavrinConnector::SingleTCPConnectionEndpoint* tcp = tcpConnection();
    return tcp ? tcp->getTransceiver().getSendQueueSize() : 0;
  }
  void readChunk() {
    const ssize_t n = ::read(STDIN_FILENO, buffer.data(), buffer.size());
    if (n > 0) {
      handler->sendData(buffer.data(), static_cast<unsigned>(n));
      sent += static_cast<uint64_t>(n);
    } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
      eof = true;
      unwatch();
    }
  }
  void unwatch() {
    if (watch) scheduler.removeIOItem(watch);
    watch.clear();
  }

  tavrinScheduler::Scheduler& scheduler;
  tavrinConnector::TCPConnectorBase& connector;
  std::vector<char> buffer;
  bool watchable = false;
  tavrinScheduler::IOWatchHandle watch;
  SimpleConnectorHandler* handler = nullptr;
  bool eof = false;
  bool outputBroken = false;
  uint64_t sent = 0;
  uint64_t received = 0;
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (const int done = parseOptions(argc, argv, options)) return done - 1;
  // A closed output must not kill the process before it can say why it stops.
  std::signal(SIGPIPE, SIG_IGN);

  tavrinTools::LineWriter errors(stderr, false);
  tavrinLog::TavrinLogging logging(options.levels.defaultLevel(),
                                   tavrinTools::makeLogCallback(errors, "tavrin-connect:"),
                                   tavrinTools::defaultOriginName);
  options.levels.apply(logging);
  tavrinScheduler::Scheduler scheduler(&logging);

  std::unique_ptr<tavrinConnector::TCPConnectorMaster> master;
  std::unique_ptr<tavrinConnector::TCPConnectorSlave> slave;
  if (options.listen) {
    master = std::make_unique<tavrinConnector::TCPConnectorMaster>(&scheduler, &logging);
  } else {
    slave = std::make_unique<tavrinConnector::TCPConnectorSlave>(&scheduler, &logging);
  }
  tavrinConnector::TCPConnectorBase& connector =
      master ? static_cast<tavrinConnector::TCPConnectorBase&>(*master) : *slave;
  Pump pump(scheduler, connector);

  bool running = true;
  int status = kExitOk;
  bool endingOurselves = false;
  unsigned servedId = kNoId;
  auto finish = [&](int exitStatus) {
    if (running) status = exitStatus;
    running = false;
  };

  auto factory = [&] {
    return std::make_unique<SimpleConnectorHandler>(
        options.version,
        [&](SimpleIp, unsigned remoteId, unsigned connectionId, SimpleConnectorHandler* handler) {
          if (pump.current()) {
            std::fprintf(stderr, "tavrin-connect: refusing connection %u: busy with another\n",
                         connectionId);
            return false;
          }
          std::fprintf(stderr, "tavrin-connect: connection %u %s %s (its id %u%s)\n",
                       connectionId, master ? "from" : "to",
                       handler->getRemoteEndpoint().toString().c_str(), remoteId,
                       handler->isAutomatic() ? ", automatic" : "");
          pump.attach(handler);
          servedId = connectionId;
          return true;
        },
        [&](SimpleIp, unsigned, unsigned connectionId, int reason) {
          // A refused second connection ends here too; only the served one counts.
          if (!pump.current() || connectionId != servedId) return;
          pump.detach();
          std::fprintf(stderr,
                       "tavrin-connect: connection %u ended%s: %s (%d); %llu bytes sent, %llu "
                       "received\n",
                       connectionId, endingOurselves ? "" : " by the peer",
                       tavrinTools::reasonText(reason), reason,
                       static_cast<unsigned long long>(pump.bytesIn()),
                       static_cast<unsigned long long>(pump.bytesOut()));
          endingOurselves = false;
          if (!master || !options.keep) finish(exitStatusFor(reason));
        },
        [&](SimpleIp, unsigned, unsigned, std::unique_ptr<std::vector<unsigned char>>&& data) {
          if (data) pump.deliver(*data);
        },
        &logging);
  };
  auto rejected = [&](const SimpleEndpoint& endpoint, unsigned, unsigned connectionId, int reason,
                      unsigned, unsigned short, const tavrinConnector::CustomConnectData*) {
    std::fprintf(stderr, "tavrin-connect: connection %u to %s rejected: %s (%d)%s\n",
                 connectionId, endpoint.toString().c_str(), tavrinTools::reasonText(reason),
                 reason,
                 reason == DisconnectReason::connectionInterrupted
                     ? "; is a master listening there?"
                     : "");
    finish(exitStatusFor(reason));
  };
  auto generalError = [&](tavrinConnector::ErrorType::Type error, const std::string& text) {
    std::fprintf(stderr, "tavrin-connect: %s: %s\n", tavrinConnector::ErrorType::getText(error),
                 text.c_str());
    finish(kExitFailure);
  };

  if (master) {
    master->init(1, options.deviceId, ConnectorInterfaceType::Client, options.clusterId,
                 options.endpoint.getIp(), options.endpoint.getPort(), false, false, {}, false);
    master->setGeneralErrorCallback(generalError);
    master->addMasterConnectionHandler(ConnectionHandlerType::SimpleConnector, options.version,
                                       factory);
    master->addAutomaticConnection(ConnectionHandlerType::SimpleConnector);
    if (options.id != kNoId)
      master->addAllowedConnection(options.id, ConnectionHandlerType::SimpleConnector);
    master->setEnabled(true);
    if (!master->isListening()) {
      std::fprintf(stderr, "tavrin-connect: cannot listen on %s\n",
                   options.endpoint.toString().c_str());
      return kExitFailure;
    }
    std::fprintf(stderr, "tavrin-connect: listening on %s (cluster %u, automatic ids%s%s)\n",
                 master->getListeningEndpoint().toString().c_str(), options.clusterId,
                 options.id != kNoId ? ", id " : "",
                 options.id != kNoId ? std::to_string(options.id).c_str() : "");
  } else {
    slave->initCommon(1, options.deviceId, ConnectorInterfaceType::Client, options.bindIp, {},
                      false);
    slave->setGeneralErrorCallback(generalError);
    slave->addConnectionHandler(ConnectionHandlerType::SimpleConnector, options.version, factory);
    slave->addConnectionRejectedCallback(ConnectionHandlerType::SimpleConnector, rejected);
    slave->setEnabled(true);
    const bool sent =
        options.id == kNoId
            ? slave->connectAutomatic(options.endpoint, options.clusterId,
                                      ConnectionHandlerType::SimpleConnector, nullptr) != kNoId
            : slave->connect(options.endpoint, options.clusterId,
                             ConnectionHandlerType::SimpleConnector, options.id, nullptr) != kNoId;
    if (!sent && running) finish(kExitFailure);
  }

  tavrinCommon::SignalHandler signals;
  bool interrupted = false;
  signals.addSignal(SIGINT, [&] { interrupted = true; });
  signals.addSignal(SIGTERM, [&] { interrupted = true; });
  signals.addSignal(SIGUSR1, [&] {
    connector.dump(std::cerr, "");
    scheduler.dump(std::cerr, "");
    std::cerr.flush();
  });

  while (running) {
    scheduler.run(pump.busy() ? 0 : 50);
    signals.mainLoopSignalCheck();
    if (interrupted) {
      if (pump.current()) {
        endingOurselves = true;
        pump.current()->disconnect();
      }
      finish(master ? kExitOk : kExitInterrupted);
      break;
    }
    pump.service();
    // The client's work ends with its input; a listener's never does.
    SimpleConnectorHandler* handler = pump.current();
    if (handler && !endingOurselves &&
        (pump.outputFailed() || (!master && pump.inputEnded() && pump.drained()))) {
      endingOurselves = true;
      handler->disconnect();
    }
  }
  // The last disconnect message leaves before the connector closes.
  scheduler.run(0);
  connector.setEnabled(false);
  return status;
}
