#include "tavrincommon/log/TavrinLogging.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/GlobalLogging.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using tavrinCommon::DefaultOrigins;
using tavrinLog::SeverityLevel;
using tavrinLog::TavrinLogging;

struct Captured {
  int origin;
  SeverityLevel::Type severity;
  std::string text;
};

class TavrinLoggingTest : public ::testing::Test {
 protected:
  TavrinLogging::LogCallback capture() {
    return [this](int origin, SeverityLevel::Type severity, const char* text) {
      lines.push_back({origin, severity, text});
    };
  }
  static const char* names(int origin) { return DefaultOrigins::getText(origin); }

  std::vector<Captured> lines;
};

TEST_F(TavrinLoggingTest, InvalidLevelsAreIgnoredAndResetsDiscardPerOriginEntries) {
  EXPECT_EQ(TavrinLogging(static_cast<SeverityLevel::Type>(9), {}).getComponentSeverity(0),
            SeverityLevel::Service);
  EXPECT_EQ(TavrinLogging(SeverityLevel::Off, {}).getComponentSeverity(0), SeverityLevel::Service);
  TavrinLogging logging(SeverityLevel::Info, capture());
  logging.setComponentSeverity(3, SeverityLevel::Debug);
  EXPECT_TRUE(logging.isEnabled(3, SeverityLevel::Debug));
  EXPECT_FALSE(logging.isEnabled(4, SeverityLevel::Debug));
  logging.setComponentSeverity(3, static_cast<SeverityLevel::Type>(8));  // ignored
  EXPECT_EQ(logging.getComponentSeverity(3), SeverityLevel::Debug);
  logging.setAllComponentsSeverity(static_cast<SeverityLevel::Type>(8));  // ignored
  EXPECT_EQ(logging.getComponentSeverity(3), SeverityLevel::Debug);
  logging.setAllComponentsSeverity(SeverityLevel::Error);  // discards per-origin entries
  EXPECT_EQ(logging.getComponentSeverity(3), SeverityLevel::Error);

  // Only the exact names parse; anything else is the most detailed level.
  EXPECT_EQ(SeverityLevel::parse("Off"), SeverityLevel::Off);
  EXPECT_EQ(SeverityLevel::parse("Maximum"), SeverityLevel::Detailed);
  EXPECT_EQ(SeverityLevel::parse("debug"), SeverityLevel::Detailed);
  EXPECT_STREQ(DefaultOrigins::getText(10), "unknown");
}

TEST_F(TavrinLoggingTest, PrefixesOriginAndSeverityNames) {
  TavrinLogging logging(SeverityLevel::Maximum, capture(), names);
  logging.log<true>(6, SeverityLevel::Debug, "IOWatcher %s took %d ms", "x", 120);
  logging.log<false>(6, SeverityLevel::Debug, "bare %d", 1);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text, "Scheduler: Debug: IOWatcher x took 120 ms");
  EXPECT_EQ(lines[0].origin, 6);
  EXPECT_EQ(lines[0].severity, SeverityLevel::Debug);
  EXPECT_EQ(lines[1].text, "bare 1");

  TavrinLogging unnamed(SeverityLevel::Maximum, capture());
  unnamed.log<true>(6, SeverityLevel::Info, "x");
  EXPECT_EQ(lines.back().text, "Unknown: Info: x");

  // A name callback that knows no name for an origin: its number stands in, also as an argument.
  TavrinLogging partlyNamed(SeverityLevel::Maximum, capture(),
                            [](int origin) { return origin == 6 ? "Scheduler" : nullptr; });
  partlyNamed.log<true>(42, SeverityLevel::Info, "%s and %s", partlyNamed.originToString(-7),
                        partlyNamed.originToString(6));
  EXPECT_EQ(lines.back().text, "42: Info: -7 and Scheduler");
}

TEST_F(TavrinLoggingTest, CutsLinesAt2047CharactersPrefixIncluded) {
  TavrinLogging logging(SeverityLevel::Maximum, capture(), names);
  const std::string long3000(3000, 'a');
  logging.log<true>(6, SeverityLevel::Service, "%s", long3000.c_str());
  logging.log<false>(6, SeverityLevel::Service, "%s", long3000.c_str());
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text.size(), 2047u);
  EXPECT_EQ(lines[0].text.substr(0, 20), "Scheduler: Service: ");
  EXPECT_EQ(lines[1].text.size(), 2047u);

  // An origin name that fills the whole line leaves the text no room, but the line still ends.
  static const std::string huge(3000, 'n');
  TavrinLogging hugeNames(SeverityLevel::Maximum, capture(), [](int) { return huge.c_str(); });
  hugeNames.log<true>(0, SeverityLevel::Error, "text");
  EXPECT_EQ(lines.back().text.size(), 2047u);
  EXPECT_EQ(lines.back().text.find("text"), std::string::npos);
}

TEST_F(TavrinLoggingTest, ThreadsLogAtOnceWithoutMixingTheirLines) {
  std::mutex mutex;
  std::vector<std::string> texts;
  TavrinLogging logging(
      SeverityLevel::Info,
      [&](int, SeverityLevel::Type, const char* text) {
        std::lock_guard<std::mutex> lock(mutex);
        texts.emplace_back(text);
      },
      [](int origin) { return origin == 6 ? "Scheduler" : nullptr; });
  constexpr int kThreads = 4;
  constexpr int kLines = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&logging, t] {
      for (int i = 0; i < kLines; ++i) {
        TAVRIN_LOG(&logging, 6 + t, SeverityLevel::Info, "%d %s %.2f %s", i, "x", t + 0.25,
                   logging.originToString(100 + t));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_EQ(texts.size(), static_cast<size_t>(kThreads * kLines));
  std::vector<int> next(kThreads, 0);
  for (const std::string& text : texts) {
    const int t = std::stoi(text.substr(text.rfind(' ') + 1)) - 100;
    ASSERT_TRUE(t >= 0 && t < kThreads) << text;
    char expected[64];
    std::snprintf(expected, sizeof expected, "%s: Info: %d x %d.25 %d",
                  t == 0 ? "Scheduler" : std::to_string(6 + t).c_str(), next[t]++, t, 100 + t);
    EXPECT_EQ(text, expected);
  }
}

TEST_F(TavrinLoggingTest, MacroFormatsOnlyWhatPassesTheLevel) {
  TavrinLogging logging(SeverityLevel::Info, capture(), names);
  int evaluated = 0;
  auto argument = [&evaluated] { return ++evaluated; };
  TAVRIN_LOG(&logging, 6, SeverityLevel::Debug, "hidden %d", argument());
  TAVRIN_LOG(&logging, 6, SeverityLevel::Info, "shown %d", argument());
  TAVRIN_LOG(static_cast<TavrinLogging*>(nullptr), 6, SeverityLevel::Error, "none %d", argument());
  EXPECT_EQ(evaluated, 1);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "Scheduler: Info: shown 1");
}

TEST_F(TavrinLoggingTest, GlobalObjectIsReplacedOnlyWhenAsked) {
  tavrinLog::globalLogging.reset();
  tavrinLog::setSeverityOff();  // no object: nothing happens
  EXPECT_EQ(tavrinLog::getGlobalLogging(), nullptr);

  tavrinLog::initGlobalLogging(SeverityLevel::Info, capture());
  TavrinLogging* first = tavrinLog::getGlobalLogging();
  ASSERT_NE(first, nullptr);
  tavrinLog::initGlobalLogging(SeverityLevel::Debug, capture(), false);
  EXPECT_EQ(tavrinLog::getGlobalLogging(), first);
  EXPECT_EQ(first->getComponentSeverity(1), SeverityLevel::Info);
  tavrinLog::initGlobalLogging(SeverityLevel::Debug, capture(), true, names);
  ASSERT_NE(tavrinLog::getGlobalLogging(), nullptr);
  EXPECT_EQ(tavrinLog::getGlobalLogging()->getComponentSeverity(1), SeverityLevel::Debug);
  tavrinLog::setComponentSeverity(2, SeverityLevel::Error);
  tavrinLog::setSeverityOff();
  EXPECT_EQ(tavrinLog::getGlobalLogging()->getComponentSeverity(2), SeverityLevel::Off);
  EXPECT_FALSE(tavrinLog::getGlobalLogging()->isEnabled(0, SeverityLevel::Emergency));
  tavrinLog::globalLogging.reset();
}

}  // namespace
