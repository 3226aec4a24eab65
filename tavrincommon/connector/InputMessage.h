// A received connector frame: verification of its delimiters and length, and readers that hand
// out the payload fields in the order they were written. Owns its buffer, which is public so that
// handlers and the transceiver can use the static readers on it. Readers never pass the end of
// the data: a reader short of bytes returns 0 (getString: the bytes that are there).
// Movable, not copyable; a moved-from message is empty and not valid. No thread rule.
#pragma once

#include "tavrincommon/connector/MessageBuffer.h"

#include <cstdint>
#include <string>

namespace tavrinConnector {

class InputMessage {
 public:
  static constexpr unsigned kPayloadOffset = 10;

  InputMessage();
  InputMessage(const char* data, unsigned length, bool verify);
  InputMessage(MessageBuffer&& buffer, bool verify);
  virtual ~InputMessage();
  InputMessage(InputMessage&& other) noexcept;
  InputMessage& operator=(InputMessage&& other) noexcept;
  InputMessage(const InputMessage&) = delete;
  InputMessage& operator=(const InputMessage&) = delete;

  // On success the cursor stands at the first payload byte; on failure it is left where it was.
  bool verifyMessage();
  // Cursor to the first payload byte, or to the start of data too short to have one.
  void reset();
  void clearValidity();
  void clearMessage();

  static uint8_t getUInt8(MessageBuffer& from) {
    return static_cast<uint8_t>(readLittleEndian(from, 1));
  }
  static uint32_t getUInt32(MessageBuffer& from) {
    return static_cast<uint32_t>(readLittleEndian(from, 4));
  }
  int8_t getInt8();
  int16_t getInt16();
  uint16_t getUInt16();
  int32_t getInt32();
  int64_t getInt64();
  uint64_t getUInt64();
  std::string getString();

  bool isValid() const { return valid; }
  uint32_t getLength() const { return length; }
  uint8_t getType() const { return type; }
  uint32_t getAdditionalInfo() const { return additionalInfo; }

  MessageBuffer buffer;

 private:
  // A field cut short by the end of the data reads as 0, with the cursor at the end.
  static uint64_t readLittleEndian(MessageBuffer& from, unsigned width) {
    unsigned n = width;
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(from.accessRawData(n));
    if (n < width) return 0;
    uint64_t value = 0;
    for (unsigned i = width; i-- > 0;) value = (value << 8) | bytes[i];
    return value;
  }

  bool valid = false;
  uint32_t length = 0;
  uint8_t type = 0;
  uint32_t additionalInfo = 0;
};

}  // namespace tavrinConnector
