// Moves connector frames over one TCP socket: cuts the received stream into frames, verifies and
// delivers each in stream order, queues outgoing frames and writes them across partial writes,
// finishes a non-blocking connect, and tears the connection down on the first error. Owns the
// socket and the queued messages; keeps the logging object. Loop thread only; nothing is locked.
#pragma once

#include "tavrincommon/common/CallbackSlot.h"
#include "tavrincommon/common/LivenessToken.h"
#include "tavrincommon/connector/MessageBuffer.h"
#include "tavrincommon/network/SimpleEndpoint.h"
#include "tavrincommon/scheduler/IOWatchItem.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace tavrinLog {
class LogRateLimiter;
class TavrinLogging;
}
namespace tavrinNetwork {
class TCPSocketInterface;
}

namespace tavrinConnector {

class InputMessage;
class OutputMessage;
namespace internal {
template <typename Message>
class SparePool;
template <typename T>
class RingQueue;
}  // namespace internal

class TCPTransceiver {
 public:
  using ReceiveCallback = std::function<void(std::unique_ptr<InputMessage>&&)>;
  using SocketCallback = std::function<tavrinScheduler::IOWatchItem::Result(int)>;
  // An empty callback means that the socket is no longer to be watched.
  using RegisterSocketEvent = std::function<void(int fd, int events, SocketCallback callback)>;
  using ChangeSocketEvent = std::function<void(int fd, int events)>;

  static constexpr int kReadChunkSize = 2048;
  // Whole frames (header and delimiters included) above this size close the connection. The
  // largest frames this system sends are an announcement picture (at most 61440 bytes of payload)
  // and a simple-connector block (64 KiB plus its header); 1 MiB leaves room for applications
  // with larger messages of their own, which can raise it per connection.
  static constexpr uint32_t kDefaultMaxFrameLength = 1024 * 1024;
  // Heap that queued outgoing frames may hold (counted as internal::heapCost) before the peer is
  // taken for a slow consumer and its connection closed: 2 MiB is a second of a busy 16 Mbit/s
  // link, far beyond what a peer that reads ever leaves queued, and small beside a device's RAM.
  static constexpr size_t kDefaultMaxSendQueueBytes = 2 * 1024 * 1024;
  // A frame up to this size gets all of its storage when its header arrives: the common frames
  // then take one allocation, and a header alone still holds no more than this (4 MiB across a
  // master's default connection limit). Larger frames grow with the bytes that arrive.
  static constexpr uint32_t kEagerFrameStorage = 16 * 1024;
  // Spare messages kept per connection for reuse, and the heap they may hold. Received frames
  // come in bursts of up to a thousand small ones (the receive queue's bound) plus the rest of
  // the read that reached it; sent ones are written as they come. The heap of spare received
  // frames is what a transceiver on its own keeps; the receive queue that owns one lets its
  // spares have what the queued frames leave of its bound, no more.
  static constexpr size_t kMaxSpareInputMessages = 1024 + kReadChunkSize / 11;
  static constexpr size_t kMaxSpareInputBytes = 512 * 1024;
  static constexpr size_t kMaxSpareOutputMessages = 16;
  static constexpr size_t kMaxSpareOutputBytes = 128 * 1024;

  // `connected`: false while a non-blocking connect is pending. Registers the socket at once.
  TCPTransceiver(const tavrinNetwork::SimpleEndpoint& peer,
                 std::unique_ptr<tavrinNetwork::TCPSocketInterface>&& socket, bool connected,
                 ReceiveCallback receiveCallback, std::function<void()> dataReceivedCallback,
                 std::function<void()> disconnectedCallback, RegisterSocketEvent registerSocketEvent,
                 ChangeSocketEvent changeSocketEvent, tavrinLog::TavrinLogging* logging);
  virtual ~TCPTransceiver();
  TCPTransceiver(const TCPTransceiver&) = delete;
  TCPTransceiver& operator=(const TCPTransceiver&) = delete;

  // Empty functions become ones that do nothing. Also from inside the callbacks, which may as well
  // destroy the transceiver: the new ones apply from the next call on.
  void setCallbacks(ReceiveCallback receiveCallback, std::function<void()> dataReceivedCallback,
                    std::function<void()> disconnectedCallback);
  // Queues a finalized message and writes what the socket takes; anything else is dropped.
  void send(std::unique_ptr<OutputMessage>&& message);
  // Closes the socket, drops queued and partial frames, calls disconnectedCallback (only the
  // first time, and only if the socket was open).
  void disconnect();
  // The function registered with the event loop.
  tavrinScheduler::IOWatchItem::Result socketCallback(int events);

  // Messages are reused per connection: a received frame given back once handled, and a message
  // to send that is taken here, save their allocations. A taken message is as new: empty payload,
  // not finalized. Spares are bounded (count and heap) and counted in the send and receive bounds.
  void recycle(std::unique_ptr<InputMessage>&& message);
  std::unique_ptr<OutputMessage> takeOutputMessage(unsigned payloadSize);
  // Heap held by spare received frames (the receive queue's bound counts it).
  size_t getSpareInputBytes() const { return spareInputBytes; }
  // Spares above it are given back at once. Inline: the receive queue moves it with every frame.
  void setMaxSpareInputBytes(size_t maxBytes) {
    maxSpareInputBytes = maxBytes;
    if (spareInputBytes > maxBytes) dropSpareInput();
  }

  // At least the smallest frame (11 bytes); applies from the next frame header on.
  void setMaxFrameLength(uint32_t maxFrameLength_);
  uint32_t getMaxFrameLength() const { return maxFrameLength; }

  // The bound on queued outgoing heap; 0 restores the default. A message that finds the queue
  // empty is always taken (the application's frames are bounded by the frame length already).
  void setMaxSendQueueBytes(size_t maxSendQueueBytes_);
  size_t getMaxSendQueueBytes() const { return maxSendQueueBytes; }
  size_t getSendQueueBytes() const { return sendQueueBytes; }
  // Above a quarter of the bound, answers that a peer asks for (pongs) are better left unsent.
  bool isSendQueueAboveLowWatermark() const { return sendQueueBytes > maxSendQueueBytes / 4; }
  // Paused, the socket is not read (it leaves EPOLLIN) and the peer is slowed by TCP flow control;
  // a read already under way still delivers the frames it holds.
  void setReceivePaused(bool paused);
  bool isReceivePaused() const { return receivePaused; }
  // True once the send bound has closed the connection.
  bool wasClosedAsSlowConsumer() const { return closedAsSlowConsumer; }
  // Lines caused by the peer's input go through this limiter when one is given (not owned).
  void setLogRateLimiter(tavrinLog::LogRateLimiter* limiter) { rateLimiter = limiter; }
  tavrinLog::LogRateLimiter* getLogRateLimiter() const { return rateLimiter; }

  const tavrinNetwork::SimpleEndpoint& getEndpoint() const { return endpoint; }
  tavrinNetwork::TCPSocketInterface* getSocket() const { return socket.get(); }
  bool isConnected() const { return connected; }
  size_t getSendQueueSize() const;
  uint32_t getBytesSent() const { return bytesSent; }
  uint32_t getBytesReceived() const { return bytesReceived; }

 private:
  bool finalizeConnection();
  bool inputReady();
  bool parsePacket(const char* data, int length);
  // The frame in the receive buffer is complete: verify and deliver it.
  bool deliverFrame();
  bool extractPacketLength(const char* data, int available, int needed, unsigned& length);
  bool send();
  // Room in the frame's storage for the bytes that have actually arrived, never past its end.
  bool growFrameStorage(unsigned wanted);
  void setSocketOutputEventEnable(bool on);
  void dropSpareInput();
  int currentEvents() const;

  tavrinLog::TavrinLogging* logging;
  tavrinNetwork::SimpleEndpoint endpoint;
  // Shared_ptr-held, so that a callback may replace them or destroy the transceiver while it runs;
  // a call costs a reference count, which the per-frame path can afford.
  tavrinCommon::CallbackSlot<ReceiveCallback> receiveCallback;
  tavrinCommon::CallbackSlot<void()> dataReceivedCallback;
  tavrinCommon::CallbackSlot<void()> disconnectedCallback;
  RegisterSocketEvent registerSocketEvent;
  ChangeSocketEvent changeSocketEvent;
  std::unique_ptr<tavrinNetwork::TCPSocketInterface> socket;
  bool connected;
  char readChunk[kReadChunkSize];
  MessageBuffer receiveBuffer;
  bool waitingForHeader = false;
  uint32_t remainingBytes = 0;
  // Header, payload and delimiters of the frame being assembled, as its header declares, and the
  // storage it may take.
  uint64_t frameLength = 0;
  uint64_t frameStorage = 0;
  bool outputEventEnabled = false;
  // Holds, and its spare sent messages count in, the send queue's heap.
  std::unique_ptr<internal::RingQueue<std::unique_ptr<OutputMessage>>> sendQueue;
  std::unique_ptr<internal::SparePool<OutputMessage>> spareOutput;
  std::unique_ptr<internal::SparePool<InputMessage>> spareInput;
  // The pool's heap and bound, kept here for the inline calls above.
  size_t spareInputBytes = 0;
  size_t maxSpareInputBytes = kMaxSpareInputBytes;
  size_t sendQueueBytes = 0;
  size_t maxSendQueueBytes = kDefaultMaxSendQueueBytes;
  bool receivePaused = false;
  bool closedAsSlowConsumer = false;
  // A send met the peer's reset: nothing more is sent, and the connection ends once what the peer
  // sent before it has been read.
  bool peerGone = false;
  tavrinLog::LogRateLimiter* rateLimiter = nullptr;
  uint32_t sendOffset = 0;
  uint32_t bytesSent = 0;
  uint32_t bytesReceived = 0;
  uint32_t maxFrameLength = kDefaultMaxFrameLength;
  tavrinCommon::LivenessToken liveness;
};

}  // namespace tavrinConnector
