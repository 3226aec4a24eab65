// tavrin-demo: one event loop with a worker, a periodic timer and an IO watch on a pipe, logging
// through a callback to stdout. Exits by itself after about three seconds with status 0.
#include "tavrincommon/tavrincommon.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace {

using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;
using tavrinScheduler::IOWatchItem;
using tavrinScheduler::Scheduler;
using tavrinScheduler::SimpleTimer;
using tavrinScheduler::SimpleWorker;
using tavrinScheduler::Worker;

constexpr int kOrigin = DefaultOrigins::Firmware;
constexpr int kTicks = 6;
constexpr int kTickMs = 500;

void printLine(int, SeverityLevel::Type, const char* text) { std::printf("%s\n", text); }

}  // namespace

int main(int argc, char** argv) {
  SeverityLevel::Type level = SeverityLevel::Info;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0) {
      std::printf("usage: tavrin-demo [--log-level LEVEL]\n");
      return 0;
    }
    if (std::strcmp(argv[i], "--log-level") == 0 && i + 1 < argc) level = SeverityLevel::parse(argv[++i]);
  }

  tavrinLog::initGlobalLogging(level, printLine, true,
                               [](int origin) { return DefaultOrigins::getText(origin); });
  tavrinLog::TavrinLogging* logging = tavrinLog::getGlobalLogging();
  Scheduler scheduler(logging);
  const auto start = std::chrono::steady_clock::now();

  int fds[2];
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
    std::perror("pipe2");
    return 1;
  }

  // The worker writes one byte per tick into the pipe; the IO watch reads it back.
  int written = 0;
  int received = 0;
  SimpleWorker writer(&scheduler, kOrigin);
  writer.setFunction([&] {
    char byte = static_cast<char>('a' + written % 26);
    if (write(fds[1], &byte, 1) == 1) ++written;
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Info, "worker wrote '%c' (byte %d)", byte, written);
    return Worker::Finished;
  });

  IOWatchItem item;
  item.fd = fds[0];
  item.events = EPOLLIN;
  item.callback = [&](int) {
    char buffer[16];
    ssize_t n;
    while ((n = read(fds[0], buffer, sizeof buffer)) > 0) {
      received += static_cast<int>(n);
      TAVRIN_LOG(logging, kOrigin, SeverityLevel::Info, "pipe delivered %zd byte(s), %d in all", n, received);
    }
    return IOWatchItem::Unchanged;
  };
  tavrinScheduler::IOWatchHandle handle = scheduler.addIOItem(item, kOrigin);

  int ticks = 0;
  SimpleTimer timer(&scheduler, kTickMs, {}, kOrigin);
  timer.start([&] {
    ++ticks;
    TAVRIN_LOG(logging, kOrigin, SeverityLevel::Info, "timer tick %d of %d", ticks, kTicks);
    scheduler.addWorker(&writer);
    if (ticks < kTicks) timer.start();
  });

  while (received < kTicks && std::chrono::steady_clock::now() - start < std::chrono::seconds(10)) {
    scheduler.run(200);
  }
  const long long elapsedMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  std::chrono::steady_clock::now() - start)
                                  .count();

  std::printf("--- dump ---\n");
  scheduler.dump(std::cout, "  ");
  std::cout.flush();
  scheduler.removeIOItem(handle);
  close(fds[0]);
  close(fds[1]);

  const bool ok = received == kTicks && written == kTicks;
  std::printf("%s: %d ticks, %d bytes written, %d received, in %lld ms\n", ok ? "OK" : "FAILED",
              ticks, written, received, elapsedMs);
  return ok ? 0 : 1;
}
