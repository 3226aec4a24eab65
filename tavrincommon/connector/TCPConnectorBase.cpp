#include "tavrincommon/connector/TCPConnectorBase.h"

#include "tavrincommon/common/Clock.h"
#include "tavrincommon/connector/ConnectionHandlerType.h"
#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/connector/TCPTransceiver.h"
#include "tavrincommon/connector/internal/ConnectorSupport.h"
#include "tavrincommon/connector/internal/RingQueue.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/network/TCPSocketInterface.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <ios>
#include <ostream>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace tavrinConnector {

using tavrinCommon::DefaultOrigins;
using tavrinCommon::system::Clock;
using tavrinLog::SeverityLevel;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

using internal::monotonicIn;
using internal::peerOf;
using internal::reached;
using internal::text;
using internal::yesNo;

namespace {
constexpr int kOrigin = DefaultOrigins::TCPConnector;
}  // namespace

TCPConnectorBase::TCPConnectorBase(tavrinScheduler::Scheduler* scheduler_,
                                   tavrinLog::TavrinLogging* logging_)
    : Worker(kOrigin),
      TimeoutTask(kOrigin),
      scheduler(scheduler_),
      logging(logging_),
      generalErrorCallback([](ErrorType::Type, const std::string&) {}),
      keepAliveTimer(
          scheduler_, timing.keepAliveInterval * 1000, [this] { sendKeepAlives(); }, kOrigin),
      connectionEvents(
          std::make_unique<internal::RingQueue<std::pair<tavrinNetwork::SimpleEndpoint, bool>>>()),
      maxFrameLength(TCPTransceiver::kDefaultMaxFrameLength) {}

TCPConnectorBase::~TCPConnectorBase() {
  // The subclass has torn down already: any callback run from here would reach an object whose
  // subclass part is gone.
  destroying = true;
  enabled = false;
  releaseAll();
}

void TCPConnectorBase::tearDown() {
  destroying = true;
  enabled = false;
  cleanupSpecific();
  stopAll();
  releaseAll();
}

void TCPConnectorBase::releaseAll() {
  pendingConnections.clear();
  activeConnections.clear();
  handlersToDestroy.clear();
  tcpConnections.clear();
  ++retirements;
  tcpConnectionsToDestroy.clear();
  // Closing the connections above may have queued events and scheduled the worker once more.
  connectionEvents->clear();
  keepAliveTimer.stop();
  scheduler->removeWorker(this);
  scheduler->disableTimeout(this);
}

bool TCPConnectorBase::refusedWhileDestroying(const char* request) const {
  if (!destroying) return false;
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error,
             "Refusing %s: TCPConnector %s %u is being destroyed", request,
             ConnectorInterfaceType::getText(long{interfaceType}), connectorId);
  return true;
}

void TCPConnectorBase::stopAll() {
  disconnectAllConnections(DisconnectReason::shutdown);
  keepAliveTimer.stop();
  scheduler->removeWorker(this);
  connectionEvents->clear();
}

// ---- configuration and lifecycle ----

void TCPConnectorBase::initCommon(unsigned connectorId_, unsigned deviceId_,
                                  ConnectorInterfaceType::Type type, SimpleIp ip_,
                                  const ConnectionTimeout& timing_, bool mptcp_) {
  setEnabled(false);
  clearConnectionHandlers();
  connectionRejectedCallbacks.clear();
  connectorId = connectorId_;
  deviceId = deviceId_;
  interfaceType = type;
  ip = ip_;
  timing = timing_;
  mptcp = mptcp_;
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
             "Initialized TCPConnector %s %u on Device %u (0x%08X) with IP %s",
             ConnectorInterfaceType::getText(long{interfaceType}), connectorId, deviceId, deviceId,
             SimpleIp::CharString(ip).c_str());
}

void TCPConnectorBase::setEnabled(bool enable) {
  if (enable == enabled || (enable && refusedWhileDestroying("to enable"))) return;
  enabled = enable;
  cleanupSpecific();
  stopAll();
  // Handlers and TCP connections that ended above may be in the middle of their own call chain
  // (an application that disables the connector from a handler): the worker destroys them.
  if (!handlersToDestroy.empty() || !tcpConnectionsToDestroy.empty()) scheduler->addWorker(this);
  if (enabled != enable) {
    // A callback run by the teardown switched the connector again and did the whole job, but the
    // rest of the teardown then stopped the keep-alive timer it had started.
    if (enabled) startKeepAlive();
    return;
  }
  if (!enable) return;
  startKeepAlive();
  enableSpecific();
}

void TCPConnectorBase::startKeepAlive() {
  if (timing.connectionTimeout > 0) {
    // An interval below one second would flood the peers; one second still keeps them alive.
    if (timing.keepAliveInterval < 1)
      TAVRIN_LOG(logging, kOrigin, SeverityLevel::Service,
                 "TCPConnector %s %u: keep alive interval %ds raised to 1s",
                 ConnectorInterfaceType::getText(long{interfaceType}), connectorId,
                 timing.keepAliveInterval);
    keepAliveTimer.setInterval(timing.keepAliveInterval >= 1 ? timing.keepAliveInterval * 1000
                                                             : 1000);
    keepAliveTimer.start();
  }
}

void TCPConnectorBase::setIp(SimpleIp ip_) {
  if (ip_ == ip) return;
  const bool wasEnabled = enabled;
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Service,
             "Changed TCPConnector %s %d IP to %s (old: %s), %s",
             ConnectorInterfaceType::getText(long{interfaceType}), static_cast<int>(connectorId),
             SimpleIp::CharString(ip_).c_str(), SimpleIp::CharString(ip).c_str(),
             wasEnabled ? "restarting..." : "disabled.");
  setEnabled(false);
  ip = ip_;
  setEnabled(wasEnabled);
}

void TCPConnectorBase::setDscp(int dscp_) {
  if (dscp_ == dscp) return;
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Service,
             "Changed TCPConnector %s %d DSCP value to %d (old value: %d)",
             ConnectorInterfaceType::getText(long{interfaceType}), static_cast<int>(connectorId),
             dscp_, dscp);
  dscp = dscp_;
  for (auto& entry : tcpConnections) entry.second->setDscp(dscp);
  dscpChangedSpecific();
}

void TCPConnectorBase::setMaxFrameLength(uint32_t maxFrameLength_) {
  maxFrameLength = maxFrameLength_ == 0 ? TCPTransceiver::kDefaultMaxFrameLength : maxFrameLength_;
  for (auto& entry : tcpConnections) entry.second->getTransceiver().setMaxFrameLength(maxFrameLength);
  for (auto& entry : activeConnections)
    if (entry.second) entry.second->setMaxFrameLength(maxFrameLength);
}

void TCPConnectorBase::setConnectionLimits(const ConnectionLimits& limits_) {
  const ConnectionLimits defaults;
  auto orDefault = [](size_t value, size_t fallback) { return value == 0 ? fallback : value; };
  limits.maxSendQueueBytes = orDefault(limits_.maxSendQueueBytes, defaults.maxSendQueueBytes);
  limits.maxReceiveQueueFrames =
      orDefault(limits_.maxReceiveQueueFrames, defaults.maxReceiveQueueFrames);
  limits.maxReceiveQueueBytes =
      orDefault(limits_.maxReceiveQueueBytes, defaults.maxReceiveQueueBytes);
  limits.maxTCPConnections = orDefault(limits_.maxTCPConnections, defaults.maxTCPConnections);
  limits.maxTCPConnectionsPerAddress =
      orDefault(limits_.maxTCPConnectionsPerAddress, defaults.maxTCPConnectionsPerAddress);
  limits.maxLogicalConnectionsPerTCPConnection =
      orDefault(limits_.maxLogicalConnectionsPerTCPConnection,
                defaults.maxLogicalConnectionsPerTCPConnection);
  for (auto& entry : tcpConnections) applyQueueBounds(*entry.second);
}

void TCPConnectorBase::applyQueueBounds(SingleTCPConnectionEndpoint& connection) const {
  connection.getTransceiver().setMaxSendQueueBytes(limits.maxSendQueueBytes);
  connection.setReceiveQueueBounds(limits.maxReceiveQueueFrames, limits.maxReceiveQueueBytes);
}

void TCPConnectorBase::setGeneralErrorCallback(GeneralErrorCallback callback) {
  generalErrorCallback =
      callback ? std::move(callback) : GeneralErrorCallback([](ErrorType::Type, const std::string&) {});
}

void TCPConnectorBase::setGeneralError(ErrorType::Type error, const std::string& message) {
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error, "Error %d (%s): '%s'",
             static_cast<int>(error), ErrorType::getText(error), message.c_str());
  setEnabled(false);
  // A copy: the application may replace the callback from inside it.
  GeneralErrorCallback callback = generalErrorCallback;
  callback(error, message);
}

// ---- sending ----

void TCPConnectorBase::sendEmptyMessage(SingleTCPConnectionEndpoint& endpoint,
                                        TavrinConnectorMessageType::Type type,
                                        unsigned additionalInfo) {
  auto message = std::make_unique<OutputMessage>(0);
  message->finalizeMessage(static_cast<unsigned char>(type), additionalInfo);
  endpoint.getTransceiver().send(std::move(message));
}

void TCPConnectorBase::sendPing(SingleTCPConnectionEndpoint& endpoint, unsigned additionalInfo) {
  sendEmptyMessage(endpoint, TavrinConnectorMessageType::ping, additionalInfo);
}

void TCPConnectorBase::sendPong(SingleTCPConnectionEndpoint& endpoint, unsigned additionalInfo) {
  sendEmptyMessage(endpoint, TavrinConnectorMessageType::pong, additionalInfo);
}

void TCPConnectorBase::sendDisconnectMessage(SingleTCPConnectionEndpoint& endpoint, int reason,
                                             unsigned connectionId) {
  auto message = std::make_unique<OutputMessage>(4);
  message->putUInt32(static_cast<unsigned>(reason));
  message->finalizeMessage(TavrinConnectorMessageType::disconnect, connectionId);
  endpoint.getTransceiver().send(std::move(message));
}

void TCPConnectorBase::sendConnectionRejectMessage(SingleTCPConnectionEndpoint& endpoint,
                                                   int reason, unsigned clusterId,
                                                   unsigned remoteConnectionId,
                                                   unsigned connectionId, unsigned short type) {
  auto message = std::make_unique<OutputMessage>(14);
  message->putUInt32(remoteConnectionId);
  message->putUInt16(type);
  message->putUInt32(connectionId);
  message->putUInt32(static_cast<unsigned>(reason));
  message->finalizeMessage(TavrinConnectorMessageType::rejectConnection, clusterId);
  endpoint.getTransceiver().send(std::move(message));
}

void TCPConnectorBase::sendConnectionAcceptMessage(SingleTCPConnectionEndpoint& endpoint,
                                                   unsigned clusterId, unsigned remoteConnectionId,
                                                   unsigned connectionId, unsigned short type,
                                                   unsigned short version) {
  auto message = std::make_unique<OutputMessage>(16);
  message->putUInt32(remoteConnectionId);
  message->putUInt16(type);
  message->putUInt16(version);
  message->putUInt32(connectionId);
  message->putUInt32(deviceId);
  message->finalizeMessage(TavrinConnectorMessageType::acceptConnection, clusterId);
  endpoint.getTransceiver().send(std::move(message));
}

void TCPConnectorBase::sendDataMessage(unsigned remoteConnectionId,
                                       SingleTCPConnectionEndpoint& endpoint,
                                       std::unique_ptr<OutputMessage>&& message) {
  if (!message) return;
  message->finalizeMessage(TavrinConnectorMessageType::data, remoteConnectionId);
  endpoint.getTransceiver().send(std::move(message));
}

// ---- events and the worker ----

void TCPConnectorBase::setConnectionEvent(const SimpleEndpoint& endpoint, bool force) {
  connectionEvents->emplace_back(endpoint, force);
  scheduler->addWorker(this);
}

tavrinScheduler::Worker::Result TCPConnectorBase::work() {
  // The loop read the clock just before calling us.
  const timespec* start = scheduler->getTaskScheduler().runningWorkerStart();
  const timespec deadline = start ? internal::later(*start, kWorkSliceMs) : monotonicIn(kWorkSliceMs);
  // The deadline has just been set: the first event needs no look at the clock.
  for (bool first = true; !connectionEvents->empty(); first = false) {
    if (!first && reached(deadline)) break;
    const SimpleEndpoint endpoint = connectionEvents->front().first;
    const bool force = connectionEvents->front().second;
    connectionEvents->pop_front();
    // A raw pointer: handlers may retire this connection while its messages are handled, and
    // retired connections live on until the end of this run.
    SingleTCPConnectionEndpoint* connection = getTCPConnection(endpoint);
    if (!connection) continue;
    if (!force) {
      // Frames that arrived before a connection ended are handled before it is torn down.
      if (handleReceivedMessages(*connection, deadline) == Continue) {
        connectionEvents->emplace_back(endpoint, false);
        continue;
      }
      if (connection->isConnected() || getTCPConnection(endpoint) != connection) continue;
    }
    const bool socketValid = connection->isConnected();
    const size_t logicalCount = connection->getLogicalConnections().size();
    if (connection->getTransceiver().wasClosedAsSlowConsumer()) ++boundCounters.slowConsumersClosed;
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
               "Disconnecting TCP connection %s (forceDisconnect: %s, connected: %s, logical "
               "connections: %s (%d))...",
               text(endpoint).c_str(), yesNo(force), yesNo(socketValid), yesNo(logicalCount > 0),
               static_cast<int>(logicalCount));
    disconnectEndpoint(*connection, DisconnectReason::connectionInterrupted, true);
    retireTCPConnection(endpoint, connection);
  }
  // Moved out first: a destructor that reaches back into the connector finds empty queues.
  if (!handlersToDestroy.empty()) {
    std::vector<std::unique_ptr<ConnectionHandlerBase>> handlers;
    handlers.swap(handlersToDestroy);
    handlers.clear();
  }
  if (!tcpConnectionsToDestroy.empty()) {
    std::vector<std::unique_ptr<SingleTCPConnectionEndpoint>> connections;
    connections.swap(tcpConnectionsToDestroy);
    connections.clear();
  }
  peerLogLimiter.flush(logging);
  // Destroying a connection whose socket was still open queues one last event for it; the
  // connection is gone, so the event would only cost another run.
  while (!connectionEvents->empty() &&
         tcpConnections.find(connectionEvents->back().first) == tcpConnections.end())
    connectionEvents->pop_back();
  if (connectionEvents->empty()) return Finished;
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
             "Worker took more than %dms. Yielding execution and scheduling another run to "
             "continue work (%d events remaining)",
             kWorkSliceMs, static_cast<int>(connectionEvents->size()));
  return Continue;
}

ConnectionHandlerBase::SendFunction TCPConnectorBase::makeSendFunction(
    const ConnectionHandlerBase& handler) {
  // Looked up on every send rather than bound by reference: a handler must never reach a TCP
  // connection that has been retired in the meantime.
  const ConnectionHandlerBase* const owner = &handler;
  return [this, owner](std::unique_ptr<OutputMessage>&& message) {
    if (SingleTCPConnectionEndpoint* connection = getTCPConnection(owner->getRemoteEndpoint()))
      sendDataMessage(owner->getRemoteConnectionId(), *connection, std::move(message));
  };
}

// Looked up on every call, as the send function does: spares of a retired connection are gone.
ConnectionHandlerBase::MessageSource TCPConnectorBase::makeMessageSource(
    const ConnectionHandlerBase& handler) {
  const ConnectionHandlerBase* const owner = &handler;
  return [this, owner](unsigned payloadSize) -> std::unique_ptr<OutputMessage> {
    SingleTCPConnectionEndpoint* connection = getTCPConnection(owner->getRemoteEndpoint());
    if (!connection) return nullptr;
    return connection->getTransceiver().takeOutputMessage(payloadSize);
  };
}

ConnectionHandlerBase::DisconnectFunction TCPConnectorBase::makeDisconnectFunction(
    unsigned connectionId) {
  return [this, connectionId](int reason) { disconnect(connectionId, reason); };
}

bool TCPConnectorBase::finalizeConnection(HandlerFactory factory, unsigned connectionId,
                                          bool automatic, unsigned remoteConnectionId,
                                          unsigned remoteDeviceId, unsigned clusterId,
                                          SingleTCPConnectionEndpoint& connection, bool serverSide,
                                          std::unique_ptr<CustomConnectData>&& data) {
  std::unique_ptr<ConnectionHandlerBase> created = factory();
  if (!created) return false;
  finalizeConnection(std::move(created), connectionId, automatic, remoteConnectionId,
                     remoteDeviceId, clusterId, connection, serverSide, std::move(data));
  return true;
}

void TCPConnectorBase::finalizeConnection(std::unique_ptr<ConnectionHandlerBase>&& created,
                                          unsigned connectionId, bool automatic,
                                          unsigned remoteConnectionId, unsigned remoteDeviceId,
                                          unsigned clusterId,
                                          SingleTCPConnectionEndpoint& connection, bool serverSide,
                                          std::unique_ptr<CustomConnectData>&& data) {
  created->init(serverSide);
  // A handler sizes what it sends and accepts by the frames this connector carries.
  created->setMaxFrameLength(maxFrameLength);
  auto slot = activeConnections.try_emplace(connectionId, nullptr).first;
  if (!slot->second) slot->second = std::move(created);
  ConnectionHandlerBase* handler = slot->second.get();
  connection.addLogicalConnection(connectionId);
  const SimpleEndpoint peer = peerOf(connection);
  handler->setMessageSource(makeMessageSource(*handler));
  handler->connected(clusterId, connectionId, automatic, remoteConnectionId, remoteDeviceId, peer,
                     connection.isMptcpEnabled(), std::move(data), makeSendFunction(*handler),
                     makeDisconnectFunction(connectionId));
  // The handler may have ended its connection inside connected(); it then waits in the
  // handlers-to-destroy queue and is still alive here.
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Info,
             "Created connection %u (%stype %u, version %u) with TCP endpoint %s (remote "
             "connection id: %u, remote device id: %u, cluster id: %u)",
             connectionId, automatic ? "automatic, " : "", unsigned{handler->getType()},
             unsigned{handler->getVersion()}, text(peer).c_str(), remoteConnectionId,
             remoteDeviceId, clusterId);
}

void TCPConnectorBase::sendKeepAlives() {
  // A pong behind a full queue would only add to it; the peer sees that traffic anyway.
  for (auto& entry : tcpConnections)
    if (!entry.second->getTransceiver().isSendQueueAboveLowWatermark()) sendPong(*entry.second, 0);
  keepAliveTimer.start();
  peerLogLimiter.flush(logging);
}

// A TCP connection that carries nothing is closed after the connection timeout, as a silent one
// is; without a connection timeout (keep-alives off) after the fixed idle time.
int TCPConnectorBase::idleTimeoutMs() const {
  return timing.connectionTimeout > 0 ? timing.connectionTimeout * 1000 : kTCPIdleTimeoutMs;
}

std::unique_ptr<SingleTCPConnectionEndpoint> TCPConnectorBase::makeTCPConnection(
    const SimpleEndpoint& peer, std::unique_ptr<tavrinNetwork::TCPSocketInterface>&& socket,
    bool connectedNow) {
  // Control messages are a few bytes each, and a side that ends its last logical connection
  // sends a disconnect and closes abortively right after it: held back by Nagle's algorithm
  // behind an unacknowledged frame, that message would die with the close. A socket that is not
  // a TCP socket (a test's fake) just refuses the option.
  if (socket && socket->valid()) {
    const int on = 1;
    setsockopt(socket->getFd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }
  // The connection calls back from inside its constructor at the earliest, so the slot is filled
  // in before any frame can arrive.
  auto self = std::make_shared<SingleTCPConnectionEndpoint*>(nullptr);
  auto connection = std::make_unique<SingleTCPConnectionEndpoint>(
      peer, std::move(socket), connectedNow,
      [this, peer, self] {
        // One event per burst: while frames wait, an event for them is queued already (the
        // worker queues it again when it yields with frames left). The end always raises one.
        const SingleTCPConnectionEndpoint* self_ = *self;
        if (self_ && self_->isConnected() && self_->getReceiveQueueSize() > 1) return;
        setConnectionEvent(peer, false);
      },
      scheduler, idleTimeoutMs(), timing.connectionTimeout * 1000, logging);
  *self = connection.get();
  connection->getTransceiver().setMaxFrameLength(maxFrameLength);
  connection->getTransceiver().setLogRateLimiter(&peerLogLimiter);
  applyQueueBounds(*connection);
  return connection;
}

void TCPConnectorBase::retireTCPConnection(const SimpleEndpoint& peer,
                                           const SingleTCPConnectionEndpoint* expected) {
  auto found = tcpConnections.find(peer);
  if (found == tcpConnections.end()) return;
  if (expected && found->second.get() != expected) return;
  tcpConnectionsToDestroy.push_back(std::move(found->second));
  tcpConnections.erase(found);
  ++retirements;
  scheduler->addWorker(this);
}

// ---- lookups and diagnostics ----

ConnectionHandlerBase* TCPConnectorBase::getConnection(unsigned connectionId) const {
  auto found = activeConnections.find(connectionId);
  return found == activeConnections.end() ? nullptr : found->second.get();
}

SingleTCPConnectionEndpoint* TCPConnectorBase::getTCPConnection(const SimpleEndpoint& peer) const {
  if (lastFound.connection && lastFound.retirements == retirements && lastFound.peer == peer)
    return lastFound.connection;
  auto found = tcpConnections.find(peer);
  if (found == tcpConnections.end()) return nullptr;
  lastFound = {peer, found->second.get(), retirements};
  return lastFound.connection;
}

void TCPConnectorBase::dump(std::ostream& os, const char* prefix) const {
  os << prefix << "TCPConnector " << ConnectorInterfaceType::getText(long{interfaceType}) << " "
     << connectorId << " on Device " << deviceId << " (0x" << std::hex << deviceId << std::dec
     << ", IP: " << SimpleIp::CharString(ip).c_str() << ", DSCP: " << dscp
     << ", connection timeout: " << timing.connectionTimeout
     << "s, keep alive interval: " << timing.keepAliveInterval << "s):\n";
  dumpSpecific(os, prefix);

  size_t versionCount = 0;
  os << prefix << "  ConnectionHandler (" << connectionHandlers.size() << " types):\n";
  for (const auto& typeEntry : connectionHandlers) {
    os << prefix << "    Type " << typeEntry.first << " (" << typeEntry.second.size()
       << " versions):";
    for (const auto& versionEntry : typeEntry.second) os << " " << versionEntry.first;
    os << "\n";
    versionCount += typeEntry.second.size();
  }
  os << prefix << "  --- (" << versionCount << " connection handlers) --- \n";

  const std::string p4 = std::string(prefix) + "    ";
  os << prefix << "  TCP Connections (" << tcpConnections.size() << " TCP connections):\n";
  for (const auto& entry : tcpConnections) entry.second->dump(os, p4.c_str());
  os << prefix << "  --- (" << tcpConnections.size() << " TCP connections) --- \n";

  os << prefix << "  Pending Connections (" << pendingConnections.size()
     << " pending connections):\n";
  for (const auto& entry : pendingConnections) {
    os << prefix << "    ConnectionId: " << entry.first
       << " (endpoint: " << text(entry.second.endpoint).c_str()
       << ", clusterId: " << entry.second.clusterId << ", type: " << entry.second.type
       << ", remoteConnectionId: " << entry.second.remoteConnectionId << ")\n";
  }
  os << prefix << "  --- (" << pendingConnections.size() << " pending connections) --- \n";

  os << prefix << "  Active Connections (" << activeConnections.size()
     << " active connections):\n";
  for (const auto& entry : activeConnections)
    if (entry.second) entry.second->dump(os, entry.first, p4.c_str());
  os << prefix << "  --- (" << activeConnections.size() << " active connections) --- \n";

  os << prefix << "  Bounds (send queue " << limits.maxSendQueueBytes << " bytes, receive queue "
     << limits.maxReceiveQueueFrames << " frames / " << limits.maxReceiveQueueBytes
     << " bytes): slow consumers closed: " << boundCounters.slowConsumersClosed
     << ", pings not answered: " << boundCounters.pingsNotAnswered
     << ", TCP connections refused: " << boundCounters.tcpConnectionsRefused
     << ", connects refused: " << boundCounters.connectsRefused
     << ", log lines suppressed: " << peerLogLimiter.getSuppressedTotal() << "\n";
}

}  // namespace tavrinConnector
