#include "KeyEventHandler.h"

#include <tavrincommon/connector/InputMessage.h>
#include <tavrincommon/connector/OutputMessage.h>

namespace keyEvents {

using tavrinConnector::InputMessage;
using tavrinConnector::OutputMessage;

KeyEventHandler::KeyEventHandler(Callbacks callbacks_) : callbacks(std::move(callbacks_)) {}

KeyEventHandler::~KeyEventHandler() = default;

uint32_t KeyEventHandler::sendKey(Kind kind, uint16_t key) {
  if (!isConnected()) return 0;
  const uint32_t sequence = nextSequence++;
  send({kind, key, sequence});
  return sequence;
}

void KeyEventHandler::send(const Event& event) {
  // The connector adds the frame around the payload.
  auto message = std::make_unique<OutputMessage>(kMessageSize);
  message->putUInt8(static_cast<int>(event.kind));
  message->putUInt16(event.key);
  message->putUInt32(event.sequence);
  sendFunction(std::move(message));
}

void KeyEventHandler::receive(std::unique_ptr<InputMessage>&& message) {
  // The payload runs from the cursor up to the frame's end delimiter.
  const unsigned remaining = message->buffer.getRemaining();
  if (remaining != kMessageSize + 1) {
    ++malformed;
    return;
  }
  const uint8_t kind = InputMessage::getUInt8(message->buffer);
  const uint16_t key = message->getUInt16();
  const uint32_t sequence = InputMessage::getUInt32(message->buffer);
  switch (static_cast<Kind>(kind)) {
    case Kind::KeyDown:
    case Kind::KeyUp: {
      const Event event{static_cast<Kind>(kind), key, sequence};
      send({Kind::Acknowledge, key, sequence});
      if (callbacks.key) callbacks.key(*this, event);
      break;
    }
    case Kind::Acknowledge:
      if (callbacks.acknowledged) callbacks.acknowledged(*this, sequence);
      break;
    default:
      ++malformed;
  }
}

void KeyEventHandler::specificConnected() {
  nextSequence = 1;
  if (callbacks.connected) callbacks.connected(*this);
}

void KeyEventHandler::specificDisconnected(unsigned connectionId_, int reason, bool) {
  if (callbacks.disconnected) callbacks.disconnected(connectionId_, reason);
}

}  // namespace keyEvents
