#include "tavrincommon/connector/MessageBuffer.h"

#include <cstring>
#include <limits>
#include <new>

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

void MessageBuffer::setBytesGrowing(unsigned char value, unsigned n) {
  ensureBufferSpace(n);
  std::memset(cursor, value, n);
  advanceWritten(n);
}

void MessageBuffer::growFor(unsigned n) {
  // The capacity that repeated doubling (from the default size when there is no storage) would
  // reach, in one step: a large write copies the old bytes once instead of once per doubling.
  const uint64_t needed = static_cast<uint64_t>(getOffset()) + n;
  uint64_t capacity = begin ? getCapacity() : DEFAULT_INIT_SIZE;
  while (capacity < needed) capacity *= 2;
  grow(capacity);
}

void MessageBuffer::doubleBuffer() {
  if (!begin) {
    reset(DEFAULT_INIT_SIZE);
    return;
  }
  grow(static_cast<uint64_t>(getCapacity()) * 2);
}

void MessageBuffer::grow(uint64_t capacity) {
  // Capacities and offsets are unsigned: a buffer stays below 4 GiB on every target.
  if (capacity > std::numeric_limits<unsigned>::max() - 1u) throw std::bad_alloc();
  const size_t offset = getOffset();
  const size_t length = getDataLength();
  char* storage = new char[static_cast<size_t>(capacity) + 1];
  // Bytes from the cursor on are about to be overwritten by the write that needed the room.
  if (offset > 0) std::memcpy(storage, begin, offset);
  delete[] begin;
  begin = storage;
  cursor = begin + offset;
  dataEnd = begin + length;
  capacityEnd = begin + capacity;
}

}  // namespace tavrinConnector
