#include "tavrincommon/testing/OwnNetworkNamespace.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tavrinTesting {

namespace {

constexpr const char* kInsideVariable = "TAVRIN_TEST_IN_OWN_NETNS";
constexpr const char* kSkipFileVariable = "TAVRIN_TEST_NETNS_SKIP_FILE";

int exitStatus(int status) { return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

std::string quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'')
      out += "'\\''";
    else
      out += c;
  }
  return out + "'";
}

void runOuter() {
  if (exitStatus(std::system("unshare -rn true >/dev/null 2>&1")) != 0) {
    GTEST_SKIP() << "network namespaces are not permitted here (unshare -rn failed); the test "
                    "needs one of its own and is skipped";
  }
  char exe[4096];
  const ssize_t length = readlink("/proc/self/exe", exe, sizeof exe - 1);
  ASSERT_GT(length, 0);
  exe[length] = '\0';
  char skipFile[] = "/tmp/tavrin_netns_skip_XXXXXX";
  const int skipFd = mkstemp(skipFile);
  ASSERT_GE(skipFd, 0);
  close(skipFd);

  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  const std::string filter = std::string(info->test_suite_name()) + "." + info->name();
  const std::string command = std::string(kInsideVariable) + "=1 " + kSkipFileVariable + "=" +
                              quoted(skipFile) + " unshare -rn " + quoted(exe) +
                              " --gtest_filter=" + quoted(filter);
  std::fflush(stdout);
  const int status = exitStatus(std::system(command.c_str()));

  std::ifstream in(skipFile);
  const std::string skipReason((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  unlink(skipFile);
  if (!skipReason.empty()) GTEST_SKIP() << skipReason;
  EXPECT_EQ(status, 0) << "the test failed inside its own network namespace (its output is above)";
}

}  // namespace

bool inOwnNetworkNamespace() {
  if (std::getenv(kInsideVariable)) {
    if (!runCommand("ip link set lo up")) {
      ADD_FAILURE() << "cannot bring lo up inside the namespace";
      return false;
    }
    return true;
  }
  runOuter();
  return false;
}

bool runCommand(const std::string& command) {
  const std::string line = "PATH=\"$PATH:/usr/sbin:/sbin\" " + command;
  return exitStatus(std::system(line.c_str())) == 0;
}

void reportSkipToOuterRun(const std::string& reason) {
  const char* path = std::getenv(kSkipFileVariable);
  if (!path) return;
  std::ofstream out(path);
  out << reason;
}

}  // namespace tavrinTesting
