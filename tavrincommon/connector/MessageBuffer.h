// A growable byte buffer with one read/write cursor: the storage under every connector frame.
// Owns its storage (capacity + 1 bytes); grows by doubling and never shrinks while it lives.
// Movable, not copyable; a moved-from buffer owns nothing. No thread rule of its own.
#pragma once

#include <cstdint>
#include <cstring>

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

  // The small operations are inline: the receive path runs them a few times per frame.
  void write(const char* data, unsigned n) {
    if (n == 0) return;
    ensureBufferSpace(n);
    std::memcpy(cursor, data, n);
    advanceWritten(n);
  }
  void setBytes(unsigned char value, unsigned n) {
    if (n == 0) return;
    if (n > static_cast<unsigned>(capacityEnd - cursor)) {
      setBytesGrowing(value, n);
      return;
    }
    std::memset(cursor, value, n);
    advanceWritten(n);
  }
  // Copies at most the bytes left before the end of the data; returns how many it copied.
  unsigned read(void* out, unsigned n) {
    const unsigned m = n < getRemaining() ? n : getRemaining();
    if (m > 0) std::memcpy(out, cursor, m);
    cursor += m;
    return m;
  }
  // Returns the cursor and steps over up to `n` bytes of data; `n` is lowered to what was there.
  char* accessRawData(unsigned& n) {
    char* at = cursor;
    if (n > getRemaining()) n = getRemaining();
    cursor += n;
    return at;
  }

  // Targets outside the data are ignored.
  void setOffset(unsigned offset) {
    if (offset <= getDataLength()) cursor = begin + offset;
  }
  void moveOffset(int delta) {
    const long target = static_cast<long>(getOffset()) + delta;
    if (target >= 0 && target <= static_cast<long>(getDataLength())) cursor = begin + target;
  }
  unsigned getAndThenSetOffset(unsigned offset) {
    const unsigned previous = getOffset();
    setOffset(offset);
    return previous;
  }

  void ensureBufferSpace(unsigned n) {
    if (static_cast<size_t>(capacityEnd - cursor) < n) growFor(n);
  }
  // Room for `n` more bytes at the cursor, in one allocation of exactly that size: for a frame
  // whose size is known, so that a 64 KiB frame does not take 128 KiB (and a mapping of its own).
  void reserveExact(unsigned n) {
    if (static_cast<size_t>(capacityEnd - cursor) < n) grow(static_cast<uint64_t>(getOffset()) + n);
  }
  void doubleBuffer();
  // For a reader that fills the buffer itself: room for `n` bytes at the cursor, then
  // commitWritten with what was actually put there.
  char* prepareWrite(unsigned n) {
    ensureBufferSpace(n);
    return cursor;
  }
  void commitWritten(unsigned n) { advanceWritten(n); }

  unsigned getOffset() const { return static_cast<unsigned>(cursor - begin); }
  unsigned getDataLength() const { return static_cast<unsigned>(dataEnd - begin); }
  unsigned getCapacity() const { return static_cast<unsigned>(capacityEnd - begin); }
  unsigned getRemaining() const { return static_cast<unsigned>(dataEnd - cursor); }
  const char* getData() const { return begin; }
  char* getData() { return begin; }

 private:
  void allocate(unsigned size);
  void growFor(unsigned n);
  void grow(uint64_t capacity);
  void release();
  void setBytesGrowing(unsigned char value, unsigned n);
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
