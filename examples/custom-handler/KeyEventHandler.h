// A connection handler of the application's own: key events of an intercom panel (a talk key
// pressed or released) travel over a logical connection of type kType, and the receiving side
// acknowledges each one. Both ends use this class. Every data frame carries one message of
// exactly seven bytes, little-endian:
//
//   byte 0     kind: 1 key down, 2 key up, 3 acknowledge
//   bytes 1-2  key number
//   bytes 3-6  sequence number (the sender counts from 1; an acknowledge repeats the event's)
//
// A frame of another length or kind is counted as malformed and dropped. Loop thread of its
// connector only, like every handler.
#pragma once

#include <tavrincommon/connector/ConnectionHandlerBase.h>

#include <cstdint>
#include <functional>
#include <memory>

namespace keyEvents {

class KeyEventHandler : public tavrinConnector::ConnectionHandlerBase {
 public:
  // Handler types are the application's to number; this one is unused by the library.
  static constexpr unsigned short kType = 4000;
  static constexpr unsigned short kVersion = 1;
  static constexpr unsigned kMessageSize = 7;

  enum class Kind : uint8_t { KeyDown = 1, KeyUp = 2, Acknowledge = 3 };
  struct Event {
    Kind kind;
    uint16_t key;
    uint32_t sequence;
  };
  // Called on the loop thread; any may be empty. `key` runs for key events (already
  // acknowledged), `acknowledged` for the peer's acknowledges.
  struct Callbacks {
    std::function<void(KeyEventHandler&, const Event&)> key;
    std::function<void(KeyEventHandler&, uint32_t sequence)> acknowledged;
    std::function<void(KeyEventHandler&)> connected;
    std::function<void(unsigned connectionId, int reason)> disconnected;
  };

  explicit KeyEventHandler(Callbacks callbacks_);
  ~KeyEventHandler() override;

  // Sends a key event; its sequence number, or 0 when not connected.
  uint32_t sendKey(Kind kind, uint16_t key);
  unsigned getMalformedCount() const { return malformed; }

  void receive(std::unique_ptr<tavrinConnector::InputMessage>&& message) override;
  unsigned short getType() const override { return kType; }
  unsigned short getVersion() const override { return kVersion; }

 protected:
  void specificConnected() override;
  void specificDisconnected(unsigned connectionId_, int reason, bool last) override;

 private:
  void send(const Event& event);

  Callbacks callbacks;
  uint32_t nextSequence = 1;
  unsigned malformed = 0;
};

}  // namespace keyEvents
