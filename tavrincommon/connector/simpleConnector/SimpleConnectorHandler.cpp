#include "tavrincommon/connector/simpleConnector/SimpleConnectorHandler.h"

#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/connector/internal/HandlerPayload.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/LogRateLimiter.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/network/SimpleEndpoint.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace tavrinConnector {
namespace simpleConnector {

namespace {

constexpr int kOrigin = tavrinCommon::DefaultOrigins::SimpleConnector;
constexpr auto kDebug = tavrinLog::SeverityLevel::Debug;
constexpr unsigned kLengthFieldSize = 4;
constexpr unsigned short kVersionMask = 0x0FFF;
constexpr int kOwnDisconnectReason = 1;

using internal::payloadLeft;

}  // namespace

SimpleConnectorHandler::SimpleConnectorHandler(unsigned short version_, AcceptCallback accept,
                                               StateCallback state, DataCallback data,
                                               tavrinLog::TavrinLogging* logger_)
    : version(static_cast<unsigned short>(version_ & kVersionMask)), logger(logger_) {
  setCallbacks(std::move(accept), std::move(state), std::move(data));
}

SimpleConnectorHandler::~SimpleConnectorHandler() = default;

void SimpleConnectorHandler::setCallbacks(AcceptCallback accept, StateCallback state,
                                          DataCallback data) {
  // Always replaced together, so the three live in one allocation; a call keeps all three alive.
  struct Callbacks {
    AcceptCallback accept;
    StateCallback state;
    DataCallback data;
  };
  const auto all = std::make_shared<const Callbacks>(
      Callbacks{accept ? std::move(accept)
                       : AcceptCallback([](tavrinNetwork::SimpleIp, unsigned, unsigned,
                                           SimpleConnectorHandler*) { return true; }),
                state ? std::move(state)
                      : StateCallback([](tavrinNetwork::SimpleIp, unsigned, unsigned, int) {}),
                data ? std::move(data)
                     : DataCallback([](tavrinNetwork::SimpleIp, unsigned, unsigned,
                                       std::unique_ptr<std::vector<unsigned char>>&&) {})});
  acceptCallback.share(std::shared_ptr<const AcceptCallback>(all, &all->accept));
  stateCallback.share(std::shared_ptr<const StateCallback>(all, &all->state));
  dataCallback.share(std::shared_ptr<const DataCallback>(all, &all->data));
}

tavrinLog::LogRateLimiter& SimpleConnectorHandler::logLimiter() {
  if (!limiter) limiter = std::make_unique<tavrinLog::LogRateLimiter>();
  return *limiter;
}

uint32_t SimpleConnectorHandler::getMaxBlockLength() const {
  const uint32_t frameBound = getMaxFrameLength();
  return frameBound > kBlockOverhead ? frameBound - kBlockOverhead : 0;
}

bool SimpleConnectorHandler::sendable(size_t length) {
  if (length == 0 || !isConnected()) return false;
  if (length <= getMaxBlockLength()) return true;
  TAVRIN_LOG_LIMITED(logLimiter(), logger, kOrigin, tavrinLog::SeverityLevel::Error,
                     "%sNot sending a block of %zu bytes: a frame carries at most %u",
                     getLogPrefix(connectionId).c_str(), length, getMaxBlockLength());
  return false;
}

bool SimpleConnectorHandler::sendData(const char* data, unsigned int length) {
  if (!sendable(length)) return false;
  auto message = std::make_unique<OutputMessage>(length + kLengthFieldSize);
  message->putUInt32(length);
  message->getBuffer().write(data, length);
  sendFunction(std::move(message));
  return true;
}

bool SimpleConnectorHandler::sendData(const std::vector<std::string>& parts) {
  size_t total = 0;
  for (const std::string& part : parts) total += part.size();
  if (!sendable(total)) return false;
  auto message = std::make_unique<OutputMessage>(static_cast<unsigned>(total) + kLengthFieldSize);
  message->putUInt32(static_cast<uint32_t>(total));
  for (const std::string& part : parts) {
    message->getBuffer().write(part.data(), static_cast<unsigned>(part.size()));
  }
  sendFunction(std::move(message));
  return true;
}

void SimpleConnectorHandler::disconnect() {
  TAVRIN_LOG(logger, kOrigin, kDebug, "%sDisconnecting...", getLogPrefix(connectionId).c_str());
  requestDisconnect(kOwnDisconnectReason);
}

std::string SimpleConnectorHandler::getLogPrefix(unsigned int connectionId_) const {
  char text[160];
  std::snprintf(text, sizeof text,
                "SimpleConnectorHandler %u (remote: %u @ 0x%08X (%s)): ", connectionId_,
                remoteConnectionId, remoteDeviceId,
                tavrinNetwork::SimpleEndpoint::CharString(remoteEndpoint).c_str());
  return text;
}

void SimpleConnectorHandler::receive(std::unique_ptr<InputMessage>&& message) {
  if (!message) return;
  unsigned available = payloadLeft(*message);
  // A conforming peer never sends a payload without its length field; reading one from the bytes
  // that are there would take the frame's end delimiter for data.
  if (available < kLengthFieldSize) {
    TAVRIN_LOG_LIMITED(logLimiter(), logger, kOrigin, kDebug,
                       "%sDropping data message: %u payload bytes, too short for the block length",
                       getLogPrefix(connectionId).c_str(), available);
    return;
  }
  const uint32_t declared = InputMessage::getUInt32(message->buffer);
  available -= kLengthFieldSize;
  // A block longer than the payload is filled up with zeros, but only a little beyond the bytes
  // present and never beyond what one frame of the transport can carry: any longer length is
  // malformed, and believing it would let a few bytes make this handler allocate a megabyte.
  if (declared > getMaxBlockLength() || declared - std::min(declared, available) > kZeroFillSlack) {
    TAVRIN_LOG_LIMITED(logLimiter(), logger, kOrigin, kDebug,
                       "%sDropping data message: declared block length %u with %u bytes present "
                       "(largest block %u, zero fill up to %u)",
                       getLogPrefix(connectionId).c_str(), declared, available, getMaxBlockLength(),
                       kZeroFillSlack);
    return;
  }
  auto block = std::make_unique<std::vector<unsigned char>>(declared, 0);
  if (declared > 0) message->buffer.read(block->data(), std::min(declared, available));
  dataCallback(remoteEndpoint.getIp(), remoteConnectionId, connectionId, std::move(block));
}

void SimpleConnectorHandler::specificConnected() {
  if (acceptCallback(remoteEndpoint.getIp(), remoteConnectionId, connectionId, this)) {
    TAVRIN_LOG(logger, kOrigin, kDebug, "%sConnected", getLogPrefix(connectionId).c_str());
    return;
  }
  // The prefix is taken before the request: the connection data is cleared once it has ended.
  const bool logged = logger && logger->isEnabled(kOrigin, kDebug);
  const std::string prefix = logged ? getLogPrefix(connectionId) : std::string();
  requestDisconnect(DisconnectReason::noConnectionHandler);
  TAVRIN_LOG(logger, kOrigin, kDebug, "%sConnection rejected, disconnecting...", prefix.c_str());
}

void SimpleConnectorHandler::specificDisconnected(unsigned int connectionId_, int reason,
                                                  bool /*last*/) {
  stateCallback(remoteEndpoint.getIp(), remoteConnectionId, connectionId_, reason);
  TAVRIN_LOG(logger, kOrigin, kDebug, "%sDisconnected", getLogPrefix(connectionId_).c_str());
}

}  // namespace simpleConnector
}  // namespace tavrinConnector
