#include "tavrincommon/connector/InputMessage.h"

#include <utility>

namespace tavrinConnector {

namespace {

constexpr unsigned char kStartDelimiter = 0xA5;
constexpr unsigned char kEndDelimiter = 0x5A;
constexpr unsigned kMinFrameLength = 11;
constexpr unsigned kLengthFieldEnd = 5;

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

bool InputMessage::verifyMessage() {
  clearValidity();
  const unsigned dataLength = buffer.getDataLength();
  if (dataLength < kMinFrameLength) return false;
  const unsigned previousOffset = buffer.getAndThenSetOffset(0);
  bool ok = getUInt8(buffer) == kStartDelimiter;
  uint32_t frameLength = 0;
  uint8_t frameType = 0;
  uint32_t frameInfo = 0;
  if (ok) {
    frameLength = getUInt32(buffer);
    // A length below 6 would put the end delimiter inside the header: such a frame is malformed
    // whatever byte stands there.
    ok = frameLength <= dataLength - kLengthFieldEnd && frameLength >= kMinFrameLength - 5;
  }
  if (ok) {
    frameType = getUInt8(buffer);
    frameInfo = getUInt32(buffer);
    buffer.setOffset(frameLength + 4);
    ok = getUInt8(buffer) == kEndDelimiter;
  }
  if (!ok) {
    buffer.setOffset(previousOffset);
    return false;
  }
  buffer.setOffset(kPayloadOffset);
  length = frameLength;
  type = frameType;
  additionalInfo = frameInfo;
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
