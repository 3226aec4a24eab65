// The messages that arrive on the connector's TCP connections: the dispatch by message type and
// the control messages that master and slave handle alike.
#include "tavrincommon/connector/TCPConnectorBase.h"

#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/connector/TCPTransceiver.h"
#include "tavrincommon/connector/internal/ConnectorSupport.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/LogRateLimiter.h"
#include "tavrincommon/log/TavrinLogging.h"

#include <memory>
#include <utility>

namespace tavrinConnector {

using internal::peerOf;
using internal::reached;
using internal::reasonText;
using internal::text;
using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;
using tavrinNetwork::SimpleEndpoint;

namespace {
constexpr int kOrigin = DefaultOrigins::TCPConnector;
}  // namespace

// Frames that arrived before a TCP connection ended are still handled, so that the peer's last
// data and disconnects keep their reasons. A request is another matter: it would create or move a
// connection onto a TCP connection that is about to be torn down, and its answer would go nowhere.
bool TCPConnectorBase::requestOnEndedConnection(const SingleTCPConnectionEndpoint& connection,
                                                const char* request) {
  if (connection.isConnected()) return false;
  TAVRIN_LOG_LIMITED(peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
                     "Ignoring %s message from TCP endpoint %s: the TCP connection has ended",
                     request, text(peerOf(connection)).c_str());
  return true;
}

// An id that is pending here may still be in use by an earlier connection under the same id, whose
// closing exchange with the peer is under way: what the peer sends for that one arrives before
// the answer to the request and concerns a connection that is over. Answering it with
// connectionNotFound would make the peer end the connection that the request is about to create.
bool TCPConnectorBase::messageForPendingId(const SingleTCPConnectionEndpoint& connection,
                                           unsigned connectionId, const char* what) {
  if (!pendingConnections.count(connectionId)) return false;
  TAVRIN_LOG_LIMITED(peerLogLimiter, logging, kOrigin, SeverityLevel::Debug,
                     "Ignoring %s for pending connection %u from TCP endpoint %s: it concerns an "
                     "earlier connection under this id",
                     what, connectionId, text(peerOf(connection)).c_str());
  return true;
}

tavrinScheduler::Worker::Result TCPConnectorBase::handleReceivedMessages(
    SingleTCPConnectionEndpoint& connection, const timespec& deadline) {
  if (connection.getReceiveQueueSize() == 0) return Finished;
  const SimpleEndpoint peer = peerOf(connection);
  const uint64_t retiredBefore = retirements;
  for (unsigned handled = 0;; ++handled) {
    if (handled > 0) {
      // A look at the clock costs as much as handling a small frame: the slice is checked every
      // few frames (the worker has just looked before the first).
      if (handled % kFramesPerClockLook == 0 && reached(deadline)) break;
      // Handlers may retire the connection meanwhile (it lives until the end of the worker's
      // run), and the frames of a retired connection go with it.
      if (retirements != retiredBefore && getTCPConnection(peer) != &connection) return Finished;
    }
    std::unique_ptr<InputMessage> message = connection.fetchReceivedMessage();
    if (!message) return Finished;
    const unsigned type = message->getType();
    const unsigned info = message->getAdditionalInfo();
    switch (type) {
      case TavrinConnectorMessageType::ping:
        // A peer that pings and never reads would fill the send queue with pongs.
        if (connection.getTransceiver().isSendQueueAboveLowWatermark()) {
          ++boundCounters.pingsNotAnswered;
          TAVRIN_LOG_LIMITED(peerLogLimiter, logging, kOrigin, SeverityLevel::Debug,
                             "Not answering ping from %s: %zu bytes wait to be sent",
                             text(peer).c_str(), connection.getTransceiver().getSendQueueBytes());
          break;
        }
        sendPong(connection, info);
        break;
      case TavrinConnectorMessageType::pong:
        break;
      case TavrinConnectorMessageType::version:
        handleVersionMessage(connection, static_cast<unsigned short>(info & 0xFFFFu));
        break;
      case TavrinConnectorMessageType::connect:
        if (requestOnEndedConnection(connection, "connect")) break;
        extractAndHandleConnectMessage(connection, info, *message);
        break;
      case TavrinConnectorMessageType::data:
        handleDataMessage(connection, info, std::move(message));
        break;
      case TavrinConnectorMessageType::moveConnection:
        if (requestOnEndedConnection(connection, "move connection")) break;
        extractAndHandleMoveMessage(connection, info, *message);
        break;
      case TavrinConnectorMessageType::disconnect:
        handleDisconnectMessage(connection, info, *message);
        break;
      case TavrinConnectorMessageType::connectionNotFound:
        handleConnectionNotFoundMessage(connection, info);
        break;
      case TavrinConnectorMessageType::rejectConnection:
        extractAndHandleConnectionRejectMessage(connection, info, *message);
        break;
      case TavrinConnectorMessageType::acceptConnection:
        extractAndHandleConnectionAcceptMessage(connection, info, *message);
        break;
      default:
        TAVRIN_LOG_LIMITED(
            peerLogLimiter, logging, kOrigin, SeverityLevel::Error,
            "Unsupported message type %u received from %s (additional Info: %u, data "
            "length: %u bytes), ignoring",
            type, text(peerOf(connection)).c_str(), info,
            static_cast<unsigned>(message->getLength()));
        break;
    }
    // Unless a handler kept it, the frame goes back to its connection for the next one.
    connection.recycle(std::move(message));
    if (connection.getReceiveQueueSize() == 0) return Finished;
  }
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
             "Message handling took too long (%d messages remaining for TCP connection %s), "
             "yielding",
             static_cast<int>(connection.getReceiveQueueSize()), text(peer).c_str());
  return Continue;
}

void TCPConnectorBase::handleVersionMessage(SingleTCPConnectionEndpoint& connection,
                                            unsigned short version) {
  if (version == kProtocolVersion) return;
  TAVRIN_LOG_LIMITED(
      peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
      "Incompatible TCP endpoint %s with version %u, disconnecting (own version: %u)",
      text(peerOf(connection)).c_str(), unsigned{version}, unsigned{kProtocolVersion});
  sendDisconnectMessage(connection, DisconnectReason::incompatible, kInvalidConnectionId);
  setConnectionEvent(peerOf(connection), true);
}

void TCPConnectorBase::handleDataMessage(SingleTCPConnectionEndpoint& connection,
                                         unsigned connectionId,
                                         std::unique_ptr<InputMessage>&& message) {
  const SimpleEndpoint peer = peerOf(connection);
  if (connection.hasLogicalConnection(connectionId)) {
    auto found = activeConnections.find(connectionId);
    if (found != activeConnections.end() && found->second && found->second->isConnected()) {
      // The handler may end its own connection inside receive: it then waits in the
      // handlers-to-destroy queue, so it outlives the call.
      found->second->receive(std::move(message));
      return;
    }
    if (messageForPendingId(connection, connectionId, "data")) return;
    TAVRIN_LOG_LIMITED(
        peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
        "No active connection with connection Id %u (local TCP endpoint %s), cleaning up "
        "and replying with noConnection",
        connectionId, text(peer).c_str());
    if (connection.removeLogicalConnection(connectionId)) closeTCPConnection(connection);
  } else {
    TAVRIN_LOG_LIMITED(
        peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
        "No logical connection with connection Id %u on local TCP endpoint %s, replying "
        "with noConnection",
        connectionId, text(peer).c_str());
  }
  sendEmptyMessage(connection, TavrinConnectorMessageType::connectionNotFound, connectionId);
}

void TCPConnectorBase::handleDisconnectMessage(SingleTCPConnectionEndpoint& connection,
                                               unsigned connectionId, InputMessage& message) {
  const int reason = message.getInt32();
  const SimpleEndpoint peer = peerOf(connection);
  if (connectionId == kInvalidConnectionId) {
    TAVRIN_LOG_LIMITED(peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
                       "TCP disconnect message received from TCP endpoint %s, reason: %s (%d)",
                       text(peer).c_str(), reasonText(reason), reason);
    disconnectEndpoint(connection, reason, false);
    return;
  }
  if (connection.hasLogicalConnection(connectionId)) {
    if (echoesOwnReplaceAndMove && (reason == DisconnectReason::replacedByOtherConnection ||
                                    reason == DisconnectReason::connectionMoved)) {
      // The id now names the replacement or the moved connection on this TCP connection.
      TAVRIN_LOG_LIMITED(peerLogLimiter, logging, kOrigin, SeverityLevel::Debug,
                         "Ignoring disconnect message from TCP endpoint %s for connection %u, "
                         "reason: %s (%d): the answer to our own",
                         text(peer).c_str(), connectionId, reasonText(reason), reason);
      return;
    }
    if (messageForPendingId(connection, connectionId, "disconnect message")) return;
    auto found = activeConnections.find(connectionId);
    if (found != activeConnections.end()) {
      TAVRIN_LOG_LIMITED(
          peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
          "Disconnect message received from TCP endpoint %s for connection %u, reason: %s "
          "(%d)",
          text(peer).c_str(), connectionId, reasonText(reason), reason);
      std::unique_ptr<ConnectionHandlerBase> handler = std::move(found->second);
      activeConnections.erase(found);
      if (!handler) return;
      if (handler->isConnected()) disconnectHandler(*handler, connection, reason, true);
      queueHandlerForDestruction(std::move(handler));
      return;
    }
    TAVRIN_LOG_LIMITED(
        peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
        "No active connection with connection id %u (local TCP endpoint %s), ignoring "
        "disconnect request",
        connectionId, text(peer).c_str());
  } else {
    TAVRIN_LOG_LIMITED(
        peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
        "No logical connection with connection id %u on local TCP endpoint %s, ignoring "
        "disconnect request",
        connectionId, text(peer).c_str());
  }
  sendEmptyMessage(connection, TavrinConnectorMessageType::connectionNotFound, connectionId);
}

void TCPConnectorBase::handleConnectionNotFoundMessage(SingleTCPConnectionEndpoint& connection,
                                                       unsigned connectionId) {
  TAVRIN_LOG_LIMITED(
      peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
      "Received connection not found message for remote connection %u from TCP endpoint "
      "%s, removing the connection",
      connectionId, text(peerOf(connection)).c_str());
  disconnectRemoteConnectionId(connection, connectionId, DisconnectReason::notPresent);
}

void TCPConnectorBase::extractAndHandleConnectMessage(SingleTCPConnectionEndpoint& connection,
                                                      unsigned additionalInfo,
                                                      InputMessage& message) {
  const unsigned connectionId = InputMessage::getUInt32(message.buffer);
  const unsigned short type = message.getUInt16();
  const unsigned remoteConnectionId = InputMessage::getUInt32(message.buffer);
  const unsigned remoteDeviceId = InputMessage::getUInt32(message.buffer);
  handleConnectMessage(connection, additionalInfo, connectionId, type, remoteConnectionId,
                       remoteDeviceId, message);
}

void TCPConnectorBase::extractAndHandleMoveMessage(SingleTCPConnectionEndpoint& connection,
                                                   unsigned additionalInfo,
                                                   InputMessage& message) {
  const unsigned connectionId = InputMessage::getUInt32(message.buffer);
  const unsigned short type = message.getUInt16();
  const unsigned remoteConnectionId = InputMessage::getUInt32(message.buffer);
  const unsigned remoteDeviceId = InputMessage::getUInt32(message.buffer);
  handleMoveMessage(connection, additionalInfo, connectionId, type, remoteConnectionId,
                    remoteDeviceId, message);
}

void TCPConnectorBase::extractAndHandleConnectionRejectMessage(
    SingleTCPConnectionEndpoint& connection, unsigned additionalInfo, InputMessage& message) {
  const unsigned connectionId = InputMessage::getUInt32(message.buffer);
  const unsigned short type = message.getUInt16();
  const unsigned remoteConnectionId = InputMessage::getUInt32(message.buffer);
  const int reason = message.getInt32();
  handleConnectionRejectMessage(connection, additionalInfo, connectionId, reason,
                                remoteConnectionId, type);
}

void TCPConnectorBase::extractAndHandleConnectionAcceptMessage(
    SingleTCPConnectionEndpoint& connection, unsigned additionalInfo, InputMessage& message) {
  const unsigned connectionId = InputMessage::getUInt32(message.buffer);
  const unsigned short type = message.getUInt16();
  const unsigned short version = message.getUInt16();
  const unsigned remoteConnectionId = InputMessage::getUInt32(message.buffer);
  const unsigned remoteDeviceId = InputMessage::getUInt32(message.buffer);
  handleConnectionAcceptMessage(connection, additionalInfo, connectionId, version,
                                remoteConnectionId, remoteDeviceId, type);
}

}  // namespace tavrinConnector
