// A stored callback that may be replaced, or whose owner may be destroyed, while it runs. Each
// call holds a reference to the function it started with, so that function lives until it
// returns; the replacement applies from the next call on. A call costs a reference count up and
// down and no allocation, so it suits per-message paths; a replacement allocates. Not locked:
// calls and replacements under the owner's thread rule. The parameter is a signature or the
// std::function type of the owner's callback: CallbackSlot<void(int)>, CallbackSlot<DataCallback>.
#pragma once

#include <functional>
#include <memory>
#include <utility>

namespace tavrinCommon {

template <typename Signature>
class CallbackSlot;

template <typename R, typename... Args>
class CallbackSlot<R(Args...)> {
 public:
  using Function = std::function<R(Args...)>;

  CallbackSlot() = default;
  CallbackSlot(Function function)  // NOLINT(google-explicit-constructor): a slot is set like one
      : held(std::make_shared<const Function>(std::move(function))) {}
  CallbackSlot& operator=(Function function) {
    held = std::make_shared<const Function>(std::move(function));
    return *this;
  }

  // Holds `function` as it is given: slots that an owner always replaces together may share one
  // allocation (aliasing shared_ptrs into one object that keeps all their functions).
  void share(std::shared_ptr<const Function> function) { held = std::move(function); }

  explicit operator bool() const { return held && *held; }
  // For code that hands the stored function on; such a reference is not kept alive by the slot.
  operator const Function&() const {  // NOLINT(google-explicit-constructor)
    static const Function kEmpty;
    return held ? *held : kEmpty;
  }

  // An empty slot throws std::bad_function_call, as an empty std::function does.
  R operator()(Args... args) const {
    const std::shared_ptr<const Function> running = held;
    if (!running) throw std::bad_function_call();
    return (*running)(std::forward<Args>(args)...);
  }

 private:
  std::shared_ptr<const Function> held;
};

template <typename R, typename... Args>
class CallbackSlot<std::function<R(Args...)>> : public CallbackSlot<R(Args...)> {
 public:
  using CallbackSlot<R(Args...)>::CallbackSlot;
  using CallbackSlot<R(Args...)>::operator=;
};

}  // namespace tavrinCommon
