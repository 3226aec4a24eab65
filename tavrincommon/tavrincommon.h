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
#include "tavrincommon/common/SendQueue.h"
#include "tavrincommon/common/TaskResultThread.h"
#include "tavrincommon/common/ThreadHelper.h"
#include "tavrincommon/common/TimeFunctions.h"
#include "tavrincommon/common/TinyMutex.h"
#include "tavrincommon/common/WrapTS.h"
#include "tavrincommon/common/process/Command.h"
#include "tavrincommon/common/process/CommandRunner.h"
#include "tavrincommon/common/process/Process.h"
#include "tavrincommon/common/process/SafeFileDescriptor.h"
#include "tavrincommon/common/process/Stdio.h"

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
