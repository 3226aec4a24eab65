// The master's server socket: listening, accepting within the connection limits, and pausing
// while the process has no descriptor left.
#include "tavrincommon/connector/TCPConnectorMaster.h"

#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/connector/internal/ConnectorSupport.h"
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/LogRateLimiter.h"
#include "tavrincommon/log/TavrinLogging.h"
#include "tavrincommon/network/TCPSocketInterface.h"
#include "tavrincommon/scheduler/Scheduler.h"

#include <cerrno>
#include <cstring>

#include <sys/epoll.h>

namespace tavrinConnector {

using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;
using tavrinNetwork::SimpleEndpoint;
using tavrinNetwork::TCPSocketInterface;
using tavrinScheduler::IOWatchItem;

using internal::peerOf;
using internal::text;
using internal::yesNo;

namespace {

constexpr int kOrigin = DefaultOrigins::TCPConnector;

// What accept() reports when the process or the system is out of descriptors or buffers: the
// pending connection stays queued, so the listening socket stays readable.
bool outOfResources(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

void TCPConnectorMaster::enableSpecific() {
  if (initServerSocket()) return;
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error,
             "Failed to initialize server socket, disabling!");
  setGeneralError(ErrorType::initializationFailed, "Failed to initialize server socket!");
}

void TCPConnectorMaster::cleanupSpecific() { closeServerSocket(); }

bool TCPConnectorMaster::initServerSocket() {
  closeServerSocket();
  const SimpleEndpoint at(ip, port);
  std::unique_ptr<TCPSocketInterface> socket =
      createServerSocket ? createServerSocket(at, mptcp) : nullptr;
  if (!socket || !socket->valid()) {
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error, "Failed to create server socket at %s!",
               text(at).c_str());
    return false;
  }
  if (!socket->setDSCP(dscp)) {
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error,
               "Failed to setup server socket at %s (DSCP)!", text(at).c_str());
    return false;
  }
  serverSocket = std::move(socket);
  tavrinScheduler::IOWatchItem item;
  item.fd = serverSocket->getFd();
  item.events = EPOLLIN;
  item.callback = [this](int events) { return serverSocketCallback(events); };
  serverWatch = scheduler->addIOItem(item, kOrigin);
  TAVRIN_LOG(logging, kOrigin, SeverityLevel::Service,
             "Successfully created server socket at %s (fd: %d)!", text(at).c_str(),
             serverSocket->getFd());
  return true;
}

void TCPConnectorMaster::closeServerSocket() {
  acceptPauseTimer.stop();
  scheduler->removeIOItem(serverWatch);
  serverSocket.reset();
}

size_t TCPConnectorMaster::tcpConnectionsFrom(tavrinNetwork::SimpleIp address) const {
  size_t count = 0;
  for (const auto& entry : tcpConnections)
    if (entry.first.getIp() == address) ++count;
  return count;
}

IOWatchItem::Result TCPConnectorMaster::serverSocketCallback(int /*events*/) {
  if (!serverSocket) return IOWatchItem::Removed;
  SimpleEndpoint peer;
  tavrinCommon::LivenessToken::Watch alive(liveness);
  std::unique_ptr<TCPSocketInterface> client =
      acceptClient ? acceptClient(serverSocket.get(), peer) : nullptr;
  const int error = errno;
  // The factory is the application's: it may have destroyed or disabled the master. The client it
  // made, if any, is closed when it goes.
  if (!alive || !serverSocket) return IOWatchItem::Removed;
  const SimpleEndpoint server = serverSocket->getBoundEndpoint();
  if (!client && outOfResources(error)) {
    // Watching on would call us on every turn with nothing we can do: listen again later.
    ++acceptPauses;
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Error,
               "Failed to accept client on server socket %s (%d (%s)), not accepting for %d ms!",
               text(server).c_str(), error, std::strerror(error), kAcceptPauseMs);
    scheduler->modifyIOItem(serverWatch, 0);
    acceptPauseTimer.start();
    return IOWatchItem::Unchanged;
  }
  if (!client) {
    TAVRIN_LOG_LIMITED(peerLogLimiter, logging, kOrigin, SeverityLevel::Error,
                       "Failed to accept client on server socket %s!", text(server).c_str());
  } else if (tcpConnections.size() >= limits.maxTCPConnections) {
    ++boundCounters.tcpConnectionsRefused;
    TAVRIN_LOG_LIMITED(peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
                       "Refusing client %s on server socket %s: %zu TCP connections already "
                       "(limit %zu)!",
                       text(peer).c_str(), text(server).c_str(), tcpConnections.size(),
                       limits.maxTCPConnections);
  } else if (tcpConnectionsFrom(peer.getIp()) >= limits.maxTCPConnectionsPerAddress) {
    ++boundCounters.tcpConnectionsRefused;
    TAVRIN_LOG_LIMITED(peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
                       "Refusing client %s on server socket %s: %zu TCP connections from its "
                       "address already (limit %zu)!",
                       text(peer).c_str(), text(server).c_str(), tcpConnectionsFrom(peer.getIp()),
                       limits.maxTCPConnectionsPerAddress);
  } else if (!client->setDSCP(dscp)) {
    TAVRIN_LOG_LIMITED(peerLogLimiter, logging, kOrigin, SeverityLevel::Error,
                       "Failed to setup client socket %s (NonBlock/DSCP), aborting connection "
                       "attempt!",
                       text(peer).c_str());
  } else if (tcpConnections.count(peer)) {
    TAVRIN_LOG_LIMITED(peerLogLimiter, logging, kOrigin, SeverityLevel::Error,
                       "Client socket %s is already connected, aborting connection attempt!",
                       text(peer).c_str());
  } else {
    tcpConnections.emplace(peer, makeTCPConnection(peer, std::move(client), true));
    TAVRIN_LOG_LIMITED(peerLogLimiter, logging, kOrigin, SeverityLevel::Service,
                       "Accepted client %s on server socket %s", text(peer).c_str(),
                       text(server).c_str());
  }
  // A refused client is closed here, when `client` goes.
  return EPOLLIN;
}

void TCPConnectorMaster::resumeAccepting() {
  if (serverSocket) scheduler->modifyIOItem(serverWatch, EPOLLIN);
}

}  // namespace tavrinConnector
