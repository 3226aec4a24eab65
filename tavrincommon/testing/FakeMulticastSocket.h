// Test helper: a MulticastSocketInterface with scripted results. Queued datagrams (or receive
// errors) are handed out one per receive call, with the sender's endpoint and the datagram's real
// length; sends are recorded and answered as scripted. Its descriptor is a real eventfd, readable
// while datagrams wait, so that a real Scheduler can watch it. Single-threaded; the test keeps a
// raw pointer after handing the socket over.
#pragma once

#include "tavrincommon/network/MulticastSocketInterface.h"

#include <deque>
#include <string>
#include <vector>

namespace tavrinTesting {

class FakeMulticastSocket : public tavrinNetwork::MulticastSocketInterface {
 public:
  struct Sent {
    tavrinNetwork::SimpleEndpoint to;
    std::string bytes;
  };

  FakeMulticastSocket();
  ~FakeMulticastSocket() override;
  FakeMulticastSocket(const FakeMulticastSocket&) = delete;
  FakeMulticastSocket& operator=(const FakeMulticastSocket&) = delete;

  void addDatagram(const tavrinNetwork::SimpleEndpoint& from, const std::string& bytes);
  // One receive fails with -1 and this errno.
  void addReceiveError(int error);
  // The next send returns `result` instead of the length (negative: fails with EIO).
  void addSendResult(int result);

  bool open(tavrinNetwork::SimpleIp mcIp, unsigned short mcPort, tavrinNetwork::SimpleIp sendIp,
            unsigned short sendPort, const std::string& interfaceName, bool nonblocking,
            bool joinGroup, bool multicastLoop) override;
  void close() override;
  bool setNonblock() override { return true; }
  bool setDSCP(int dscp_) override;
  bool setMulticastTTL(int ttl_) override;
  bool setMulticastLoop(bool on) override;
  int sendTo(const tavrinNetwork::SimpleEndpoint& to, const void* data, int length) override;
  int sendMulticast(const void* data, int length) override;
  int receive(void* buffer, int length) override;
  int receiveFrom(tavrinNetwork::SimpleEndpoint& from, void* buffer, int length) override;
  int unicastReceive(void*, int) override { return 0; }
  int unicastReceiveFrom(tavrinNetwork::SimpleEndpoint&, void*, int) override { return 0; }
  bool valid() const override { return isOpen; }
  int getFd() const override { return isOpen ? fd : -1; }
  int getUnicastFd() const override { return -1; }
  const std::string& getEthInterface() const override { return interface; }
  const tavrinNetwork::SimpleEndpoint& getMcEndpoint() const override { return group; }
  const tavrinNetwork::SimpleEndpoint& getBoundEndpoint() const override { return bound; }

  // What the fake is told to answer.
  bool openResult = true;
  bool dscpResult = true;
  bool ttlResult = true;
  // What it was asked.
  std::vector<Sent> sent;
  int dscp = -1;
  int ttl = -1;
  bool loop = false;
  bool joined = false;
  bool nonblock = false;
  std::string interface;
  tavrinNetwork::SimpleEndpoint group;
  tavrinNetwork::SimpleEndpoint bound;

 private:
  struct Datagram {
    tavrinNetwork::SimpleEndpoint from;
    std::string bytes;
    int error;
  };
  void signal();
  void drain();

  int fd;
  bool isOpen = false;
  std::deque<Datagram> datagrams;
  std::deque<int> sendResults;
};

}  // namespace tavrinTesting
