// What the TCP connector master and slave share: the TCP connections to peers, the handler
// factories, the pending and the active logical connections, the configuration, the handling of
// the control messages both sides treat alike, keep-alives and every way of disconnecting. Owns
// its TCP connections and the handlers it created; keeps the scheduler and the logging object.
// Loop thread only (or with the loop mutex held); nothing is locked.
#pragma once

#include "tavrincommon/connector/ConnectionHandlerBase.h"
#include "tavrincommon/connector/ConnectionLimits.h"
#include "tavrincommon/connector/ConnectionTimeout.h"
#include "tavrincommon/connector/ConnectorInterfaceType.h"
#include "tavrincommon/connector/ErrorType.h"
#include "tavrincommon/connector/TavrinConnectorMessageType.h"
#include "tavrincommon/log/LogRateLimiter.h"
#include "tavrincommon/network/SimpleEndpoint.h"
#include "tavrincommon/network/SimpleIp.h"
#include "tavrincommon/scheduler/SimpleTimer.h"
#include "tavrincommon/scheduler/TimeoutTask.h"
#include "tavrincommon/scheduler/Worker.h"

#include <cstdint>
#include <ctime>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tavrinLog {
class TavrinLogging;
}
namespace tavrinNetwork {
class TCPSocketInterface;
}
namespace tavrinScheduler {
class Scheduler;
}

namespace tavrinConnector {

namespace internal {
template <typename T>
class RingQueue;
}  // namespace internal

class InputMessage;
class OutputMessage;
class SingleTCPConnectionEndpoint;

class TCPConnectorBase : public tavrinScheduler::Worker, public tavrinScheduler::TimeoutTask {
 public:
  using HandlerFactory = std::function<std::unique_ptr<ConnectionHandlerBase>()>;
  using VersionMap = std::map<unsigned short, HandlerFactory>;
  using GeneralErrorCallback = std::function<void(ErrorType::Type, const std::string&)>;
  using ConnectionRejectedCallback = std::function<void(
      const tavrinNetwork::SimpleEndpoint& endpoint, unsigned clusterId, unsigned connectionId,
      int reason, unsigned remoteConnectionId, unsigned short type, const CustomConnectData* data)>;

  // A logical connection that has been asked for and not yet answered.
  struct PendingConnectionData {
    tavrinNetwork::SimpleEndpoint endpoint;
    unsigned clusterId = 0xFFFFFFFFu;
    unsigned short type = 0;
    bool automatic = false;
    unsigned remoteConnectionId = 0xFFFFFFFFu;
    std::unique_ptr<CustomConnectData> data;
    timespec deadline{};
  };

  static constexpr unsigned kInvalidConnectionId = 0xFFFFFFFFu;
  static constexpr unsigned short kProtocolVersion = 0;
  static constexpr int kPendingDeadlineSeconds = 10;
  static constexpr int kPendingCheckPeriodMs = 5005;
  static constexpr int kTCPIdleTimeoutMs = 10000;
  static constexpr int kWorkSliceMs = 300;
  // Frames handled between two looks at the clock within a slice.
  static constexpr unsigned kFramesPerClockLook = 8;

  TCPConnectorBase(tavrinScheduler::Scheduler* scheduler, tavrinLog::TavrinLogging* logging);
  // Subclasses call tearDown() first in their own destructor; this one only releases what is
  // left, and calls back no one.
  ~TCPConnectorBase() override;

  // Processes the connection events (at most about 300 ms per run), then destroys the handlers
  // and TCP connections that ended.
  Result work() override;
  // The pending-connection timeout.
  void timeout() override;

  // Disables the connector, drops the handler factories and the rejected callbacks, then stores
  // the configuration. Keep-alives go out every second at the most often: an interval below one
  // second is taken as one second (logged when the connector is enabled).
  void initCommon(unsigned connectorId_, unsigned deviceId_, ConnectorInterfaceType::Type type,
                  tavrinNetwork::SimpleIp ip_, const ConnectionTimeout& timing_, bool mptcp_);
  // Both directions end every pending, active and TCP connection with reason shutdown. Enabling
  // is refused while the connector is being destroyed.
  void setEnabled(bool enable);
  // Restarts an enabled connector on the new address.
  void setIp(tavrinNetwork::SimpleIp ip_);
  // Applies to every TCP connection and to the master's listening socket.
  void setDscp(int dscp_);
  // The bound on a whole frame, for every TCP connection this connector creates or accepts from
  // now on and those it has, and for the handlers on them. 0 restores the transport's default.
  void setMaxFrameLength(uint32_t maxFrameLength_);
  uint32_t getMaxFrameLength() const { return maxFrameLength; }
  // The queue bounds apply to every TCP connection, existing ones included; the connection limits
  // to what comes next. Zero fields take their defaults.
  void setConnectionLimits(const ConnectionLimits& limits_);
  const ConnectionLimits& getConnectionLimits() const { return limits; }
  // What the bounds did, for dumps and tests.
  struct BoundCounters {
    unsigned slowConsumersClosed = 0;
    unsigned pingsNotAnswered = 0;
    unsigned tcpConnectionsRefused = 0;
    unsigned connectsRefused = 0;
  };
  const BoundCounters& getBoundCounters() const { return boundCounters; }
  void setGeneralErrorCallback(GeneralErrorCallback callback);
  // Logs, disables the connector, then tells the application.
  void setGeneralError(ErrorType::Type error, const std::string& text);
  // `prefix` must not be null.
  void dump(std::ostream& os, const char* prefix) const;

  void sendPing(SingleTCPConnectionEndpoint& endpoint, unsigned additionalInfo);

  // Handler factory registry. Adding is refused while the connector is being destroyed.
  void addConnectionHandler(unsigned short type, unsigned short version, HandlerFactory factory);
  void removeConnectionHandler(unsigned short type, unsigned short version);
  void removeConnectionHandlerType(unsigned short type);
  void clearConnectionHandlers();
  HandlerFactory findConnectionHandler(unsigned short type, unsigned short version,
                                       bool& typeFound) const;
  std::unique_ptr<ConnectionHandlerBase> createConnectionHandler(unsigned short type,
                                                                 unsigned short version) const;

  // An empty callback removes the type's entry.
  void addConnectionRejectedCallback(unsigned short type,
                                     const ConnectionRejectedCallback& callback);
  void removeConnectionRejectedCallback(unsigned short type);

  bool verifyValidConnectionId(unsigned id) const;
  bool verifyFreeConnectionId(unsigned id) const;
  // The lowest free id from `first` up to `last` (inclusive, wrapping); 0xFFFFFFFF if none.
  unsigned getFreeConnectionId(unsigned first, unsigned last) const;
  // The first free id after `lastGiven` in the same range, wrapping from `last` to `first`, so that
  // an id is handed out again only after all the others; stores the id in `lastGiven`.
  unsigned getNextFreeConnectionId(unsigned first, unsigned last, unsigned& lastGiven) const;

  // Ending logical connections. Reasons pass through unchanged (application codes included).
  void disconnect(unsigned connectionId, int reason);
  void disconnect(const std::function<bool(const ConnectionHandlerBase&)>& predicate, int reason);
  void disconnectType(unsigned short type, bool automaticOnly, int reason);
  void disconnectTypeAndVersion(unsigned short type, unsigned short version, int reason);
  void disconnectAllAutomatic(int reason);
  void disconnectRemoteDevice(unsigned remoteDeviceId, int reason);
  void disconnectRemoteDevice(tavrinNetwork::SimpleIp ip, int reason);
  void disconnectAllTCPConnections(int reason);
  void disconnectAllConnections(int reason);

  bool isEnabled() const { return enabled; }
  unsigned getConnectorId() const { return connectorId; }
  unsigned getDeviceId() const { return deviceId; }
  ConnectorInterfaceType::Type getInterfaceType() const { return interfaceType; }
  tavrinNetwork::SimpleIp getIp() const { return ip; }
  int getDscp() const { return dscp; }
  const ConnectionTimeout& getTiming() const { return timing; }
  bool isMptcp() const { return mptcp; }
  size_t getActiveConnectionCount() const { return activeConnections.size(); }
  size_t getPendingConnectionCount() const { return pendingConnections.size(); }
  size_t getTCPConnectionCount() const { return tcpConnections.size(); }
  bool isPending(unsigned connectionId) const { return pendingConnections.count(connectionId); }
  // Null when the id is not active.
  ConnectionHandlerBase* getConnection(unsigned connectionId) const;
  // Null when there is no TCP connection to that peer.
  SingleTCPConnectionEndpoint* getTCPConnection(const tavrinNetwork::SimpleEndpoint& peer) const;

 protected:
  using TCPConnectionMap =
      std::map<tavrinNetwork::SimpleEndpoint, std::unique_ptr<SingleTCPConnectionEndpoint>>;

  virtual void enableSpecific() = 0;
  virtual void cleanupSpecific() = 0;
  virtual void dumpSpecific(std::ostream& os, const char* prefix) const = 0;
  // After the DSCP value changed, for sockets of the subclass's own.
  virtual void dscpChangedSpecific() {}
  // For connect and move: connectionId is the requested master-side id, the remote ids are the
  // sender's; the version list is still unread in `message`.
  virtual void handleConnectMessage(SingleTCPConnectionEndpoint& endpoint, unsigned clusterId,
                                    unsigned connectionId, unsigned short type,
                                    unsigned remoteConnectionId, unsigned remoteDeviceId,
                                    InputMessage& message) = 0;
  virtual void handleMoveMessage(SingleTCPConnectionEndpoint& endpoint, unsigned clusterId,
                                 unsigned connectionId, unsigned short type,
                                 unsigned remoteConnectionId, unsigned remoteDeviceId,
                                 InputMessage& message) = 0;
  // For accept and reject: connectionId is the receiver's own id, remoteConnectionId the sender's.
  virtual void handleConnectionRejectMessage(SingleTCPConnectionEndpoint& endpoint,
                                             unsigned clusterId, unsigned connectionId, int reason,
                                             unsigned remoteConnectionId, unsigned short type) = 0;
  virtual void handleConnectionAcceptMessage(SingleTCPConnectionEndpoint& endpoint,
                                             unsigned clusterId, unsigned connectionId,
                                             unsigned short version, unsigned remoteConnectionId,
                                             unsigned remoteDeviceId, unsigned short type) = 0;

  // Sending: each message is finalized here and handed to the connection's transceiver.
  void sendEmptyMessage(SingleTCPConnectionEndpoint& endpoint,
                        TavrinConnectorMessageType::Type type, unsigned additionalInfo);
  void sendPong(SingleTCPConnectionEndpoint& endpoint, unsigned additionalInfo);
  void sendDisconnectMessage(SingleTCPConnectionEndpoint& endpoint, int reason,
                             unsigned connectionId);
  void sendConnectionRejectMessage(SingleTCPConnectionEndpoint& endpoint, int reason,
                                   unsigned clusterId, unsigned remoteConnectionId,
                                   unsigned connectionId, unsigned short type);
  void sendConnectionAcceptMessage(SingleTCPConnectionEndpoint& endpoint, unsigned clusterId,
                                   unsigned remoteConnectionId, unsigned connectionId,
                                   unsigned short type, unsigned short version);
  void sendDataMessage(unsigned remoteConnectionId, SingleTCPConnectionEndpoint& endpoint,
                       std::unique_ptr<OutputMessage>&& message);

  // Queues the TCP connection for the worker and schedules it.
  void setConnectionEvent(const tavrinNetwork::SimpleEndpoint& endpoint, bool force);
  Result handleReceivedMessages(SingleTCPConnectionEndpoint& endpoint,
                                const timespec& deadline);
  // True, after one log line, when a connect or move arrived on a TCP connection that has ended.
  bool requestOnEndedConnection(const SingleTCPConnectionEndpoint& connection, const char* request);
  // True, after one log line, when a data or disconnect message names an id that is pending.
  bool messageForPendingId(const SingleTCPConnectionEndpoint& connection, unsigned connectionId,
                           const char* what);
  void handleVersionMessage(SingleTCPConnectionEndpoint& endpoint, unsigned short version);
  void handleDataMessage(SingleTCPConnectionEndpoint& endpoint, unsigned connectionId,
                         std::unique_ptr<InputMessage>&& message);
  void handleDisconnectMessage(SingleTCPConnectionEndpoint& endpoint, unsigned connectionId,
                               InputMessage& message);
  void handleConnectionNotFoundMessage(SingleTCPConnectionEndpoint& endpoint,
                                       unsigned connectionId);
  void extractAndHandleConnectMessage(SingleTCPConnectionEndpoint& endpoint,
                                      unsigned additionalInfo, InputMessage& message);
  void extractAndHandleMoveMessage(SingleTCPConnectionEndpoint& endpoint, unsigned additionalInfo,
                                   InputMessage& message);
  void extractAndHandleConnectionRejectMessage(SingleTCPConnectionEndpoint& endpoint,
                                               unsigned additionalInfo, InputMessage& message);
  void extractAndHandleConnectionAcceptMessage(SingleTCPConnectionEndpoint& endpoint,
                                               unsigned additionalInfo, InputMessage& message);
  // False, with nothing changed and `data` left with the caller, when the factory makes no
  // handler.
  bool finalizeConnection(HandlerFactory factory, unsigned connectionId, bool automatic,
                          unsigned remoteConnectionId, unsigned remoteDeviceId, unsigned clusterId,
                          SingleTCPConnectionEndpoint& endpoint, bool serverSide,
                          std::unique_ptr<CustomConnectData>&& data);
  // The same with a handler the caller has created already (not null).
  void finalizeConnection(std::unique_ptr<ConnectionHandlerBase>&& created, unsigned connectionId,
                          bool automatic, unsigned remoteConnectionId, unsigned remoteDeviceId,
                          unsigned clusterId, SingleTCPConnectionEndpoint& endpoint,
                          bool serverSide, std::unique_ptr<CustomConnectData>&& data);
  // The two functions a handler gets for its connection. The send function reads the peer and
  // the remote id from `handler`, which holds it, on every call; so it stays small enough for
  // std::function to keep without an allocation, and must not outlive the handler.
  ConnectionHandlerBase::SendFunction makeSendFunction(const ConnectionHandlerBase& handler);
  ConnectionHandlerBase::DisconnectFunction makeDisconnectFunction(unsigned connectionId);
  // Where `handler` takes the messages it sends: the spare ones of the TCP connection to its peer.
  ConnectionHandlerBase::MessageSource makeMessageSource(const ConnectionHandlerBase& handler);
  void sendKeepAlives();

  // A new TCP connection of this connector, with its event callback, timing and frame bound.
  std::unique_ptr<SingleTCPConnectionEndpoint> makeTCPConnection(
      const tavrinNetwork::SimpleEndpoint& peer,
      std::unique_ptr<tavrinNetwork::TCPSocketInterface>&& socket, bool connectedNow);
  // Closes a TCP connection whose logical connections have all ended: a FIN goes ahead of the
  // abortive close, so that the peer, which has been told why each one ended, reads an orderly end
  // of stream rather than a reset.
  void closeTCPConnection(SingleTCPConnectionEndpoint& connection);
  // Takes the map's connection for `peer` out (only if it is `expected`, when given) and defers
  // its destruction to the worker: it may be in the middle of its own call chain.
  void retireTCPConnection(const tavrinNetwork::SimpleEndpoint& peer,
                           const SingleTCPConnectionEndpoint* expected);
  int idleTimeoutMs() const;
  // The connection's queue bounds from the limits.
  void applyQueueBounds(SingleTCPConnectionEndpoint& connection) const;

  void setConnectionRejected(const tavrinNetwork::SimpleEndpoint& endpoint, unsigned clusterId,
                             unsigned connectionId, int reason, unsigned remoteConnectionId,
                             unsigned short type, const CustomConnectData* data);
  void setPendingConnectionRejected(unsigned connectionId, const PendingConnectionData& pending,
                                    int reason);

  void addPendingConnection(unsigned connectionId, const tavrinNetwork::SimpleEndpoint& endpoint,
                            unsigned clusterId, unsigned short type, bool automatic,
                            unsigned remoteConnectionId, std::unique_ptr<CustomConnectData>&& data);
  bool removePendingConnection(unsigned connectionId, int reason, bool notify, bool& automatic,
                               std::unique_ptr<CustomConnectData>& data);
  void removePendingConnectionFromTcp(unsigned connectionId, const PendingConnectionData& pending);
  void rejectAllPendingConnections();

  void disconnectHandler(ConnectionHandlerBase& handler, SingleTCPConnectionEndpoint& connection,
                         int reason, bool sendMessage);
  void disconnect(std::unique_ptr<ConnectionHandlerBase>&& handler, int reason);
  void disconnectRemoteConnectionId(SingleTCPConnectionEndpoint& connection,
                                    unsigned remoteConnectionId, int reason);
  void disconnectLogicalConnections(SingleTCPConnectionEndpoint& connection, int reason,
                                    bool sendMessage);
  void disconnectEndpoint(SingleTCPConnectionEndpoint& connection, int reason, bool sendMessage);
  // Queues an ended handler for destruction by the worker.
  void queueHandlerForDestruction(std::unique_ptr<ConnectionHandlerBase>&& handler);
  // The teardown shared by setEnabled(false) and tearDown().
  void stopAll();
  // The first step of a subclass's destructor, while its part still exists: ends everything with
  // reason shutdown and releases what the connector holds. The callbacks this runs may ask for
  // new work; it is refused from here on (see refusedWhileDestroying).
  void tearDown();
  // Destroys handlers and TCP connections and unregisters from the scheduler; calls back no one.
  void releaseAll();
  // Arms the keep-alive timer when the connection timeout asks for keep-alives.
  void startKeepAlive();
  // True, after one log line, while the connector is being destroyed.
  bool refusedWhileDestroying(const char* request) const;

  std::map<unsigned short, VersionMap> connectionHandlers;
  TCPConnectionMap tcpConnections;
  std::map<unsigned, std::unique_ptr<ConnectionHandlerBase>> activeConnections;
  bool mptcp = false;
  tavrinScheduler::Scheduler* scheduler;
  tavrinLog::TavrinLogging* logging;
  unsigned connectorId = 0xFFFFFFFFu;
  unsigned deviceId = 0xFFFFFFFFu;
  ConnectorInterfaceType::Type interfaceType = ConnectorInterfaceType::Unknown;
  tavrinNetwork::SimpleIp ip;
  int dscp = 0;
  ConnectionTimeout timing;
  GeneralErrorCallback generalErrorCallback;
  std::map<unsigned short, ConnectionRejectedCallback> connectionRejectedCallbacks;
  bool enabled = false;
  bool destroying = false;
  // Set by the master: it ends a connection with replacedByOtherConnection or connectionMoved only
  // while the id lives on (for the replacement, or for the moved connection itself), so a
  // disconnect carrying one of these back is the peer's answer to its own and ends nothing.
  bool echoesOwnReplaceAndMove = false;
  tavrinScheduler::SimpleTimer keepAliveTimer;
  std::map<unsigned, PendingConnectionData> pendingConnections;
  // A ring rather than a deque: an event per read burst would otherwise allocate a block every
  // few dozen bursts.
  std::unique_ptr<internal::RingQueue<std::pair<tavrinNetwork::SimpleEndpoint, bool>>>
      connectionEvents;
  std::vector<std::unique_ptr<ConnectionHandlerBase>> handlersToDestroy;
  std::vector<std::unique_ptr<SingleTCPConnectionEndpoint>> tcpConnectionsToDestroy;
  // Counts TCP connections taken out of the table: a frame loop that finds it unchanged knows
  // that its connection is still in place without looking it up.
  uint64_t retirements = 0;
  // The TCP connection found last: every frame and every send looks its connection up, nearly
  // always the same one. Valid while no connection has left the table since.
  struct LastFound {
    tavrinNetwork::SimpleEndpoint peer;
    SingleTCPConnectionEndpoint* connection = nullptr;
    uint64_t retirements = 0;
  };
  mutable LastFound lastFound;
  uint32_t maxFrameLength;
  ConnectionLimits limits;
  BoundCounters boundCounters;
  // Lines that a peer's input causes go through this, on every TCP connection of the connector.
  tavrinLog::LogRateLimiter peerLogLimiter;
};

}  // namespace tavrinConnector
