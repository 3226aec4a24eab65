// One TCP connection of a connector to one peer, carrying any number of logical connections.
// Owns the transceiver (and through it the socket), the frames received but not yet fetched and
// the one timer that closes a connection gone idle or silent; keeps the scheduler and the
// logging object. Loop thread only (or with the loop mutex held); nothing is locked.
#pragma once

#include "tavrincommon/common/CallbackSlot.h"
#include "tavrincommon/connector/TCPTransceiver.h"
#include "tavrincommon/scheduler/IOWatchItem.h"
#include "tavrincommon/scheduler/SimpleTimer.h"

#include <functional>
#include <iosfwd>
#include <memory>
#include <vector>

namespace tavrinScheduler {
class Scheduler;
}

namespace tavrinConnector {

namespace internal {
template <typename T>
class RingQueue;
}  // namespace internal

class SingleTCPConnectionEndpoint {
 public:
  // Frames received and not yet fetched, counted and by the heap they hold, before reading pauses
  // (it resumes below half of both). A second of small frames for a worker that handles them in
  // slices, and room for a frame of the default maximum length. The heap bound also covers the
  // spare frames kept for reuse: queue and spares together never hold more.
  static constexpr size_t kDefaultMaxReceiveQueueFrames = 1024;
  static constexpr size_t kDefaultMaxReceiveQueueBytes = 1024 * 1024 + 64 * 1024;

  // `eventCallback` is called whenever a frame has been queued or the connection has ended.
  // A period below 1 ms means: no such timer.
  SingleTCPConnectionEndpoint(const tavrinNetwork::SimpleEndpoint& peer,
                              std::unique_ptr<tavrinNetwork::TCPSocketInterface>&& socket,
                              bool connected, std::function<void()> eventCallback,
                              tavrinScheduler::Scheduler* scheduler, int idleTimeoutMs,
                              int keepAliveTimeoutMs, tavrinLog::TavrinLogging* logging);
  virtual ~SingleTCPConnectionEndpoint();
  SingleTCPConnectionEndpoint(const SingleTCPConnectionEndpoint&) = delete;
  SingleTCPConnectionEndpoint& operator=(const SingleTCPConnectionEndpoint&) = delete;

  // The oldest queued frame; empty when none is queued. Frames that arrived before the connection
  // ended stay queued until fetched or until disconnect(): the peer's last words (a disconnect
  // with its reason) often come right before its close.
  std::unique_ptr<InputMessage> fetchReceivedMessage();
  // A fetched frame that its handler has let go, for the transceiver to reuse.
  void recycle(std::unique_ptr<InputMessage>&& message) { transceiver.recycle(std::move(message)); }
  // 0 restores a default.
  void setReceiveQueueBounds(size_t maxFrames, size_t maxBytes);
  size_t getReceiveQueueBytes() const { return receiveQueueBytes; }
  // How often reading was paused because the queue was full.
  unsigned getReadPauses() const { return readPauses; }

  // The first id switches the timer from idle to keep-alive.
  void addLogicalConnection(unsigned int id);
  // True when the last id is gone and the idle period has started.
  bool removeLogicalConnection(unsigned int id);
  bool hasLogicalConnection(unsigned int id) const;
  // In ascending order.
  const std::vector<unsigned int>& getLogicalConnections() const { return logicalConnections; }

  // Restarts the keep-alive period; `first` also starts a new maximum of the time between resets.
  void resetKeepAliveTimeout(bool first);
  // A failure closes the connection.
  bool setDscp(int dscp);
  bool isMptcpEnabled() const;
  void disconnect();
  // Each line starts with `prefix`.
  void dump(std::ostream& out, const char* prefix) const;

  TCPTransceiver& getTransceiver() { return transceiver; }
  const TCPTransceiver& getTransceiver() const { return transceiver; }
  bool isConnected() const;
  size_t getReceiveQueueSize() const;
  bool isTimerArmed() const { return keepAliveTimer.isArmed(); }
  bool hasTimerFired() const { return keepAliveTimer.hasFired(); }
  int getMaxKeepAliveTime() const { return maxKeepAliveTime; }

 private:
  void receiveMessage(std::unique_ptr<InputMessage>&& message);
  void signalDisconnect();
  void registerSocketEvent(int fd, int events, TCPTransceiver::SocketCallback callback);
  void changeSocketEvent(int fd, int events);
  void keepAliveTimerExpired();
  void startTimer(int periodMs);
  void startIdlePeriod();
  void dataReceived();
  // Spare received frames may hold what the queue leaves of its heap bound. Inline: it runs twice
  // per frame.
  void fitSparesUnderBound() {
    transceiver.setMaxSpareInputBytes(
        receiveQueueBytes < maxReceiveQueueBytes ? maxReceiveQueueBytes - receiveQueueBytes : 0);
  }

  tavrinLog::TavrinLogging* logging;
  tavrinScheduler::Scheduler* scheduler;
  // Shared_ptr-held, so that it outlives an endpoint destroyed from inside it; a call costs a
  // reference count, affordable once per frame.
  tavrinCommon::CallbackSlot<void()> eventCallback;
  tavrinScheduler::IOWatchHandle ioHandle;
  TCPTransceiver transceiver;
  std::unique_ptr<internal::RingQueue<std::unique_ptr<InputMessage>>> receiveQueue;
  size_t receiveQueueBytes = 0;
  size_t maxReceiveQueueFrames = kDefaultMaxReceiveQueueFrames;
  size_t maxReceiveQueueBytes = kDefaultMaxReceiveQueueBytes;
  unsigned readPauses = 0;
  // Sorted: a few bytes per id where a set would take a node of its own.
  std::vector<unsigned int> logicalConnections;
  int idleTimeoutMs;
  int keepAliveTimeoutMs;
  tavrinScheduler::SimpleTimer keepAliveTimer;
  // When the keep-alive period was last restarted, in ms of the monotonic clock. Reads only move
  // this; the timer, armed once per period, finds out on expiry how much of it remains.
  uint32_t keepAliveStartMs = 0;
  bool keepAlivePeriod = false;
  int maxKeepAliveTime = 0;
};

}  // namespace tavrinConnector
