// tavrin_dissector_captures: writes one pcap file of frames built by the library itself, for the
// dissector tests. Usage: tavrin_dissector_captures <case> <file.pcap>, with the cases
// control, split, coalesced, malformed and announce. Headers of Ethernet, IPv4, TCP and UDP are
// made up here, so no capture privileges are needed.

#include "tavrincommon/connector/ConnectorInterfaceType.h"
#include "tavrincommon/connector/MCAnnounceData.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/connector/TavrinConnectorMessageType.h"
#include "tavrincommon/connector/TestCounterData.h"
#include "tavrincommon/connector/TestCounterHandler.h"
#include "tavrincommon/connector/simpleConnector/SimpleConnectorHandler.h"
#include "tavrincommon/network/SimpleEndpoint.h"
#include "tavrincommon/network/SimpleIp.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace {

using tavrinConnector::OutputMessage;
using Type = tavrinConnector::TavrinConnectorMessageType;

constexpr uint32_t kNoId = 0xFFFFFFFFu;
constexpr uint32_t kClusterId = 7;
constexpr uint32_t kSlaveDeviceId = 2002;
constexpr uint32_t kMasterDeviceId = 1001;

// ---- pcap with synthetic link, network and transport headers ----

class Bytes {
 public:
  Bytes& u8(unsigned v) {
    data.push_back(static_cast<char>(v & 0xFF));
    return *this;
  }
  Bytes& be16(unsigned v) { return u8(v >> 8).u8(v); }
  Bytes& be32(uint32_t v) { return be16(v >> 16).be16(v & 0xFFFF); }
  Bytes& le16(unsigned v) { return u8(v).u8(v >> 8); }
  Bytes& le32(uint32_t v) { return le16(v & 0xFFFF).le16(v >> 16); }
  Bytes& raw(const std::string& s) {
    data += s;
    return *this;
  }
  std::string data;
};

uint16_t ipChecksum(const std::string& header) {
  uint32_t sum = 0;
  for (size_t i = 0; i + 1 < header.size(); i += 2)
    sum += (static_cast<uint8_t>(header[i]) << 8) | static_cast<uint8_t>(header[i + 1]);
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

struct Host {
  uint32_t ip;  // host order
  uint8_t macTail;
};

class PcapWriter {
 public:
  explicit PcapWriter(const std::string& path) : out(path, std::ios::binary) {
    Bytes header;
    header.le32(0xA1B2C3D4).le16(2).le16(4).le32(0).le32(0).le32(65535).le32(1);  // Ethernet
    out << header.data;
  }
  bool finish() {
    out.flush();
    return static_cast<bool>(out);
  }

  void packet(const Host& from, const Host& to, uint8_t protocol, const std::string& transport,
              bool multicast = false) {
    Bytes ethernet;
    if (multicast)
      ethernet.u8(0x01).u8(0x00).u8(0x5E).u8((to.ip >> 16) & 0x7F).u8(to.ip >> 8).u8(to.ip);
    else
      ethernet.u8(0x02).u8(0).u8(0).u8(0).u8(0).u8(to.macTail);
    ethernet.u8(0x02).u8(0).u8(0).u8(0).u8(0).u8(from.macTail).be16(0x0800);
    Bytes ip;
    ip.u8(0x45).u8(0).be16(static_cast<unsigned>(20 + transport.size())).be16(ipId++).be16(0x4000);
    ip.u8(64).u8(protocol).be16(0).be32(from.ip).be32(to.ip);
    const uint16_t sum = ipChecksum(ip.data);
    ip.data[10] = static_cast<char>(sum >> 8);
    ip.data[11] = static_cast<char>(sum & 0xFF);
    const std::string frame = ethernet.data + ip.data + transport;
    Bytes record;
    record.le32(1700000000).le32(usec).le32(static_cast<uint32_t>(frame.size()));
    record.le32(static_cast<uint32_t>(frame.size()));
    usec += 1000;
    out << record.data << frame;
  }

 private:
  std::ofstream out;
  uint16_t ipId = 1;
  uint32_t usec = 0;
};

// One TCP connection from a slave to a master, with its sequence numbers.
class TcpConnection {
 public:
  static constexpr uint8_t kSyn = 0x02, kAck = 0x10, kPsh = 0x08;

  TcpConnection(PcapWriter& pcap_, Host slave_, uint16_t slavePort_, Host master_,
                uint16_t masterPort_)
      : pcap(pcap_),
        slave(slave_),
        master(master_),
        slavePort(slavePort_),
        masterPort(masterPort_) {
    segment(true, kSyn, "");
    ++slaveSeq;
    segment(false, kSyn | kAck, "");
    ++masterSeq;
    segment(true, kAck, "");
  }
  void toMaster(const std::string& bytes) { segment(true, kPsh | kAck, bytes); }
  void toSlave(const std::string& bytes) { segment(false, kPsh | kAck, bytes); }

 private:
  void segment(bool fromSlave, uint8_t flags, const std::string& payload) {
    uint32_t& seq = fromSlave ? slaveSeq : masterSeq;
    const uint32_t ack = (flags & kAck) ? (fromSlave ? masterSeq : slaveSeq) : 0;
    Bytes tcp;
    tcp.be16(fromSlave ? slavePort : masterPort).be16(fromSlave ? masterPort : slavePort);
    tcp.be32(seq).be32(ack).u8(0x50).u8(flags).be16(65535).be16(0).be16(0).raw(payload);
    seq += static_cast<uint32_t>(payload.size());
    pcap.packet(fromSlave ? slave : master, fromSlave ? master : slave, 6, tcp.data);
  }

  PcapWriter& pcap;
  Host slave, master;
  uint16_t slavePort, masterPort;
  uint32_t slaveSeq = 1000, masterSeq = 5000;
};

void udp(PcapWriter& pcap, const Host& from, uint16_t fromPort, const Host& to, uint16_t toPort,
         const std::string& payload) {
  Bytes datagram;
  datagram.be16(fromPort).be16(toPort).be16(static_cast<unsigned>(8 + payload.size())).be16(0);
  datagram.raw(payload);
  pcap.packet(from, to, 17, datagram.data, true);
}

// ---- frames, built the way the connectors build them ----

std::string finalized(OutputMessage& message, Type::Type type, uint32_t info) {
  message.finalizeMessage(static_cast<unsigned char>(type), info);
  return std::string(message.getData(), message.getFrameLength());
}

std::string control(Type::Type type, uint32_t info,
                    const std::function<void(OutputMessage&)>& payload = {}) {
  OutputMessage message;
  if (payload) payload(message);
  return finalized(message, type, info);
}

std::string request(Type::Type type, uint32_t masterId, unsigned short handlerType,
                    uint32_t slaveId, std::initializer_list<unsigned short> versions) {
  return control(type, kClusterId, [&](OutputMessage& m) {
    m.putUInt32(masterId);
    m.putUInt16(handlerType);
    m.putUInt32(slaveId);
    m.putUInt32(kSlaveDeviceId);
    m.putUInt16(static_cast<unsigned short>(versions.size()));
    for (unsigned short v : versions) m.putUInt16(v);
  });
}

std::string accept(uint32_t slaveId, unsigned short handlerType, unsigned short version,
                   uint32_t masterId) {
  return control(Type::acceptConnection, kClusterId, [&](OutputMessage& m) {
    m.putUInt32(slaveId);
    m.putUInt16(handlerType);
    m.putUInt16(version);
    m.putUInt32(masterId);
    m.putUInt32(kMasterDeviceId);
  });
}

std::string reject(uint32_t slaveId, unsigned short handlerType, uint32_t masterId, int reason) {
  return control(Type::rejectConnection, kClusterId, [&](OutputMessage& m) {
    m.putUInt32(slaveId);
    m.putUInt16(handlerType);
    m.putUInt32(masterId);
    m.putUInt32(static_cast<unsigned>(reason));
  });
}

std::string disconnect(uint32_t receiverId, int reason) {
  return control(Type::disconnect, receiverId,
                 [&](OutputMessage& m) { m.putUInt32(static_cast<unsigned>(reason)); });
}

// Connects `handler` as the connector would, and collects what it sends as data frames addressed
// to the peer's id.
class DataFrames {
 public:
  void connect(tavrinConnector::ConnectionHandlerBase& handler, uint32_t ownId, uint32_t peerId) {
    handler.init(false);
    handler.connected(
        kClusterId, ownId, false, peerId, kMasterDeviceId, tavrinNetwork::SimpleEndpoint(), false,
        nullptr,
        [this, peerId](std::unique_ptr<OutputMessage>&& message) {
          frames.push_back(finalized(*message, Type::data, peerId));
        },
        [](int) {});
  }
  std::string take() {
    std::string all;
    for (const std::string& frame : frames) all += frame;
    frames.clear();
    return all;
  }

 private:
  std::vector<std::string> frames;
};

const Host kSlave{0xC0A80114, 0x14};     // 192.168.1.20
const Host kMaster{0xC0A8010A, 0x0A};    // 192.168.1.10
const Host kGroup{0xEFFF4D01, 0};        // 239.255.77.1
constexpr uint16_t kMasterPort = 47000;  // found by the heuristic: no preference names it
constexpr uint16_t kConfiguredPort = 47001;
constexpr uint16_t kAnnouncePort = 30300;

tavrinConnector::simpleConnector::SimpleConnectorHandler simpleHandler() {
  return tavrinConnector::simpleConnector::SimpleConnectorHandler(3, {}, {}, {}, nullptr);
}

// Every control message, and data of both ready-made handlers once their type is known.
void writeControl(PcapWriter& pcap) {
  TcpConnection tcp(pcap, kSlave, 40000, kMaster, kMasterPort);
  tcp.toMaster(control(Type::version, 0));
  tcp.toMaster(request(Type::connect, kNoId, 5, 1, {3, 2, 1}));
  tcp.toSlave(accept(1, 5, 3, 42));

  DataFrames frames;
  auto slaveSimple = simpleHandler();
  frames.connect(slaveSimple, 1, 42);
  slaveSimple.sendData("hello", 5);
  tcp.toMaster(frames.take());
  auto masterSimple = simpleHandler();
  frames.connect(masterSimple, 42, 1);
  masterSimple.sendData(std::vector<std::string>{"wor", "ld!"});
  tcp.toSlave(frames.take());

  tcp.toMaster(request(Type::connect, 100, 1, 2, {1}));
  tcp.toSlave(accept(2, 1, 1, 100));
  tavrinConnector::TestCounterData masterCounter({}, {});
  masterCounter.setName("panel");
  masterCounter.setCounter(5);
  tavrinConnector::TestCounterHandler masterHandler({}, {});
  frames.connect(masterHandler, 100, 2);
  masterHandler.linkData(&masterCounter);
  tcp.toSlave(frames.take());
  tavrinConnector::TestCounterHandler slaveHandler({}, {});
  frames.connect(slaveHandler, 2, 100);
  slaveHandler.sendRemoteCounterReset();
  tcp.toMaster(frames.take());

  tcp.toMaster(request(Type::moveConnection, 100, 1, 3, {1}));
  tcp.toMaster(request(Type::connect, kNoId, 5, 4, {3}));
  tcp.toSlave(reject(4, 5, kNoId, -8));
  tcp.toMaster(control(Type::ping, 0x1234ABCD));
  tcp.toSlave(control(Type::pong, 0x1234ABCD));
  tcp.toMaster(disconnect(42, 1));
  tcp.toSlave(disconnect(1, 1));
  tcp.toMaster(control(Type::connectionNotFound, 1));
  tcp.toSlave(disconnect(kNoId, -5));
}

// A connect frame in three segments: the first too short for the length field.
void writeSplit(PcapWriter& pcap) {
  TcpConnection tcp(pcap, kSlave, 40001, kMaster, kMasterPort);
  tcp.toMaster(control(Type::version, 0));
  const std::string frame = request(Type::connect, 100, 1, 9, {1});
  tcp.toMaster(frame.substr(0, 3));
  tcp.toMaster(frame.substr(3, 9));
  tcp.toMaster(frame.substr(12));
}

// Two frames in one segment, and a frame and a half followed by the rest and one more frame.
void writeCoalesced(PcapWriter& pcap) {
  TcpConnection tcp(pcap, kSlave, 40002, kMaster, kMasterPort);
  tcp.toMaster(control(Type::version, 0) + request(Type::connect, kNoId, 5, 1, {1}));
  DataFrames frames;
  auto masterSimple = simpleHandler();
  frames.connect(masterSimple, 42, 1);
  masterSimple.sendData("abc", 3);
  tcp.toSlave(accept(1, 5, 1, 42) + frames.take());
  const std::string pong = control(Type::pong, 0);
  tcp.toMaster(control(Type::ping, 7) + pong.substr(0, 6));
  tcp.toMaster(pong.substr(6) + disconnect(42, -1));
}

void writeMalformed(PcapWriter& pcap) {
  TcpConnection tcp(pcap, kSlave, 40003, kMaster, kMasterPort);
  tcp.toMaster(control(Type::version, 0));
  std::string badEnd = control(Type::pong, 0);
  badEnd.back() = 0x00;
  tcp.toMaster(badEnd);
  tcp.toMaster(control(Type::announce, 1));
  // An accept whose payload stops after the handler type.
  tcp.toSlave(control(Type::acceptConnection, kClusterId, [](OutputMessage& m) {
    m.putUInt32(1);
    m.putUInt16(5);
  }));
  tcp.toMaster(control(Type::version, 1));
  tcp.toMaster("GET / HTTP/1.0\r\n\r\n");

  // Not a plausible frame start for the heuristic, so this connection is decoded through the
  // master port preference.
  TcpConnection configured(pcap, kSlave, 40004, kMaster, kConfiguredPort);
  Bytes shortLength;
  shortLength.u8(0xA5).le32(3).u8(0).le32(0).u8(0x5A);
  configured.toMaster(shortLength.data);
}

// The announce datagram of a master with one connector and one announcement, then the same
// datagram cut short.
void writeAnnounce(PcapWriter& pcap) {
  tavrinConnector::MCAnnounceData data({}, nullptr);
  data.setData(1, 2, "AB");
  data.addConnector(3, tavrinConnector::ConnectorInterfaceType::Client, 0, 4,
                    tavrinNetwork::SimpleEndpoint(tavrinNetwork::SimpleIp("192.168.1.10"), 5000));
  data.addAnnouncement(3, 7, 5, "x", true);
  OutputMessage message;
  message.putUInt16(0);  // payload format version
  data.pack(message);
  const std::string frame = finalized(message, Type::announce, 1);
  udp(pcap, kMaster, 30301, kGroup, kAnnouncePort, frame);
  udp(pcap, kMaster, 30301, kGroup, kAnnouncePort, frame.substr(0, frame.size() - 1));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s control|split|coalesced|malformed|announce <file.pcap>\n",
                 argv[0]);
    return 2;
  }
  const std::string which = argv[1];
  PcapWriter pcap(argv[2]);
  if (which == "control") {
    writeControl(pcap);
  } else if (which == "split") {
    writeSplit(pcap);
  } else if (which == "coalesced") {
    writeCoalesced(pcap);
  } else if (which == "malformed") {
    writeMalformed(pcap);
  } else if (which == "announce") {
    writeAnnounce(pcap);
  } else {
    std::fprintf(stderr, "unknown case '%s'\n", which.c_str());
    return 2;
  }
  if (!pcap.finish()) {
    std::fprintf(stderr, "could not write '%s'\n", argv[2]);
    return 1;
  }
  return 0;
}
