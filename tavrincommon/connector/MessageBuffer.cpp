#include "tavrincommon/connector/MessageBuffer.h"

#include <cstring>

namespace tavrinConnector {

MessageBuffer::MessageBuffer() { allocate(DEFAULT_INIT_SIZE); }

MessageBuffer::MessageBuffer(unsigned size) { allocate(size > kMinSize ? size : kMinSize); }

MessageBuffer::MessageBuffer(const char* data, unsigned length) {
  allocate(length >= kMinSize ? length : kMinSize);
  write(data, length);
}

MessageBuffer::~MessageBuffer() { release(); }

MessageBuffer::MessageBuffer(MessageBuffer&& other) noexcept
    : begin(other.begin), cursor(other.cursor), dataEnd(other.dataEnd),
      capacityEnd(other.capacityEnd) {
  other.begin = other.cursor = other.dataEnd = other.capacityEnd = nullptr;
}

MessageBuffer& MessageBuffer::operator=(MessageBuffer&& other) noexcept {
  if (this != &other) {
    release();
    begin = other.begin;
    cursor = other.cursor;
    dataEnd = other.dataEnd;
    capacityEnd = other.capacityEnd;
    other.begin = other.cursor = other.dataEnd = other.capacityEnd = nullptr;
  }
  return *this;
}

void MessageBuffer::allocate(unsigned size) {
  // One spare byte so that a full buffer can still be handed out as a terminated string.
  begin = new char[static_cast<size_t>(size) + 1];
  cursor = dataEnd = begin;
  capacityEnd = begin + size;
}

void MessageBuffer::release() {
  delete[] begin;
  begin = cursor = dataEnd = capacityEnd = nullptr;
}

void MessageBuffer::reset(unsigned size) {
  if (begin && getCapacity() >= size) {
    clear();
    return;
  }
  release();
  allocate(size);
}

void MessageBuffer::resetToEmpty() { release(); }

void MessageBuffer::write(const char* data, unsigned n) {
  if (n == 0) return;
  ensureBufferSpace(n);
  std::memcpy(cursor, data, n);
  advanceWritten(n);
}

void MessageBuffer::setBytes(unsigned char value, unsigned n) {
  if (n == 0) return;
  ensureBufferSpace(n);
  std::memset(cursor, value, n);
  advanceWritten(n);
}

unsigned MessageBuffer::read(void* out, unsigned n) {
  unsigned m = n < getRemaining() ? n : getRemaining();
  if (m > 0) std::memcpy(out, cursor, m);
  cursor += m;
  return m;
}

char* MessageBuffer::accessRawData(unsigned& n) {
  char* at = cursor;
  if (n > getRemaining()) n = getRemaining();
  cursor += n;
  return at;
}

void MessageBuffer::setOffset(unsigned offset) {
  if (offset <= getDataLength()) cursor = begin + offset;
}

void MessageBuffer::moveOffset(int delta) {
  long target = static_cast<long>(getOffset()) + delta;
  if (target >= 0 && target <= static_cast<long>(getDataLength())) cursor = begin + target;
}

unsigned MessageBuffer::getAndThenSetOffset(unsigned offset) {
  unsigned previous = getOffset();
  setOffset(offset);
  return previous;
}

void MessageBuffer::ensureBufferSpace(unsigned n) {
  while (static_cast<size_t>(capacityEnd - cursor) < n) doubleBuffer();
}

void MessageBuffer::doubleBuffer() {
  if (!begin) {
    reset(DEFAULT_INIT_SIZE);
    return;
  }
  const size_t capacity = static_cast<size_t>(getCapacity()) * 2;
  const size_t offset = getOffset();
  const size_t length = getDataLength();
  char* storage = new char[capacity + 1];
  // Bytes from the cursor on are about to be overwritten by the write that needed the room.
  std::memcpy(storage, begin, offset);
  delete[] begin;
  begin = storage;
  cursor = begin + offset;
  dataEnd = begin + length;
  capacityEnd = begin + capacity;
}

}  // namespace tavrinConnector
