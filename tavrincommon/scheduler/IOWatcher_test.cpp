#include "tavrincommon/scheduler/IOWatcher.h"

#include "tavrincommon/common/TinyMutex.h"
#include "tavrincommon/testing/LogCapture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace {

using tavrinCommon::MonotonicMs;
using tavrinScheduler::IOWatcher;
using tavrinScheduler::IOWatchHandle;
using tavrinScheduler::IOWatchItem;

class Pipe {
 public:
  Pipe() {
    EXPECT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
  }
  ~Pipe() {
    close(fds[0]);
    close(fds[1]);
  }
  int readEnd() const { return fds[0]; }
  int writeEnd() const { return fds[1]; }
  void put() const { ASSERT_EQ(write(fds[1], "x", 1), 1); }
  void take() const {
    char c;
    EXPECT_EQ(read(fds[0], &c, 1), 1);
  }

 private:
  int fds[2];
};

class IOWatcherTest : public ::testing::Test {
 protected:
  static IOWatchItem itemFor(int fd, std::function<IOWatchItem::Result(int)> callback,
                             uint32_t events = EPOLLIN) {
    IOWatchItem item;
    item.fd = fd;
    item.events = events;
    item.callback = std::move(callback);
    return item;
  }
  IOWatchHandle watchReadable(const Pipe& pipe, std::function<IOWatchItem::Result(int)> callback,
                              int origin = 8, uint32_t events = EPOLLIN) {
    return watcher.addItem(itemFor(pipe.readEnd(), std::move(callback), events), origin);
  }
  void watchFor(int ms) { watcher.watch(MonotonicMs() + ms, &mutex); }

  tavrinTesting::LogCapture log;
  tavrinCommon::TinyRecursiveMutex mutex;
  IOWatcher watcher{log.logging()};
};

TEST_F(IOWatcherTest, CallbackThatRemovesItselfIsNotCalledAgain) {
  Pipe pipe;
  int calls = 0;
  IOWatchHandle handle;
  handle = watchReadable(pipe, [&](int events) {
    EXPECT_TRUE(events & EPOLLIN);
    ++calls;
    watcher.removeItem(handle);
    return IOWatchItem::Removed;
  });
  pipe.put();
  watchFor(20);
  watchFor(20);
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(handle.empty());
  EXPECT_TRUE(watcher.getList().empty());
  EXPECT_TRUE(log.contains("Scheduler: Debug: Removing UnitTests from IO Watch List"));
}

TEST_F(IOWatcherTest, EntryRemovedByAnEarlierCallbackOfTheSameBatchIsSkipped) {
  Pipe first;
  Pipe second;
  int calls = 0;
  IOWatchHandle handles[2];
  auto removeTheOther = [&](int self) {
    return [&, self](int) {
      ++calls;
      (self == 0 ? first : second).take();
      watcher.removeItem(handles[1 - self]);
      return IOWatchItem::Unchanged;
    };
  };
  handles[0] = watchReadable(first, removeTheOther(0), 1);
  handles[1] = watchReadable(second, removeTheOther(1), 4);
  first.put();
  second.put();
  watchFor(20);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(log.count("Scheduler: Service: Triggered already removed event ("), 1u) << log.text();
  watcher.removeItem(handles[0]);
  watcher.removeItem(handles[1]);
}

TEST_F(IOWatcherTest, ModificationsKeepEdgeTriggering) {
  Pipe pipe;
  int calls = 0;
  IOWatchHandle handle = watchReadable(
      pipe,
      [&](int) -> IOWatchItem::Result {
        ++calls;
        pipe.take();
        return EPOLLIN | EPOLLOUT;
      },
      8, EPOLLIN | EPOLLET);
  pipe.put();
  watchFor(20);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(handle.get()->events, static_cast<uint32_t>(EPOLLIN | EPOLLOUT | EPOLLET));

  watcher.modifyItem(handle, EPOLLIN | EPOLLOUT);  // differs only in EPOLLET: nothing happens
  EXPECT_EQ(handle.get()->events, static_cast<uint32_t>(EPOLLIN | EPOLLOUT | EPOLLET));
  watcher.modifyItem(handle, EPOLLIN);
  EXPECT_EQ(handle.get()->events, static_cast<uint32_t>(EPOLLIN | EPOLLET));

  IOWatchHandle empty;
  watcher.modifyItem(empty, EPOLLIN);
  watcher.removeItem(empty);
  watcher.removeItem(12345);  // unknown descriptor
  watcher.removeItem(pipe.readEnd());
  EXPECT_TRUE(watcher.getList().empty());
}

TEST_F(IOWatcherTest, WakeupFromAnotherThreadEndsALongWait) {
  std::thread waker([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    watcher.wakeup();
  });
  const auto start = std::chrono::steady_clock::now();
  watcher.watch(MonotonicMs() + 10000, &mutex);
  const auto waited = std::chrono::steady_clock::now() - start;
  waker.join();
  EXPECT_LT(waited, std::chrono::milliseconds(900));
}

TEST_F(IOWatcherTest, SteadyEventsStillEndTheWatchAfterAboutOneSecond) {
  Pipe pipe;
  int calls = 0;
  IOWatchHandle handle = watchReadable(pipe, [&](int) {
    ++calls;
    return IOWatchItem::Unchanged;  // never drained: level-triggered, always ready
  });
  pipe.put();
  const auto start = std::chrono::steady_clock::now();
  watcher.watch(MonotonicMs() + 10000, &mutex);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(1000));
  EXPECT_LT(waited, std::chrono::milliseconds(3000));
  EXPECT_GT(calls, 1);
  watcher.removeItem(handle);
}

TEST_F(IOWatcherTest, DestructionFreesAndUnregistersWhatIsLeft) {
  Pipe pipe;
  {
    IOWatcher temporary(log.logging());
    const IOWatchItem item = itemFor(pipe.readEnd(), [](int) { return IOWatchItem::Unchanged; });
    temporary.addItem(item, 3);
    temporary.addItem(item, 4);  // the same descriptor twice: epoll refuses, the list keeps it
  }
  EXPECT_EQ(log.count("Scheduler: Debug: Freeing an entry (MCAnnounce, events: 0x00000001)"), 1u)
      << log.text();
  EXPECT_EQ(log.count("Scheduler: Debug: Freeing an entry (Sockets, events: 0x00000001)"), 1u);
}

// Applications get the order wrong: a watch removed twice, a descriptor closed before its watch
// is removed (its number then given out again, or its file still open through a duplicate).
// None of it may free a registration twice, unregister someone else's, or leave epoll pointing
// at a freed entry.
TEST_F(IOWatcherTest, MisusedWatchesNeitherCorruptNorHitOtherRegistrations) {
  int calls = 0;
  auto count = [&calls](int) {
    ++calls;
    return IOWatchItem::Unchanged;
  };
  Pipe once;
  IOWatchHandle handle = watchReadable(once, count);
  IOWatchHandle copy = handle;
  watcher.removeItem(once.readEnd());
  watcher.removeItem(handle);
  watcher.removeItem(copy);
  EXPECT_EQ(log.count("Scheduler: Error: IO watch UnitTests (fd: " +
                      std::to_string(once.readEnd()) + ") removed again: ignored"),
            2u)
      << log.text();

  // Closed, and its number taken by a new registration: removing the old watch keeps the new.
  auto* reused = new Pipe;
  IOWatchHandle old = watchReadable(*reused, count);
  const int number = reused->readEnd();
  delete reused;
  Pipe successor;
  ASSERT_EQ(successor.readEnd(), number) << "the lowest free descriptor number is given out";
  int successorCalls = 0;
  IOWatchHandle current = watchReadable(successor, [&](int) {
    ++successorCalls;
    successor.take();
    return IOWatchItem::Unchanged;
  });
  EXPECT_TRUE(log.contains("Scheduler: Error: IO watch UnitTests (fd: " + std::to_string(number) +
                           ") outlived its descriptor"))
      << log.text();
  watcher.removeItem(old);
  successor.put();
  watchFor(20);
  EXPECT_EQ(successorCalls, 1);

  // Closed while a duplicate keeps the file open: epoll keeps reporting it after the removal.
  Pipe duplicated;
  const int keeper = dup(duplicated.readEnd());
  const int closedEarly = dup(duplicated.readEnd());
  IOWatchHandle zombie = watcher.addItem(itemFor(closedEarly, count), 8);
  close(closedEarly);
  duplicated.put();
  watcher.removeItem(zombie);
  for (int turn = 0; turn < 3; ++turn) watchFor(10);  // freed entries must not be reported
  EXPECT_EQ(calls, 0);
  EXPECT_LE(log.count("Triggered already removed event"), 1u) << log.text();
  close(keeper);
  watcher.removeItem(current);
}

}  // namespace
