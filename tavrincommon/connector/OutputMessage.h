// A connector frame being built: the sender appends payload fields, then finalizes the frame with
// its type and additional-info word. Owns its buffer; after finalizeMessage the bytes from the
// start of the buffer up to its cursor are the frame. Movable, not copyable. No thread rule.
#pragma once

#include "tavrincommon/connector/MessageBuffer.h"

#include <string>

namespace tavrinConnector {

class OutputMessage {
 public:
  static constexpr unsigned kHeaderSize = 10;

  OutputMessage();
  explicit OutputMessage(unsigned payloadSize);
  virtual ~OutputMessage();
  OutputMessage(OutputMessage&& other) noexcept;
  OutputMessage& operator=(OutputMessage&& other) noexcept;
  OutputMessage(const OutputMessage&) = delete;
  OutputMessage& operator=(const OutputMessage&) = delete;

  // Empties the payload and reserves the header's place again.
  void clear();

  // Only the low 8 bits are written.
  void putUInt8(int value);
  void putUInt16(unsigned short value);
  void putUInt32(unsigned int value);
  void putUInt64(unsigned long long value);
  // A length byte and the text; text beyond 255 bytes is cut off.
  void putString(const char* text, unsigned length);
  void putString(const char* text);
  void putString(const std::string& text) {
    putString(text.data(), static_cast<unsigned>(text.size()));
  }

  void finalizeMessage(unsigned char type, unsigned int additionalInfo);
  bool isFinalized() const { return finalized; }

  // The frame once finalized: getData() .. getData() + getFrameLength().
  const char* getData() const { return buffer.getData(); }
  unsigned getFrameLength() const { return buffer.getOffset(); }
  MessageBuffer& getBuffer() { return buffer; }
  const MessageBuffer& getBuffer() const { return buffer; }

 private:
  void putLittleEndian(unsigned long long value, unsigned width);

  MessageBuffer buffer;
  bool finalized = false;
};

}  // namespace tavrinConnector
