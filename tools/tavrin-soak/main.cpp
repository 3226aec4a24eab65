// tavrin-soak: for N minutes runs on 127.0.0.1 a master, slaves with sequence-checked
// SimpleConnector traffic both ways, and hostile raw peers against the master; then reports the
// process's memory and descriptors, the blocks sent, received and lost, and what became of each
// attack. Exits 0 only when nothing was lost and no legitimate connection dropped. Not part of the
// test suite: tools/soak.sh builds and runs it.
#include "tools/common/ToolSupport.h"
#include "tools/tavrin-soak/HostilePeers.h"

#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/connector/TCPConnectorMaster.h"
#include "tavrincommon/connector/TCPConnectorSlave.h"
#include "tavrincommon/connector/TCPTransceiver.h"
#include "tavrincommon/connector/simpleConnector/SimpleConnectorHandler.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <dirent.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using tavrinConnector::ConnectorInterfaceType;
using tavrinConnector::TCPConnectorBase;
using tavrinConnector::simpleConnector::SimpleConnectorHandler;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;
using tavrinSoak::Attack;

constexpr unsigned kCluster = 7;
constexpr unsigned short kVersion = 1;
constexpr double kBlocksPerSecond = 100;  // per direction of each logical connection
// Frames queued on a TCP connection before its senders wait: traffic that keeps up, never a
// slow consumer.
constexpr size_t kWindow = 4;
constexpr size_t kMaxFiller = 4000;
constexpr unsigned kFirstHostileId = 1000;
constexpr unsigned kLastHostileId = 1999;
constexpr auto kSetUpLimit = 5s;
constexpr auto kDrainLimit = 15s;

// One direction of one logical connection.
struct Stream {
  SimpleConnectorHandler* sender = nullptr;
  TCPConnectorBase* connector = nullptr;
  uint64_t sent = 0;
  uint64_t expected = 0;
  uint64_t received = 0;
  uint64_t lost = 0;
};

struct Link {
  unsigned masterId = 0;
  size_t slave = 0;
  unsigned slaveId = 0;
  Stream up;  // slave to master
  Stream down;
  int drops = 0;
};

size_t fillerOf(uint64_t seq) { return static_cast<size_t>(seq * 37 % kMaxFiller); }

// The master's id, the sequence number, and a filler whose bytes follow from the number.
std::string blockOf(unsigned masterId, uint64_t seq) {
  std::string block(12 + fillerOf(seq), '\0');
  std::memcpy(&block[0], &masterId, 4);
  std::memcpy(&block[4], &seq, 8);
  for (size_t i = 12; i < block.size(); ++i) block[i] = static_cast<char>(seq + i);
  return block;
}

// Gaps, duplicates, blocks out of order and damaged blocks all count as lost.
void check(Stream& stream, unsigned masterId, const std::vector<unsigned char>& block) {
  ++stream.received;
  unsigned id = 0;
  uint64_t seq = 0;
  bool intact = block.size() >= 12;
  if (intact) {
    std::memcpy(&id, block.data(), 4);
    std::memcpy(&seq, block.data() + 4, 8);
    intact = id == masterId && block.size() == 12 + fillerOf(seq);
  }
  for (size_t i = 12; intact && i < block.size(); ++i)
    intact = block[i] == static_cast<unsigned char>(seq + i);
  if (!intact || seq < stream.expected) {
    ++stream.lost;
    return;
  }
  stream.lost += seq - stream.expected;
  stream.expected = seq + 1;
}

long rssKiB() {
  long pages = 0, resident = 0;
  FILE* statm = std::fopen("/proc/self/statm", "r");
  if (!statm) return -1;
  if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = -1;
  std::fclose(statm);
  return resident < 0 ? -1 : resident * (sysconf(_SC_PAGESIZE) / 1024);
}

int descriptorCount() {
  DIR* dir = opendir("/proc/self/fd");
  if (!dir) return -1;
  int count = 0;
  while (const dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
  closedir(dir);
  return count - 1;  // the directory's own
}

struct Gauge {
  long start = 0, peak = 0, last = 0;
  void sample(long value) {
    if (start == 0) start = value;
    peak = std::max(peak, value);
    last = value;
  }
};

struct Options {
  double minutes = 10;
  size_t slaves = 3;
  unsigned linksPerSlave = 4;
  bool attacks = true;
  bool verbose = false;
};

bool parseOptions(int argc, char** argv, Options& o) {
  tavrinTools::ArgReader args(argc, argv);
  while (!args.done()) {
    const std::string option = args.next();
    std::string text;
    unsigned long n = 0;
    bool ok = true;
    if (option == "--help") {
      std::printf(
          "usage: tavrin-soak [MINUTES] [--slaves N] [--connections N] [--no-attacks] [-v]\n"
          "Runs a master, N slaves (3) with --connections (4) SimpleConnector connections each\n"
          "carrying sequence-checked blocks both ways, and hostile raw peers against the master,\n"
          "all on 127.0.0.1, for MINUTES (10, fractions allowed). Prints memory, descriptors,\n"
          "blocks sent/received/lost and what the master did to each attack; exits 1 if a block\n"
          "was lost or a legitimate connection dropped. -v prints the library's warnings.\n");
      return false;
    } else if (option == "--slaves") {
      ok = args.value(text) && tavrinTools::parseUnsigned(text, 16, n) && n > 0;
      o.slaves = n;
    } else if (option == "--connections") {
      ok = args.value(text) && tavrinTools::parseUnsigned(text, 64, n) && n > 0;
      o.linksPerSlave = static_cast<unsigned>(n);
    } else if (option == "--no-attacks") {
      o.attacks = false;
    } else if (option == "-v") {
      o.verbose = true;
    } else {
      char* end = nullptr;
      o.minutes = std::strtod(option.c_str(), &end);
      ok = end && *end == '\0' && o.minutes > 0;
      text = option;
    }
    if (!ok) {
      std::fprintf(stderr, "tavrin-soak: bad argument %s '%s' (see --help)\n", option.c_str(),
                   text.c_str());
      std::exit(2);
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parseOptions(argc, argv, options)) return 0;
  std::signal(SIGPIPE, SIG_IGN);

  // Lines at Warning and above are counted; -v prints them too.
  tavrinTools::LineWriter errors(stderr, true);
  const auto print = tavrinTools::makeLogCallback(errors, "tavrin-soak:");
  std::atomic<unsigned long> logErrors{0}, logWarnings{0};
  tavrinLog::TavrinLogging logging(
      tavrinLog::SeverityLevel::Warning,
      [&](int origin, tavrinLog::SeverityLevel::Type level, const char* line) {
        ++(level <= tavrinLog::SeverityLevel::Error ? logErrors : logWarnings);
        if (options.verbose) print(origin, level, line);
      },
      tavrinTools::defaultOriginName);
  tavrinScheduler::Scheduler scheduler(&logging);

  std::vector<Link> links(options.slaves * options.linksPerSlave);
  for (size_t i = 0; i < links.size(); ++i) {
    links[i].masterId = static_cast<unsigned>(i + 1);
    links[i].slave = i / options.linksPerSlave;
    links[i].slaveId = static_cast<unsigned>(i % options.linksPerSlave + 1);
  }
  bool stopping = false;
  uint64_t hostileBlocks = 0;
  // Each side's handler: `linkOf` maps the side's own id to its link (null: a hostile one).
  auto makeFactory = [&](TCPConnectorBase* connector, std::function<Link*(unsigned)> linkOf,
                         bool master) {
    return [&, connector, linkOf, master] {
      return std::make_unique<SimpleConnectorHandler>(
          kVersion,
          [&, connector, linkOf, master](SimpleIp, unsigned, unsigned id,
                                         SimpleConnectorHandler* handler) {
            if (Link* link = linkOf(id)) {
              Stream& out = master ? link->down : link->up;
              out.sender = handler;
              out.connector = connector;
            }
            return true;
          },
          [&, linkOf, master](SimpleIp, unsigned, unsigned id, int) {
            Link* link = linkOf(id);
            if (!link) return;
            (master ? link->down : link->up).sender = nullptr;
            if (!stopping && master) ++link->drops;
          },
          [&, linkOf, master](SimpleIp, unsigned, unsigned id,
                              std::unique_ptr<std::vector<unsigned char>>&& data) {
            Link* link = linkOf(id);
            if (!link) {
              ++hostileBlocks;
              return;
            }
            check(master ? link->up : link->down, link->masterId, *data);
          },
          &logging);
    };
  };

  tavrinConnector::TCPConnectorMaster master(&scheduler, &logging);
  master.init(1, 1000, ConnectorInterfaceType::PanelMaster, kCluster, SimpleIp("127.0.0.1"), 0,
              false, false, {}, false);
  master.addMasterConnectionHandler(
      SimpleConnectorHandler::kType, kVersion,
      makeFactory(
          &master,
          [&](unsigned id) { return id >= 1 && id <= links.size() ? &links[id - 1] : nullptr; },
          true));
  for (const Link& link : links)
    master.addAllowedConnection(link.masterId, SimpleConnectorHandler::kType);
  // The hostile 1 MiB-block peer needs a real connection.
  master.addAutomaticConnection(SimpleConnectorHandler::kType, kFirstHostileId, kLastHostileId);
  master.setEnabled(true);
  if (!master.isListening()) {
    std::fprintf(stderr, "tavrin-soak: the master cannot listen on 127.0.0.1\n");
    return 1;
  }
  const SimpleEndpoint endpoint(SimpleIp("127.0.0.1"), master.getListeningEndpoint().getPort());

  std::vector<std::unique_ptr<tavrinConnector::TCPConnectorSlave>> slaves;
  for (size_t s = 0; s < options.slaves; ++s) {
    slaves.push_back(std::make_unique<tavrinConnector::TCPConnectorSlave>(&scheduler, &logging));
    tavrinConnector::TCPConnectorSlave& slave = *slaves.back();
    slave.initCommon(1, static_cast<unsigned>(2000 + s), ConnectorInterfaceType::Client,
                     SimpleIp("127.0.0.1"), {}, false);
    const size_t first = s * options.linksPerSlave;
    slave.addConnectionHandler(
        SimpleConnectorHandler::kType, kVersion,
        makeFactory(
            &slave,
            [&, first](unsigned id) {
              return id >= 1 && id <= options.linksPerSlave ? &links[first + id - 1] : nullptr;
            },
            false));
    slave.setEnabled(true);
  }
  auto connectMissing = [&] {
    for (Link& link : links) {
      tavrinConnector::TCPConnectorSlave& slave = *slaves[link.slave];
      if (slave.getConnection(link.slaveId) || slave.isPending(link.slaveId)) continue;
      slave.connect(endpoint, kCluster, SimpleConnectorHandler::kType, link.masterId, link.slaveId,
                    nullptr);
    }
  };
  auto allUp = [&] {
    return std::all_of(links.begin(), links.end(),
                       [](const Link& l) { return l.up.sender && l.down.sender; });
  };
  connectMissing();
  for (const auto limit = Clock::now() + kSetUpLimit; !allUp() && Clock::now() < limit;)
    scheduler.run(10);
  if (!allUp()) {
    std::fprintf(stderr, "tavrin-soak: the slaves' connections did not come up\n");
    return 1;
  }

  Gauge rss, fds;
  rss.sample(rssKiB());
  fds.sample(descriptorCount());
  tavrinSoak::HostilePeers hostile(endpoint, kCluster);
  if (options.attacks) {
    hostile.start(Attack::PingNoRead, 1);
    hostile.start(Attack::Flood, 1);
    hostile.start(Attack::SlowHeader, 2);
    hostile.start(Attack::BigBlock, 1);
    hostile.start(Attack::Reconnect, 1);
  }

  auto totals = [&](uint64_t& sent, uint64_t& received, uint64_t& lost, int& drops) {
    sent = received = lost = 0;
    drops = 0;
    for (const Link& link : links) {
      for (const Stream* s : {&link.up, &link.down}) {
        sent += s->sent;
        received += s->received;
        lost += s->lost;
      }
      drops += link.drops;
    }
  };
  const auto start = Clock::now();
  const auto end = start + std::chrono::duration_cast<Clock::duration>(
                               std::chrono::duration<double>(options.minutes * 60));
  auto nextSample = start + 1s;
  auto nextProgress = start + 60s;
  while (Clock::now() < end) {
    scheduler.run(1);
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    const auto allowed = static_cast<uint64_t>(elapsed * kBlocksPerSecond);
    for (Link& link : links) {
      for (Stream* s : {&link.up, &link.down}) {
        if (!s->sender || s->sent >= allowed) continue;
        auto* tcp = s->connector->getTCPConnection(s->sender->getRemoteEndpoint());
        if (!tcp || tcp->getTransceiver().getSendQueueSize() >= kWindow) continue;
        const std::string block = blockOf(link.masterId, s->sent);
        s->sender->sendData(block.data(), static_cast<unsigned>(block.size()));
        ++s->sent;
      }
    }
    if (Clock::now() < nextSample) continue;
    nextSample += 1s;
    rss.sample(rssKiB());
    fds.sample(descriptorCount());
    connectMissing();
    if (Clock::now() < nextProgress) continue;
    nextProgress += 60s;
    uint64_t sent, received, lost;
    int drops;
    totals(sent, received, lost, drops);
    std::fprintf(stderr,
                 "tavrin-soak: [%4.1f min] RSS %ld KiB, %ld descriptors, %llu blocks sent, %llu "
                 "received, %llu lost\n",
                 elapsed / 60, rss.last, fds.last, static_cast<unsigned long long>(sent),
                 static_cast<unsigned long long>(received), static_cast<unsigned long long>(lost));
  }

  // The attacks end first, then what is still on its way arrives.
  hostile.stop();
  stopping = true;
  auto drained = [&] {
    return std::all_of(links.begin(), links.end(), [](const Link& l) {
      return l.up.expected == l.up.sent && l.down.expected == l.down.sent;
    });
  };
  for (const auto limit = Clock::now() + kDrainLimit; !drained() && Clock::now() < limit;)
    scheduler.run(10);
  for (Link& link : links)
    for (Stream* s : {&link.up, &link.down}) s->lost += s->sent - std::min(s->sent, s->expected);
  rss.sample(rssKiB());
  fds.sample(descriptorCount());

  uint64_t sent, received, lost;
  int drops;
  totals(sent, received, lost, drops);
  std::printf("tavrin-soak: %.1f min against %s: %zu slaves x %u connections%s\n", options.minutes,
              endpoint.toString().c_str(), options.slaves, options.linksPerSlave,
              options.attacks ? ", hostile peers" : "");
  std::printf("  RSS (KiB): start %ld, peak %ld, end %ld\n", rss.start, rss.peak, rss.last);
  std::printf("  descriptors: start %ld, peak %ld, end %ld\n", fds.start, fds.peak, fds.last);
  std::printf("  blocks: sent %llu, received %llu, lost %llu; legitimate connections dropped: %d\n",
              static_cast<unsigned long long>(sent), static_cast<unsigned long long>(received),
              static_cast<unsigned long long>(lost), drops);
  if (options.attacks) {
    std::printf("  hostile peers (%llu of their blocks reached the application):\n%s",
                static_cast<unsigned long long>(hostileBlocks), hostile.report().c_str());
  }
  const TCPConnectorBase::BoundCounters& bounds = master.getBoundCounters();
  std::printf(
      "  master's bounds: %u slow consumers closed, %u pings not answered, %u TCP connections "
      "refused, %u connects refused\n",
      bounds.slowConsumersClosed, bounds.pingsNotAnswered, bounds.tcpConnectionsRefused,
      bounds.connectsRefused);
  std::printf("  library log lines: %lu errors, %lu warnings\n", logErrors.load(),
              logWarnings.load());

  for (auto& slave : slaves) slave->setEnabled(false);
  master.setEnabled(false);
  const bool ok = lost == 0 && drops == 0;
  std::printf("tavrin-soak: %s\n", ok ? "OK" : "FAILED");
  return ok ? 0 : 1;
}
