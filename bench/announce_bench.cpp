// The announce protocol: pack and unpack of a large device picture (64 connectors of 100
// announcements each), first into empty data and then over the same data (the merge of a master's
// unchanged repeat); and announce datagrams handled per second by a slave through a scripted
// socket, with a known change count (a refresh) and with a new one (the data taken over).
#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/MCAnnounceData.h"
#include "tavrincommon/connector/MCAnnounceSlave.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/FakeMulticastSocket.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <string>

namespace {

using tavrinConnector::ConnectorInterfaceType;
using tavrinConnector::InputMessage;
using tavrinConnector::MCAnnounceData;
using tavrinConnector::MCAnnounceSlave;
using tavrinConnector::OutputMessage;
using tavrinConnector::SingleAnnouncementData;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

void fill(MCAnnounceData& data, unsigned connectors, unsigned announcements) {
  data.setData(1, 2, "bench device");
  for (unsigned c = 0; c < connectors; ++c) {
    data.addConnector(c, ConnectorInterfaceType::Client, 0, 4,
                      SimpleEndpoint(SimpleIp("10.0.0.1"), static_cast<unsigned short>(6000 + c)));
    for (unsigned a = 0; a < announcements; ++a) {
      data.addAnnouncement(c, a, 1, "channel " + std::to_string(a), a % 4 != 0);
    }
  }
}

// The announce frame of `data`, with the format version first, as a master sends it.
std::string frameOf(const MCAnnounceData& data, uint32_t changeCount) {
  OutputMessage message;
  message.putUInt16(0);
  data.pack(message);
  message.finalizeMessage(10, changeCount);
  return std::string(message.getData(), message.getFrameLength());
}

void BM_PackDevice(benchmark::State& state) {
  MCAnnounceData data(nullptr, nullptr);
  fill(data, 64, 100);
  size_t bytes = 0;
  for (auto _ : state) {
    OutputMessage message;
    message.putUInt16(0);
    data.pack(message);
    message.finalizeMessage(10, 1);
    bytes = message.getFrameLength();
    benchmark::DoNotOptimize(message.getData());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
  state.counters["frame_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_PackDevice);

// range(0): 0 unpacks into empty data each time, 1 over the data of the same payload.
void BM_UnpackDevice(benchmark::State& state) {
  MCAnnounceData source(nullptr, nullptr);
  fill(source, 64, 100);
  const std::string frame = frameOf(source, 1);
  InputMessage message(frame.data(), static_cast<unsigned>(frame.size()), true);
  MCAnnounceData kept(nullptr, nullptr);
  int added = 0;
  const auto count = [&added](const SingleAnnouncementData&) { ++added; };
  for (auto _ : state) {
    message.reset();
    message.getUInt16();
    InputMessage::getUInt32(message.buffer);
    if (state.range(0) == 0) {
      MCAnnounceData fresh(nullptr, nullptr);
      fresh.unpack(1, message, count);
      benchmark::DoNotOptimize(fresh.getConnectors().size());
    } else {
      kept.unpack(1, message, count);
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frame.size()));
  state.counters["added_per_unpack"] =
      static_cast<double>(added) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_UnpackDevice)->Arg(0)->Arg(1);

// range(0): 0 every datagram repeats the known change count, 1 every one carries a new one.
void BM_SlaveDatagrams(benchmark::State& state) {
  tavrinScheduler::Scheduler scheduler(nullptr);
  tavrinTesting::FakeMulticastSocket* fake = nullptr;
  MCAnnounceSlave slave(
      &scheduler,
      [&fake]() -> std::unique_ptr<tavrinNetwork::MulticastSocketInterface> {
        auto socket = std::make_unique<tavrinTesting::FakeMulticastSocket>();
        fake = socket.get();
        return socket;
      },
      20100, nullptr);
  slave.init(1, SimpleIp("239.255.77.1"), 4000, "lo");
  slave.addSupportedConnector(0, ConnectorInterfaceType::Client);
  slave.setEnabled(true);
  // A typical master: 4 connectors of 16 announcements.
  MCAnnounceData source(nullptr, nullptr);
  fill(source, 4, 16);
  const std::string frames[2] = {frameOf(source, 1), frameOf(source, 2)};
  const SimpleEndpoint sender(SimpleIp("127.0.0.1"), 5000);
  uint64_t n = 0;
  for (auto _ : state) {
    fake->addDatagram(sender, frames[state.range(0) == 0 ? 0 : (n++ & 1)]);
    slave.socketCallback(1);
    slave.work();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  state.SetLabel(state.range(0) == 0 ? "known change count" : "new change count");
}
BENCHMARK(BM_SlaveDatagrams)->Arg(0)->Arg(1);

}  // namespace

BENCHMARK_MAIN();
