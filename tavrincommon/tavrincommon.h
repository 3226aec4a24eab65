// Every public header of the library, grouped by namespace. Applications may include this one
// header; the library's own code never does.
#pragma once

// tavrinLog
#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/GlobalLogging.h"
#include "tavrincommon/log/SeverityLevel.h"
#include "tavrincommon/log/TavrinLogging.h"

// tavrinCommon
#include "tavrincommon/common/Clock.h"
#include "tavrincommon/common/DirUtil.h"
#include "tavrincommon/common/SignalHandler.h"
#include "tavrincommon/common/StringHelper.h"
#include "tavrincommon/common/ThreadHelper.h"
#include "tavrincommon/common/TimeFunctions.h"
#include "tavrincommon/common/TinyMutex.h"
#include "tavrincommon/common/Utilities.h"
#include "tavrincommon/common/WrapTS.h"

// tavrinScheduler
#include "tavrincommon/scheduler/IOWatchItem.h"
#include "tavrincommon/scheduler/IOWatchList.h"
#include "tavrincommon/scheduler/IOWatcher.h"
#include "tavrincommon/scheduler/IdleTaskScheduler.h"
#include "tavrincommon/scheduler/MutexedWorker.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/scheduler/SimpleTimer.h"
#include "tavrincommon/scheduler/SimpleWorker.h"
#include "tavrincommon/scheduler/TaskScheduler.h"
#include "tavrincommon/scheduler/TimeoutTask.h"
#include "tavrincommon/scheduler/TimeoutTaskScheduler.h"
#include "tavrincommon/scheduler/WatchdogInterface.h"
#include "tavrincommon/scheduler/Worker.h"
#include "tavrincommon/scheduler/WorkerList.h"

// tavrinNetwork
#include "tavrincommon/network/IPSocketHelper.h"
#include "tavrincommon/network/LocalIPAddressWatcher.h"
#include "tavrincommon/network/MACAddress.h"
#include "tavrincommon/network/MulticastSocket.h"
#include "tavrincommon/network/MulticastSocketInterface.h"
#include "tavrincommon/network/NetlinkSocket.h"
#include "tavrincommon/network/SimpleEndpoint.h"
#include "tavrincommon/network/SimpleIp.h"
#include "tavrincommon/network/TCPSocket.h"
#include "tavrincommon/network/TCPSocketHelper.h"
#include "tavrincommon/network/TCPSocketInterface.h"
#include "tavrincommon/network/UDPSocket.h"
#include "tavrincommon/network/UDPSocketInterface.h"

// tavrinConnector
#include "tavrincommon/connector/ConnectionHandlerBase.h"
#include "tavrincommon/connector/ConnectionHandlerType.h"
#include "tavrincommon/connector/ConnectorInterfaceType.h"
#include "tavrincommon/connector/CustomConnectData.h"
#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/ErrorType.h"
#include "tavrincommon/connector/TavrinConnectorMessageType.h"
#include "tavrincommon/connector/InputMessage.h"
#include "tavrincommon/connector/MessageBuffer.h"
#include "tavrincommon/connector/OutputMessage.h"
#include "tavrincommon/connector/SingleTCPConnectionEndpoint.h"
#include "tavrincommon/connector/TCPTransceiver.h"
