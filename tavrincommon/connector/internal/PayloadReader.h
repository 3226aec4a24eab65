// Reads announce payload fields without ever passing a given end offset (the end of the payload
// or of one record): a field cut short reads as 0 and leaves the cursor at the end. Used by the
// announce data and the announce slave only.
#pragma once

#include "tavrincommon/connector/InputMessage.h"

#include <cstdint>
#include <string>

namespace tavrinConnector {
namespace internal {

// The first byte after the payload: the end delimiter's offset of a verified frame, else the end
// of the data (an unverified buffer has no known delimiter).
inline unsigned payloadEnd(const InputMessage& message) {
  const unsigned dataLength = message.buffer.getDataLength();
  if (!message.isValid()) return dataLength;
  const uint64_t end = static_cast<uint64_t>(message.getLength()) + 4;
  return end < dataLength ? static_cast<unsigned>(end) : dataLength;
}

inline unsigned bytesLeft(const InputMessage& message, unsigned end) {
  const unsigned at = message.buffer.getOffset();
  return at < end ? end - at : 0;
}

inline uint32_t readLittleEndian(InputMessage& message, unsigned end, unsigned width) {
  if (bytesLeft(message, end) < width) {
    message.buffer.setOffset(end);
    return 0;
  }
  unsigned n = width;
  const unsigned char* bytes =
      reinterpret_cast<const unsigned char*>(message.buffer.accessRawData(n));
  uint32_t value = 0;
  for (unsigned i = n; i-- > 0;) value = (value << 8) | bytes[i];
  return value;
}

inline uint16_t readUInt16(InputMessage& message, unsigned end) {
  return static_cast<uint16_t>(readLittleEndian(message, end, 2));
}

inline uint32_t readUInt32(InputMessage& message, unsigned end) {
  return readLittleEndian(message, end, 4);
}

// A length byte and up to that many bytes, fewer when `end` comes first; the text is taken up to
// its first NUL byte. `complete` is cleared when the string was cut short.
inline std::string readString(InputMessage& message, unsigned end, bool* complete = nullptr) {
  if (bytesLeft(message, end) < 1) {
    if (complete) *complete = false;
    return std::string();
  }
  unsigned one = 1;
  unsigned n = static_cast<unsigned char>(*message.buffer.accessRawData(one));
  if (n > bytesLeft(message, end)) {
    n = bytesLeft(message, end);
    if (complete) *complete = false;
  }
  const char* text = message.buffer.accessRawData(n);
  size_t size = 0;
  while (size < n && text[size] != '\0') ++size;
  return std::string(text, size);
}

}  // namespace internal
}  // namespace tavrinConnector
