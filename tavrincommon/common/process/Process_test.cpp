#include "tavrincommon/common/process/Process.h"

#include "tavrincommon/common/process/Command.h"
#include "tavrincommon/testing/Children.h"
#include "tavrincommon/testing/GlobalLogCapture.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "tavrincommon/testing/Emulation.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace tavrinCommon {
namespace process {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr bool kPidfd = tavrinTesting::kExpectPidfd;

Command shell(const std::string& script) {
  Command command("/bin/sh");
  command.args({"-c", script});
  return command;
}

// Reads until `text` has arrived on the pipe (the child says it is ready).
void readUntil(int fd, const std::string& text) {
  std::string got;
  char buffer[64];
  while (got.find(text) == std::string::npos) {
    ssize_t count = ::read(fd, buffer, sizeof buffer);
    ASSERT_GT(count, 0);
    got.append(buffer, static_cast<size_t>(count));
  }
}

class ProcessTest : public ::testing::Test {
 protected:
  void TearDown() override { tavrinTesting::expectNoChildLeft(); }

  tavrinTesting::GlobalLogCapture log;
};

TEST_F(ProcessTest, RunSyncReadsLargeStdoutAndStderrCompletely) {
  // 1 MiB on each, interleaved in pieces of half a pipe buffer: a reader that waits on one
  // stream while the other fills up deadlocks here.
  std::optional<ProcessOutput> output =
      shell(
          "i=0; while [ $i -lt 32 ]; do head -c 32768 /dev/zero | tr '\\000' o; "
          "head -c 32768 /dev/zero | tr '\\000' e >&2; i=$((i+1)); done; exit 3")
          .stdout(Stdio::Piped)
          .stderr(Stdio::Piped)
          .runSync(std::chrono::seconds(20));
  ASSERT_TRUE(output);
  EXPECT_EQ(output->stdout, std::string(1 << 20, 'o'));
  EXPECT_EQ(output->stderr, std::string(1 << 20, 'e'));
  EXPECT_EQ(output->status, 3);
}

TEST_F(ProcessTest, TheLimitHoldsWhileALeftBehindProcessKeepsThePipeOpen) {
  const std::optional<milliseconds> limits[] = {milliseconds(200), milliseconds::max(),
                                                std::nullopt};
  for (const std::optional<milliseconds>& limit : limits) {
    const auto start = Clock::now();
    // The background sleep shares stdout and outlives the shell by seconds.
    std::optional<ProcessOutput> output =
        shell("sleep 5 & echo $!").stdout(Stdio::Piped).runSync(limit);
    EXPECT_LT(Clock::now() - start, milliseconds(1500));
    ASSERT_TRUE(output);
    EXPECT_EQ(output->status, 0);
    const int sleeper = std::atoi(output->stdout.c_str());
    ASSERT_GT(sleeper, 0) << output->stdout;
    ::kill(sleeper, SIGKILL);
  }
}

TEST_F(ProcessTest, PidfdSpawnUnsupportedByTheKernelFallsBackToPosixSpawnForGood) {
  // In a child process of its own: the fallback is remembered for the rest of the process.
  EXPECT_EXIT(
      {
        setenv("TAVRIN_TEST_PIDFD_SPAWN_ERROR", "38", 1);  // ENOSYS
        std::optional<Process> first = shell("exit 3").spawn();
        unsetenv("TAVRIN_TEST_PIDFD_SPAWN_ERROR");
        std::optional<Process> second = shell("exit 4").spawn();
        const bool ok = first && second && first->pidfd() == -1 && second->pidfd() == -1 &&
                        first->wait(std::nullopt) == 3 && second->wait(std::nullopt) == 4 &&
                        log->contains(
                            "Firmware: Warning: pidfd_spawn failed with Function not "
                            "implemented (38). Spawning with posix_spawn from now on; "
                            "children have no pidfd.") == kPidfd;
        std::fprintf(stderr, "%s", log->text().c_str());
        std::_Exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(ProcessTest, WritingToAChildThatNoLongerReadsFailsWithEpipeNotSigpipe) {
  struct sigaction previous {};
  struct sigaction byDefault {};
  byDefault.sa_handler = SIG_DFL;
  ASSERT_EQ(sigaction(SIGPIPE, &byDefault, &previous), 0);
  std::optional<Process> child =
      shell("exec <&-; echo closed; exec sleep 5").stdin(Stdio::Piped).stdout(Stdio::Piped).spawn();
  ASSERT_TRUE(child);
  readUntil(child->stdout()->get(), "closed");
  errno = 0;
  EXPECT_EQ(child->writeStdin("x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
  sigset_t pending;
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&pending, SIGPIPE));
  sigaction(SIGPIPE, &previous, nullptr);
}

TEST_F(ProcessTest, WaitWithOutputRunsOutOfTimeAndDestructionStopsTheChild) {
  const auto start = Clock::now();
  {
    std::optional<Process> child = shell("echo started; exec sleep 5").stdout(Stdio::Piped).spawn();
    ASSERT_TRUE(child);
    errno = 0;
    EXPECT_FALSE(child->waitWithOutput(milliseconds(100)));
    EXPECT_EQ(errno, ETIME);
    EXPECT_FALSE(child->status());
  }
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));

  // With a pipe to read, a child without pidfd is polled for its exit, so the limit holds too.
  errno = 0;
  EXPECT_FALSE(shell("exec sleep 5").stdout(Stdio::Piped).runSync(milliseconds(50)));
  EXPECT_EQ(errno, ETIME);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(6));
}

TEST_F(ProcessTest, WaitWithALimitNeedsAPidfd) {
  // The largest limit does not overflow into one that has run out already.
  std::optional<Process> quick = shell("exit 2").spawn();
  ASSERT_TRUE(quick);
  EXPECT_EQ(quick->wait(milliseconds::max()), 2);
  EXPECT_EQ(Process::convertForEpollWait(quick->getEpollTimeout(milliseconds::max(), Clock::now())),
            kPidfd ? INT_MAX : 20);
  if (kPidfd) {
    std::optional<Process> child = shell("exec sleep 5").spawn();
    ASSERT_TRUE(child);
    errno = 0;
    EXPECT_FALSE(child->wait(milliseconds(50)));
    EXPECT_EQ(errno, ETIME);
    EXPECT_TRUE(child->kill(SIGKILL));
    EXPECT_EQ(child->wait(milliseconds(5000)), SIGKILL);
  } else {
    std::optional<Process> child = shell("exit 6").spawn();
    ASSERT_TRUE(child);
    const int pid = child->pid();
    EXPECT_EQ(child->wait(milliseconds(1)), 6);
    EXPECT_TRUE(log->contains("Firmware: Warning: Waiting on process " + std::to_string(pid) +
                              " with timeout is not supported without pidfds. Falling back to "
                              "unbounded wait."))
        << log->text();
  }
}

TEST_F(ProcessTest, TryWaitReportsRunningThenTheStatusAndKillThenFails) {
  std::optional<Process> child = shell("n=$(cat | wc -c); exit $n").stdin(Stdio::Piped).spawn();
  ASSERT_TRUE(child);
  EXPECT_GT(child->pid(), 0);
  EXPECT_EQ(child->pidfd() >= 0, kPidfd);  // the spawn path this system offers
  EXPECT_TRUE(
      log->contains("Firmware: Debug: Spawned process '/bin/sh -c n=$(cat | wc -c); exit $n' "
                    "with pid " +
                    std::to_string(child->pid()) + " and pidfd " + std::to_string(child->pidfd())))
      << log->text();
  std::optional<std::optional<int>> running = child->tryWait();
  ASSERT_TRUE(running);
  EXPECT_FALSE(*running);

  // wait() closes the piped stdin, so the reader ends.
  ASSERT_EQ(child->writeStdin("hello", 5), 5);
  EXPECT_EQ(child->wait(std::nullopt), 5);
  EXPECT_FALSE(child->stdin());
  std::optional<std::optional<int>> exited = child->tryWait();
  ASSERT_TRUE(exited);
  EXPECT_EQ(*exited, 5);
  EXPECT_EQ(child->pid(), -1);
  EXPECT_TRUE(log->contains("exited with return code 5."));

  errno = 0;
  EXPECT_FALSE(child->kill(SIGTERM));
  EXPECT_EQ(errno, ESRCH);
}

TEST_F(ProcessTest, KillFromAnotherThreadEndsABlockingWait) {
  std::optional<Process> child = shell("exec sleep 5").stdout(Stdio::Piped).spawn();
  ASSERT_TRUE(child);
  std::optional<ProcessOutput> output;
  std::thread waiter([&] { output = child->waitWithOutput(std::nullopt); });
  // Queries are served while the other thread waits.
  EXPECT_FALSE(child->status());
  std::optional<std::optional<int>> running = child->tryWait();
  ASSERT_TRUE(running);
  EXPECT_FALSE(*running);
  EXPECT_TRUE(child->kill(SIGKILL));
  waiter.join();
  ASSERT_TRUE(output);
  EXPECT_EQ(output->status, SIGKILL);
  EXPECT_EQ(child->status(), SIGKILL);
}

TEST_F(ProcessTest, DestructionKillsAChildThatIgnoresSigtermWhateverTheWaitMeetsMeanwhile) {
  // The second time no descriptor can be opened while the child is given its time to end.
  for (bool descriptorsUsedUp : {false, true}) {
    log->clear();
    const auto start = Clock::now();
    std::optional<Process> child =
        shell("trap '' TERM; echo ready; exec sleep 10").stdout(Stdio::Piped).spawn();
    ASSERT_TRUE(child);
    readUntil(child->stdout()->get(), "ready");
    {
      std::optional<tavrinTesting::DescriptorsUsedUp> usedUp;
      if (descriptorsUsedUp) usedUp.emplace();
      Process moved(std::move(*child));  // the moved-from object no longer owns the child
      child.reset();
      EXPECT_FALSE(log->contains("Process object destructed while process is still running"));
    }
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
    EXPECT_TRUE(
        log->contains("Process object destructed while process is still running. Killing "
                      "and waiting on process"));
    // SIGTERM first where the child can be waited for with a limit, else SIGKILL at once.
    EXPECT_EQ(log->contains("Sending SIGTERM to process"), kPidfd);
    EXPECT_TRUE(log->contains("Sending SIGKILL to process")) << log->text();
    tavrinTesting::expectNoChildLeft();
  }
}

TEST_F(ProcessTest, AChildInAGroupOfItsOwnIsStoppedWithWhatItStarted) {
  tavrinTesting::AdoptOrphans adopt;
  // Destruction, then kill(): each must reach the sleep the shell waits for.
  for (bool byKill : {false, true}) {
    std::optional<Process> child = shell("sleep 30; echo done").processGroup(true).spawn();
    ASSERT_TRUE(child);
    ASSERT_TRUE(child->ownGroup());
    const int pid = child->pid();
    const auto started = Clock::now();
    while (!tavrinTesting::hasChild(pid) && Clock::now() - started < std::chrono::seconds(5)) {
      std::this_thread::yield();
    }
    ASSERT_TRUE(tavrinTesting::hasChild(pid)) << "the shell did not start its sleep";
    if (byKill) {
      EXPECT_TRUE(child->kill(SIGTERM));
      EXPECT_EQ(child->wait(std::nullopt), SIGTERM);
    }
    child.reset();
    EXPECT_TRUE(tavrinTesting::AdoptOrphans::noneLeftRunning(std::chrono::seconds(2)))
        << "the sleep was left behind" << (byKill ? " by kill()" : " by destruction");
  }
}

TEST_F(ProcessTest, ASignalIsToldFromAnExitStatusOfTheSameNumber) {
  std::optional<ProcessOutput> exited = shell("exit 15").stdout(Stdio::Piped).runSync(std::nullopt);
  ASSERT_TRUE(exited);
  EXPECT_EQ(exited->status, 15);
  EXPECT_FALSE(exited->exitSignal);
  std::optional<ProcessOutput> termed =
      shell("kill -TERM $$").stdout(Stdio::Piped).runSync(std::nullopt);
  ASSERT_TRUE(termed);
  EXPECT_EQ(termed->status, SIGTERM);
  EXPECT_EQ(termed->exitSignal, SIGTERM);

  std::optional<Process> killed = shell("kill -KILL $$").spawn();
  ASSERT_TRUE(killed);
  EXPECT_FALSE(killed->exitSignal());  // not reaped yet
  EXPECT_EQ(killed->wait(std::nullopt), SIGKILL);
  EXPECT_EQ(killed->exitSignal(), SIGKILL);
}

TEST_F(ProcessTest, RunsWithTheGivenEnvironmentAndWorkingDirectory) {
  std::optional<ProcessOutput> output =
      Command("/usr/bin/env").env({{"A", "1"}}).stdout(Stdio::Piped).runSync(std::nullopt);
  ASSERT_TRUE(output);
  EXPECT_EQ(output->stdout, "A=1\n");  // the map replaces the parent's environment

  ASSERT_EQ(setenv("TAVRIN_PROCESS_TEST", "inherited", 1), 0);
  output = Command("/usr/bin/env").stdout(Stdio::Piped).runSync(std::nullopt);
  unsetenv("TAVRIN_PROCESS_TEST");
  ASSERT_TRUE(output);
  EXPECT_NE(output->stdout.find("TAVRIN_PROCESS_TEST=inherited\n"), std::string::npos);

  output = Command("/bin/pwd").currentDir("/tmp").stdout(Stdio::Piped).runSync(std::nullopt);
  ASSERT_TRUE(output);
  EXPECT_EQ(output->stdout, "/tmp\n");
  if (tavrinTesting::underEmulation()) {
    GTEST_SKIP() << "a failed change of directory is not reported by posix_spawn under user-mode "
                    "emulation (the child exits with 127)";
  }
  errno = 0;
  EXPECT_FALSE(Command("/bin/pwd").currentDir("/nonexistent/dir").spawn());
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(ProcessTest, StreamsGoToGivenDescriptorsOrTheNullDevice) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  SafeFileDescriptor readEnd(fds[0]);
  std::optional<ProcessOutput> output = shell("echo to-fd; echo to-null >&2")
                                            .stdout(SafeFileDescriptor(fds[1]))
                                            .stderr(Stdio::Null)
                                            .runSync(std::nullopt);
  ASSERT_TRUE(output);
  EXPECT_EQ(output->status, 0);
  EXPECT_EQ(output->stdout, "");
  // The write end went to the child and was closed in the parent, so this read ends.
  std::string text;
  char buffer[64];
  ssize_t count;
  while ((count = ::read(readEnd.get(), buffer, sizeof buffer)) > 0) {
    text.append(buffer, static_cast<size_t>(count));
  }
  EXPECT_EQ(text, "to-fd\n");

  errno = 0;
  EXPECT_FALSE(shell("exit 0").stdout(SafeFileDescriptor(-1)).spawn());
  EXPECT_EQ(errno, EBADF);
  EXPECT_TRUE(log->contains(
      "Firmware: Warning: Cannot set up file redirection for child fd 1. Received invalid file "
      "descriptor."));
}

}  // namespace
}  // namespace process
}  // namespace tavrinCommon
