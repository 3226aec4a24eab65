// A first-in first-out queue on one growing array, for the per-message queues of the connector:
// unlike std::deque, which allocates and frees a block every few dozen messages even when it
// never holds more than one, it allocates only when it holds more than ever before. The array
// doubles and is never shrunk; clear() destroys the elements and keeps it. No thread rule.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

namespace tavrinConnector {
namespace internal {

template <typename T>
class RingQueue {
 public:
  bool empty() const { return count == 0; }
  size_t size() const { return count; }
  // Slots allocated, for the heap a bound counts.
  size_t capacity() const { return slots.size(); }

  T& front() { return slots[head]; }
  const T& front() const { return slots[head]; }
  T& back() { return slots[(head + count - 1) & (slots.size() - 1)]; }

  template <typename... Args>
  void emplace_back(Args&&... args) {
    if (count == slots.size()) grow();
    slots[(head + count) & (slots.size() - 1)] = T(std::forward<Args>(args)...);
    ++count;
  }
  void push_back(T&& value) { emplace_back(std::move(value)); }
  // The slot is emptied, so that it holds nothing of what left it.
  void pop_front() {
    slots[head] = T();
    head = (head + 1) & (slots.size() - 1);
    --count;
  }
  void pop_back() {
    back() = T();
    --count;
  }
  void clear() {
    while (count > 0) pop_front();
    head = 0;
  }

 private:
  void grow() {
    std::vector<T> larger(slots.empty() ? kInitialSlots : 2 * slots.size());
    for (size_t i = 0; i < count; ++i)
      larger[i] = std::move(slots[(head + i) & (slots.size() - 1)]);
    slots.swap(larger);
    head = 0;
  }

  static constexpr size_t kInitialSlots = 8;  // a power of two, as every later size
  std::vector<T> slots;
  size_t head = 0;
  size_t count = 0;
};

}  // namespace internal
}  // namespace tavrinConnector
