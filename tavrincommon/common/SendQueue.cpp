#include "tavrincommon/common/SendQueue.h"

#include "tavrincommon/common/Clock.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <utility>

namespace tavrinCommon {

using tavrinLog::SeverityLevel;
using tavrinScheduler::Worker;

namespace {

bool atOrAfter(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec >= b.tv_nsec;
}

}  // namespace

SendQueue::SendQueue(int origin, tavrinScheduler::Scheduler* scheduler_,
                     const SendCallback& sendCallback_, tavrinLog::TavrinLogging* logging_)
    : logging(logging_), worker(scheduler_, origin), scheduler(scheduler_) {
  worker.setFunction([this] { return doWork(); });
  setSendCallback(sendCallback_);
}

void SendQueue::setSendCallback(const SendCallback& sendCallback_) {
  sendCallback = sendCallback_ ? sendCallback_
                               : SendCallback([](std::vector<unsigned char>&) { return true; });
}

void SendQueue::push(std::vector<unsigned char>&& message) {
  queue.push_back(std::move(message));
  if (scheduler) scheduler->addWorker(&worker);
}

void SendQueue::push(const std::vector<unsigned char>& message) {
  push(std::vector<unsigned char>(message));
}

Worker::Result SendQueue::doWork() {
  timespec sliceEnd = system::Clock::getTime(system::Clock::Monotonic);
  sliceEnd.tv_nsec += kSliceMs * 1000000L;
  if (sliceEnd.tv_nsec >= 1000000000L) {
    sliceEnd.tv_sec += sliceEnd.tv_nsec / 1000000000L;
    sliceEnd.tv_nsec %= 1000000000L;
  }
  LivenessToken::Watch alive(liveness);
  for (;;) {
    if (queue.empty()) return Worker::Finished;
    const unsigned clearsBefore = clears;
    const bool sent = sendCallback(queue.front());
    // The callback may have destroyed the queue, or cleared it (the message is gone then).
    if (!alive || !sent) return Worker::Finished;
    if (clears == clearsBefore) queue.pop_front();
    if (atOrAfter(system::Clock::getTime(system::Clock::Monotonic), sliceEnd)) break;
  }
  TAVRIN_LOG(logging, worker.getOrigin(), SeverityLevel::Debug,
             "SendQueue worker took longer than %dms, yielding (%zu messages remaining in queue)",
             kSliceMs, queue.size());
  return Worker::Continue;
}

}  // namespace tavrinCommon
