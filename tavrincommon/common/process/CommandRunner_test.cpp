#include "tavrincommon/common/process/CommandRunner.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/scheduler/Scheduler.h"
#include "tavrincommon/testing/Children.h"
#include "tavrincommon/testing/GlobalLogCapture.h"
#include "tavrincommon/testing/RunUntil.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <sstream>
#include <string>
#include <thread>

#include "tavrincommon/testing/Emulation.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace tavrinCommon {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr bool kPidfd = tavrinTesting::kExpectPidfd;

constexpr int kOrigin = DefaultOrigins::UnitTests;

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class CommandRunnerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/tavrin-runner-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir = pattern;
  }

  void TearDown() override {
    tavrinTesting::expectNoChildLeft();
    std::system(("rm -rf " + dir).c_str());
  }

  std::unique_ptr<CommandRunner> startShell(const std::string& script,
                                            const std::optional<std::string>& stdoutFile = {},
                                            const std::optional<std::string>& stdinFile = {},
                                            const std::optional<std::string>& stderrFile = {}) {
    return CommandRunner::start(
        kOrigin, &scheduler,
        [this](int status) {
          lastStatus = status;
          callbackOnLoop = std::this_thread::get_id() == loopThread;
          if (onFinished) onFinished();  // may destroy the runner: the capture is still used below
          ++calls;
        },
        "/bin/sh", {"-c", script}, stdinFile, stdoutFile, stderrFile);
  }

  // Waits until the child has written `text` to `path`: it is then ready for the test.
  bool waitForFile(const std::string& path, const std::string& text) {
    return tavrinTesting::runUntil(scheduler,
                                   [&] { return readFile(path).find(text) != std::string::npos; });
  }

  tavrinTesting::GlobalLogCapture log;
  tavrinScheduler::Scheduler scheduler{nullptr};
  const std::thread::id loopThread = std::this_thread::get_id();
  std::string dir;
  int calls = 0;
  int lastStatus = -1000;
  bool callbackOnLoop = false;
  std::function<void()> onFinished;  // called inside the finished callback
};

TEST_F(CommandRunnerTest, ExitStatusReachesTheLoopThreadOnce) {
  std::unique_ptr<CommandRunner> runner = startShell("exit 3");
  ASSERT_TRUE(runner);
  // The pidfd is watched by the loop; without one a helper thread waits.
  EXPECT_EQ(runner->isRunning(), !kPidfd);
  ASSERT_TRUE(tavrinTesting::runUntil(scheduler, [&] { return calls > 0; }));
  tavrinTesting::runFor(scheduler, milliseconds(50));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(lastStatus, 3);
  EXPECT_TRUE(callbackOnLoop);
  EXPECT_FALSE(runner->running());
  EXPECT_FALSE(runner->exitSignal());
  runner.reset();
  EXPECT_FALSE(log->contains("still running at CommandRunner cleanup")) << log->text();

  // An empty callback is allowed: the status is then simply not reported.
  runner = CommandRunner::start(kOrigin, &scheduler, nullptr, "/bin/sh", {"-c", "exit 0"},
                                std::nullopt, std::nullopt, std::nullopt);
  ASSERT_TRUE(runner);
  ASSERT_TRUE(tavrinTesting::runUntil(scheduler, [&] { return !runner->running(); }));
  tavrinTesting::runFor(scheduler, milliseconds(30));  // the watch or the hand-over fires
  EXPECT_FALSE(runner->isRunning());
}

TEST_F(CommandRunnerTest, KillSendsSigtermOrWithForceSigkillAndAClearedCallbackIsNeverMade) {
  for (bool force : {false, true}) {
    std::unique_ptr<CommandRunner> runner = startShell("exec sleep 10");
    ASSERT_TRUE(runner);
    EXPECT_TRUE(runner->running());
    EXPECT_TRUE(runner->kill(force));
    ASSERT_TRUE(
        tavrinTesting::runUntil(scheduler, [&] { return !runner->running() && calls > 0; }));
    EXPECT_EQ(lastStatus, force ? SIGKILL : SIGTERM);
    EXPECT_EQ(runner->exitSignal(), force ? SIGKILL : SIGTERM);  // not an exit code
    calls = 0;
  }
  EXPECT_FALSE(log->contains("still running at CommandRunner cleanup"));

  std::unique_ptr<CommandRunner> runner = startShell("exec sleep 10");
  ASSERT_TRUE(runner);
  runner->clearFinishedCallback();
  ASSERT_TRUE(runner->kill(false));
  ASSERT_TRUE(tavrinTesting::runUntil(scheduler, [&] { return !runner->running(); }));
  tavrinTesting::runFor(scheduler, milliseconds(50));
  EXPECT_EQ(calls, 0);
}

TEST_F(CommandRunnerTest, RedirectsStreamsToFiles) {
  const std::string in = dir + "/in";
  const std::string out = dir + "/out";
  const std::string err = dir + "/err";
  std::ofstream(in) << "from file\n";
  std::unique_ptr<CommandRunner> runner = startShell("cat; echo oops >&2", out, in, err);
  ASSERT_TRUE(runner);
  ASSERT_TRUE(tavrinTesting::runUntil(scheduler, [&] { return calls > 0; }));
  EXPECT_EQ(lastStatus, 0);
  EXPECT_EQ(readFile(out), "from file\n");
  EXPECT_EQ(readFile(err), "oops\n");
  struct stat info {};
  ASSERT_EQ(stat(out.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  // Without a stdin file the child reads the null device, never the application's input.
  runner = startShell("cat", out);
  ASSERT_TRUE(runner);
  ASSERT_TRUE(tavrinTesting::runUntil(scheduler, [&] { return calls == 2; }));
  EXPECT_EQ(readFile(out), "");
}

TEST_F(CommandRunnerTest, StartFailuresNameTheCommand) {
  EXPECT_FALSE(CommandRunner::start(kOrigin, &scheduler, nullptr, "/bin/cat", {"x"},
                                    dir + "/missing", std::nullopt, std::nullopt));
  EXPECT_TRUE(
      log->contains("UnitTests: Error: Cannot start process \"/bin/cat 'x'\". Cannot open "
                    "stdin file: No such file or directory (2)"))
      << log->text();

  EXPECT_FALSE(CommandRunner::start(kOrigin, &scheduler, nullptr, "/bin/cat", {}, std::nullopt,
                                    dir + "/no/such/dir/out", std::nullopt));
  EXPECT_TRUE(log->contains("Cannot start process \"/bin/cat\". Cannot open stdout file: "));

  if (tavrinTesting::underEmulation()) {
    GTEST_SKIP() << "exec failures are not reported by posix_spawn under user-mode emulation "
                    "(the child exits with 127)";
  }
  EXPECT_FALSE(CommandRunner::start(kOrigin, &scheduler, nullptr, "/nonexistent/program", {"a b"},
                                    std::nullopt, std::nullopt, std::nullopt));
  EXPECT_TRUE(
      log->contains("UnitTests: Error: Cannot start process \"/nonexistent/program 'a b'\". "
                    "No such file or directory (2)"));
}

TEST_F(CommandRunnerTest, DestructionWhileRunningTermsThenKillsAndReapsTheWholeGroup) {
  tavrinTesting::AdoptOrphans adopt;
  const std::string out = dir + "/out";
  // The second time no descriptor can be opened while the child is given its time to end.
  for (bool descriptorsUsedUp : {false, true}) {
    log->clear();
    // The ignored SIGTERM is inherited by the sleep, which the shell waits for.
    std::unique_ptr<CommandRunner> runner =
        startShell("trap '' TERM; echo ready; sleep 10; echo done", out);
    ASSERT_TRUE(runner);
    ASSERT_TRUE(waitForFile(out, "ready"));
    ASSERT_TRUE(
        tavrinTesting::runUntil(scheduler, [&] { return tavrinTesting::hasChild(runner->pid()); }));
    const auto start = Clock::now();
    {
      std::optional<tavrinTesting::DescriptorsUsedUp> usedUp;
      if (descriptorsUsedUp) usedUp.emplace();
      runner.reset();
    }
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
    EXPECT_EQ(calls, 0);
    // SIGTERM first only where the child can be signalled and waited for with a time limit.
    EXPECT_EQ(log->contains("is still running at CommandRunner cleanup. Sending SIGTERM."), kPidfd);
    EXPECT_TRUE(log->contains("is still running at CommandRunner cleanup. Sending SIGKILL."))
        << log->text();
    EXPECT_TRUE(tavrinTesting::AdoptOrphans::noneLeftRunning(std::chrono::seconds(2)))
        << "the sleep was left behind";
    tavrinTesting::runFor(scheduler, milliseconds(30));
    EXPECT_EQ(calls, 0);
  }
}

TEST_F(CommandRunnerTest, DestroyedInsideItsOwnCallbackItSaysSoAndSurvivesTheHandOver) {
  std::unique_ptr<CommandRunner> runner = startShell("exit 4");
  ASSERT_TRUE(runner);
  onFinished = [&] { runner.reset(); };
  ASSERT_TRUE(tavrinTesting::runUntil(scheduler, [&] { return calls > 0; }));
  tavrinTesting::runFor(scheduler, milliseconds(30));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(lastStatus, 4);
  EXPECT_FALSE(runner);
  EXPECT_TRUE(
      log->contains("UnitTests: Emergency: Deleting CommandRunner instance while callback "
                    "is active."))
      << log->text();
}

TEST_F(CommandRunnerTest, WithoutSchedulerCallsBackOnTheHelperThread) {
  std::promise<std::pair<int, std::thread::id>> result;
  std::future<std::pair<int, std::thread::id>> done = result.get_future();
  std::unique_ptr<CommandRunner> runner = CommandRunner::start(
      kOrigin, nullptr,
      [&](int status) {
        result.set_value({status, std::this_thread::get_id()});
      },
      "/bin/sh", {"-c", "exit 5"}, std::nullopt, std::nullopt, std::nullopt);
  ASSERT_TRUE(runner);
  ASSERT_EQ(done.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  std::pair<int, std::thread::id> got = done.get();
  EXPECT_EQ(got.first, 5);
  EXPECT_NE(got.second, loopThread);
  runner.reset();
}

}  // namespace
}  // namespace tavrinCommon
