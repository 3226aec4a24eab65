#include "tavrincommon/connector/InputMessage.h"

#include <cstdint>
#include <utility>

namespace tavrinConnector {

namespace {

constexpr unsigned char kStartDelimiter = 0xA5;
constexpr unsigned char kEndDelimiter = 0x5A;
constexpr unsigned kMinFrameLength = 11;
constexpr unsigned kLengthFieldEnd = 5;

uint32_t littleEndian32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

}  // namespace

InputMessage::InputMessage() = default;

InputMessage::InputMessage(const char* data, unsigned length_, bool verify)
    : buffer(data, length_) {
  if (verify) verifyMessage();
  reset();
}

InputMessage::InputMessage(MessageBuffer&& buffer_, bool verify) : buffer(std::move(buffer_)) {
  if (verify) verifyMessage();
  reset();
}

InputMessage::~InputMessage() = default;

InputMessage::InputMessage(InputMessage&& other) noexcept
    : buffer(std::move(other.buffer)), valid(other.valid), length(other.length),
      type(other.type), additionalInfo(other.additionalInfo) {
  other.clearValidity();
}

InputMessage& InputMessage::operator=(InputMessage&& other) noexcept {
  if (this != &other) {
    buffer = std::move(other.buffer);
    valid = other.valid;
    length = other.length;
    type = other.type;
    additionalInfo = other.additionalInfo;
    other.clearValidity();
  }
  return *this;
}

// Reads the header and the end delimiter in place: it runs once for every frame received.
bool InputMessage::verifyMessage() {
  clearValidity();
  const unsigned dataLength = buffer.getDataLength();
  if (dataLength < kMinFrameLength) return false;
  const auto* bytes = reinterpret_cast<const unsigned char*>(buffer.getData());
  if (bytes[0] != kStartDelimiter) return false;
  const uint32_t frameLength = littleEndian32(bytes + 1);
  // A length below 6 would put the end delimiter inside the header: such a frame is malformed
  // whatever byte stands there.
  if (frameLength > dataLength - kLengthFieldEnd || frameLength < kMinFrameLength - 5) return false;
  if (bytes[frameLength + 4] != kEndDelimiter) return false;
  buffer.setOffset(kPayloadOffset);
  length = frameLength;
  type = bytes[5];
  additionalInfo = littleEndian32(bytes + 6);
  valid = true;
  return true;
}

void InputMessage::reset() {
  buffer.setOffset(buffer.getDataLength() > kPayloadOffset - 1 ? kPayloadOffset : 0);
}

void InputMessage::clearValidity() {
  valid = false;
  length = 0;
  type = 0;
  additionalInfo = 0;
}

void InputMessage::clearMessage() {
  buffer.clear();
  clearValidity();
}

int8_t InputMessage::getInt8() { return static_cast<int8_t>(readLittleEndian(buffer, 1)); }
int16_t InputMessage::getInt16() { return static_cast<int16_t>(readLittleEndian(buffer, 2)); }
uint16_t InputMessage::getUInt16() { return static_cast<uint16_t>(readLittleEndian(buffer, 2)); }
int32_t InputMessage::getInt32() { return static_cast<int32_t>(readLittleEndian(buffer, 4)); }
int64_t InputMessage::getInt64() { return static_cast<int64_t>(readLittleEndian(buffer, 8)); }
uint64_t InputMessage::getUInt64() { return readLittleEndian(buffer, 8); }

std::string InputMessage::getString() {
  unsigned n = getUInt8(buffer);
  if (n == 0) return std::string();
  const char* text = buffer.accessRawData(n);
  return std::string(text, n);
}

}  // namespace tavrinConnector
