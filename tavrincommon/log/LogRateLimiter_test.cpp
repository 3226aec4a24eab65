#include "tavrincommon/log/LogRateLimiter.h"

#include "tavrincommon/testing/LogCapture.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace tavrinLog {
namespace {

constexpr int kOrigin = 1;

class LogRateLimiterTest : public ::testing::Test {
 protected:
  void logBadFrame(int n) {
    TAVRIN_LOG_LIMITED(limiter, capture.logging(), kOrigin, SeverityLevel::Service,
                       "Bad frame %d from peer", n);
  }
  void logUnknownId() {
    TAVRIN_LOG_LIMITED(limiter, capture.logging(), kOrigin, SeverityLevel::Service, "Unknown id %d",
                       7);
  }

  uint32_t now = 1000;
  tavrinTesting::LogCapture capture;
  LogRateLimiter limiter{3, 1000, [this] { return now; }};
};

TEST_F(LogRateLimiterTest, PassesABurstPerKindThenCountsWhatItHeldBack) {
  for (int i = 0; i < 10; ++i) logBadFrame(i);
  logUnknownId();
  EXPECT_EQ(capture.count("Bad frame"), 3u);
  EXPECT_EQ(capture.count("Unknown id 7"), 1u) << "another text is another kind";
  EXPECT_EQ(limiter.getSuppressedTotal(), 7u);

  // Still inside the window: nothing to report yet.
  limiter.flush(capture.logging());
  EXPECT_FALSE(capture.contains("Suppressed"));

  // The next line after the window first tells how many were held back.
  now += 1000;
  logBadFrame(99);
  const auto lines = capture.lines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_NE(lines[lines.size() - 2].text.find("Suppressed 7 similar lines in 1 s: \"Bad frame %d "
                                              "from peer\""),
            std::string::npos)
      << capture.text();
  EXPECT_NE(lines.back().text.find("Bad frame 99"), std::string::npos);
  EXPECT_EQ(lines.back().severity, SeverityLevel::Service);
}

TEST_F(LogRateLimiterTest, FlushReportsAKindThatWentQuiet) {
  for (int i = 0; i < 5; ++i) logBadFrame(i);
  now += 2500;
  limiter.flush(capture.logging());
  EXPECT_EQ(capture.count("Suppressed 2 similar lines"), 1u) << capture.text();
  limiter.flush(capture.logging());
  EXPECT_EQ(capture.count("Suppressed"), 1u) << "a count is reported once";
}

TEST_F(LogRateLimiterTest, TableStaysBoundedAndEvictionReportsTheCount) {
  // Formats are kinds by address: a table of distinct texts stands in for many call sites.
  static char formats[LogRateLimiter::kMaxKinds + 1][16];
  for (size_t i = 0; i < LogRateLimiter::kMaxKinds + 1; ++i) {
    std::snprintf(formats[i], sizeof formats[i], "kind %zu", i);
    for (int n = 0; n < 4; ++n) {
      ++now;
      limiter.admit(capture.logging(), kOrigin, SeverityLevel::Service, formats[i]);
    }
  }
  // The first kind made room for the last one, and its held-back line was not lost.
  EXPECT_EQ(capture.count("Suppressed 1 similar lines in 1 s: \"kind 0\""), 1u) << capture.text();
}

}  // namespace
}  // namespace tavrinLog
