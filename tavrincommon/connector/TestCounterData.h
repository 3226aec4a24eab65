// The application's side of the test counter: its own counter and name and the peer's, kept
// across connections. Linked to at most one TestCounterHandler at a time (each keeps a pointer to
// the other, neither owns the other); while linked, local changes are sent and received values
// stored. Destroying it ends the linked connection. Loop thread of the connector only.
#pragma once

#include "tavrincommon/common/CallbackSlot.h"
#include "tavrincommon/common/LivenessToken.h"
#include "tavrincommon/network/SimpleEndpoint.h"

#include <climits>
#include <functional>
#include <iosfwd>
#include <string>

namespace tavrinConnector {

class TestCounterHandler;

class TestCounterData {
 public:
  using CounterCallback = std::function<void(int)>;
  using NameCallback = std::function<void(const std::string&)>;

  // The remote counter before any value arrived.
  static constexpr int kInvalidCounter = INT_MIN;

  // Empty callbacks become ones that do nothing.
  TestCounterData(CounterCallback remoteCounterChanged, NameCallback remoteNameChanged);
  virtual ~TestCounterData();
  TestCounterData(const TestCounterData&) = delete;
  TestCounterData& operator=(const TestCounterData&) = delete;

  // Also from inside the callbacks: the new ones apply from the next change on.
  void setCallbacks(CounterCallback remoteCounterChanged, NameCallback remoteNameChanged);

  // kInvalidCounter is taken as 0. A change is sent to the peer.
  void setCounter(int value);
  void setName(const std::string& value);
  // A change is reported through the matching callback.
  void setRemoteCounter(int value);
  void setRemoteName(const std::string& value);

  // Without a linked handler these send nothing.
  void sendAllData();
  void sendCounter();
  void sendName();
  void sendRemoteCounterReset();

  // Sends all data to the new handler. Replacing a handler ends the old one's connection.
  void linkHandler(TestCounterHandler* handler_);
  // Ends the linked handler's connection (reason 0) and clears the remote values.
  void unlinkHandler();

  bool isConnected() const;
  // 0xFFFFFFFF without a linked handler.
  unsigned int getRemoteConnectionId() const;
  unsigned int getRemoteDeviceId() const;
  // 255.255.255.255:0 without a linked handler.
  tavrinNetwork::SimpleEndpoint getRemoteEndpoint() const;

  TestCounterHandler* getHandler() const { return handler; }
  int getCounter() const { return counter; }
  int getRemoteCounter() const { return remoteCounter; }
  const std::string& getName() const { return name; }
  const std::string& getRemoteName() const { return remoteName; }

  void dump(std::ostream& os, const char* prefix) const;

 private:
  // Shared_ptr-held, so that a callback may replace them while it runs.
  tavrinCommon::CallbackSlot<CounterCallback> remoteCounterCallback;
  tavrinCommon::CallbackSlot<NameCallback> remoteNameCallback;
  TestCounterHandler* handler = nullptr;
  int counter = 0;
  int remoteCounter = kInvalidCounter;
  std::string name;
  std::string remoteName;
  // A callback may destroy the data while unlinkHandler still has a value to clear.
  tavrinCommon::LivenessToken liveness;
};

}  // namespace tavrinConnector
