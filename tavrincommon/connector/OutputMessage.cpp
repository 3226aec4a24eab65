#include "tavrincommon/connector/OutputMessage.h"

#include <cstring>
#include <utility>

namespace tavrinConnector {

namespace {
constexpr unsigned kMaxStringLength = 255;
}  // namespace

OutputMessage::OutputMessage() { buffer.setBytes(0, kHeaderSize); }

OutputMessage::OutputMessage(unsigned payloadSize)
    : buffer(payloadSize + MessageBuffer::kMinSize < payloadSize
                 ? payloadSize  // wrapped around: take what was asked, growth does the rest
                 : payloadSize + MessageBuffer::kMinSize) {
  buffer.setBytes(0, kHeaderSize);
}

OutputMessage::~OutputMessage() = default;

OutputMessage::OutputMessage(OutputMessage&& other) noexcept
    : buffer(std::move(other.buffer)), finalized(other.finalized) {
  other.finalized = false;
}

OutputMessage& OutputMessage::operator=(OutputMessage&& other) noexcept {
  if (this != &other) {
    buffer = std::move(other.buffer);
    finalized = other.finalized;
    other.finalized = false;
  }
  return *this;
}

void OutputMessage::clear() {
  buffer.clear();
  finalized = false;
  buffer.setBytes(0, kHeaderSize);
}

void OutputMessage::putLittleEndian(unsigned long long value, unsigned width) {
  char bytes[8];
  for (unsigned i = 0; i < width; ++i) bytes[i] = static_cast<char>((value >> (8 * i)) & 0xFF);
  buffer.write(bytes, width);
}

void OutputMessage::putUInt8(int value) {
  const char byte = static_cast<char>(value & 0xFF);
  buffer.write(&byte, 1);
}

void OutputMessage::putUInt16(unsigned short value) { putLittleEndian(value, 2); }
void OutputMessage::putUInt32(unsigned int value) { putLittleEndian(value, 4); }
void OutputMessage::putUInt64(unsigned long long value) { putLittleEndian(value, 8); }

void OutputMessage::putString(const char* text, unsigned length) {
  if (length > kMaxStringLength) length = kMaxStringLength;
  putUInt8(static_cast<int>(length));
  buffer.write(text, length);
}

void OutputMessage::putString(const char* text) {
  putString(text, static_cast<unsigned>(std::strlen(text)));
}

void OutputMessage::finalizeMessage(unsigned char type, unsigned int additionalInfo) {
  // Finalizing again rewrites the same frame: the end delimiter's place is reused.
  const unsigned written = buffer.getOffset() - (finalized ? 1 : 0);
  unsigned length = 7;
  unsigned endOffset = 11;
  if (written > kHeaderSize - 1) {
    length = written - 4;
    endOffset = written;
  } else {
    // Reached only after the header's place was given back by hand; the frame still gets its
    // fixed layout, with a zero as its single payload byte.
    buffer.setOffset(0);
    buffer.setBytes(0, endOffset);
  }
  // The header's place is there already: written in one go, as every frame sent passes here.
  char* frame = buffer.getData();
  frame[0] = static_cast<char>(0xA5);
  for (unsigned i = 0; i < 4; ++i) frame[1 + i] = static_cast<char>((length >> (8 * i)) & 0xFF);
  frame[5] = static_cast<char>(type);
  for (unsigned i = 0; i < 4; ++i)
    frame[6 + i] = static_cast<char>((additionalInfo >> (8 * i)) & 0xFF);
  buffer.setOffset(endOffset);
  putUInt8(0x5A);
  finalized = true;
}

}  // namespace tavrinConnector
