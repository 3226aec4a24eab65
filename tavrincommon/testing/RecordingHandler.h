// Test helper: a connection handler that records what happens to it in a shared, thread-safe
// record that outlives it, and runs hooks the test installs (to send, or to end connections from
// inside the handler's own calls). Payloads are raw bytes. Used on its connector's loop thread;
// the record may be read from any thread.
#pragma once

#include "tavrincommon/connector/ConnectionHandlerBase.h"
#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/OutputMessage.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tavrinTesting {

class RecordingHandler;

struct HandlerRecord {
  struct Event {
    std::string what;  // "init", "connected", "received", "disconnected", "moved"
    unsigned id = 0;
    int reason = 0;
    bool last = false;
    std::string payload;
  };

  void add(Event event) {
    std::lock_guard<std::mutex> lock(mutex);
    events.push_back(std::move(event));
  }
  std::vector<Event> all() const {
    std::lock_guard<std::mutex> lock(mutex);
    return events;
  }
  size_t count(const std::string& what) const {
    std::lock_guard<std::mutex> lock(mutex);
    size_t n = 0;
    for (const Event& event : events) n += event.what == what;
    return n;
  }
  // The last event of that kind; a default event when there is none.
  Event lastOf(const std::string& what) const {
    std::lock_guard<std::mutex> lock(mutex);
    for (auto it = events.rbegin(); it != events.rend(); ++it)
      if (it->what == what) return *it;
    return {};
  }
  // The reason of the last disconnect of each connection id.
  std::map<unsigned, int> reasons() const {
    std::lock_guard<std::mutex> lock(mutex);
    std::map<unsigned, int> byId;
    for (const Event& event : events)
      if (event.what == "disconnected") byId[event.id] = event.reason;
    return byId;
  }
  int alive() const {
    std::lock_guard<std::mutex> lock(mutex);
    return created - destroyed;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex);
    events.clear();
  }

  // Installed before the connectors run; called on the handler's loop thread.
  std::function<void(RecordingHandler&)> onConnected;
  std::function<void(RecordingHandler&, const std::string&)> onReceive;
  std::function<void(RecordingHandler&, unsigned id, int reason)> onDisconnected;

  mutable std::mutex mutex;
  std::vector<Event> events;
  int created = 0;
  int destroyed = 0;
};

class RecordingHandler : public tavrinConnector::ConnectionHandlerBase {
 public:
  RecordingHandler(unsigned short type_, unsigned short version_,
                   std::shared_ptr<HandlerRecord> record_, bool allowMove_ = false)
      : type(type_), version(version_), allowMove(allowMove_), record(std::move(record_)) {
    std::lock_guard<std::mutex> lock(record->mutex);
    ++record->created;
  }
  ~RecordingHandler() override {
    std::lock_guard<std::mutex> lock(record->mutex);
    ++record->destroyed;
  }

  // A factory for a connector: every handler it makes shares `record`.
  static std::function<std::unique_ptr<tavrinConnector::ConnectionHandlerBase>()> factory(
      unsigned short type, unsigned short version, std::shared_ptr<HandlerRecord> record,
      bool allowMove = false) {
    return [=] { return std::make_unique<RecordingHandler>(type, version, record, allowMove); };
  }

  void send(const std::string& payload) {
    auto message = std::make_unique<tavrinConnector::OutputMessage>(
        static_cast<unsigned>(payload.size()));
    message->getBuffer().write(payload.data(), static_cast<unsigned>(payload.size()));
    sendFunction(std::move(message));
  }

  void receive(std::unique_ptr<tavrinConnector::InputMessage>&& message) override {
    // The payload runs from the cursor to the end delimiter.
    const unsigned remaining = message->buffer.getRemaining();
    unsigned n = remaining > 0 ? remaining - 1 : 0;
    const char* data = message->buffer.accessRawData(n);
    const std::string payload(data, n);
    record->add({"received", connectionId, 0, false, payload});
    if (record->onReceive) record->onReceive(*this, payload);
  }
  unsigned short getType() const override { return type; }
  unsigned short getVersion() const override { return version; }
  bool moveConnectionAllowed() const override { return allowMove; }
  void setMoveAllowed(bool allowed) { allowMove = allowed; }

 protected:
  void specificInit() override { record->add({"init", connectionId, 0, false, {}}); }
  void specificConnected() override {
    record->add({"connected", connectionId, 0, false, {}});
    if (record->onConnected) record->onConnected(*this);
  }
  void specificDisconnected(unsigned id, int reason, bool last) override {
    record->add({"disconnected", id, reason, last, {}});
    if (record->onDisconnected) record->onDisconnected(*this, id, reason);
  }
  void specificConnectionMoved(bool last) override {
    record->add({"moved", connectionId, 0, last, {}});
  }

 private:
  unsigned short type;
  unsigned short version;
  bool allowMove;
  std::shared_ptr<HandlerRecord> record;
};

}  // namespace tavrinTesting
