// tavrin-demo: a master device and a slave device of the connector and announce protocols, each
// on its own thread with its own Scheduler, talking over loopback (or, with --role, each alone so
// that two terminals or two hosts run one side each). Prints a transcript: the library's log
// lines, one line per milestone, the objects' dumps and a summary. Exit status 0 on success.
#include "tools/common/ToolSupport.h"
#include "tools/tavrin-demo/DemoMaster.h"
#include "tools/tavrin-demo/DemoSlave.h"

#include "tavrincommon/common/SignalHandler.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>

namespace {

using tavrinDemo::DemoMaster;
using tavrinDemo::DemoSettings;
using tavrinDemo::DemoSlave;

constexpr int kExitUsage = 2;

void printHelp() {
  std::printf(
      "usage: tavrin-demo [options]\n"
      "Runs a master device and a slave device on loopback, each on its own thread with its own\n"
      "event loop. The master listens with a TCP connector master and announces it; the slave\n"
      "finds it through the announcements, opens a SimpleConnector connection (automatic id) and\n"
      "a test counter connection, has blocks echoed and checks every byte, plays the counter\n"
      "round trip, ends a connection with a reason, and both sides shut down. Exit status 0 on\n"
      "success, 1 with the reason on failure, 2 for wrong usage.\n"
      "\n"
      "  --role ROLE          both (default), master (until SIGINT/SIGTERM or --duration) or\n"
      "                       slave (against a master started elsewhere)\n"
      "  --group ADDR         announce multicast group (239.255.77.1)\n"
      "  --port N             announce UDP port (30300)\n"
      "  --tcp-port N         the master's TCP port (0: chosen by the system, then announced)\n"
      "  --bind ADDR          local address of both sides (127.0.0.1)\n"
      "  --interface NAME     multicast interface (lo)\n"
      "  --ttl N              multicast TTL of the announcements (0: never leaves the machine)\n"
      "  --network-id N       announce network id (1)\n"
      "  --device-id N        the master's device id (1001)\n"
      "  --slave-device-id N  the slave's device id (1002)\n"
      "  --cluster-id N       the cluster both sides belong to (7)\n"
      "  --blocks N           blocks the slave has echoed (16)\n"
      "  --timeout SEC        the slave's limit for the whole exchange (10)\n"
      "  --duration SEC       master role: stop after SEC seconds (0: run until a signal)\n"
      "%s"
      "\n"
      "Two hosts: run '--role master --bind <its address> --interface <its interface> --ttl 1' on\n"
      "one and '--role slave' with the same group, port and its own --bind and --interface on\n"
      "the other.\n",
      tavrinTools::kCommonOptionsHelp);
}

bool parseNumber(tavrinTools::ArgReader& args, unsigned long max, unsigned long& out) {
  std::string text;
  if (!args.value(text)) return false;
  if (tavrinTools::parseUnsigned(text, max, out)) return true;
  std::fprintf(stderr, "tavrin-demo: %s: not a number up to %lu: '%s'\n", args.current().c_str(),
               max, text.c_str());
  return false;
}

bool parseAddress(tavrinTools::ArgReader& args, tavrinNetwork::SimpleIp& out) {
  std::string text;
  if (!args.value(text)) return false;
  if (tavrinTools::parseIp(text, out)) return true;
  std::fprintf(stderr, "tavrin-demo: %s: not an IPv4 address: '%s'\n", args.current().c_str(),
               text.c_str());
  return false;
}

// 0: go on; otherwise the exit status (1 + that) for --help/--version or wrong usage.
int parseOptions(int argc, char** argv, DemoSettings& s, std::string& role) {
  tavrinTools::ArgReader args(argc, argv);
  while (!args.done()) {
    const std::string option = args.next();
    unsigned long n = 0;
    std::string text;
    bool ok = true;
    if (option == "--help") {
      printHelp();
      return 1;
    } else if (option == "--version") {
      tavrinTools::printVersion("tavrin-demo");
      return 1;
    } else if (option == "--role") {
      ok = args.value(role) && (role == "both" || role == "master" || role == "slave");
      if (!ok) std::fprintf(stderr, "tavrin-demo: --role takes master, slave or both\n");
    } else if (option == "--group") {
      ok = parseAddress(args, s.group);
      if (ok && !s.group.isMulticast()) {
        std::fprintf(stderr, "tavrin-demo: --group needs a multicast address\n");
        ok = false;
      }
    } else if (option == "--port") {
      ok = parseNumber(args, 65535, n);
      s.announcePort = static_cast<unsigned short>(n);
    } else if (option == "--tcp-port") {
      ok = parseNumber(args, 65535, n);
      s.tcpPort = static_cast<unsigned short>(n);
    } else if (option == "--bind") {
      ok = parseAddress(args, s.bindIp);
    } else if (option == "--interface") {
      ok = args.value(s.interface);
    } else if (option == "--ttl") {
      ok = parseNumber(args, 255, n);
      s.ttl = static_cast<int>(n);
    } else if (option == "--network-id") {
      ok = parseNumber(args, 0xFFFFFFFFu, n);
      s.networkId = static_cast<unsigned>(n);
    } else if (option == "--device-id") {
      ok = parseNumber(args, 0xFFFFFFFFu, n);
      s.masterDeviceId = static_cast<unsigned>(n);
    } else if (option == "--slave-device-id") {
      ok = parseNumber(args, 0xFFFFFFFFu, n);
      s.slaveDeviceId = static_cast<unsigned>(n);
    } else if (option == "--cluster-id") {
      ok = parseNumber(args, 0xFFFFFFFFu, n);
      s.clusterId = static_cast<unsigned>(n);
    } else if (option == "--blocks") {
      ok = parseNumber(args, 1000, n);
      s.blocks = static_cast<unsigned>(n);
    } else if (option == "--timeout") {
      ok = parseNumber(args, 3600, n);
      s.timeoutSeconds = static_cast<int>(n);
    } else if (option == "--duration") {
      ok = parseNumber(args, 86400 * 365, n);
      s.durationSeconds = static_cast<int>(n);
    } else if (option == "--log-level") {
      ok = args.value(text) && s.levels.parse(text);
      if (!ok) std::fprintf(stderr, "tavrin-demo: bad --log-level '%s'\n", text.c_str());
    } else {
      std::fprintf(stderr, "tavrin-demo: unknown argument '%s' (see --help)\n", option.c_str());
      ok = false;
    }
    if (!ok) return 1 + kExitUsage;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  DemoSettings settings;
  std::string role = "both";
  if (const int done = parseOptions(argc, argv, settings, role)) return done - 1;
  const bool runMaster = role != "slave";
  const bool runSlave = role != "master";

  tavrinTools::LineWriter writer(stdout, true);
  std::atomic<bool> stopMaster{false};
  std::atomic<bool> interrupted{false};
  std::atomic<bool> dumpMaster{false};
  std::atomic<bool> dumpSlave{false};
  std::atomic<int> masterState{0};  // 0 starting, 1 running, 2 finished

  // Filled by the device threads, read after they are joined.
  std::string masterFailure, masterDump, slaveFailure, slaveDump, slaveSummary;
  unsigned blocksEchoed = 0;
  int masterSawReason = 0;

  tavrinCommon::SignalHandler signals;
  auto stop = [&] {
    interrupted = true;
    stopMaster = true;
  };
  signals.addSignal(SIGINT, stop);
  signals.addSignal(SIGTERM, stop);
  signals.addSignal(SIGUSR1, [&] {
    dumpMaster = true;
    dumpSlave = true;
  });

  writer.write("", "tavrin-demo: starting");
  // The slave listens before the master announces, so that it hears the first announcement.
  std::atomic<int> slaveState{0};  // 0 starting, 1 running, 2 finished
  std::thread slaveThread;
  if (runSlave) {
    slaveThread = std::thread([&] {
      DemoSlave slave(settings, writer);
      if (slave.start()) {
        slaveState = 1;
        while (slave.turn(20)) {
          if (interrupted) slave.interrupt();
          if (dumpSlave.exchange(false)) writer.writeRaw("--- dump: slave ---\n" + slave.dump());
        }
      }
      slaveFailure = slave.failure();
      slaveDump = slave.finalDump();
      slaveSummary = slave.summary();
      slaveState = 2;
    });
    while (slaveState == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }

  std::thread masterThread;
  bool masterStarted = false;
  if (runMaster) {
    masterThread = std::thread([&] {
      DemoMaster master(settings, writer);
      masterStarted = master.start();
      if (masterStarted) {
        masterState = 1;
        while (!stopMaster && master.failure().empty()) {
          master.turn(50);
          if (dumpMaster.exchange(false)) writer.writeRaw("--- dump: master ---\n" + master.dump());
          if (masterDump.empty() && master.simpleEndReason() != 0) masterDump = master.dump();
        }
        if (masterDump.empty()) masterDump = master.dump();
        master.stop(2000);
      }
      masterFailure = master.failure();
      blocksEchoed = master.blocksEchoed();
      masterSawReason = master.simpleEndReason();
      masterState = 2;
    });
  }

  // The main thread only routes signals; the devices run on their own threads.
  const auto started = std::chrono::steady_clock::now();
  for (;;) {
    signals.mainLoopSignalCheck();
    if (slaveThread.joinable() ? slaveState == 2 : (masterState == 2 || interrupted.load())) break;
    // A master that could not start leaves the slave nothing to find.
    if (slaveThread.joinable() && masterThread.joinable() && masterState == 2) interrupted = true;
    if (!slaveThread.joinable() && settings.durationSeconds > 0 &&
        std::chrono::steady_clock::now() - started >= std::chrono::seconds(settings.durationSeconds))
      break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (slaveThread.joinable()) slaveThread.join();
  stopMaster = true;
  if (masterThread.joinable()) masterThread.join();

  if (!masterDump.empty()) writer.writeRaw("--- dump: master ---\n" + masterDump);
  if (!slaveDump.empty()) writer.writeRaw("--- dump: slave ---\n" + slaveDump);

  std::string failure;
  if (runMaster && !masterStarted)
    failure = "master: " + masterFailure;
  else if (!slaveFailure.empty())
    failure = "slave: " + slaveFailure;
  else if (!masterFailure.empty())
    failure = "master: " + masterFailure;
  if (failure.empty() && runMaster && runSlave) {
    if (blocksEchoed != settings.blocks)
      failure = "master: echoed " + std::to_string(blocksEchoed) + " blocks instead of " +
                std::to_string(settings.blocks);
    else if (masterSawReason != 1)
      failure = "master: the SimpleConnector connection ended with reason " +
                std::to_string(masterSawReason) + " instead of 1";
  }
  char line[768];
  if (!failure.empty()) {
    std::snprintf(line, sizeof line, "tavrin-demo: FAILED after %.2f s: %s",
                  writer.elapsedSeconds(), failure.c_str());
  } else if (runSlave) {
    std::snprintf(line, sizeof line, "tavrin-demo: OK in %.2f s: %s%s", writer.elapsedSeconds(),
                  slaveSummary.c_str(), runMaster ? "; both sides disabled cleanly" : "");
  } else {
    std::snprintf(line, sizeof line, "tavrin-demo: OK: master ran %.2f s, %u blocks echoed",
                  writer.elapsedSeconds(), blocksEchoed);
  }
  writer.write("", line);
  return failure.empty() ? 0 : 1;
}
