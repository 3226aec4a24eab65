#include "tavrincommon/connector/TestCounterHandler.h"

#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/connector/TestCounterData.h"
#include "tavrincommon/connector/internal/HandlerPayload.h"

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <string>
#include <utility>

namespace tavrinConnector {

namespace {
// Flags, counter, and a name of at most 255 bytes behind its length byte.
constexpr unsigned kMaxPayload = 1 + 4 + 1 + 255;
}  // namespace

TestCounterHandler::TestCounterHandler(AcceptCallback accept, DisconnectedCallback disconnected) {
  setCallbacks(std::move(accept), std::move(disconnected));
}

TestCounterHandler::~TestCounterHandler() { unlinkData(data, true); }

void TestCounterHandler::setCallbacks(AcceptCallback accept, DisconnectedCallback disconnected) {
  acceptCallback = accept ? std::move(accept)
                          : AcceptCallback([](unsigned int, TestCounterHandler*) { return true; });
  disconnectedCallback =
      disconnected ? std::move(disconnected) : DisconnectedCallback([](unsigned int) {});
}

void TestCounterHandler::linkData(TestCounterData* data_) {
  if (data_ == data) return;
  unlinkData(data, false);
  data = data_;
  // The data's side completes the link and sends all data.
  if (data_) data_->linkHandler(this);
}

void TestCounterHandler::unlinkData(TestCounterData* data_, bool disconnect) {
  if (!data || data_ != data) return;
  data = nullptr;
  data_->unlinkHandler();
  if (disconnect) requestDisconnect(0);
}

void TestCounterHandler::send(unsigned char flags) {
  auto message = std::make_unique<OutputMessage>(kMaxPayload);
  message->putUInt8(flags);
  if (flags & kCounterFlag) message->putUInt32(static_cast<unsigned int>(data->getCounter()));
  // The text up to its first NUL, cut to 255 bytes.
  if (flags & kNameFlag) message->putString(data->getName().c_str());
  sendFunction(std::move(message));
}

void TestCounterHandler::sendAllData() {
  if (data) send(kCounterFlag | kNameFlag);
}

void TestCounterHandler::sendCounter() {
  if (data) send(kCounterFlag);
}

void TestCounterHandler::sendName() {
  if (data) send(kNameFlag);
}

void TestCounterHandler::sendRemoteCounterReset() { send(kResetFlag); }

void TestCounterHandler::receive(std::unique_ptr<InputMessage>&& message) {
  if (!message || !data) return;
  // The whole message is read before anything is applied: one cut short changes nothing.
  unsigned left = internal::payloadLeft(*message);
  if (left < 1) return;
  const unsigned char flags = InputMessage::getUInt8(message->buffer);
  --left;
  int32_t counter = 0;
  if (flags & kCounterFlag) {
    if (left < 4) return;
    counter = message->getInt32();
    left -= 4;
  }
  std::string name;
  if (flags & kNameFlag) {
    if (left < 1) return;
    const unsigned length =
        static_cast<unsigned char>(message->buffer.getData()[message->buffer.getOffset()]);
    if (left < 1 + length) return;
    name = message->getString();
    name.erase(std::find(name.begin(), name.end(), '\0'), name.end());
  }
  // The application's callbacks may unlink the data: it is looked at again before each step.
  if ((flags & kCounterFlag) && data) data->setRemoteCounter(counter);
  if ((flags & kNameFlag) && data) data->setRemoteName(name);
  if ((flags & kResetFlag) && data) data->setCounter(0);
}

void TestCounterHandler::specificInit() {
  if (data) data->setCounter(0);
}

void TestCounterHandler::specificConnected() {
  if (!acceptCallback(connectionId, this)) requestDisconnect(DisconnectReason::noConnectionHandler);
}

void TestCounterHandler::specificDisconnected(unsigned int connectionId_, int /*reason*/,
                                              bool /*last*/) {
  unlinkData(data, false);
  disconnectedCallback(connectionId_);
}

void TestCounterHandler::specificConnectionMoved(bool /*last*/) { sendAllData(); }

void TestCounterHandler::dumpSpecific(std::ostream& os, const char* prefix) const {
  if (!data) {
    os << prefix << "No data linked\n";
    return;
  }
  os << prefix << "Data linked:\n";
  data->dump(os, (std::string(prefix) + "  ").c_str());
}

}  // namespace tavrinConnector
