#include "tavrincommon/common/process/Process.h"

#include "tavrincommon/common/process/Command.h"
#include "tavrincommon/testing/Children.h"
#include "tavrincommon/testing/GlobalLogCapture.h"

#include <cerrno>
#include <chrono>
#include <csignal>
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

TEST_F(ProcessTest, SpawnTakesThePathThisSystemOffers) {
  std::optional<Process> child = shell("exit 0").spawn();
  ASSERT_TRUE(child);
  EXPECT_GT(child->pid(), 0);
  EXPECT_EQ(child->pidfd() >= 0, kPidfd);
  const std::string line = "Firmware: Debug: Spawned process '/bin/sh -c exit 0' with pid " +
                           std::to_string(child->pid()) + " and pidfd " +
                           std::to_string(child->pidfd());
  EXPECT_TRUE(log->contains(line)) << log->text();
  EXPECT_EQ(child->wait(std::nullopt), 0);
  EXPECT_EQ(child->pid(), -1);
}

TEST_F(ProcessTest, RunSyncReadsLargeStdoutAndStderrCompletely) {
  std::optional<ProcessOutput> output =
      shell(
          "head -c 10240 /dev/zero | tr '\\000' o; head -c 1024 /dev/zero | tr '\\000' e >&2; "
          "exit 3")
          .stdout(Stdio::Piped)
          .stderr(Stdio::Piped)
          .runSync(std::chrono::seconds(10));
  ASSERT_TRUE(output);
  EXPECT_EQ(output->stdout, std::string(10240, 'o'));
  EXPECT_EQ(output->stderr, std::string(1024, 'e'));
  EXPECT_EQ(output->status, 3);
}

TEST_F(ProcessTest, WaitClosesAPipedStdinSoAReaderEnds) {
  std::optional<Process> child = shell("n=$(cat | wc -c); exit $n").stdin(Stdio::Piped).spawn();
  ASSERT_TRUE(child);
  ASSERT_TRUE(Process::ioValid(child->stdin()));
  ASSERT_EQ(::write(child->stdin()->get(), "hello", 5), 5);
  EXPECT_EQ(child->wait(std::nullopt), 5);
  EXPECT_FALSE(child->stdin());
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
  EXPECT_TRUE(log->contains(
      "Process object destructed while process is still running. Killing and waiting on process"));
  // SIGTERM first where the child can be waited for with a limit, else SIGKILL at once.
  EXPECT_EQ(log->contains("Sending SIGTERM to process"), kPidfd);
  if (!kPidfd) {
    EXPECT_TRUE(log->contains("Sending SIGKILL to process")) << log->text();
  }

  // With a pipe to read, a child without pidfd is polled for its exit, so the limit holds too.
  errno = 0;
  EXPECT_FALSE(shell("exec sleep 5").stdout(Stdio::Piped).runSync(milliseconds(50)));
  EXPECT_EQ(errno, ETIME);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(6));
}

TEST_F(ProcessTest, WaitWithALimitNeedsAPidfd) {
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
  std::optional<Process> child = shell("read line; exit 7").stdin(Stdio::Piped).spawn();
  ASSERT_TRUE(child);
  std::optional<std::optional<int>> running = child->tryWait();
  ASSERT_TRUE(running);
  EXPECT_FALSE(*running);
  EXPECT_GT(child->pid(), 0);

  child->stdin().reset();
  EXPECT_EQ(child->wait(std::nullopt), 7);
  std::optional<std::optional<int>> exited = child->tryWait();
  ASSERT_TRUE(exited);
  EXPECT_EQ(*exited, 7);
  EXPECT_EQ(child->pid(), -1);
  EXPECT_TRUE(log->contains("exited with return code 7."));

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

TEST_F(ProcessTest, DestructionKillsAChildThatIgnoresSigterm) {
  const auto start = Clock::now();
  {
    std::optional<Process> child =
        shell("trap '' TERM; echo ready; exec sleep 10").stdout(Stdio::Piped).spawn();
    ASSERT_TRUE(child);
    readUntil(child->stdout()->get(), "ready");
    Process moved(std::move(*child));  // the moved-from object no longer owns the child
    child.reset();
    EXPECT_FALSE(log->contains("Process object destructed while process is still running"));
  }
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(log->contains("Sending SIGTERM to process"), kPidfd);
  EXPECT_TRUE(log->contains("Sending SIGKILL to process")) << log->text();
}

TEST_F(ProcessTest, EnvironmentMapReplacesTheParentsEnvironment) {
  std::optional<ProcessOutput> output =
      Command("/usr/bin/env").env({{"A", "1"}}).stdout(Stdio::Piped).runSync(std::nullopt);
  ASSERT_TRUE(output);
  EXPECT_EQ(output->stdout, "A=1\n");

  ASSERT_EQ(setenv("TAVRIN_PROCESS_TEST", "inherited", 1), 0);
  output = Command("/usr/bin/env").stdout(Stdio::Piped).runSync(std::nullopt);
  unsetenv("TAVRIN_PROCESS_TEST");
  ASSERT_TRUE(output);
  EXPECT_NE(output->stdout.find("TAVRIN_PROCESS_TEST=inherited\n"), std::string::npos);
}

TEST_F(ProcessTest, RunsInTheGivenWorkingDirectory) {
  std::optional<ProcessOutput> output =
      Command("/bin/pwd").currentDir("/tmp").stdout(Stdio::Piped).runSync(std::nullopt);
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
