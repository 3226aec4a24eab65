#include "tavrincommon/connector/ConnectionHandlerBase.h"

#include "tavrincommon/connector/ConnectionHandlerType.h"
#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/connector/TCPTransceiver.h"

#include <ios>
#include <ostream>
#include <string>
#include <utility>

namespace tavrinConnector {

ConnectionHandlerBase::ConnectionHandlerBase()
    : maxFrameLength(TCPTransceiver::kDefaultMaxFrameLength) {
  clearSendAndDisconnectFunctions();
}

ConnectionHandlerBase::~ConnectionHandlerBase() = default;

void ConnectionHandlerBase::init(bool serverSide_) {
  serverSide = serverSide_;
  clearSendAndDisconnectFunctions();
  clearConnectionData();
  specificInit();
}

void ConnectionHandlerBase::connected(unsigned int clusterId_, unsigned int connectionId_,
                                      bool automatic_, unsigned int remoteConnectionId_,
                                      unsigned int remoteDeviceId_,
                                      tavrinNetwork::SimpleEndpoint remoteEndpoint_, bool mptcp_,
                                      std::unique_ptr<CustomConnectData>&& data, SendFunction send,
                                      DisconnectFunction disconnect) {
  if (isConnected()) return;
  clusterId = clusterId_;
  connectionId = connectionId_;
  automatic = automatic_;
  remoteConnectionId = remoteConnectionId_;
  remoteDeviceId = remoteDeviceId_;
  remoteEndpoint = remoteEndpoint_;
  mptcp = mptcp_;
  customConnectData = std::move(data);
  setFunctionsSafely(std::move(send), std::move(disconnect));
  specificConnected();
}

void ConnectionHandlerBase::disconnected(int reason, bool last) {
  if (!isConnected()) return;
  const unsigned int rememberedId = connectionId;
  connectionId = kNoConnectionId;
  specificDisconnected(rememberedId, reason, last);
  clearConnectionData();
}

void ConnectionHandlerBase::moveConnection(unsigned int remoteConnectionId_,
                                           unsigned int remoteDeviceId_,
                                           tavrinNetwork::SimpleEndpoint remoteEndpoint_,
                                           bool mptcp_, bool last, SendFunction send,
                                           DisconnectFunction disconnect) {
  if (!moveConnectionAllowed() || !isConnected()) return;
  remoteConnectionId = remoteConnectionId_;
  remoteDeviceId = remoteDeviceId_;
  remoteEndpoint = remoteEndpoint_;
  mptcp = mptcp_;
  setFunctionsSafely(std::move(send), std::move(disconnect));
  specificConnectionMoved(last);
}

void ConnectionHandlerBase::requestDisconnect(int reason) {
  if (isConnected()) disconnectFunction(reason);
}

void ConnectionHandlerBase::setFunctionsSafely(SendFunction send, DisconnectFunction disconnect) {
  // Always replaced together, so both live in one allocation; a call keeps the pair alive.
  struct Functions {
    SendFunction send;
    DisconnectFunction disconnect;
  };
  const auto both = std::make_shared<const Functions>(
      Functions{send ? std::move(send) : SendFunction([](std::unique_ptr<OutputMessage>&&) {}),
                disconnect ? std::move(disconnect) : DisconnectFunction([](int) {})});
  sendFunction.share(std::shared_ptr<const SendFunction>(both, &both->send));
  disconnectFunction.share(std::shared_ptr<const DisconnectFunction>(both, &both->disconnect));
}

void ConnectionHandlerBase::clearSendAndDisconnectFunctions() {
  setFunctionsSafely({}, {});
  messageSource = nullptr;
}

std::unique_ptr<OutputMessage> ConnectionHandlerBase::createMessage(unsigned payloadSize) {
  if (messageSource) {
    std::unique_ptr<OutputMessage> message = messageSource(payloadSize);
    if (message) return message;
  }
  return std::make_unique<OutputMessage>(payloadSize);
}

void ConnectionHandlerBase::clearConnectionData() {
  clusterId = kNoConnectionId;
  connectionId = kNoConnectionId;
  remoteConnectionId = kNoConnectionId;
  remoteDeviceId = kNoConnectionId;
  automatic = false;
  mptcp = false;
  remoteEndpoint.clear();
  clearSendAndDisconnectFunctions();
}

void ConnectionHandlerBase::setMaxFrameLength(uint32_t maxFrameLength_) {
  maxFrameLength = maxFrameLength_ == 0 ? TCPTransceiver::kDefaultMaxFrameLength : maxFrameLength_;
}

void ConnectionHandlerBase::dump(std::ostream& os, unsigned int connectionId_,
                                 const char* prefix) const {
  os << prefix << "ConnectionHandler (" << ConnectionHandlerType::getText(long{getType()})
     << ", version " << getVersion() << (serverSide ? ", server side" : ", client side")
     << "):\n";
  const std::string p2 = std::string(prefix) + "  ";
  if (isConnected()) {
    os << p2 << "Connected (ClusterId " << clusterId << ", connectionId: " << connectionId
       << (automatic ? " (automatic)" : "") << ") to remote device " << remoteDeviceId << " (0x"
       << std::hex << remoteDeviceId << std::dec << ", IP "
       << tavrinNetwork::SimpleEndpoint::CharString(remoteEndpoint).c_str()
       << ", remote ConnectionId: " << remoteConnectionId << ")\n";
  } else {
    os << p2 << "Not connected";
    if (connectionId_ != kNoConnectionId) os << " (ConnectionId: " << connectionId_ << ")";
    os << "\n";
  }
  dumpSpecific(os, p2.c_str());
  os << prefix << "---\n";
}

void ConnectionHandlerBase::dump(std::ostream& os, const char* prefix) const {
  dump(os, kNoConnectionId, prefix);
}

}  // namespace tavrinConnector
