// Announces one device on its network: multicasts the device's announce data at once after every
// change (one message per loop turn) and again every send interval while it holds announcements,
// and withdraws it with one message without announcements. Owns the data, the send socket and the
// send timer; keeps the scheduler and the logging object. Loop thread only; nothing is locked.
#pragma once

#include "tavrincommon/common/CallbackSlot.h"
#include "tavrincommon/common/LivenessToken.h"
#include "tavrincommon/connector/ErrorType.h"
#include "tavrincommon/connector/MCAnnounceData.h"
#include "tavrincommon/connector/MCAnnounceMasterInterface.h"
#include "tavrincommon/network/MulticastSocketInterface.h"
#include "tavrincommon/scheduler/SimpleTimer.h"
#include "tavrincommon/scheduler/Worker.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace tavrinScheduler {
class Scheduler;
}

namespace tavrinConnector {

class MCAnnounceMaster : public MCAnnounceMasterInterface, public tavrinScheduler::Worker {
 public:
  using SocketFactory = std::function<std::unique_ptr<tavrinNetwork::MulticastSocketInterface>()>;
  using ErrorCallback = std::function<void(ErrorType::Type, const std::string&)>;

  static constexpr int kDefaultSendIntervalMs = 10000;
  // The whole frame, header and delimiters included.
  static constexpr unsigned kMaxMessageSize = 61440;

  // `socketFactory` must not be empty; it is called each time the send socket is (re)created.
  MCAnnounceMaster(tavrinScheduler::Scheduler* scheduler, SocketFactory socketFactory,
                   int sendInterval, tavrinLog::TavrinLogging* logger);
  // Real multicast sockets and the default send interval.
  MCAnnounceMaster(tavrinScheduler::Scheduler* scheduler, tavrinLog::TavrinLogging* logger);
  // Says farewell when announcing (setEnabled(false)), then releases everything.
  ~MCAnnounceMaster() override;
  MCAnnounceMaster(const MCAnnounceMaster&) = delete;
  MCAnnounceMaster& operator=(const MCAnnounceMaster&) = delete;

  // Disables; does not enable.
  void init(unsigned networkId, unsigned deviceId, const std::string& deviceName,
            tavrinNetwork::SimpleIp multicastIp, unsigned short multicastPort,
            tavrinNetwork::SimpleIp bindIp_, unsigned short bindPort_,
            const std::string& interface_, bool multicastLoop_);
  // Every change of state empties the data: the application adds its connectors again.
  void setEnabled(bool enable);
  // Also from inside the error callback: the new one applies from the next error on. The error
  // callback may also re-enable or destroy the master.
  void setErrorCallback(ErrorCallback callback);
  void setDscp(int dscp_);
  void setMulticastTtl(int ttl_);
  void setBindIp(tavrinNetwork::SimpleIp bindIp_);
  // Withdraws the announcements from the old group and ends enabled, with emptied data.
  void setMulticastGroup(tavrinNetwork::SimpleIp address, unsigned short port);
  // Follows the interface the master announces on, for one that can go away and come back (a
  // USB adapter, a bridge re-created): call it from a LocalIPAddressWatcher's callback with that
  // interface's address. NO_IP (gone or down): the socket is closed and the master pauses, still
  // enabled with its data, taking edits and sending nothing, without an error. An address: the
  // socket is opened anew (one bound to a removed interface fails every send, even when the
  // interface is back under its name) and the data goes out at once, change count unchanged
  // unless edits were made meanwhile; a failure to open is reported as by setEnabled(true).
  // Nothing while disabled. The address is not taken as bind address: a master bound to an
  // address that changed needs setBindIp (which empties the data).
  void interfaceChanged(tavrinNetwork::SimpleIp address);

  void addConnector(unsigned connectorId, ConnectorInterfaceType::Type type,
                    unsigned short version, unsigned clusterId,
                    const tavrinNetwork::SimpleEndpoint& endpoint) override;
  void removeConnector(unsigned connectorId) override;
  void clearConnectors() override;
  void addAnnouncement(unsigned connectorId, unsigned id, unsigned short type,
                       const std::string& name, bool available) override;
  void setAnnouncementAvailable(unsigned connectorId, unsigned id, unsigned short type,
                                bool available) override;
  void setAnnouncementName(unsigned connectorId, unsigned id, unsigned short type,
                           const std::string& name) override;
  void removeAnnouncement(unsigned connectorId, unsigned id, unsigned short type) override;
  void clearAnnouncements(unsigned connectorId) override;
  bool hasAnnouncement(unsigned connectorId, unsigned id, unsigned short type) const override;
  unsigned getNetworkId() const override { return data.getNetworkId(); }
  unsigned getDeviceId() const override { return data.getDeviceId(); }
  tavrinNetwork::SimpleIp getBindIp() const override { return bindIp; }
  unsigned short getVersion() const override { return 0; }
  void dump(std::ostream& out, const char* prefix) const override;

  // Sends what the edits of this loop turn changed.
  Result work() override;

  bool isEnabled() const { return enabled; }
  // Enabled, but waiting for its interface to have an address again (interfaceChanged).
  bool isPaused() const { return paused; }
  uint32_t getChangeCount() const { return changeCount; }
  const MCAnnounceData& getData() const { return data; }
  const tavrinNetwork::SimpleEndpoint& getMulticastGroup() const { return multicastGroup; }

 private:
  void setModified();
  // False when a send failed: the error path has then disabled the master and called the error
  // callback, which may have re-enabled or destroyed it, so the caller touches nothing more.
  bool sendAnnounceDataIfNeeded(const MCAnnounceData& d);
  bool sendAnnounceDataAndScheduleNextSend(const MCAnnounceData& d);
  bool sendAnnounceData(const MCAnnounceData& d);
  void internalSetEnabled(MCAnnounceData& d, bool enable, bool sendNow);
  bool initSendSocket();
  void setGeneralError(ErrorType::Type type, const std::string& text);

  tavrinLog::TavrinLogging* logger;
  tavrinScheduler::Scheduler* scheduler;
  SocketFactory socketFactory;
  tavrinScheduler::SimpleTimer sendTimer;
  // Shared_ptr-held, so that the callback may replace itself (or destroy the master) while it runs.
  tavrinCommon::CallbackSlot<ErrorCallback> errorCallback;
  tavrinNetwork::SimpleIp bindIp;
  unsigned short bindPort = 0;
  std::string interface;
  tavrinNetwork::SimpleEndpoint multicastGroup;
  bool multicastLoop = false;
  bool enabled = false;
  bool paused = false;
  int dscp = 0;
  int ttl = 1;
  std::unique_ptr<tavrinNetwork::MulticastSocketInterface> socket;
  MCAnnounceData data;
  bool modified = false;
  bool emptyAnnouncementSent = true;
  uint32_t changeCount = 0;
  tavrinCommon::LivenessToken liveness;
};

}  // namespace tavrinConnector
