#include "tavrincommon/common/process/Command.h"

#include "tavrincommon/testing/GlobalLogCapture.h"

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

namespace tavrinCommon {
namespace process {
namespace {

class CommandTest : public ::testing::Test {
 protected:
  tavrinTesting::GlobalLogCapture log;
};

TEST_F(CommandTest, ArgumentVectorStartsWithTheProgramAndEndsWithNull) {
  Command command("/bin/echo");
  command.args({"a", "b c"});
  std::vector<char*> argp = command.prepareArgp();
  ASSERT_EQ(argp.size(), 4u);
  EXPECT_STREQ(argp[0], "/bin/echo");
  EXPECT_STREQ(argp[1], "a");
  EXPECT_STREQ(argp[2], "b c");
  EXPECT_EQ(argp[3], nullptr);
}

TEST_F(CommandTest, EnvironmentIsTheMapOrACopyOfTheParents) {
  Command command(std::string("/usr/bin/env"));
  std::vector<std::string> storage;
  std::vector<char*> inherited = command.prepareEnvp(storage);
  size_t parentCount = 0;
  while (environ[parentCount]) ++parentCount;
  ASSERT_EQ(inherited.size(), parentCount + 1);
  for (size_t i = 0; i < parentCount; ++i) EXPECT_STREQ(inherited[i], environ[i]);
  EXPECT_EQ(inherited.back(), nullptr);

  command.env({{"A", "1"}, {"PATH", "/nowhere"}});
  std::vector<std::string> ownStorage;
  std::vector<char*> own = command.prepareEnvp(ownStorage);
  ASSERT_EQ(own.size(), 3u);
  EXPECT_EQ(own[2], nullptr);
  std::vector<std::string> texts{own[0], own[1]};
  std::sort(texts.begin(), texts.end());
  EXPECT_EQ(texts, (std::vector<std::string>{"A=1", "PATH=/nowhere"}));
}

TEST_F(CommandTest, ReplacingADescriptorSettingClosesTheDescriptor) {
  int fd = ::open(Command::DEV_NULL, O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  Command command("/bin/true");
  command.stdin(SafeFileDescriptor(fd));
  EXPECT_NE(fcntl(fd, F_GETFD), -1);
  command.stdin(Stdio::Null);
  errno = 0;
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(CommandTest, SetupFailureClosesWhatWasAlreadyCreated) {
  // Count the open descriptors before and after a spawn whose stderr setting is invalid: the
  // stdin and stdout pipes made before it must not leak.
  auto openDescriptors = [] {
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd) count += fcntl(fd, F_GETFD) != -1;
    return count;
  };
  const int before = openDescriptors();
  errno = 0;
  EXPECT_FALSE(Command("/bin/true")
                   .stdin(Stdio::Piped)
                   .stdout(Stdio::Piped)
                   .stderr(SafeFileDescriptor(-1))
                   .spawn());
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace process
}  // namespace tavrinCommon
