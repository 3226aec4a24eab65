// Messages of one TCP connection kept for reuse once they are done with: received frames after
// their handler has let them go, sent frames once written. Reuse saves the two allocations (the
// object and its storage) of every message. Bounded in count and heap, and spares larger than a
// frame of the system's largest kind are dropped, so a connection keeps at most a few hundred KiB
// of spares; the heap they hold (internal::heapCost) counts in the connection's receive and send
// bounds. Loop thread of the connection; nothing is locked.
#pragma once

#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/connector/internal/HeapCost.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace tavrinConnector {
namespace internal {

template <typename Message>
class SparePool {
 public:
  SparePool(size_t maxCount_, size_t maxBytes_) : maxCount(maxCount_), maxBytes(maxBytes_) {}

  // Among the last few spares kept, the one whose storage fits `size` bytes most closely, else
  // the largest of them (its storage grows); empty when there is none. A steady stream of frames
  // of one size finds its fit at once.
  std::unique_ptr<Message> take(size_t size) {
    if (spares.empty()) return nullptr;
    size_t best = spares.size() - 1;
    const size_t first = spares.size() > kSearched ? spares.size() - kSearched : 0;
    for (size_t i = best; i-- > first;) {
      const size_t have = capacityOf(*spares[i]);
      const size_t bestHave = capacityOf(*spares[best]);
      const bool fits = have >= size;
      const bool bestFits = bestHave >= size;
      if ((fits && (!bestFits || have < bestHave)) || (!fits && !bestFits && have > bestHave))
        best = i;
    }
    std::unique_ptr<Message> message = std::move(spares[best]);
    spares[best] = std::move(spares.back());
    spares.pop_back();
    bytes -= heapCost(*message);
    return message;
  }

  // Kept if it fits the bounds, else destroyed. The list grows to the most spares ever kept and
  // stays there, so keeping one allocates only beyond that.
  void give(std::unique_ptr<Message>&& message) { give(std::move(message), maxBytes); }
  // The same under a bound of the caller's, which replaces the pool's own from now on.
  void give(std::unique_ptr<Message>&& message, size_t maxBytes_) {
    maxBytes = maxBytes_;
    if (!message) return;
    const size_t cost = heapCost(*message);
    if (capacityOf(*message) > kMaxSpareCapacity || spares.size() >= maxCount ||
        bytes + cost > maxBytes)
      return;
    bytes += cost;
    spares.push_back(std::move(message));
  }

  void clear() {
    spares.clear();
    bytes = 0;
  }
  // A lower bound gives back the spares above it at once.
  void setMaxBytes(size_t maxBytes_) {
    maxBytes = maxBytes_;
    while (bytes > maxBytes) {
      bytes -= heapCost(*spares.back());
      spares.pop_back();
    }
  }
  size_t size() const { return spares.size(); }
  size_t heapBytes() const { return bytes; }

  // A simple-connector block (64 KiB of payload and its header) still fits; larger storage is
  // given back to the system.
  static constexpr size_t kMaxSpareCapacity = 64 * 1024 + 64;

 private:
  static constexpr size_t kSearched = 4;

  static size_t capacityOf(const InputMessage& message) { return message.buffer.getCapacity(); }
  static size_t capacityOf(const OutputMessage& message) {
    return message.getBuffer().getCapacity();
  }

  size_t maxCount;
  size_t maxBytes;
  std::vector<std::unique_ptr<Message>> spares;
  size_t bytes = 0;
};

}  // namespace internal
}  // namespace tavrinConnector
