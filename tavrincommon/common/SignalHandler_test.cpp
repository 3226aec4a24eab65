#include "tavrincommon/common/SignalHandler.h"

#include <csignal>

#include <gtest/gtest.h>

namespace tavrinCommon {
namespace {

void (*currentDisposition(int signalNumber))(int) {
  struct sigaction action;
  sigaction(signalNumber, nullptr, &action);
  return action.sa_handler;
}

class SignalHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override { handler.mainLoopSignalCheck(); }  // nothing left from elsewhere
  SignalHandler handler;
};

TEST_F(SignalHandlerTest, RunsTheLaterFunctionOfTheLaterSignalOnceInTheCheck) {
  int terms = 0;
  int first = 0;
  int second = 0;
  handler.addSignal(SIGTERM, [&] { ++terms; });
  handler.addSignal(SIGUSR1, [&] { ++first; });
  handler.addSignal(SIGUSR1, [&] { ++second; });  // replaces the function
  ASSERT_EQ(std::raise(SIGTERM), 0);
  EXPECT_EQ(terms, 0);
  handler.mainLoopSignalCheck();
  EXPECT_EQ(terms, 1);

  std::raise(SIGTERM);
  std::raise(SIGUSR1);  // replaces the unchecked SIGTERM
  handler.mainLoopSignalCheck();
  handler.mainLoopSignalCheck();
  EXPECT_EQ(terms, 1);
  EXPECT_EQ(first, 0);
  EXPECT_EQ(second, 1);
}

TEST_F(SignalHandlerTest, RemoveAndClearRestoreTheDefaultDisposition) {
  handler.addSignal(SIGTERM, [] {});
  handler.addSignal(SIGUSR1, [] {});
  EXPECT_NE(currentDisposition(SIGTERM), SIG_DFL);
  handler.removeSignal(SIGTERM);
  EXPECT_EQ(currentDisposition(SIGTERM), SIG_DFL);
  EXPECT_NE(currentDisposition(SIGUSR1), SIG_DFL);
  handler.removeSignal(SIGHUP);  // unknown: nothing
  handler.clear();
  EXPECT_EQ(currentDisposition(SIGUSR1), SIG_DFL);

  // Also from inside the function itself.
  int calls = 0;
  handler.addSignal(SIGUSR2, [&] {
    ++calls;
    handler.removeSignal(SIGUSR2);
  });
  std::raise(SIGUSR2);
  handler.mainLoopSignalCheck();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(currentDisposition(SIGUSR2), SIG_DFL);
}

}  // namespace
}  // namespace tavrinCommon
