#include "tavrincommon/connector/TCPTransceiver.h"

#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/connector/internal/HeapCost.h"
#include "tavrincommon/connector/internal/MessageSpares.h"
#include "tavrincommon/connector/internal/RingQueue.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/LogRateLimiter.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/network/TCPSocketInterface.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include <sys/epoll.h>
#include <sys/ioctl.h>

namespace tavrinConnector {

using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;
using tavrinNetwork::SimpleEndpoint;
using tavrinScheduler::IOWatchItem;

namespace {

constexpr int kReadable = 1;  // EPOLLIN
constexpr int kWritable = 4;  // EPOLLOUT
// An error or hang-up is reported even while reading is paused; reading is what finds out which.
constexpr int kReadOrFailure = kReadable | EPOLLERR | EPOLLHUP;
constexpr unsigned kFrameHeaderSize = 5;  // start delimiter and length field
constexpr unsigned char kStartDelimiter = 0xA5;
constexpr unsigned char kEndDelimiter = 0x5A;
constexpr uint32_t kMinFrameLength = 11;
constexpr int kOrigin = DefaultOrigins::TCPConnector;

template <typename Function>
Function orNothing(Function function) {
  if (!function) function = [](auto&&...) {};
  return function;
}

// EINTR is a signal that arrived during the call, not a broken connection: try on the next turn.
bool isTransient(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

}  // namespace

TCPTransceiver::TCPTransceiver(
    const SimpleEndpoint& peer, std::unique_ptr<tavrinNetwork::TCPSocketInterface>&& socket_,
    bool connected_, ReceiveCallback receiveCallback_, std::function<void()> dataReceivedCallback_,
    std::function<void()> disconnectedCallback_, RegisterSocketEvent registerSocketEvent_,
    ChangeSocketEvent changeSocketEvent_, tavrinLog::TavrinLogging* logging_)
    : logging(logging_),
      endpoint(peer),
      registerSocketEvent(orNothing(std::move(registerSocketEvent_))),
      changeSocketEvent(orNothing(std::move(changeSocketEvent_))),
      socket(std::move(socket_)),
      connected(connected_),
      // Room for a header; a frame's storage is sized when its header tells how much it needs.
      receiveBuffer(MessageBuffer::kMinSize),
      sendQueue(std::make_unique<internal::RingQueue<std::unique_ptr<OutputMessage>>>()),
      spareOutput(std::make_unique<internal::SparePool<OutputMessage>>(kMaxSpareOutputMessages,
                                                                       kMaxSpareOutputBytes)),
      spareInput(std::make_unique<internal::SparePool<InputMessage>>(kMaxSpareInputMessages,
                                                                     kMaxSpareInputBytes)) {
  setCallbacks(std::move(receiveCallback_), std::move(dataReceivedCallback_),
               std::move(disconnectedCallback_));
  if (!socket) return;
  registerSocketEvent(socket->getFd(), connected ? kReadable : kWritable,
                      [this](int events) { return socketCallback(events); });
}

TCPTransceiver::~TCPTransceiver() { disconnect(); }

size_t TCPTransceiver::getSendQueueSize() const { return sendQueue->size(); }

void TCPTransceiver::dropSpareInput() {
  spareInput->setMaxBytes(maxSpareInputBytes);
  spareInputBytes = spareInput->heapBytes();
}

void TCPTransceiver::recycle(std::unique_ptr<InputMessage>&& message) {
  // A closed connection receives nothing more.
  if (!message || !socket || !socket->valid()) return;
  message->clearMessage();
  spareInput->give(std::move(message), maxSpareInputBytes);
  spareInputBytes = spareInput->heapBytes();
}

std::unique_ptr<OutputMessage> TCPTransceiver::takeOutputMessage(unsigned payloadSize) {
  const size_t frameSize = static_cast<size_t>(payloadSize) + kMinFrameLength;
  std::unique_ptr<OutputMessage> message = spareOutput->take(frameSize);
  if (!message) return std::make_unique<OutputMessage>(payloadSize);
  message->clear();
  // Room for the payload and the end delimiter, as a new message of that size has.
  message->getBuffer().reserveExact(payloadSize + 1);
  return message;
}

void TCPTransceiver::setCallbacks(ReceiveCallback receiveCallback_,
                                  std::function<void()> dataReceivedCallback_,
                                  std::function<void()> disconnectedCallback_) {
  receiveCallback = orNothing(std::move(receiveCallback_));
  dataReceivedCallback = orNothing(std::move(dataReceivedCallback_));
  disconnectedCallback = orNothing(std::move(disconnectedCallback_));
}

void TCPTransceiver::setMaxFrameLength(uint32_t maxFrameLength_) {
  maxFrameLength = maxFrameLength_ < kMinFrameLength ? kMinFrameLength : maxFrameLength_;
}

void TCPTransceiver::setMaxSendQueueBytes(size_t maxSendQueueBytes_) {
  maxSendQueueBytes = maxSendQueueBytes_ == 0 ? kDefaultMaxSendQueueBytes : maxSendQueueBytes_;
}

void TCPTransceiver::setReceivePaused(bool paused) {
  if (receivePaused == paused) return;
  receivePaused = paused;
  // While connecting only writability is watched; the connect's completion picks the mask.
  if (connected && socket && socket->valid()) changeSocketEvent(socket->getFd(), currentEvents());
}

// Zero while paused with nothing to write: the watch then reports only errors and hang-ups (and a
// callback's result of 0 leaves the mask as it is).
int TCPTransceiver::currentEvents() const {
  return (receivePaused ? 0 : kReadable) | (outputEventEnabled ? kWritable : 0);
}

IOWatchItem::Result TCPTransceiver::socketCallback(int events) {
  tavrinCommon::LivenessToken::Watch alive(liveness);
  if (connected) {
    if ((events & kReadOrFailure) && !inputReady()) {
      // A callback may have destroyed the transceiver, which has disconnected it then.
      if (alive) disconnect();
      return IOWatchItem::Removed;
    }
    // Everything the peer sent before its reset has been read (or waits for a resume).
    if (peerGone && !receivePaused) {
      disconnect();
      return IOWatchItem::Removed;
    }
    if (!(events & kWritable)) return currentEvents();
  } else {
    if (!(events & kWritable)) return kWritable;
    if (!finalizeConnection()) {
      disconnect();
      return IOWatchItem::Removed;
    }
    if ((events & kReadable) && !inputReady()) {
      if (alive) disconnect();
      return IOWatchItem::Removed;
    }
  }
  if (!send()) {
    disconnect();
    return IOWatchItem::Removed;
  }
  return currentEvents();
}

bool TCPTransceiver::finalizeConnection() {
  // The socket names the pending error in its own log line; errno carries it only if the
  // implementation leaves it there.
  errno = 0;
  if (socket->hasError()) {
    const int error = errno;
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Service,
               "Failed to finalize TCP connection socket %s (%d (%s)), aborting the connection!",
               SimpleEndpoint::CharString(endpoint).c_str(), error, std::strerror(error));
    return false;
  }
  connected = true;
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug, "Connected endpoint %s",
             SimpleEndpoint::CharString(endpoint).c_str());
  return true;
}

bool TCPTransceiver::inputReady() {
  for (;;) {
    // Frames at least as long as a read chunk are read straight into their storage, each read
    // taking the rest of the frame and the next frame's header: one copy of their bytes, and once
    // the reads line up with the frames, one read per frame. Shorter frames come several to a
    // read through the read chunk.
    const bool direct = remainingBytes > 0 && !waitingForHeader && frameLength >= kReadChunkSize;
    int requested = kReadChunkSize;
    char* target = readChunk;
    if (direct) {
      const uint32_t wanted = remainingBytes + kFrameHeaderSize;
      if (receiveBuffer.getCapacity() - receiveBuffer.getOffset() < wanted) {
        // The storage grows with what has arrived (the socket tells how much waits), not with
        // what the header declares: a peer that announces a large frame and sends little costs
        // little.
        int waiting = 0;
        if (ioctl(socket->getFd(), FIONREAD, &waiting) != 0 || waiting < kReadChunkSize)
          waiting = kReadChunkSize;
        if (!growFrameStorage(std::min(wanted, static_cast<uint32_t>(waiting)))) return false;
      }
      const unsigned room = receiveBuffer.getCapacity() - receiveBuffer.getOffset();
      requested = static_cast<int>(std::min<uint32_t>({wanted, room, 1u << 30}));
      target = receiveBuffer.prepareWrite(static_cast<unsigned>(requested));
    }
    const int r = socket->receive(target, requested);
    if (r < 0) {
      const int error = errno;
      if (isTransient(error)) return true;
      TAVRIN_LOG(logging, kOrigin, SeverityLevel::Service,
                 "Failed to receive data on TCP connection socket %s (%d (%s)), closing the "
                 "connection!",
                 SimpleEndpoint::CharString(endpoint).c_str(), error, std::strerror(error));
      return false;
    }
    if (r == 0) {
      // The peer has shut its side down. A socket at end of stream stays readable, so keeping it
      // would make the loop call us on every turn: the connection ends here.
      TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug,
                 "TCP connection socket %s closed by the peer",
                 SimpleEndpoint::CharString(endpoint).c_str());
      return false;
    }
    if (!direct) {
      if (!parsePacket(readChunk, r)) return false;
    } else if (static_cast<uint32_t>(r) < remainingBytes) {
      receiveBuffer.commitWritten(static_cast<unsigned>(r));
      remainingBytes -= static_cast<uint32_t>(r);
    } else {
      // What follows the frame's last byte is the start of the next header: it goes to the next
      // frame's storage once this frame has left.
      const unsigned extra = static_cast<unsigned>(r) - remainingBytes;
      char next[kFrameHeaderSize];
      std::memcpy(next, target + remainingBytes, extra);
      receiveBuffer.commitWritten(remainingBytes);
      remainingBytes = 0;
      if (!deliverFrame() || (extra > 0 && !parsePacket(next, static_cast<int>(extra))))
        return false;
    }
    bytesReceived += static_cast<uint32_t>(r);
    tavrinCommon::LivenessToken::Watch alive(liveness);
    dataReceivedCallback();
    // A callback may have destroyed the transceiver, closed the connection or paused reading.
    if (!alive || !socket->valid()) return false;
    if (r != requested || receivePaused) return true;
  }
}

bool TCPTransceiver::extractPacketLength(const char* data, int available, int needed,
                                         unsigned& length) {
  if (available < needed) {
    receiveBuffer.write(data, static_cast<unsigned>(available));
    waitingForHeader = true;
    return false;
  }
  // The header's bytes are taken from the buffer and the new data together, so that the frame's
  // storage can be sized before anything is written.
  unsigned char header[kFrameHeaderSize];
  const unsigned held = kFrameHeaderSize - static_cast<unsigned>(needed);
  if (held > 0) std::memcpy(header, receiveBuffer.getData(), held);
  std::memcpy(header + held, data, static_cast<size_t>(needed));
  length = static_cast<unsigned>(header[1]) | static_cast<unsigned>(header[2]) << 8 |
           static_cast<unsigned>(header[3]) << 16 | static_cast<unsigned>(header[4]) << 24;
  waitingForHeader = false;
  return true;
}

bool TCPTransceiver::parsePacket(const char* data, int length) {
  unsigned n = static_cast<unsigned>(length);
  while (n > 0) {
    if (receiveBuffer.getDataLength() == 0 || waitingForHeader) {
      const unsigned held = receiveBuffer.getDataLength();
      if (held == 0 && static_cast<unsigned char>(*data) != kStartDelimiter) {
        TAVRIN_LOG_LIMITED(rateLimiter, logging, kOrigin, SeverityLevel::Service,
                           "Failed to receive message on TCP connection socket %s: Start delimiter "
                           "missing, closing the connection!",
                           SimpleEndpoint::CharString(endpoint).c_str());
        return false;
      }
      const unsigned needed = kFrameHeaderSize - held;
      if (!extractPacketLength(data, static_cast<int>(n), static_cast<int>(needed),
                               remainingBytes))
        return true;
      // Checked before anything is allocated for the frame: a peer's length field alone must
      // not make the buffer grow without bound.
      if (static_cast<uint64_t>(remainingBytes) + kFrameHeaderSize > maxFrameLength) {
        TAVRIN_LOG_LIMITED(
            rateLimiter, logging, kOrigin, SeverityLevel::Service,
            "Failed to receive message on TCP connection socket %s: Length %u exceeds the "
            "maximum frame length of %u bytes, closing the connection!",
            SimpleEndpoint::CharString(endpoint).c_str(), remainingBytes, maxFrameLength);
        return false;
      }
      frameLength = kFrameHeaderSize + remainingBytes;
      // A frame read straight into its storage has room behind it for the next header.
      frameStorage = frameLength + (frameLength >= kReadChunkSize ? kFrameHeaderSize : 0);
      // Small frames get their room at once, larger ones for the bytes in this read; the rest
      // grows as it arrives. The storage is the one the delivered message keeps.
      const uint32_t room = frameLength <= kEagerFrameStorage
                                ? static_cast<uint32_t>(frameStorage) - kFrameHeaderSize
                                : std::min(remainingBytes, n - needed);
      if (!growFrameStorage(needed + room)) return false;
      receiveBuffer.write(data, needed);
      data += needed;
      n -= needed;
    }
    if (remainingBytes > n) {
      if (!growFrameStorage(n)) return false;
      receiveBuffer.write(data, n);
      remainingBytes -= n;
      return true;
    }
    if (!growFrameStorage(remainingBytes)) return false;
    receiveBuffer.write(data, remainingBytes);
    data += remainingBytes;
    n -= remainingBytes;
    remainingBytes = 0;
    if (!deliverFrame()) return false;
  }
  return true;
}

bool TCPTransceiver::growFrameStorage(unsigned more) {
  const unsigned length = receiveBuffer.getOffset();
  if (receiveBuffer.getCapacity() - length >= more) return true;
  // Doubling up to the declared length: copies stay below the frame's size in all.
  const uint64_t doubled = 2 * static_cast<uint64_t>(receiveBuffer.getCapacity());
  const uint64_t target =
      std::min<uint64_t>(frameStorage, std::max<uint64_t>(doubled, length + more));
  try {
    receiveBuffer.reserveExact(static_cast<unsigned>(target - length));
  } catch (const std::bad_alloc&) {
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error,
               "Failed to allocate %u bytes for a frame on TCP connection socket %s, closing the "
               "connection!",
               static_cast<unsigned>(target), SimpleEndpoint::CharString(endpoint).c_str());
    return false;
  }
  return true;
}

bool TCPTransceiver::deliverFrame() {
  receiveBuffer.moveOffset(-1);
  if (InputMessage::getUInt8(receiveBuffer) != kEndDelimiter) {
    TAVRIN_LOG_LIMITED(
        rateLimiter, logging, kOrigin, SeverityLevel::Service,
        "Failed to receive message on TCP connection socket %s: End delimiter missing, "
        "closing the connection!",
        SimpleEndpoint::CharString(endpoint).c_str());
    return false;
  }
  // The buffer's storage passes to the message. A spare message hands its storage over for the
  // next frame; without one, that storage is allocated when the next header tells its size.
  std::unique_ptr<InputMessage> message = spareInput->take(receiveBuffer.getDataLength());
  if (message) {
    spareInputBytes = spareInput->heapBytes();
    std::swap(message->buffer, receiveBuffer);
    receiveBuffer.clear();
    message->verifyMessage();
    message->reset();
  } else {
    message = std::make_unique<InputMessage>(std::move(receiveBuffer), true);
  }
  if (!message->isValid()) {
    TAVRIN_LOG_LIMITED(
        rateLimiter, logging, kOrigin, SeverityLevel::Service,
        "Failed to receive message on TCP connection socket %s: validity check failed, "
        "closing the connection!",
        SimpleEndpoint::CharString(endpoint).c_str());
    return false;
  }
  tavrinCommon::LivenessToken::Watch alive(liveness);
  receiveCallback(std::move(message));
  return alive && socket->valid();
}

void TCPTransceiver::send(std::unique_ptr<OutputMessage>&& message) {
  if (!message || !socket || !socket->valid() || !message->isFinalized() || peerGone) return;
  const size_t cost = internal::heapCost(*message);
  // Spare sent messages are heap this connection holds for sending too.
  if (!sendQueue->empty() && sendQueueBytes + spareOutput->heapBytes() + cost > maxSendQueueBytes) {
    TAVRIN_LOG_LIMITED(rateLimiter, logging, kOrigin, SeverityLevel::Service,
                       "Send queue of TCP connection socket %s holds %zu bytes in %zu messages, "
                       "more than its bound of %zu bytes: the peer does not read, closing the "
                       "connection!",
                       SimpleEndpoint::CharString(endpoint).c_str(), sendQueueBytes,
                       sendQueue->size(), maxSendQueueBytes);
    closedAsSlowConsumer = true;
    disconnect();
    return;
  }
  sendQueue->push_back(std::move(message));
  sendQueueBytes += cost;
  if (sendQueue->size() > 1 || !connected) return;
  sendOffset = 0;
  if (!send()) disconnect();
}

bool TCPTransceiver::send() {
  while (!sendQueue->empty()) {
    const OutputMessage& front = *sendQueue->front();
    const unsigned k = front.getFrameLength() - sendOffset;
    int r = socket->send(front.getData() + sendOffset, static_cast<int>(k));
    if (r < 0) {
      const int error = errno;
      if (error == ECONNRESET || error == EPIPE) {
        // The peer has gone, but what it sent before (its last disconnects, with their reasons)
        // may still wait in the socket: the socket stays watched until that has been read, then
        // the connection ends.
        TAVRIN_LOG(logging, kOrigin, SeverityLevel::Service,
                   "Failed to send data (%u bytes) on TCP connection socket %s (%d (%s)), closing "
                   "the connection once what the peer sent has been read!",
                   k, SimpleEndpoint::CharString(endpoint).c_str(), error, std::strerror(error));
        peerGone = true;
        while (!sendQueue->empty()) {
          sendQueueBytes -= internal::heapCost(*sendQueue->front());
          sendQueue->pop_front();
        }
        sendOffset = 0;
        // Readable: the socket reports its data and then its end at once.
        setSocketOutputEventEnable(false);
        return true;
      }
      if (!isTransient(error)) {
        TAVRIN_LOG(logging, kOrigin, SeverityLevel::Service,
                   "Failed to send data (%u bytes) on TCP connection socket %s (%d (%s)), closing "
                   "the connection!",
                   k, SimpleEndpoint::CharString(endpoint).c_str(), error, std::strerror(error));
        return false;
      }
      TAVRIN_LOG(logging, kOrigin, SeverityLevel::Service,
                 "Failed to send data (%u bytes) on TCP connection socket %s (%d (%s)), retrying "
                 "later!",
                 k, SimpleEndpoint::CharString(endpoint).c_str(), error, std::strerror(error));
      r = 0;
    }
    const unsigned written = static_cast<unsigned>(r) < k ? static_cast<unsigned>(r) : k;
    bytesSent += written;
    if (written < k) {
      sendOffset += written;
      setSocketOutputEventEnable(true);
      return true;
    }
    sendQueueBytes -= internal::heapCost(front);
    spareOutput->give(std::move(sendQueue->front()));
    sendQueue->pop_front();
    sendOffset = 0;
  }
  setSocketOutputEventEnable(false);
  return true;
}

void TCPTransceiver::setSocketOutputEventEnable(bool on) {
  if (outputEventEnabled == on) return;
  outputEventEnabled = on;
  changeSocketEvent(socket->getFd(), currentEvents());
}

void TCPTransceiver::disconnect() {
  receiveBuffer.clear();
  waitingForHeader = false;
  remainingBytes = 0;
  sendQueue->clear();
  sendQueueBytes = 0;
  spareOutput->clear();
  spareInput->clear();
  spareInputBytes = 0;
  sendOffset = 0;
  connected = false;
  receivePaused = false;
  peerGone = false;
  if (!socket || !socket->valid()) return;
  registerSocketEvent(socket->getFd(), 0, SocketCallback());
  outputEventEnabled = false;
  socket->close();
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Debug, "Disconnecting endpoint %s...",
             SimpleEndpoint::CharString(endpoint).c_str());
  disconnectedCallback();
}

}  // namespace tavrinConnector
