// Runs one operation a given number of times, for an instruction counter that runs this program
// twice and divides the difference by the difference of the counts (bench/instructions.sh): the
// set-up and tear-down cancel out. Everything runs on one thread and one scheduler, so the count
// does not depend on how threads happen to interleave.
//   message <payload> <count>: a slave handler's send up to the master handler's receive, one
//     message at a time over 127.0.0.1, each carried by its own loop turns;
//   timeout <count>: arming and disarming a timeout on the loop thread;
//   log <count>: an enabled log call that formats five arguments into a callback that drops it.
// Prints the operator new calls per operation after a warm-up as well.
#include "tavrincommon/connector/ConnectionHandlerBase.h"
#include "tavrincommon/connector/ConnectionHandlerType.h"
#include "tavrincommon/connector/ConnectionTimeout.h"
#include "tavrincommon/connector/ConnectorInterfaceType.h"
#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/connector/TCPConnectorMaster.h"
#include "tavrincommon/connector/TCPConnectorSlave.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/network/SimpleEndpoint.h"
#include "tavrincommon/network/SimpleIp.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/scheduler/TimeoutTask.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

namespace {

unsigned long long allocations = 0;

}  // namespace

// Out of line, so that the compiler does not pair a new it inlined with a free it sees.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++allocations;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using tavrinConnector::ConnectionHandlerBase;
using tavrinConnector::InputMessage;
using tavrinConnector::OutputMessage;

constexpr unsigned short kType = tavrinConnector::ConnectionHandlerType::SimpleConnector;
constexpr unsigned kCluster = 8;
constexpr unsigned kConnectionId = 1;
constexpr long kWarmUp = 200;

class Sink : public ConnectionHandlerBase {
 public:
  void receive(std::unique_ptr<InputMessage>&& message) override {
    checksum += message->getAdditionalInfo() + message->buffer.getRemaining();
    ++received;
  }
  unsigned short getType() const override { return kType; }
  unsigned short getVersion() const override { return 1; }

  unsigned long long received = 0;
  unsigned long long checksum = 0;

 protected:
  void specificConnected() override {}
  void specificDisconnected(unsigned, int, bool) override {}
};

class Source : public ConnectionHandlerBase {
 public:
  explicit Source(size_t payload) : bytes(payload, 'x') {}
  void sendOne() {
    std::unique_ptr<OutputMessage> message = createMessage(static_cast<unsigned>(bytes.size()));
    message->getBuffer().write(bytes.data(), static_cast<unsigned>(bytes.size()));
    sendFunction(std::move(message));
  }
  void receive(std::unique_ptr<InputMessage>&&) override {}
  unsigned short getType() const override { return kType; }
  unsigned short getVersion() const override { return 1; }

 protected:
  void specificConnected() override {}
  void specificDisconnected(unsigned, int, bool) override {}

 private:
  std::string bytes;
};

int messages(size_t payload, long count) {
  tavrinScheduler::Scheduler scheduler(nullptr);
  // No keep-alive falls into the measurement however slowly the counter runs the program.
  const tavrinConnector::ConnectionTimeout timing{3600, 1800};
  tavrinConnector::TCPConnectorMaster master(&scheduler, nullptr);
  master.init(1, 100, tavrinConnector::ConnectorInterfaceType::PanelMaster, kCluster,
              tavrinNetwork::SimpleIp("127.0.0.1"), 0, false, false, timing, false);
  Sink* sink = nullptr;
  master.addConnectionHandler(kType, 1, [&sink] {
    auto handler = std::make_unique<Sink>();
    sink = handler.get();
    return handler;
  });
  master.addAllowedConnection(kConnectionId, kType);
  master.setEnabled(true);
  tavrinConnector::TCPConnectorSlave slave(&scheduler, nullptr);
  slave.initCommon(2, 200, tavrinConnector::ConnectorInterfaceType::Client,
                   tavrinNetwork::SimpleIp("127.0.0.1"), timing, false);
  slave.addConnectionHandler(kType, 1, [payload] { return std::make_unique<Source>(payload); });
  slave.setEnabled(true);
  if (!master.isListening() || !slave.connect(master.getListeningEndpoint(), kCluster, kType,
                                              kConnectionId, kConnectionId, nullptr)) {
    std::fprintf(stderr, "no connection\n");
    return 1;
  }
  auto* source = static_cast<Source*>(slave.getConnection(kConnectionId));
  for (int turns = 0; (!source || !source->isConnected() || !sink) && turns < 1000; ++turns) {
    scheduler.run(10);
    source = static_cast<Source*>(slave.getConnection(kConnectionId));
  }
  if (!source || !source->isConnected() || !sink) {
    std::fprintf(stderr, "no logical connection\n");
    return 1;
  }
  auto carry = [&](long n) {
    for (long i = 0; i < n; ++i) {
      const unsigned long long target = sink->received + 1;
      source->sendOne();
      for (int turns = 0; sink->received < target; ++turns) {
        if (turns > 100000) return false;
        scheduler.run(0);
      }
    }
    return true;
  };
  if (!carry(kWarmUp)) return 1;
  const unsigned long long before = allocations;
  if (!carry(count)) return 1;
  std::printf("allocations per message: %.2f\n",
              static_cast<double>(allocations - before) / static_cast<double>(count));
  slave.setEnabled(false);
  master.setEnabled(false);
  return 0;
}

class NoTask : public tavrinScheduler::TimeoutTask {
 public:
  NoTask() : TimeoutTask(0) {}
  void timeout() override {}
};

int timeouts(long count) {
  tavrinScheduler::Scheduler scheduler(nullptr);
  NoTask task;
  auto armAndDisarm = [&](long n) {
    for (long i = 0; i < n; ++i) {
      scheduler.addTimeout(&task, 60000);
      scheduler.disableTimeout(&task);
    }
  };
  armAndDisarm(kWarmUp);
  const unsigned long long before = allocations;
  armAndDisarm(count);
  std::printf("allocations per arm and disarm: %.2f\n",
              static_cast<double>(allocations - before) / static_cast<double>(count));
  return 0;
}

volatile size_t sunk = 0;

int logs(long count) {
  using tavrinLog::SeverityLevel;
  tavrinLog::TavrinLogging logging(
      SeverityLevel::Info,
      [](int, SeverityLevel::Type, const char* text) { sunk = sunk + text[0]; },
      [](int) { return "TCPConnector"; });
  auto log = [&](long n) {
    for (long i = 0; i < n; ++i)
      TAVRIN_LOG(&logging, 1, SeverityLevel::Info, "conn %d from %s:%d state %s ratio %.2f",
                 static_cast<int>(i), "127.0.0.1", 5555, "open", 0.75);
  };
  log(kWarmUp);
  const unsigned long long before = allocations;
  log(count);
  std::printf("allocations per log call: %.2f\n",
              static_cast<double>(allocations - before) / static_cast<double>(count));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  if (what == "message" && argc == 4)
    return messages(std::strtoul(argv[2], nullptr, 10), std::strtol(argv[3], nullptr, 10));
  if (what == "timeout" && argc == 3) return timeouts(std::strtol(argv[2], nullptr, 10));
  if (what == "log" && argc == 3) return logs(std::strtol(argv[2], nullptr, 10));
  std::fprintf(stderr, "usage: %s message <payload> <count> | timeout <count> | log <count>\n",
               argv[0]);
  return 2;
}
