// A growable byte buffer with one read/write cursor: the storage under every connector frame.
// Owns its storage (capacity + 1 bytes); grows by doubling and never shrinks while it lives.
// Movable, not copyable; a moved-from buffer owns nothing. No thread rule of its own.
#pragma once

namespace tavrinConnector {

class MessageBuffer {
 public:
  static constexpr unsigned DEFAULT_INIT_SIZE = 1024;
  // Room for the smallest frame.
  static constexpr unsigned kMinSize = 11;

  MessageBuffer();
  explicit MessageBuffer(unsigned size);
  // The data is written, so the cursor stands at its end.
  MessageBuffer(const char* data, unsigned length);
  virtual ~MessageBuffer();
  MessageBuffer(MessageBuffer&& other) noexcept;
  MessageBuffer& operator=(MessageBuffer&& other) noexcept;
  MessageBuffer(const MessageBuffer&) = delete;
  MessageBuffer& operator=(const MessageBuffer&) = delete;

  // Keeps the storage if it holds `size` bytes, else replaces it; empties the data either way.
  void reset(unsigned size);
  void clear() { cursor = dataEnd = begin; }
  void resetToEmpty();

  void write(const char* data, unsigned n);
  void setBytes(unsigned char value, unsigned n);
  // Copies at most the bytes left before the end of the data; returns how many it copied.
  unsigned read(void* out, unsigned n);
  // Returns the cursor and steps over up to `n` bytes of data; `n` is lowered to what was there.
  char* accessRawData(unsigned& n);

  // Targets outside the data are ignored.
  void setOffset(unsigned offset);
  void moveOffset(int delta);
  unsigned getAndThenSetOffset(unsigned offset);

  void ensureBufferSpace(unsigned n);
  void doubleBuffer();

  unsigned getOffset() const { return static_cast<unsigned>(cursor - begin); }
  unsigned getDataLength() const { return static_cast<unsigned>(dataEnd - begin); }
  unsigned getCapacity() const { return static_cast<unsigned>(capacityEnd - begin); }
  unsigned getRemaining() const { return static_cast<unsigned>(dataEnd - cursor); }
  const char* getData() const { return begin; }
  char* getData() { return begin; }

 private:
  void allocate(unsigned size);
  void release();
  // Raises the high-water mark after a write moved the cursor past it.
  void advanceWritten(unsigned n) {
    cursor += n;
    if (cursor > dataEnd) dataEnd = cursor;
  }

  char* begin = nullptr;
  char* cursor = nullptr;
  char* dataEnd = nullptr;
  char* capacityEnd = nullptr;
};

}  // namespace tavrinConnector
