#include "tavrincommon/testing/LoopbackFixture.h"

#include "tavrincommon/common/TinyMutex.h"
#include "tavrincommon/connector/ConnectionHandlerBase.h"
#include "tavrincommon/connector/ConnectorInterfaceType.h"
#include "tavrincommon/connector/TCPConnectorMaster.h"
#include "tavrincommon/connector/TCPConnectorSlave.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/RunUntil.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>
#include <vector>

namespace tavrinTesting {

using tavrinConnector::ConnectionHandlerBase;
using tavrinConnector::ConnectorInterfaceType;
using tavrinConnector::TCPConnectorMaster;
using tavrinConnector::TCPConnectorSlave;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;
using tavrinScheduler::Scheduler;

namespace {

constexpr unsigned kMasterConnectorId = 1;
constexpr unsigned kSlaveConnectorId = 2;
constexpr int kTurnMs = 10;

}  // namespace

struct LoopbackFixture::MasterLoop {
  struct Handler {
    unsigned short type;
    unsigned short version;
    HandlerFactory factory;
  };

  void configure(const Settings& wanted) const {
    connector->init(kMasterConnectorId, wanted.masterDeviceId, ConnectorInterfaceType::PanelMaster,
                    wanted.clusterId, SimpleIp("127.0.0.1"), 0, false, false, wanted.timing, false);
    for (const Handler& handler : handlers) add(handler);
  }
  void add(const Handler& handler) const {
    connector->addMasterConnectionHandler(handler.type, handler.version, handler.factory);
    // One automatic range per type, however many versions it has; `handler` is one of
    // `handlers`.
    const bool firstOfType = std::none_of(handlers.data(), &handler, [&](const Handler& earlier) {
      return earlier.type == handler.type;
    });
    if (firstOfType) connector->addAutomaticConnection(handler.type);
  }

  std::vector<Handler> handlers;
  // One loop: the fixture's scheduler and a master made at construction. Two loops: both live on
  // the master's thread, from start() to stop().
  Scheduler* scheduler = nullptr;
  std::unique_ptr<TCPConnectorMaster> owned;
  TCPConnectorMaster* connector = nullptr;
  std::thread thread;
  std::atomic<bool> stopping{false};
};

LoopbackFixture::LoopbackFixture() : LoopbackFixture(Settings{}) {}

LoopbackFixture::LoopbackFixture(const Settings& settings_)
    : settings(settings_),
      slaveScheduler(std::make_unique<Scheduler>(capture.logging())),
      slaveConnector(std::make_unique<TCPConnectorSlave>(slaveScheduler.get(), capture.logging())),
      masterLoop(std::make_unique<MasterLoop>()) {
  slaveConnector->initCommon(kSlaveConnectorId, settings.slaveDeviceId,
                             ConnectorInterfaceType::Client, SimpleIp("127.0.0.1"), settings.timing,
                             false);
  if (settings.loops == Loops::One) {
    masterLoop->scheduler = slaveScheduler.get();
    masterLoop->owned =
        std::make_unique<TCPConnectorMaster>(slaveScheduler.get(), capture.logging());
    masterLoop->connector = masterLoop->owned.get();
    masterLoop->configure(settings);
  }
}

LoopbackFixture::~LoopbackFixture() {
  stop();
  // The master goes before the scheduler it runs on.
  masterLoop.reset();
  slaveConnector.reset();
}

void LoopbackFixture::addMasterHandler(unsigned short type, unsigned short version,
                                       HandlerFactory factory) {
  masterLoop->handlers.push_back({type, version, std::move(factory)});
  if (settings.loops == Loops::One) masterLoop->add(masterLoop->handlers.back());
}

void LoopbackFixture::addSlaveHandler(unsigned short type, unsigned short version,
                                      HandlerFactory factory) {
  slaveConnector->addConnectionHandler(type, version, std::move(factory));
  slaveConnector->addConnectionRejectedCallback(
      type, [this](const SimpleEndpoint&, unsigned, unsigned, int reason, unsigned, unsigned short,
                   const tavrinConnector::CustomConnectData*) { rejection = reason; });
}

bool LoopbackFixture::start() {
  if (started) return true;
  if (settings.loops == Loops::One) {
    masterLoop->connector->setEnabled(true);
    if (masterLoop->connector->isListening())
      endpoint = masterLoop->connector->getListeningEndpoint();
  } else {
    std::promise<SimpleEndpoint> listening;
    MasterLoop& loop = *masterLoop;
    loop.stopping = false;
    loop.thread = std::thread([this, &loop, &listening] {
      Scheduler scheduler(capture.logging());
      TCPConnectorMaster connector(&scheduler, capture.logging());
      {
        tavrinCommon::TinyMutexGuard guard(scheduler.getLoopMutex());
        loop.scheduler = &scheduler;
        loop.connector = &connector;
        loop.configure(settings);
        connector.setEnabled(true);
      }
      listening.set_value(connector.isListening() ? connector.getListeningEndpoint()
                                                  : SimpleEndpoint());
      while (!loop.stopping.load()) scheduler.run(kTurnMs);
      connector.setEnabled(false);
      scheduler.run(0);
      loop.connector = nullptr;
      loop.scheduler = nullptr;
    });
    endpoint = listening.get_future().get();
  }
  started = true;
  slaveConnector->setEnabled(true);
  return endpoint.getPort() != 0;
}

void LoopbackFixture::stop() {
  if (!started) return;
  started = false;
  slaveConnector->setEnabled(false);
  if (settings.loops == Loops::One) {
    masterLoop->connector->setEnabled(false);
  } else {
    // The slave's farewell leaves in this turn, before the master's side goes away.
    slaveScheduler->run(0);
    masterLoop->stopping = true;
    masterLoop->thread.join();
  }
  slaveScheduler->run(0);
  endpoint = {};
}

ConnectionHandlerBase* LoopbackFixture::connect(
    unsigned short type, std::chrono::milliseconds limit,
    std::unique_ptr<tavrinConnector::CustomConnectData>&& data) {
  rejection = 0;
  const unsigned id =
      slaveConnector->connectAutomatic(endpoint, settings.clusterId, type, std::move(data));
  if (id == ConnectionHandlerBase::kNoConnectionId) return nullptr;
  ConnectionHandlerBase* handler = nullptr;
  runUntil(
      [&] {
        handler = slaveConnector->getConnection(id);
        return (handler && handler->isConnected()) || rejection != 0;
      },
      limit);
  return handler && handler->isConnected() ? handler : nullptr;
}

bool LoopbackFixture::runUntil(const std::function<bool()>& condition,
                               std::chrono::milliseconds limit) {
  return tavrinTesting::runUntil(*slaveScheduler, condition, limit, kTurnMs);
}

void LoopbackFixture::runFor(std::chrono::milliseconds duration) {
  tavrinTesting::runFor(*slaveScheduler, duration, kTurnMs);
}

void LoopbackFixture::onMaster(const std::function<void(TCPConnectorMaster&)>& function) {
  if (settings.loops == Loops::One) {
    function(*masterLoop->connector);
    return;
  }
  tavrinCommon::TinyMutexGuard guard(masterLoop->scheduler->getLoopMutex());
  function(*masterLoop->connector);
}

ConnectionHandlerBase* LoopbackFixture::masterSide(const ConnectionHandlerBase& slaveSide) {
  if (!slaveSide.isConnected() || !masterLoop->connector) return nullptr;
  return masterLoop->connector->getConnection(slaveSide.getRemoteConnectionId());
}

Scheduler& LoopbackFixture::scheduler() { return *slaveScheduler; }

TCPConnectorMaster& LoopbackFixture::master() { return *masterLoop->connector; }

TCPConnectorSlave& LoopbackFixture::slave() { return *slaveConnector; }

}  // namespace tavrinTesting
