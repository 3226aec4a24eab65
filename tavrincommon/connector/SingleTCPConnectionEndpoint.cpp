#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"

#include "tavrincommon/common/WrapTS.h"
#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/internal/HeapCost.h"
#include "tavrincommon/connector/internal/RingQueue.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/LogRateLimiter.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/network/TCPSocketHelper.h"
#include "tavrincommon/network/TCPSocketInterface.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <algorithm>
#include <ostream>
#include <utility>

namespace tavrinConnector {

using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;
using tavrinNetwork::SimpleEndpoint;

namespace {
constexpr int kOrigin = DefaultOrigins::TCPConnector;
}  // namespace

SingleTCPConnectionEndpoint::SingleTCPConnectionEndpoint(
    const SimpleEndpoint& peer, std::unique_ptr<tavrinNetwork::TCPSocketInterface>&& socket,
    bool connected, std::function<void()> eventCallback_, tavrinScheduler::Scheduler* scheduler_,
    int idleTimeoutMs_, int keepAliveTimeoutMs_, tavrinLog::TavrinLogging* logging_)
    : logging(logging_),
      scheduler(scheduler_),
      eventCallback(eventCallback_ ? std::move(eventCallback_) : std::function<void()>([] {})),
      transceiver(
          peer, std::move(socket), connected,
          [this](std::unique_ptr<InputMessage>&& message) { receiveMessage(std::move(message)); },
          [this] { dataReceived(); }, [this] { signalDisconnect(); },
          [this](int fd, int events, TCPTransceiver::SocketCallback callback) {
            registerSocketEvent(fd, events, std::move(callback));
          },
          [this](int fd, int events) { changeSocketEvent(fd, events); }, logging_),
      receiveQueue(std::make_unique<internal::RingQueue<std::unique_ptr<InputMessage>>>()),
      idleTimeoutMs(idleTimeoutMs_),
      keepAliveTimeoutMs(keepAliveTimeoutMs_),
      keepAliveTimer(
          scheduler_, keepAliveTimeoutMs_, [this] { keepAliveTimerExpired(); }, kOrigin) {
  setReceiveQueueBounds(0, 0);
  // A connection on which no logical connection is ever opened is closed after the idle time.
  startIdlePeriod();
}

SingleTCPConnectionEndpoint::~SingleTCPConnectionEndpoint() { disconnect(); }

bool SingleTCPConnectionEndpoint::isConnected() const {
  const tavrinNetwork::TCPSocketInterface* socket = transceiver.getSocket();
  return socket && socket->valid();
}

size_t SingleTCPConnectionEndpoint::getReceiveQueueSize() const { return receiveQueue->size(); }

std::unique_ptr<InputMessage> SingleTCPConnectionEndpoint::fetchReceivedMessage() {
  if (receiveQueue->empty()) return nullptr;
  std::unique_ptr<InputMessage> message = std::move(receiveQueue->front());
  receiveQueue->pop_front();
  receiveQueueBytes -= internal::heapCost(*message);
  // The frame leaves room under the bound for the spare it becomes once handled.
  fitSparesUnderBound();
  if (transceiver.isReceivePaused() && receiveQueue->size() <= maxReceiveQueueFrames / 2 &&
      receiveQueueBytes <= maxReceiveQueueBytes / 2) {
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
               "Receive queue of TCP connection socket %s down to %zu frames (%zu bytes), reading "
               "again",
               SimpleEndpoint::CharString(transceiver.getEndpoint()).c_str(), receiveQueue->size(),
               receiveQueueBytes);
    transceiver.setReceivePaused(false);
  }
  return message;
}

void SingleTCPConnectionEndpoint::setReceiveQueueBounds(size_t maxFrames, size_t maxBytes) {
  maxReceiveQueueFrames = maxFrames == 0 ? kDefaultMaxReceiveQueueFrames : maxFrames;
  maxReceiveQueueBytes = maxBytes == 0 ? kDefaultMaxReceiveQueueBytes : maxBytes;
  fitSparesUnderBound();
}

void SingleTCPConnectionEndpoint::startTimer(int periodMs) {
  keepAliveTimer.stop();
  // Zero or negative periods are how the owner switches a role of the timer off; arming with them
  // would close the connection on the next turn.
  if (periodMs < 1) return;
  keepAliveTimer.setInterval(periodMs);
  keepAliveTimer.start();
  keepAliveTimer.setInterval(keepAliveTimeoutMs);
}

void SingleTCPConnectionEndpoint::startIdlePeriod() {
  keepAlivePeriod = false;
  startTimer(idleTimeoutMs >= 1 ? idleTimeoutMs : keepAliveTimeoutMs);
}

bool SingleTCPConnectionEndpoint::hasLogicalConnection(unsigned int id) const {
  return std::binary_search(logicalConnections.begin(), logicalConnections.end(), id);
}

void SingleTCPConnectionEndpoint::addLogicalConnection(unsigned int id) {
  if (logicalConnections.empty()) {
    keepAliveTimer.stop();
    resetKeepAliveTimeout(true);
  }
  const auto at = std::lower_bound(logicalConnections.begin(), logicalConnections.end(), id);
  if (at == logicalConnections.end() || *at != id) logicalConnections.insert(at, id);
}

bool SingleTCPConnectionEndpoint::removeLogicalConnection(unsigned int id) {
  const auto at = std::lower_bound(logicalConnections.begin(), logicalConnections.end(), id);
  if (at != logicalConnections.end() && *at == id) logicalConnections.erase(at);
  if (!logicalConnections.empty()) return false;
  startIdlePeriod();
  return true;
}

// Called on every read that carries data: while the keep-alive period runs, only its start moves,
// and the timer, when it expires, arms itself again for what is left of it.
void SingleTCPConnectionEndpoint::resetKeepAliveTimeout(bool first) {
  if (keepAliveTimeoutMs <= 0) return;
  // Called on every read: inside the socket's callback the loop has just read the clock.
  const tavrinCommon::MonotonicMs* start = scheduler->getIOWatcher().runningCallbackStart();
  const tavrinCommon::MonotonicMs now = start ? *start : tavrinCommon::MonotonicMs();
  if (first) {
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
               "First reset of keep alive timer on TCP connection socket %s, resetting maximum "
               "time between resets (previous max time: %dms)",
               SimpleEndpoint::CharString(transceiver.getEndpoint()).c_str(), maxKeepAliveTime);
    maxKeepAliveTime = 0;
  } else {
    const int elapsed = keepAlivePeriod && keepAliveTimer.isArmed()
                            ? now - tavrinCommon::MonotonicMs(keepAliveStartMs)
                            : keepAliveTimeoutMs + (now - keepAliveTimer.getDue());
    if (elapsed > maxKeepAliveTime) {
      maxKeepAliveTime = elapsed;
      TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
                 "Reset keep alive timer on TCP connection socket %s, maximum time between resets "
                 "increased to %dms (total bytes received: %u; sent: %u)",
                 SimpleEndpoint::CharString(transceiver.getEndpoint()).c_str(), maxKeepAliveTime,
                 transceiver.getBytesReceived(), transceiver.getBytesSent());
    }
  }
  keepAliveStartMs = now.getValue();
  if (!first && keepAlivePeriod && keepAliveTimer.isArmed()) return;
  keepAlivePeriod = true;
  startTimer(keepAliveTimeoutMs);
}

// Traffic keeps a connection alive only while it carries logical connections: an idle one is
// closed after the idle period whatever the peer sends (pings cost nothing to send).
void SingleTCPConnectionEndpoint::dataReceived() {
  if (!logicalConnections.empty()) resetKeepAliveTimeout(false);
}

void SingleTCPConnectionEndpoint::keepAliveTimerExpired() {
  if (keepAlivePeriod) {
    const int left = keepAliveTimeoutMs -
                     (tavrinCommon::MonotonicMs() - tavrinCommon::MonotonicMs(keepAliveStartMs));
    if (left > 0) {
      startTimer(left);
      return;
    }
  }
  // A host that opens connections and leaves them idle would otherwise write a line for each.
  TAVRIN_LOG_LIMITED(transceiver.getLogRateLimiter(), logging, kOrigin, SeverityLevel::Service,
                     "Keep alive timer expired on TCP connection socket %s, closing the "
                     "connection!",
                     SimpleEndpoint::CharString(transceiver.getEndpoint()).c_str());
  transceiver.disconnect();
}

bool SingleTCPConnectionEndpoint::setDscp(int dscp) {
  tavrinNetwork::TCPSocketInterface* socket = transceiver.getSocket();
  if (!socket || !socket->valid()) return false;
  if (socket->setDSCP(dscp)) return true;
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Service,
             "Failed to set DSCP to %d on TCP connection socket %s, closing the connection!", dscp,
             SimpleEndpoint::CharString(transceiver.getEndpoint()).c_str());
  transceiver.disconnect();
  return false;
}

bool SingleTCPConnectionEndpoint::isMptcpEnabled() const {
  const tavrinNetwork::TCPSocketInterface* socket = transceiver.getSocket();
  return tavrinNetwork::TCPSocketHelper::isMptcpEnabled(socket ? socket->getFd() : -1, logging);
}

void SingleTCPConnectionEndpoint::disconnect() {
  keepAliveTimer.stop();
  transceiver.disconnect();
  scheduler->removeIOItem(ioHandle);
  receiveQueue->clear();
  receiveQueueBytes = 0;
  logicalConnections.clear();
}

void SingleTCPConnectionEndpoint::receiveMessage(std::unique_ptr<InputMessage>&& message) {
  const size_t cost = internal::heapCost(*message);
  receiveQueueBytes += cost;
  receiveQueue->push_back(std::move(message));
  // Queued frames and spare ones together stay within the bound: spares give way to the queue.
  // Only the queue pauses reading, so spares never cost a pause; and it pauses before another
  // frame like this one would pass the bound, so that every frame it holds has room to become a
  // spare once handled, and the next burst finds a spare for each of its frames.
  fitSparesUnderBound();
  if (!transceiver.isReceivePaused() && (receiveQueue->size() >= maxReceiveQueueFrames ||
                                         receiveQueueBytes + cost > maxReceiveQueueBytes)) {
    ++readPauses;
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
               "Receive queue of TCP connection socket %s holds %zu frames (%zu bytes), pausing "
               "reads",
               SimpleEndpoint::CharString(transceiver.getEndpoint()).c_str(), receiveQueue->size(),
               receiveQueueBytes);
    transceiver.setReceivePaused(true);
  }
  eventCallback();
}

void SingleTCPConnectionEndpoint::signalDisconnect() { eventCallback(); }

void SingleTCPConnectionEndpoint::registerSocketEvent(int fd, int events,
                                                      TCPTransceiver::SocketCallback callback) {
  scheduler->removeIOItem(ioHandle);
  if (!callback) return;
  tavrinScheduler::IOWatchItem item;
  item.fd = fd;
  item.events = static_cast<uint32_t>(events);
  item.callback = std::move(callback);
  ioHandle = scheduler->addIOItem(item, kOrigin);
}

void SingleTCPConnectionEndpoint::changeSocketEvent(int /*fd*/, int events) {
  if (ioHandle) scheduler->modifyIOItem(ioHandle, events);
}

void SingleTCPConnectionEndpoint::dump(std::ostream& out, const char* prefix) const {
  out << prefix << SimpleEndpoint::CharString(transceiver.getEndpoint()).c_str() << ": ";
  if (isConnected()) {
    out << "connected, receive queue size: " << receiveQueue->size()
        << ", socket fd: " << transceiver.getSocket()->getFd()
        << ", keepAlive timeout: " << keepAliveTimeoutMs
        << "ms, maxKeepAliveTime: " << maxKeepAliveTime
        << "ms, total bytes received: " << transceiver.getBytesReceived()
        << ", total bytes sent: " << transceiver.getBytesSent() << "\n";
  } else {
    out << "not connected\n";
  }
  if (logicalConnections.empty()) {
    out << prefix << "  Logical Connections: none"
        << (keepAliveTimer.hasFired() ? " (idleTimer expired)" : "") << "\n";
    return;
  }
  out << prefix << "  Logical Connections (" << logicalConnections.size() << "):\n";
  for (unsigned int id : logicalConnections) out << prefix << "    " << id << "\n";
  out << prefix << "  --- (" << logicalConnections.size() << ") ---\n";
}

}  // namespace tavrinConnector
