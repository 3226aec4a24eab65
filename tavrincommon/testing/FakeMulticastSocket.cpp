#include "tavrincommon/testing/FakeMulticastSocket.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include <sys/eventfd.h>
#include <unistd.h>

namespace tavrinTesting {

FakeMulticastSocket::FakeMulticastSocket() : fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

FakeMulticastSocket::~FakeMulticastSocket() {
  if (fd >= 0) ::close(fd);
}

void FakeMulticastSocket::signal() {
  const uint64_t one = 1;
  if (fd < 0) return;
  [[maybe_unused]] ssize_t r = ::write(fd, &one, sizeof one);
}

void FakeMulticastSocket::drain() {
  uint64_t value = 0;
  if (fd < 0) return;
  [[maybe_unused]] ssize_t r = ::read(fd, &value, sizeof value);
}

void FakeMulticastSocket::addDatagram(const tavrinNetwork::SimpleEndpoint& from,
                                      const std::string& bytes) {
  datagrams.push_back(Datagram{from, bytes, 0});
  signal();
}

void FakeMulticastSocket::addReceiveError(int error) {
  datagrams.push_back(Datagram{tavrinNetwork::SimpleEndpoint(), std::string(), error});
  signal();
}

void FakeMulticastSocket::addSendResult(int result) { sendResults.push_back(result); }

bool FakeMulticastSocket::open(tavrinNetwork::SimpleIp mcIp, unsigned short mcPort,
                               tavrinNetwork::SimpleIp sendIp, unsigned short sendPort,
                               const std::string& interfaceName, bool nonblocking,
                               bool joinGroup, bool multicastLoop) {
  group = tavrinNetwork::SimpleEndpoint(mcIp, mcPort);
  bound = tavrinNetwork::SimpleEndpoint(sendIp, sendPort);
  interface = interfaceName;
  nonblock = nonblocking;
  joined = joinGroup;
  loop = multicastLoop;
  isOpen = openResult;
  return openResult;
}

void FakeMulticastSocket::close() {
  isOpen = false;
}

bool FakeMulticastSocket::setDSCP(int dscp_) {
  dscp = dscp_;
  return dscpResult;
}

bool FakeMulticastSocket::setMulticastTTL(int ttl_) {
  ttl = ttl_;
  return ttlResult;
}

bool FakeMulticastSocket::setMulticastLoop(bool on) {
  loop = on;
  return true;
}

int FakeMulticastSocket::sendTo(const tavrinNetwork::SimpleEndpoint& to, const void* data,
                                int length) {
  int result = length;
  if (!sendResults.empty()) {
    result = sendResults.front();
    sendResults.pop_front();
  }
  if (result < 0) {
    errno = EIO;
    return result;
  }
  const int taken = std::min(result, length);
  sent.push_back(Sent{to, std::string(static_cast<const char*>(data), static_cast<size_t>(taken))});
  return result;
}

int FakeMulticastSocket::sendMulticast(const void* data, int length) {
  return sendTo(group, data, length);
}

int FakeMulticastSocket::receive(void* buffer, int length) {
  tavrinNetwork::SimpleEndpoint from;
  return receiveFrom(from, buffer, length);
}

int FakeMulticastSocket::receiveFrom(tavrinNetwork::SimpleEndpoint& from, void* buffer,
                                     int length) {
  if (datagrams.empty()) {
    drain();
    return 0;
  }
  Datagram datagram = std::move(datagrams.front());
  datagrams.pop_front();
  if (datagrams.empty()) drain();
  if (datagram.error != 0) {
    errno = datagram.error;
    return -1;
  }
  from = datagram.from;
  // As a real datagram socket with MSG_TRUNC: the copy is cut, the result is the real length.
  const size_t copied = std::min(datagram.bytes.size(), static_cast<size_t>(std::max(length, 0)));
  if (copied > 0) std::memcpy(buffer, datagram.bytes.data(), copied);
  return static_cast<int>(datagram.bytes.size());
}

}  // namespace tavrinTesting
