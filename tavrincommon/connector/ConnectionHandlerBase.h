// The application's side of one logical connection. A connector creates it through a registered
// factory, drives its life through the non-virtual operations and gives it a send and a disconnect
// function, which can always be called (they do nothing while not connected). Owns the custom
// connect data of its connection. Loop thread of its connector only; nothing is locked.
#pragma once

#include "tavrincommon/common/CallbackSlot.h"
#include "tavrincommon/connector/CustomConnectData.h"
#include "tavrincommon/network/SimpleEndpoint.h"

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>

namespace tavrinConnector {

class InputMessage;
class OutputMessage;

class ConnectionHandlerBase {
 public:
  // Takes a message with its payload written, not finalized.
  using SendFunction = std::function<void(std::unique_ptr<OutputMessage>&&)>;
  using DisconnectFunction = std::function<void(int reason)>;
  // Hands out a message to fill with a payload of the given size.
  using MessageSource = std::function<std::unique_ptr<OutputMessage>(unsigned payloadSize)>;

  static constexpr unsigned kNoConnectionId = 0xFFFFFFFFu;

  ConnectionHandlerBase();
  virtual ~ConnectionHandlerBase();
  ConnectionHandlerBase(const ConnectionHandlerBase&) = delete;
  ConnectionHandlerBase& operator=(const ConnectionHandlerBase&) = delete;

  // A data message of this connection; its payload starts at the message's cursor.
  virtual void receive(std::unique_ptr<InputMessage>&& message) = 0;
  virtual unsigned short getType() const = 0;
  virtual unsigned short getVersion() const = 0;
  virtual bool moveConnectionAllowed() const { return false; }

  void init(bool serverSide_);
  // Nothing changes when already connected.
  void connected(unsigned int clusterId_, unsigned int connectionId_, bool automatic_,
                 unsigned int remoteConnectionId_, unsigned int remoteDeviceId_,
                 tavrinNetwork::SimpleEndpoint remoteEndpoint_, bool mptcp_,
                 std::unique_ptr<CustomConnectData>&& data, SendFunction send,
                 DisconnectFunction disconnect);
  void disconnected(int reason, bool last);
  // Only when the handler allows moves and is connected; the local ids stay.
  void moveConnection(unsigned int remoteConnectionId_, unsigned int remoteDeviceId_,
                      tavrinNetwork::SimpleEndpoint remoteEndpoint_, bool mptcp_, bool last,
                      SendFunction send, DisconnectFunction disconnect);
  // A message to fill and hand to the send function: one that the connection has sent before and
  // keeps for reuse when there is one (no allocation), else a new one. Either way as new: room
  // for `payloadSize` bytes, nothing written, not finalized.
  std::unique_ptr<OutputMessage> createMessage(unsigned payloadSize);
  // For the connector: where createMessage takes its messages from; empty: always new ones.
  // Cleared with the send and disconnect functions.
  void setMessageSource(MessageSource source) { messageSource = std::move(source); }
  // For the application: asks the connector to end the connection (no effect when not connected).
  void requestDisconnect(int reason);
  // Empty functions are replaced by ones that do nothing.
  void setFunctionsSafely(SendFunction send, DisconnectFunction disconnect);
  void clearSendAndDisconnectFunctions();
  // Keeps the custom connect data.
  void clearConnectionData();
  // The frame bound of the connector that serves this handler, which the connector keeps up to
  // date; 0 gives the transport's default. Neither init nor the end of a connection resets it.
  void setMaxFrameLength(uint32_t maxFrameLength_);
  uint32_t getMaxFrameLength() const { return maxFrameLength; }

  bool isConnected() const { return connectionId != kNoConnectionId; }
  bool isServerSide() const { return serverSide; }
  unsigned int getClusterId() const { return clusterId; }
  unsigned int getConnectionId() const { return connectionId; }
  bool isAutomatic() const { return automatic; }
  unsigned int getRemoteConnectionId() const { return remoteConnectionId; }
  unsigned int getRemoteDeviceId() const { return remoteDeviceId; }
  const tavrinNetwork::SimpleEndpoint& getRemoteEndpoint() const { return remoteEndpoint; }
  bool isMptcp() const { return mptcp; }
  const CustomConnectData* getCustomConnectData() const { return customConnectData.get(); }
  CustomConnectData* getCustomConnectData() { return customConnectData.get(); }

  // Each line starts with `prefix`; `connectionId_` is shown for a handler that is not connected.
  void dump(std::ostream& os, unsigned int connectionId_, const char* prefix) const;
  void dump(std::ostream& os, const char* prefix) const;

 protected:
  virtual void specificInit() {}
  // Runs when every field is set: the handler may send at once.
  virtual void specificConnected() = 0;
  // isConnected() is already false; the other ids are still readable. `last`: the TCP connection
  // carries no other logical connection.
  virtual void specificDisconnected(unsigned int connectionId_, int reason, bool last) = 0;
  // `last`: the old TCP connection was left without logical connections.
  virtual void specificConnectionMoved(bool /*last*/) {}
  virtual void dumpSpecific(std::ostream& /*os*/, const char* /*prefix*/) const {}

  bool serverSide = false;
  // Shared_ptr-held, so that the connector may replace or clear them while one runs (a send that
  // ends the connection); a send costs a reference count.
  tavrinCommon::CallbackSlot<SendFunction> sendFunction;
  tavrinCommon::CallbackSlot<DisconnectFunction> disconnectFunction;
  unsigned int clusterId = kNoConnectionId;
  unsigned int connectionId = kNoConnectionId;
  bool automatic = false;
  unsigned int remoteConnectionId = kNoConnectionId;
  unsigned int remoteDeviceId = kNoConnectionId;
  tavrinNetwork::SimpleEndpoint remoteEndpoint;
  bool mptcp = false;
  std::unique_ptr<CustomConnectData> customConnectData;

 private:
  MessageSource messageSource;
  uint32_t maxFrameLength;
};

}  // namespace tavrinConnector
