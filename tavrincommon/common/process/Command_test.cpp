#include "tavrincommon/common/process/Command.h"

#include "tavrincommon/testing/GlobalLogCapture.h"

#include <cerrno>

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

TEST_F(CommandTest, AnUnknownStdioValueIsAProgrammingError) {
  EXPECT_EQ(Command::StdioData::toType(Stdio::Piped), Command::StdioType::Piped);
  EXPECT_DEATH(Command::StdioData::toType(static_cast<Stdio>(7)), "");
}

}  // namespace
}  // namespace process
}  // namespace tavrinCommon
