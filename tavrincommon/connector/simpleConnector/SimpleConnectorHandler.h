// The ready-made handler for logical connections that carry opaque byte blocks (handler type 5):
// each block travels as a 32-bit length and the bytes. The application decides on each connection
// and learns of its end and of every received block through three callbacks instead of deriving.
// Keeps, never owns, the logging object. Loop thread of its connector only; nothing is locked.
#pragma once

#include "tavrincommon/common/CallbackSlot.h"
#include "tavrincommon/connector/ConnectionHandlerBase.h"
#include "tavrincommon/network/SimpleIp.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tavrinLog {
class LogRateLimiter;
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
  // How much longer than the bytes its frame carries a block may be declared; the missing tail is
  // filled with zeros, for senders that leave trailing zeros out. A page keeps that working for
  // small records while a frame of 15 bytes costs this side at most 4 KiB instead of 1 MiB.
  static constexpr uint32_t kZeroFillSlack = 4096;

  // Only the low 12 bits of `version` are kept. Empty callbacks get the defaults: accept every
  // connection, ignore the end, drop the data.
  SimpleConnectorHandler(unsigned short version, AcceptCallback accept, StateCallback state,
                         DataCallback data, tavrinLog::TavrinLogging* logger);
  ~SimpleConnectorHandler() override;

  // May be called at any time, also from inside the callbacks: a callback that is running
  // finishes, and the new ones are used from the next call on.
  void setCallbacks(AcceptCallback accept, StateCallback state, DataCallback data);

  // True when the block was handed to the connector. Nothing is sent (false) for a block of
  // length 0, one longer than getMaxBlockLength() (the peer would end the whole TCP connection
  // over it) or while not connected.
  bool sendData(const char* data, unsigned int length);
  // Sends the concatenation of `parts` as one block.
  bool sendData(const std::vector<std::string>& parts);
  // Ends the connection with reason 1.
  void disconnect();

  std::string getLogPrefix(unsigned int connectionId_) const;

  // What one frame of the connector's bound (getMaxFrameLength()) carries. A block declared
  // longer is malformed and dropped; a longer one is never sent.
  uint32_t getMaxBlockLength() const;

  void receive(std::unique_ptr<InputMessage>&& message) override;
  unsigned short getType() const override { return kType; }
  unsigned short getVersion() const override { return version; }
  bool moveConnectionAllowed() const override { return false; }

 protected:
  void specificConnected() override;
  void specificDisconnected(unsigned int connectionId_, int reason, bool last) override;

 private:
  // Whether a block of `length` bytes may go out; one too long for a frame is logged.
  bool sendable(size_t length);

  unsigned short version;
  tavrinLog::TavrinLogging* logger;
  // Shared_ptr-held slots, so a callback may replace them while it runs; a call costs a
  // reference count, which the per-block data callback can afford.
  tavrinCommon::CallbackSlot<AcceptCallback> acceptCallback;
  tavrinCommon::CallbackSlot<StateCallback> stateCallback;
  tavrinCommon::CallbackSlot<DataCallback> dataCallback;
  // Drops are caused by the peer and a send refused by the application: either may repeat. Made
  // on the first such line: most connections never log one, and each connection has a handler.
  tavrinLog::LogRateLimiter& logLimiter();
  std::unique_ptr<tavrinLog::LogRateLimiter> limiter;
};

}  // namespace simpleConnector
}  // namespace tavrinConnector
