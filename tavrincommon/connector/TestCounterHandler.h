// The connection handler of the test counter (handler type 1, version 1): carries the counter and
// name of a linked TestCounterData to the peer and stores the peer's into it; either side may ask
// the other to reset its counter. Owned by its connector; keeps, never owns, the linked data.
// Loop thread of its connector only; nothing is locked.
#pragma once

#include "tavrincommon/common/CallbackSlot.h"
#include "tavrincommon/connector/ConnectionHandlerBase.h"

#include <functional>
#include <memory>

namespace tavrinConnector {

class TestCounterData;

class TestCounterHandler : public ConnectionHandlerBase {
 public:
  // Returns false to end the connection just established (reason noConnectionHandler).
  using AcceptCallback = std::function<bool(unsigned int connectionId, TestCounterHandler*)>;
  using DisconnectedCallback = std::function<void(unsigned int connectionId)>;

  static constexpr unsigned short kType = 1;
  static constexpr unsigned short kVersion = 1;
  // Bits of the first payload byte.
  static constexpr unsigned char kCounterFlag = 1;
  static constexpr unsigned char kNameFlag = 2;
  static constexpr unsigned char kResetFlag = 4;

  // Empty callbacks get the defaults: accept every connection, ignore the end.
  TestCounterHandler(AcceptCallback accept, DisconnectedCallback disconnected);
  // Unlinks the data and ends the connection if it is still up.
  ~TestCounterHandler() override;

  // Also from inside the callbacks: the new ones apply from the next call on.
  void setCallbacks(AcceptCallback accept, DisconnectedCallback disconnected);

  // The data's values are sent at once. A data object linked before is unlinked, its connection
  // kept.
  void linkData(TestCounterData* data_);
  // Only if `data_` is the linked data; `disconnect` ends the connection with reason 0.
  void unlinkData(TestCounterData* data_, bool disconnect);
  TestCounterData* getData() const { return data; }

  // Without linked data these send nothing.
  void sendAllData();
  void sendCounter();
  void sendName();
  // Sent whether or not data is linked.
  void sendRemoteCounterReset();

  void receive(std::unique_ptr<InputMessage>&& message) override;
  unsigned short getType() const override { return kType; }
  unsigned short getVersion() const override { return kVersion; }
  bool moveConnectionAllowed() const override { return true; }

 protected:
  void specificInit() override;
  void specificConnected() override;
  void specificDisconnected(unsigned int connectionId_, int reason, bool last) override;
  // The peer on the new TCP connection gets the full state.
  void specificConnectionMoved(bool last) override;
  void dumpSpecific(std::ostream& os, const char* prefix) const override;

 private:
  void send(unsigned char flags);

  // Shared_ptr-held, so that a callback may replace them while it runs.
  tavrinCommon::CallbackSlot<AcceptCallback> acceptCallback;
  tavrinCommon::CallbackSlot<DisconnectedCallback> disconnectedCallback;
  TestCounterData* data = nullptr;
};

}  // namespace tavrinConnector
