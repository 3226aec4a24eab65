#include "tavrincommon/connector/TestCounterData.h"

#include "tavrincommon/connector/TestCounterHandler.h"

#include <ios>
#include <ostream>
#include <utility>

namespace tavrinConnector {

TestCounterData::TestCounterData(CounterCallback remoteCounterChanged,
                                 NameCallback remoteNameChanged) {
  setCallbacks(std::move(remoteCounterChanged), std::move(remoteNameChanged));
}

TestCounterData::~TestCounterData() { unlinkHandler(); }

void TestCounterData::setCallbacks(CounterCallback remoteCounterChanged,
                                   NameCallback remoteNameChanged) {
  remoteCounterCallback =
      remoteCounterChanged ? std::move(remoteCounterChanged) : CounterCallback([](int) {});
  remoteNameCallback =
      remoteNameChanged ? std::move(remoteNameChanged) : NameCallback([](const std::string&) {});
}

void TestCounterData::setCounter(int value) {
  if (value == kInvalidCounter) value = 0;
  if (value == counter) return;
  counter = value;
  sendCounter();
}

void TestCounterData::setName(const std::string& value) {
  if (value == name) return;
  name = value;
  sendName();
}

void TestCounterData::setRemoteCounter(int value) {
  if (value == remoteCounter) return;
  remoteCounter = value;
  remoteCounterCallback(remoteCounter);
}

void TestCounterData::setRemoteName(const std::string& value) {
  if (value == remoteName) return;
  remoteName = value;
  remoteNameCallback(remoteName);
}

void TestCounterData::sendAllData() {
  if (handler) handler->sendAllData();
}

void TestCounterData::sendCounter() {
  if (handler) handler->sendCounter();
}

void TestCounterData::sendName() {
  if (handler) handler->sendName();
}

void TestCounterData::sendRemoteCounterReset() {
  if (handler) handler->sendRemoteCounterReset();
}

void TestCounterData::linkHandler(TestCounterHandler* handler_) {
  if (handler_ == handler) return;
  unlinkHandler();
  if (!handler_) return;
  handler = handler_;
  // Returns at once when the link started on the handler's side.
  handler_->linkData(this);
  sendAllData();
}

void TestCounterData::unlinkHandler() {
  if (!handler) return;
  TestCounterHandler* previous = handler;
  handler = nullptr;
  // Started here, this clears the handler's pointer and ends its connection; started on the
  // handler's side, the handler has let go already and this does nothing.
  tavrinCommon::LivenessToken::Watch alive(liveness);
  previous->unlinkData(this, true);
  if (alive) setRemoteCounter(kInvalidCounter);
  if (alive) setRemoteName(std::string());
}

bool TestCounterData::isConnected() const { return handler && handler->isConnected(); }

unsigned int TestCounterData::getRemoteConnectionId() const {
  return handler ? handler->getRemoteConnectionId() : ConnectionHandlerBase::kNoConnectionId;
}

unsigned int TestCounterData::getRemoteDeviceId() const {
  return handler ? handler->getRemoteDeviceId() : ConnectionHandlerBase::kNoConnectionId;
}

tavrinNetwork::SimpleEndpoint TestCounterData::getRemoteEndpoint() const {
  return handler ? handler->getRemoteEndpoint()
                 : tavrinNetwork::SimpleEndpoint(tavrinNetwork::SimpleIp(), 0);
}

void TestCounterData::dump(std::ostream& os, const char* prefix) const {
  os << prefix << "Name: '" << name << "'\n";
  os << prefix << "Counter: " << counter << "\n";
  if (!handler) {
    os << prefix << "No handler linked\n";
  } else {
    os << prefix << "Handler Linked:\n";
    if (!handler->isConnected()) {
      os << prefix << "  Not connected\n";
    } else {
      os << prefix << "  Connected to: "
         << tavrinNetwork::SimpleEndpoint::CharString(handler->getRemoteEndpoint()).c_str()
         << " (connection id: " << handler->getConnectionId()
         << ", remote connection id: " << handler->getRemoteConnectionId()
         << ", remote device id: " << handler->getRemoteDeviceId() << " (0x" << std::hex
         << handler->getRemoteDeviceId() << std::dec << "))\n";
    }
  }
  // Shown without a handler too: they read as cleared once the connection is gone.
  os << prefix << "  RemoteName: '" << remoteName << "'\n";
  os << prefix << "  RemoteCounter: ";
  if (remoteCounter == kInvalidCounter)
    os << "invalid";
  else
    os << remoteCounter;
  os << "\n";
}

}  // namespace tavrinConnector
