// Feeds arbitrary bytes to the announce payload reader and to the announce slave's receive path.
//
// Input layout: byte 0 chooses the target.
// - Even: the rest is one announce payload (after the format version and network id). It is
//   unpacked twice into the same data, which must report nothing the second time, and the result
//   must survive a pack / unpack round trip byte for byte.
// - Odd: the rest is a list of datagrams for the slave, each [flags][change count][length: 2
//   bytes][bytes]. Flag bit 0 wraps the bytes as the payload of an announce frame (format version
//   0, network id 1), bits 1-2 choose one of four senders, bit 3 runs the worker afterwards, bit 4
//   removes announcement id 1 locally, bit 5 sends the datagram longer than the receive buffer,
//   bit 6 tightens the bounds (two masters, 2 KiB of master data, three queued datagrams) from
//   then on.
#include "FuzzCheck.h"
#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/MCAnnounceData.h"
#include "tavrincommon/connector/MCAnnounceSlave.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/FakeMulticastSocket.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>

namespace {

using tavrinConnector::ConnectorInterfaceType;
using tavrinConnector::InputMessage;
using tavrinConnector::MCAnnounceData;
using tavrinConnector::MCAnnounceSlave;
using tavrinConnector::OutputMessage;
using tavrinConnector::SingleAnnouncementData;

// Every line is formatted (the level is Maximum) and dropped.
tavrinLog::TavrinLogging& fuzzLogging() {
  static tavrinLog::TavrinLogging logging(tavrinLog::SeverityLevel::Maximum,
                                          [](int, tavrinLog::SeverityLevel::Type, const char*) {});
  return logging;
}

tavrinScheduler::Scheduler& fuzzScheduler() {
  static tavrinScheduler::Scheduler scheduler(nullptr);
  return scheduler;
}

std::string frame(const std::string& payload, uint32_t changeCount) {
  OutputMessage message;
  message.getBuffer().write(payload.data(), static_cast<unsigned>(payload.size()));
  message.finalizeMessage(10, changeCount);
  return std::string(message.getData(), message.getFrameLength());
}

std::string packed(const MCAnnounceData& data) {
  OutputMessage message;
  data.pack(message);
  return std::string(message.getData() + OutputMessage::kHeaderSize,
                     message.getFrameLength() - OutputMessage::kHeaderSize);
}

void unpackPayload(const std::string& payload) {
  InputMessage message(frame(payload, 1).data(), static_cast<unsigned>(payload.size() + 11), true);
  FUZZ_CHECK(message.isValid());
  MCAnnounceData data(nullptr, &fuzzLogging());
  int added = 0;
  data.unpack(7, message, [&](const SingleAnnouncementData&) { ++added; });
  FUZZ_CHECK(message.buffer.getOffset() <= message.getLength() + 4);
  FUZZ_CHECK(added == data.getNumberOfAnnouncements(true, {}, {}));
  message.reset();
  data.unpack(7, message, [&](const SingleAnnouncementData&) { FUZZ_CHECK(false); });

  // What was taken in packs to a payload that reads back to the same data.
  const std::string once = packed(data);
  InputMessage again(frame(once, 2).data(), static_cast<unsigned>(once.size() + 11), true);
  MCAnnounceData copy(nullptr, &fuzzLogging());
  FUZZ_CHECK(InputMessage::getUInt32(again.buffer) == data.getNetworkId());
  copy.unpack(data.getNetworkId(), again, {});
  FUZZ_CHECK(packed(copy) == once);
  FUZZ_CHECK(copy.getConnectors().size() == data.getConnectors().size());
  std::ostringstream out;
  data.dump(out, "");
}

void feedSlave(const uint8_t* data, size_t size) {
  tavrinScheduler::Scheduler& scheduler = fuzzScheduler();
  tavrinTesting::FakeMulticastSocket* fake = nullptr;
  auto slave = std::make_unique<MCAnnounceSlave>(
      &scheduler,
      [&fake]() -> std::unique_ptr<tavrinNetwork::MulticastSocketInterface> {
        auto socket = std::make_unique<tavrinTesting::FakeMulticastSocket>();
        fake = socket.get();
        return socket;
      },
      1000, &fuzzLogging());
  int errors = 0;
  slave->setCallbacks(
      [&](const SingleAnnouncementData& announcement) {
        FUZZ_CHECK(announcement.connectorVersion == 0);
        FUZZ_CHECK(announcement.connectorType == ConnectorInterfaceType::Client ||
                   announcement.connectorType == ConnectorInterfaceType::PanelMaster);
      },
      [&](tavrinConnector::ErrorType::Type, const std::string&) { ++errors; });
  slave->init(1, tavrinNetwork::SimpleIp("239.255.77.1"), 4000, "lo");
  slave->addSupportedConnector(0, ConnectorInterfaceType::Client);
  slave->addSupportedConnector(0, ConnectorInterfaceType::PanelMaster);
  slave->setEnabled(true);
  FUZZ_CHECK(fake && slave->isEnabled());

  size_t at = 0;
  bool removedLocally = false;
  while (at + 4 <= size) {
    const uint8_t flags = data[at];
    const uint32_t changeCount = data[at + 1];
    size_t length = data[at + 2] | (static_cast<size_t>(data[at + 3]) << 8);
    at += 4;
    if (length > size - at) length = size - at;
    std::string bytes(reinterpret_cast<const char*>(data) + at, length);
    at += length;
    if (flags & 1) bytes = frame(std::string("\0\0\1\0\0\0", 6) + bytes, changeCount);
    if (flags & 32) bytes.resize(MCAnnounceSlave::kReceiveBufferSize + 1, '\x5a');
    const tavrinNetwork::SimpleEndpoint sender(tavrinNetwork::SimpleIp("127.0.0.1"),
                                               static_cast<unsigned short>(5000 + ((flags >> 1) & 3)));
    if (flags & 64) {
      slave->setMaxMasters(2);
      slave->setMaxMasterDataBytes(2048);
      slave->setMaxQueuedDatagrams(3);
    }
    fake->addDatagram(sender, bytes);
    FUZZ_CHECK(slave->socketCallback(1) != tavrinScheduler::IOWatchItem::Removed);
    if (flags & 8) slave->work();
    if (flags & 16) {
      slave->removeAnnouncements(1);
      removedLocally = true;
    }
  }
  while (slave->getReceiveQueueSize() > 0) slave->work();
  FUZZ_CHECK(errors == 0);
  FUZZ_CHECK(slave->getQueuedBytes() == 0);
  // The data bound counts what each master holds, whatever path changed it: its data and an
  // entry of the same size for every master.
  size_t held = 0;
  size_t entryBytes = 0;
  for (const auto& [endpoint, master] : slave->getMasters()) {
    if (entryBytes == 0) entryBytes = master->heapBytes - master->data.heapBytes();
    FUZZ_CHECK(entryBytes > 0 && master->heapBytes == entryBytes + master->data.heapBytes());
    held += master->heapBytes;
  }
  FUZZ_CHECK(held == slave->getMasterDataBytes());
  // Only a local removal leaves a master without announcements until its next message.
  for (const auto& [endpoint, master] : slave->getMasters()) {
    FUZZ_CHECK(removedLocally || master->data.announcementsPresent());
  }
  for (const SingleAnnouncementData& announcement : slave->getAnyClusterAnnouncements()) {
    FUZZ_CHECK(slave->isConnectorSupported(announcement.connectorVersion,
                                           announcement.connectorType));
  }
  std::ostringstream out;
  slave->dump(out, "");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  // Beyond the largest announce message nothing new can happen.
  if (size > 70000) return 0;
  if ((data[0] & 1) == 0) {
    unpackPayload(std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
  } else {
    feedSlave(data + 1, size - 1);
  }
  return 0;
}
