#include "tavrincommon/connector/MCAnnounceMaster.h"

#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/connector/TavrinConnectorMessageType.h"
#include "tavrincommon/connector/internal/AnnounceLog.h"
#include "tavrincommon/connector/internal/DefaultMulticastSocket.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/network/MulticastSocket.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <cstdio>
#include <ostream>
#include <utility>

namespace tavrinConnector {

using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::SimpleIp;

namespace {

const char* yesNo(bool value) { return value ? "yes" : "no"; }

}  // namespace

MCAnnounceMaster::MCAnnounceMaster(tavrinScheduler::Scheduler* scheduler_,
                                   SocketFactory socketFactory_, int sendInterval,
                                   tavrinLog::TavrinLogging* logger_)
    : Worker(DefaultOrigins::MCAnnounce),
      logger(logger_),
      scheduler(scheduler_),
      socketFactory(std::move(socketFactory_)),
      sendTimer(
          scheduler_, sendInterval, [this] { sendAnnounceDataIfNeeded(data); },
          DefaultOrigins::MCAnnounce),
      errorCallback([](ErrorType::Type, const std::string&) {}),
      multicastGroup(SimpleIp(0u), 0),
      data([this] { setModified(); }, logger_) {}

MCAnnounceMaster::MCAnnounceMaster(tavrinScheduler::Scheduler* scheduler_,
                                   tavrinLog::TavrinLogging* logger_)
    : MCAnnounceMaster(scheduler_, internal::defaultMulticastSocketFactory(logger_),
                       kDefaultSendIntervalMs, logger_) {}

MCAnnounceMaster::~MCAnnounceMaster() {
  setEnabled(false);
  // Edits made while disabled may have scheduled the worker.
  scheduler->removeWorker(this);
  sendTimer.stop();
}

void MCAnnounceMaster::init(unsigned networkId, unsigned deviceId, const std::string& deviceName,
                            SimpleIp multicastIp, unsigned short multicastPort, SimpleIp bindIp_,
                            unsigned short bindPort_, const std::string& interface_,
                            bool multicastLoop_) {
  setEnabled(false);
  data.setData(networkId, deviceId, deviceName);
  bindIp = bindIp_;
  bindPort = bindPort_;
  interface = interface_;
  multicastLoop = multicastLoop_;
  multicastGroup = SimpleEndpoint(multicastIp, multicastPort);
  ANNOUNCE_LOG(Debug,
               "Initialized MCAnnounce master on Device %u (0x%08X): '%s', NetworkId %u, IP: %s:%u "
               "(interface '%s'), MC group: %s",
               deviceId, deviceId, deviceName.c_str(), networkId,
               SimpleIp::CharString(bindIp).c_str(), static_cast<unsigned>(bindPort),
               interface.c_str(), SimpleEndpoint::CharString(multicastGroup).c_str());
}

void MCAnnounceMaster::setEnabled(bool enable) { internalSetEnabled(data, enable, true); }

void MCAnnounceMaster::setErrorCallback(ErrorCallback callback) {
  errorCallback =
      callback ? std::move(callback) : ErrorCallback([](ErrorType::Type, const std::string&) {});
}

void MCAnnounceMaster::setDscp(int dscp_) {
  if (dscp_ == dscp) return;
  ANNOUNCE_LOG(Service, "Changed DSCP value to %d (old value: %d)", dscp_, dscp);
  dscp = dscp_;
  if (socket && socket->valid()) socket->setDSCP(dscp);
}

void MCAnnounceMaster::setMulticastTtl(int ttl_) {
  if (ttl_ == ttl) return;
  ANNOUNCE_LOG(Service, "Changed multicast TTL value to %d (old value: %d)", ttl_, ttl);
  ttl = ttl_;
  if (socket && socket->valid()) socket->setMulticastTTL(ttl);
}

void MCAnnounceMaster::setBindIp(SimpleIp bindIp_) {
  if (bindIp_ == bindIp) return;
  const bool wasEnabled = enabled;
  ANNOUNCE_LOG(Service, "Changed bindIP to %s, %s", SimpleIp::CharString(bindIp_).c_str(),
               wasEnabled ? "restarting..." : "disabled.");
  tavrinCommon::LivenessToken::Watch alive(liveness);
  setEnabled(false);
  // A failed farewell calls the error callback, which may destroy the master.
  if (!alive) return;
  bindIp = bindIp_;
  setEnabled(wasEnabled);
}

void MCAnnounceMaster::setMulticastGroup(SimpleIp address, unsigned short port) {
  const SimpleEndpoint group(address, port);
  if (group == multicastGroup) return;
  ANNOUNCE_LOG(Service, "Changed multicast group to %s (old group: %s)",
               SimpleEndpoint::CharString(group).c_str(),
               SimpleEndpoint::CharString(multicastGroup).c_str());
  multicastGroup = group;
  // The farewell is built from a copy without connectors, so the real data is emptied only by
  // the enabling below.
  MCAnnounceData withdrawal(nullptr, logger);
  withdrawal.setData(data.getNetworkId(), data.getDeviceId(), data.getDeviceName());
  tavrinCommon::LivenessToken::Watch alive(liveness);
  internalSetEnabled(withdrawal, false, true);
  // A failed farewell calls the error callback, which may destroy the master.
  if (alive) internalSetEnabled(data, true, true);
}

void MCAnnounceMaster::interfaceChanged(SimpleIp address) {
  if (!enabled) return;
  paused = !address.isValid();
  ANNOUNCE_LOG(
      Service, "Interface '%s' %s", interface.c_str(),
      paused ? "has no address: announcements paused" : "changed: announce socket reopened");
  socket.reset();
  sendTimer.stop();
  if (paused) return;
  if (!initSendSocket()) {
    ANNOUNCE_LOG(Error, "Failed to initialize multicast socket, disabling!");
    setGeneralError(ErrorType::initializationFailed, "Failed to initialize multicast socket!");
    return;
  }
  scheduler->addWorker(this);
}

void MCAnnounceMaster::addConnector(unsigned connectorId, ConnectorInterfaceType::Type type,
                                    unsigned short version, unsigned clusterId,
                                    const SimpleEndpoint& endpoint) {
  data.addConnector(connectorId, type, version, clusterId, endpoint);
}

void MCAnnounceMaster::removeConnector(unsigned connectorId) { data.removeConnector(connectorId); }

void MCAnnounceMaster::clearConnectors() { data.clearConnectors(); }

void MCAnnounceMaster::addAnnouncement(unsigned connectorId, unsigned id, unsigned short type,
                                       const std::string& name, bool available) {
  data.addAnnouncement(connectorId, id, type, name, available);
}

void MCAnnounceMaster::setAnnouncementAvailable(unsigned connectorId, unsigned id,
                                                unsigned short type, bool available) {
  data.setAnnouncementAvailable(connectorId, id, type, available);
}

void MCAnnounceMaster::setAnnouncementName(unsigned connectorId, unsigned id, unsigned short type,
                                           const std::string& name) {
  data.setAnnouncementName(connectorId, id, type, name);
}

void MCAnnounceMaster::removeAnnouncement(unsigned connectorId, unsigned id, unsigned short type) {
  data.removeAnnouncement(connectorId, id, type);
}

void MCAnnounceMaster::clearAnnouncements(unsigned connectorId) {
  data.clearAnnouncements(connectorId);
}

bool MCAnnounceMaster::hasAnnouncement(unsigned connectorId, unsigned id,
                                       unsigned short type) const {
  return data.hasAnnouncement(connectorId, id, type);
}

void MCAnnounceMaster::setModified() {
  modified = true;
  scheduler->addWorker(this);
}

tavrinScheduler::Worker::Result MCAnnounceMaster::work() {
  sendAnnounceDataIfNeeded(data);
  return Finished;
}

bool MCAnnounceMaster::sendAnnounceDataIfNeeded(const MCAnnounceData& d) {
  // A paused master keeps `modified` and `emptyAnnouncementSent` for when it resumes.
  if (!enabled || paused) return true;
  if (d.announcementsPresent()) {
    if (!sendAnnounceDataAndScheduleNextSend(d)) return false;
    emptyAnnouncementSent = false;
  } else if (!emptyAnnouncementSent) {
    modified = true;
    if (!sendAnnounceDataAndScheduleNextSend(d)) return false;
    emptyAnnouncementSent = true;
  }
  return true;
}

bool MCAnnounceMaster::sendAnnounceDataAndScheduleNextSend(const MCAnnounceData& d) {
  if (!sendAnnounceData(d)) return false;
  sendTimer.start();
  return true;
}

bool MCAnnounceMaster::sendAnnounceData(const MCAnnounceData& d) {
  OutputMessage message;
  message.putUInt16(getVersion());
  d.pack(message);
  if (modified) {
    ++changeCount;
    modified = false;
  }
  message.finalizeMessage(TavrinConnectorMessageType::announce, changeCount);
  const unsigned size = message.getFrameLength();
  if (size > kMaxMessageSize) {
    char text[96];
    std::snprintf(text, sizeof text, "Announce message too long: %d bytes (max %d)!",
                  static_cast<int>(size), static_cast<int>(kMaxMessageSize));
    setGeneralError(ErrorType::messageTooLarge, text);
    return false;
  }
  if (!socket || !socket->valid()) {
    setGeneralError(ErrorType::socketError, "Announce socket is not ready!");
    return false;
  }
  const int sent = socket->sendTo(multicastGroup, message.getData(), static_cast<int>(size));
  if (sent < 0) {
    char text[64];
    std::snprintf(text, sizeof text, "Announce socket error (%d)!", sent);
    setGeneralError(ErrorType::socketError, text);
    return false;
  }
  if (static_cast<unsigned>(sent) != size) {
    ANNOUNCE_LOG(Error, "Announce socket error: Failed to send all data (sent: %d, msg size: %d)!",
                 sent, static_cast<int>(size));
  }
  return true;
}

void MCAnnounceMaster::internalSetEnabled(MCAnnounceData& d, bool enable, bool sendNow) {
  if (enable == enabled) return;
  d.clearConnectors();
  // Still under the old state: a master that has been announcing says farewell. A farewell that
  // fails has disabled the master already, and what the error callback did with it stands.
  if (sendNow && !sendAnnounceDataIfNeeded(d)) return;
  socket.reset();
  scheduler->removeWorker(this);
  sendTimer.stop();
  modified = false;
  emptyAnnouncementSent = true;
  enabled = enable;
  paused = false;
  if (!enable) return;
  if (!initSendSocket()) {
    ANNOUNCE_LOG(Error, "Failed to initialize multicast socket, disabling!");
    setGeneralError(ErrorType::initializationFailed, "Failed to initialize multicast socket!");
    return;
  }
  setModified();
}

bool MCAnnounceMaster::initSendSocket() {
  socket = socketFactory();
  if (!socket) {
    ANNOUNCE_LOG(Error, "Failed to initialize send socket: Failed to create socket!");
    return false;
  }
  if (!socket->open(multicastGroup.getIp(), multicastGroup.getPort(), bindIp, bindPort, interface,
                    true, true, multicastLoop)) {
    ANNOUNCE_LOG(Error, "Failed to initialize send socket: Failed to open socket!");
    return false;
  }
  if (!socket->setDSCP(dscp)) {
    ANNOUNCE_LOG(Error, "Failed to initialize send socket: Failed to configure socket (DSCP)!");
    return false;
  }
  if (!socket->setMulticastTTL(ttl)) {
    ANNOUNCE_LOG(Error,
                 "Failed to initialize send socket: Failed to configure socket (multicast TTL)!");
    return false;
  }
  return true;
}

void MCAnnounceMaster::setGeneralError(ErrorType::Type type, const std::string& text) {
  ANNOUNCE_LOG(Error, "Error %d (%s): '%s'", static_cast<int>(type), ErrorType::getText(type),
               text.c_str());
  internalSetEnabled(data, false, false);
  errorCallback(type, text);
}

void MCAnnounceMaster::dump(std::ostream& out, const char* prefix) const {
  out << prefix << "MC Announce Master:\n";
  out << prefix << "  IP: " << SimpleIp::CharString(bindIp).c_str() << ":" << bindPort << "\n";
  out << prefix << "  Interface: '" << interface << "'\n";
  out << prefix << "  MC group: " << SimpleEndpoint::CharString(multicastGroup).c_str() << "\n";
  out << prefix << "  Enabled: " << yesNo(enabled) << "\n";
  if (paused) out << prefix << "  Paused: interface without address\n";
  out << prefix << "  DSCP: " << dscp << "\n";
  out << prefix << "  MC TTL: " << ttl << "\n";
  out << prefix << "  modified: " << yesNo(modified) << "\n";
  out << prefix << "  changeCount: " << changeCount << "\n";
  out << prefix << "  emptyAnnouncementSent: " << yesNo(emptyAnnouncementSent) << "\n";
  const std::string inner = std::string(prefix) + "  ";
  data.dump(out, inner.c_str());
}

}  // namespace tavrinConnector
