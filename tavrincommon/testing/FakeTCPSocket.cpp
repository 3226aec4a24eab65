#include "tavrincommon/testing/FakeTCPSocket.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <sys/eventfd.h>
#include <unistd.h>

namespace tavrinTesting {

FakeTCPSocket::FakeTCPSocket() : fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

FakeTCPSocket::~FakeTCPSocket() {
  if (fd >= 0) ::close(fd);
}

void FakeTCPSocket::signal() {
  if (fd < 0) return;
  const uint64_t one = 1;
  [[maybe_unused]] ssize_t r = ::write(fd, &one, sizeof one);
}

void FakeTCPSocket::drain() {
  if (fd < 0) return;
  uint64_t value = 0;
  [[maybe_unused]] ssize_t r = ::read(fd, &value, sizeof value);
}

void FakeTCPSocket::addChunk(const std::string& bytes) {
  reads.push_back(Read{bytes, 0, false});
  signal();
}

void FakeTCPSocket::addChunks(const std::string& bytes, size_t chunkSize) {
  for (size_t at = 0; at < bytes.size(); at += chunkSize) addChunk(bytes.substr(at, chunkSize));
}

void FakeTCPSocket::addReceiveError(int error) {
  reads.push_back(Read{std::string(), error, false});
  signal();
}

void FakeTCPSocket::addEndOfStream() {
  reads.push_back(Read{std::string(), 0, true});
  signal();
}

void FakeTCPSocket::addSendLimit(int maxBytes) {
  writes.push_back(Write{maxBytes, maxBytes > 0 ? 0 : EAGAIN});
}

void FakeTCPSocket::addSendError(int error) { writes.push_back(Write{-1, error}); }

void FakeTCPSocket::close() {
  ++closeCalls;
  if (fd >= 0) ::close(fd);
  fd = -1;
}

bool FakeTCPSocket::setDSCP(int dscp_) {
  dscp = dscp_;
  return dscpResult;
}

int FakeTCPSocket::send(const void* data, int length) {
  ++sendCalls;
  int accepted = length;
  if (!writes.empty()) {
    const Write write = writes.front();
    writes.pop_front();
    if (write.error != 0) {
      errno = write.error;
      return -1;
    }
    if (write.maxBytes < accepted) accepted = write.maxBytes;
  }
  written.append(static_cast<const char*>(data), static_cast<size_t>(accepted));
  return accepted;
}

int FakeTCPSocket::receive(void* buffer, int length) {
  ++receiveCalls;
  if (atEndOfStream) return 0;
  if (reads.empty()) {
    drain();
    errno = EAGAIN;
    return -1;
  }
  Read& read = reads.front();
  if (read.endOfStream) {
    atEndOfStream = true;
    return 0;
  }
  if (read.error != 0) {
    errno = read.error;
    reads.pop_front();
    return -1;
  }
  const size_t n = read.bytes.size() < static_cast<size_t>(length) ? read.bytes.size()
                                                                   : static_cast<size_t>(length);
  std::memcpy(buffer, read.bytes.data(), n);
  if (n < read.bytes.size()) {
    read.bytes.erase(0, n);
  } else {
    reads.pop_front();
  }
  return static_cast<int>(n);
}

}  // namespace tavrinTesting
