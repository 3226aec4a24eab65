// The ready-made handler for logical connections that carry opaque byte blocks (handler type 5):
// each block travels as a 32-bit length and the bytes. The application decides on each connection
// and learns of its end and of every received block through three callbacks instead of deriving.
// Keeps, never owns, the logging object. Loop thread of its connector only; nothing is locked.
#pragma once

#include "tavrincommon/connector/ConnectionHandlerBase.h"
#include "tavrincommon/network/SimpleIp.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tavrinLog {
class TavrinLogging;
}

namespace tavrinConnector {
namespace simpleConnector {

class SimpleConnectorHandler : public ConnectionHandlerBase {
 public:
  // Returns false to end the connection just established (reason noConnectionHandler).
  using AcceptCallback =
      std::function<bool(tavrinNetwork::SimpleIp remoteIp, unsigned int remoteConnectionId,
                         unsigned int connectionId, SimpleConnectorHandler* handler)>;
  // `reason`: a DisconnectReason code, or the positive code of whoever asked for the end.
  using StateCallback =
      std::function<void(tavrinNetwork::SimpleIp remoteIp, unsigned int remoteConnectionId,
                         unsigned int connectionId, int reason)>;
  using DataCallback = std::function<void(
      tavrinNetwork::SimpleIp remoteIp, unsigned int remoteConnectionId, unsigned int connectionId,
      std::unique_ptr<std::vector<unsigned char>>&& data)>;

  static constexpr unsigned short kType = 5;
  // Length field, frame header and end delimiter around a block.
  static constexpr uint32_t kBlockOverhead = 4 + 10 + 1;

  // Only the low 12 bits of `version` are kept. Empty callbacks get the defaults: accept every
  // connection, ignore the end, drop the data.
  SimpleConnectorHandler(unsigned short version, AcceptCallback accept, StateCallback state,
                         DataCallback data, tavrinLog::TavrinLogging* logger);
  ~SimpleConnectorHandler() override;

  void setCallbacks(AcceptCallback accept, StateCallback state, DataCallback data);

  // Blocks of length 0 are not sent; while not connected nothing is sent.
  void sendData(const char* data, unsigned int length);
  // Sends the concatenation of `parts` as one block.
  void sendData(const std::vector<std::string>& parts);
  // Ends the connection with reason 1.
  void disconnect();

  std::string getLogPrefix(unsigned int connectionId_) const;

  // The frame bound of the connector this handler serves (0: the transport's default). A block
  // declared longer than such a frame can carry is malformed and dropped.
  void setMaxFrameLength(uint32_t maxFrameLength_);
  uint32_t getMaxBlockLength() const;

  void receive(std::unique_ptr<InputMessage>&& message) override;
  unsigned short getType() const override { return kType; }
  unsigned short getVersion() const override { return version; }
  bool moveConnectionAllowed() const override { return false; }

 protected:
  void specificConnected() override;
  void specificDisconnected(unsigned int connectionId_, int reason, bool last) override;

 private:
  unsigned short version;
  tavrinLog::TavrinLogging* logger;
  AcceptCallback acceptCallback;
  StateCallback stateCallback;
  DataCallback dataCallback;
  uint32_t maxFrameLength;
};

}  // namespace simpleConnector
}  // namespace tavrinConnector
