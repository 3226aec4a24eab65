// A first-in first-out queue of outgoing messages, drained through a send function by a worker of
// the scheduler in slices of at most 300 ms, so that a long backlog never stalls the loop. Owns
// its messages and its worker; keeps the scheduler and the logging object. Loop thread only: it
// has no lock.
#pragma once

#include "tavrincommon/common/CallbackSlot.h"
#include "tavrincommon/common/LivenessToken.h"
#include "tavrincommon/scheduler/SimpleWorker.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <vector>

namespace tavrinLog {
class TavrinLogging;
}
namespace tavrinScheduler {
class Scheduler;
}

namespace tavrinCommon {

class SendQueue {
 public:
  // Given the first queued message: sends it and returns true, or returns false when it cannot be
  // sent now (the message stays first and draining stops until the next push).
  using SendCallback = std::function<bool(std::vector<unsigned char>&)>;

  static constexpr int kSliceMs = 300;

  // `origin` names the worker and is the origin of the queue's messages.
  SendQueue(int origin, tavrinScheduler::Scheduler* scheduler, const SendCallback& sendCallback,
            tavrinLog::TavrinLogging* logging);
  SendQueue(const SendQueue&) = delete;
  SendQueue& operator=(const SendQueue&) = delete;

  // An empty callback is replaced by one that drops each message as if it had been sent. Also from
  // inside the send callback: the new one sends from the next message on.
  void setSendCallback(const SendCallback& sendCallback);
  // Appends the message at the end and schedules the worker.
  void push(std::vector<unsigned char>&& message);
  void push(const std::vector<unsigned char>& message);

  // One slice of draining: Finished when the queue ran empty or the callback refused a message,
  // Continue when the slice ended with messages left.
  tavrinScheduler::Worker::Result doWork();

  size_t size() const { return queue.size(); }
  bool empty() const { return queue.empty(); }
  // Also from inside the send callback: the message it was given is gone then, sent or not.
  void clear() {
    queue.clear();
    ++clears;
  }

 private:
  tavrinLog::TavrinLogging* logging;
  tavrinScheduler::SimpleWorker worker;
  tavrinScheduler::Scheduler* scheduler;
  // Shared_ptr-held, so that the callback may replace itself while it runs; a call (one per
  // message) costs a reference count.
  CallbackSlot<SendCallback> sendCallback;
  std::deque<std::vector<unsigned char>> queue;
  // Tells doWork that the message it handed to the callback was cleared away meanwhile.
  unsigned clears = 0;
  LivenessToken liveness;
};

}  // namespace tavrinCommon
