#include "tavrincommon/common/DirUtil.h"

#include "tavrincommon/testing/GlobalLogCapture.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

namespace tavrinCommon {
namespace {

class DirUtilTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/dirutil_test_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root = pattern;
  }
  void TearDown() override {
    EXPECT_TRUE(dirUtil::removeDir(root.c_str()));
    EXPECT_FALSE(dirUtil::fileExists(root.c_str()));
  }
  std::string path(const std::string& relative) const { return root + "/" + relative; }
  void write(const std::string& relative, const std::string& content) {
    ASSERT_EQ(dirUtil::sysfsWrite(path(relative).c_str(), content.data(),
                                  static_cast<unsigned>(content.size())),
              static_cast<int>(content.size()));
  }

  tavrinTesting::GlobalLogCapture log;
  std::string root;
};

TEST_F(DirUtilTest, CreateDirPathCreatesMissingLevelsAndLogsEachButNotUnderAFile) {
  ASSERT_TRUE(dirUtil::createDirPath(path("a").c_str()));
  log->clear();
  EXPECT_TRUE(dirUtil::createDirPath(path("a/b/c").c_str()));
  const auto lines = log->lines();
  ASSERT_EQ(lines.size(), 2u) << log->text();
  EXPECT_NE(lines[0].text.find("Created dir: " + path("a/b")), std::string::npos) << log->text();
  EXPECT_NE(lines[1].text.find("Created dir: " + path("a/b/c")), std::string::npos);
  EXPECT_TRUE(dirUtil::isDir(path("a/b/c").c_str()));
  EXPECT_TRUE(dirUtil::createDirPath(""));

  // Under a regular file it fails.
  write("file", "x");
  EXPECT_FALSE(dirUtil::createDirPath(path("file/sub").c_str()));
  EXPECT_FALSE(dirUtil::directoryExists(path("file").c_str()));
  EXPECT_FALSE(dirUtil::isDir(path("file").c_str()));
}

TEST_F(DirUtilTest, FileQueriesRenameDeleteAndSysfsReadWithinTheBuffer) {
  EXPECT_EQ(dirUtil::fileSize(path("missing").c_str()), -1);
  EXPECT_FALSE(dirUtil::fileExists(path("missing").c_str()));
  write("f", "hello");
  EXPECT_TRUE(dirUtil::fileReadable(path("f").c_str()));
  EXPECT_EQ(dirUtil::fileSize(path("f").c_str()), 5);
  EXPECT_TRUE(dirUtil::fileRename(path("f").c_str(), path("g").c_str()));
  EXPECT_FALSE(dirUtil::fileExists(path("f").c_str()));
  EXPECT_TRUE(dirUtil::fileDelete(path("g").c_str()));
  EXPECT_FALSE(dirUtil::fileDelete(path("g").c_str()));

  // A sysfs read terminates the text within the buffer.
  write("value", "42\n");
  char buffer[3] = {'x', 'x', 'x'};
  EXPECT_TRUE(dirUtil::sysfsRead(path("value").c_str(), buffer, sizeof buffer));
  EXPECT_STREQ(buffer, "42");
  char one[1] = {'x'};
  EXPECT_FALSE(dirUtil::sysfsRead(path("value").c_str(), one, 1));
  EXPECT_EQ(one[0], '\0');
  write("empty", "");
  char big[16];
  EXPECT_FALSE(dirUtil::sysfsRead(path("empty").c_str(), big, sizeof big));
  EXPECT_FALSE(dirUtil::sysfsRead(path("missing").c_str(), big, sizeof big));
  EXPECT_EQ(dirUtil::sysfsWrite(path("no/such/dir").c_str(), "x", 1), -1);
}

}  // namespace
}  // namespace tavrinCommon
