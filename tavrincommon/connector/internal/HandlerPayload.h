// Bounds of a data message's payload for the connection handlers. No state; any thread.
#pragma once

#include "tavrincommon/connector/InputMessage.h"

namespace tavrinConnector {
namespace internal {

// Payload bytes from the cursor on. A verified frame ends in its delimiter, which is not payload.
inline unsigned payloadLeft(const InputMessage& message) {
  const MessageBuffer& buffer = message.buffer;
  const unsigned end = message.isValid() ? message.getLength() + 4 : buffer.getDataLength();
  return end > buffer.getOffset() ? end - buffer.getOffset() : 0;
}

}  // namespace internal
}  // namespace tavrinConnector
