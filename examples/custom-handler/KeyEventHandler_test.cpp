// The key event handler between a master and a slave on loopback, with the library's test kit:
// no network beyond 127.0.0.1 and no test framework. Exit status 0 when every check holds.
#include "KeyEventHandler.h"

#include <tavrincommon/connector/InputMessage.h>
#include <tavrincommon/connector/OutputMessage.h>
#include <tavrincommon/connector/TavrinConnectorMessageType.h>
#include <tavrincommon/testing/LoopbackFixture.h>

#include <cstdio>
#include <memory>
#include <vector>

namespace {

using keyEvents::KeyEventHandler;
using Kind = KeyEventHandler::Kind;

int failures = 0;

void check(bool condition, const char* what, const tavrinTesting::LogCapture* log = nullptr) {
  if (condition) return;
  ++failures;
  std::fprintf(stderr, "FAILED: %s\n", what);
  if (log) std::fprintf(stderr, "library log:\n%s", log->text().c_str());
}

// The slave presses and releases a key; the master sees both events, and the slave gets both
// acknowledged under the sequence numbers it sent.
void keyEventsCrossTheConnectionAndComeBackAcknowledged() {
  tavrinTesting::LoopbackFixture fixture;
  std::vector<KeyEventHandler::Event> atMaster;
  std::vector<uint32_t> acknowledged;
  fixture.addMasterHandler(KeyEventHandler::kType, KeyEventHandler::kVersion, [&] {
    KeyEventHandler::Callbacks callbacks;
    callbacks.key = [&](KeyEventHandler&, const KeyEventHandler::Event& e) {
      atMaster.push_back(e);
    };
    return std::make_unique<KeyEventHandler>(callbacks);
  });
  fixture.addSlaveHandler(KeyEventHandler::kType, KeyEventHandler::kVersion, [&] {
    KeyEventHandler::Callbacks callbacks;
    callbacks.acknowledged = [&](KeyEventHandler&, uint32_t sequence) {
      acknowledged.push_back(sequence);
    };
    return std::make_unique<KeyEventHandler>(callbacks);
  });
  check(fixture.start(), "the master listens", &fixture.log());

  auto* panel = static_cast<KeyEventHandler*>(fixture.connect(KeyEventHandler::kType));
  check(panel != nullptr, "the slave's connection comes up", &fixture.log());
  if (!panel) return;
  check(panel->sendKey(Kind::KeyDown, 12) == 1, "the first key event has sequence 1");
  check(panel->sendKey(Kind::KeyUp, 12) == 2, "the second key event has sequence 2");
  check(fixture.runUntil([&] { return acknowledged.size() == 2; }), "both events are acknowledged",
        &fixture.log());

  check(atMaster.size() == 2, "the master sees two key events");
  if (atMaster.size() == 2) {
    check(atMaster[0].kind == Kind::KeyDown && atMaster[0].key == 12 && atMaster[0].sequence == 1,
          "the master sees key 12 go down first");
    check(atMaster[1].kind == Kind::KeyUp && atMaster[1].key == 12 && atMaster[1].sequence == 2,
          "then key 12 go up");
  }
  check(acknowledged == std::vector<uint32_t>{1, 2}, "the acknowledges repeat the sequences");
  auto* desk = static_cast<KeyEventHandler*>(fixture.masterSide(*panel));
  check(desk && desk->getMalformedCount() == 0 && panel->getMalformedCount() == 0,
        "nothing was malformed");
}

std::unique_ptr<tavrinConnector::InputMessage> frameWith(const std::vector<uint8_t>& payload) {
  tavrinConnector::OutputMessage out(static_cast<unsigned>(payload.size()));
  for (uint8_t byte : payload) out.putUInt8(byte);
  out.finalizeMessage(tavrinConnector::TavrinConnectorMessageType::data, 1);
  return std::make_unique<tavrinConnector::InputMessage>(out.getData(), out.getFrameLength(), true);
}

// A message of the wrong length or of an unknown kind is dropped and counted; no callback runs.
void malformedMessagesAreCountedAndDropped() {
  unsigned calls = 0;
  KeyEventHandler::Callbacks callbacks;
  callbacks.key = [&](KeyEventHandler&, const KeyEventHandler::Event&) { ++calls; };
  callbacks.acknowledged = [&](KeyEventHandler&, uint32_t) { ++calls; };
  KeyEventHandler handler(callbacks);
  handler.receive(frameWith({1, 12, 0}));
  handler.receive(frameWith({1, 12, 0, 1, 0, 0, 0, 0}));
  handler.receive(frameWith({9, 12, 0, 1, 0, 0, 0}));
  check(handler.getMalformedCount() == 3, "three malformed messages are counted");
  check(calls == 0, "no callback runs for them");
  handler.receive(frameWith({3, 12, 0, 7, 0, 0, 0}));
  check(calls == 1 && handler.getMalformedCount() == 3, "a well-formed acknowledge still passes");
}

}  // namespace

int main() {
  keyEventsCrossTheConnectionAndComeBackAcknowledged();
  malformedMessagesAreCountedAndDropped();
  if (failures == 0) std::printf("key event handler: all checks passed\n");
  return failures == 0 ? 0 : 1;
}
