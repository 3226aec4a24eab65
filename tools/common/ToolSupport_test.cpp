#include "tools/common/ToolSupport.h"

#include "tavrincommon/log/DefaultOrigins.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tavrinTools {
namespace {

using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;

TEST(ToolSupportTest, ArgReaderTakesValuesInlineOrFollowing) {
  std::vector<std::string> words = {"tool", "--port=30300", "--group", "239.1.2.3", "127.0.0.1:9",
                                    "--id"};
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(&w[0]);
  ArgReader args(static_cast<int>(argv.size()), argv.data());
  std::string value;
  EXPECT_EQ(args.next(), "--port");
  ASSERT_TRUE(args.value(value));
  EXPECT_EQ(value, "30300");
  EXPECT_EQ(args.next(), "--group");
  ASSERT_TRUE(args.value(value));
  EXPECT_EQ(value, "239.1.2.3");
  EXPECT_EQ(args.next(), "127.0.0.1:9");
  EXPECT_EQ(args.next(), "--id");
  EXPECT_FALSE(args.value(value));
  EXPECT_TRUE(args.done());
}

TEST(ToolSupportTest, NumbersAndAddressesAreCheckedStrictly) {
  unsigned long n = 0;
  EXPECT_TRUE(parseUnsigned("08", 65535, n));
  EXPECT_EQ(n, 8u);
  EXPECT_TRUE(parseUnsigned("0x10", 65535, n));
  EXPECT_EQ(n, 16u);
  for (const char* bad : {"", "-1", "+1", "65536", "12a", "99999999999999999999999"})
    EXPECT_FALSE(parseUnsigned(bad, 65535, n)) << bad;

  tavrinNetwork::SimpleEndpoint endpoint;
  ASSERT_TRUE(parseEndpoint("127.0.0.1:4000", endpoint));
  EXPECT_EQ(endpoint.toString(), "127.0.0.1:4000");
  for (const char* bad : {"127.0.0.1", "127.0.0.256:1", "127.0.0.1:65536", "1.2.3:4", "1.2.3.4.5:6",
                          "localhost:80"})
    EXPECT_FALSE(parseEndpoint(bad, endpoint)) << bad;
}

TEST(ToolSupportTest, LogLevelsSetTheDefaultAndSingleOrigins) {
  LogLevels levels(SeverityLevel::Info);
  ASSERT_TRUE(levels.parse("warning,TCPConnector=Debug,3=detailed"));
  tavrinLog::TavrinLogging logging(SeverityLevel::Info, {});
  levels.apply(logging);
  EXPECT_EQ(logging.getComponentSeverity(DefaultOrigins::Sockets), SeverityLevel::Warning);
  EXPECT_EQ(logging.getComponentSeverity(DefaultOrigins::TCPConnector), SeverityLevel::Debug);
  EXPECT_EQ(logging.getComponentSeverity(DefaultOrigins::MCAnnounce), SeverityLevel::Detailed);

  LogLevels off(SeverityLevel::Info);
  ASSERT_TRUE(off.parse("Off"));
  off.apply(logging);
  EXPECT_FALSE(logging.isEnabled(DefaultOrigins::Firmware, SeverityLevel::Emergency));

  for (const char* bad : {"loud", "Nowhere=Debug", "Debug=", "TCPConnector=8"})
    EXPECT_FALSE(LogLevels(SeverityLevel::Info).parse(bad)) << bad;
}

}  // namespace
}  // namespace tavrinTools
