// The slave's socket side: opening the socket, following its interface, and reading datagrams
// into the bounded receive queue.
#include "tavrincommon/connector/MCAnnounceSlave.h"

#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/internal/AnnounceLog.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/epoll.h>

namespace tavrinConnector {

using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

namespace {

constexpr tavrinScheduler::IOWatchItem::Result kKeepReading = EPOLLIN;

// A queued datagram: the message object, its storage (one spare byte, never under the smallest
// frame) and the queue's slot.
size_t queuedHeapBytes(unsigned length) {
  return MCAnnounceData::allocationCost(sizeof(InputMessage)) +
         MCAnnounceData::allocationCost(std::max(length, MessageBuffer::kMinSize) + 1) +
         sizeof(std::unique_ptr<InputMessage>) + sizeof(SimpleEndpoint) + sizeof(size_t);
}

}  // namespace

void MCAnnounceSlave::interfaceChanged(SimpleIp address) {
  if (!enabled) return;
  paused = !address.isValid();
  ANNOUNCE_LOG(Service, "Interface '%s' %s", interface.c_str(),
               paused ? "has no address: listening paused" : "changed: announce socket reopened");
  scheduler->removeIOItem(ioHandle);
  socket.reset();
  if (!paused) initMulticastSocket();
}

void MCAnnounceSlave::initMulticastSocket() {
  bool ok = false;
  socket = socketFactory();
  if (!socket) {
    ANNOUNCE_LOG(Error, "Failed to initialize multicast socket: Failed to create socket!");
  } else if (!socket->open(multicastIp, multicastPort, SimpleIp(0u), 0, interface, true, true,
                           false)) {
    ANNOUNCE_LOG(Error, "Failed to initialize multicast socket: Failed to open socket!");
  } else {
    tavrinScheduler::IOWatchItem item;
    item.fd = socket->getFd();
    item.events = EPOLLIN;
    item.callback = [this](int events) { return socketCallback(events); };
    ioHandle = scheduler->addIOItem(item, DefaultOrigins::MCAnnounce);
    ok = true;
  }
  if (!ok) {
    ANNOUNCE_LOG(Error, "Failed to initialize multicast socket, disabling!");
    setGeneralError(ErrorType::initializationFailed, "Failed to initialize multicast socket!");
  }
}

tavrinScheduler::IOWatchItem::Result MCAnnounceSlave::socketCallback(int events) {
  if ((events & EPOLLIN) == 0) return kKeepReading;
  SimpleEndpoint sender;
  std::unique_ptr<InputMessage> message;
  if (!receivePacket(sender, message)) {
    setGeneralError(ErrorType::socketError, "Failed to receive data, disabling!");
    return tavrinScheduler::IOWatchItem::Removed;
  }
  if (!message) return kKeepReading;
  if (message->verifyMessage()) {
    const size_t heapBytes = queuedHeapBytes(message->buffer.getDataLength());
    queuedBytes += heapBytes;
    receiveQueue.push_back(Queued{sender, std::move(message), heapBytes});
    scheduler->addWorker(this);
  } else {
    ANNOUNCE_PEER_LOG(Debug, "Received invalid message from %s, ignoring!",
                      SimpleEndpoint::CharString(sender).c_str());
  }
  return kKeepReading;
}

bool MCAnnounceSlave::receivePacket(SimpleEndpoint& sender,
                                    std::unique_ptr<InputMessage>& message) {
  if (!socket || !socket->valid()) {
    ANNOUNCE_LOG(Error, "Failed to receive data: Socket not initialized!");
    return false;
  }
  const int length =
      socket->receiveFrom(sender, receiveBuffer, static_cast<int>(kReceiveBufferSize));
  if (length < 0) {
    const int error = errno;
    ANNOUNCE_LOG(Error, "Failed to receive data: %d (%s)!", error, std::strerror(error));
    return false;
  }
  if (length == 0) return true;
  // The socket reports a datagram's real length even when only the buffer's worth was copied. No
  // master sends more than the buffer holds, so a longer datagram is not ours: it is dropped
  // rather than cut, since a cut frame could only fail verification or be misread.
  if (static_cast<unsigned>(length) > kReceiveBufferSize) {
    ANNOUNCE_PEER_LOG(Debug, "Received invalid message from %s (%d bytes, max %u), ignoring!",
                      SimpleEndpoint::CharString(sender).c_str(), length, kReceiveBufferSize);
    return true;
  }
  // Checked before the copy is made, so that a flood costs no allocation.
  if (receiveQueue.size() >= maxQueuedDatagrams ||
      queuedBytes + queuedHeapBytes(static_cast<unsigned>(length)) > maxQueuedBytes) {
    ++dropCounts.queueFull;
    ANNOUNCE_PEER_LOG(Warning,
                      "Dropping message from %s (%d bytes): receive queue full (%zu messages, %zu "
                      "bytes)",
                      SimpleEndpoint::CharString(sender).c_str(), length, receiveQueue.size(),
                      queuedBytes);
    return true;
  }
  message = std::make_unique<InputMessage>(receiveBuffer, static_cast<unsigned>(length), false);
  return true;
}

}  // namespace tavrinConnector
