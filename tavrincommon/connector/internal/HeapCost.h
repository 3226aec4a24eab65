// What a queued frame really holds on the heap, for the bounds that a peer can push against. A
// queued 11-byte frame costs more than ten times its wire size (the message object, its storage
// and the queue's slot, each with the allocator's own header), so bounds count this, not frame
// bytes. No state; any thread.
#pragma once

#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"

#include <cstddef>

namespace tavrinConnector {
namespace internal {

// The allocator's header and alignment slack per allocation, rounded up (glibc: 8 or 16 bytes).
constexpr size_t kAllocationOverhead = 16;

// The message object, its buffer's storage (capacity + 1) and the queue slot that points at it.
inline size_t heapCost(const OutputMessage& message) {
  return sizeof(OutputMessage) + message.getBuffer().getCapacity() + 1 + 2 * kAllocationOverhead +
         sizeof(void*);
}
inline size_t heapCost(const InputMessage& message) {
  return sizeof(InputMessage) + message.buffer.getCapacity() + 1 + 2 * kAllocationOverhead +
         sizeof(void*);
}

}  // namespace internal
}  // namespace tavrinConnector
