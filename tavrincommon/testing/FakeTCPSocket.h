// Test helper: a TCPSocketInterface that hands out scripted reads (chosen chunks, errors, end of
// stream) and answers writes as scripted (partial, EAGAIN, errors), recording what was written.
// Its descriptor is a real eventfd, readable while scripted reads wait, so that a real Scheduler
// can watch it. Single-threaded; the test keeps a raw pointer after handing the socket over.
#pragma once

#include "tavrincommon/network/TCPSocketInterface.h"

#include <deque>
#include <string>

namespace tavrinTesting {

class FakeTCPSocket : public tavrinNetwork::TCPSocketInterface {
 public:
  FakeTCPSocket();
  ~FakeTCPSocket() override;

  // One chunk per call to receive; a chunk longer than the reader's buffer is split.
  void addChunk(const std::string& bytes);
  // Cuts `bytes` into chunks of `chunkSize` bytes (the last one shorter).
  void addChunks(const std::string& bytes, size_t chunkSize);
  // One receive fails with this errno.
  void addReceiveError(int error);
  // From this point on every receive returns 0 and the descriptor stays readable.
  void addEndOfStream();

  // Scripted reads not yet handed out in full.
  size_t pendingReads() const { return reads.size(); }

  // The next send takes at most `maxBytes` (0 and negative: fails with EAGAIN).
  void addSendLimit(int maxBytes);
  // The next send fails with this errno.
  void addSendError(int error);

  void close() override;
  bool setNonblock() override { return true; }
  bool setDSCP(int dscp_) override;
  int send(const void* data, int length) override;
  int receive(void* buffer, int length) override;
  bool valid() const override { return fd >= 0; }
  int getFd() const override { return fd; }
  tavrinNetwork::SimpleEndpoint getBoundEndpoint() const override { return {}; }
  bool hasError() const override { return pendingError; }

  // What the fake was asked and what it was told to answer.
  std::string written;
  int sendCalls = 0;
  int receiveCalls = 0;
  int closeCalls = 0;
  int dscp = -1;
  bool dscpResult = true;
  bool pendingError = false;

 private:
  struct Read {
    std::string bytes;
    int error = 0;
    bool endOfStream = false;
  };
  struct Write {
    int maxBytes;
    int error;
  };
  void signal();
  void drain();

  int fd;
  std::deque<Read> reads;
  std::deque<Write> writes;
  bool atEndOfStream = false;
};

}  // namespace tavrinTesting
