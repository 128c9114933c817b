#include "mox/logging/logger.h"

#include "tests/logging/capture.h"

#include <ctime>
#include <future>
#include <iostream>

#include <gmock/gmock.h>

namespace mox::logging {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

const Logger Log(Name("mox.test"));

// Prints the levels that are written. In a process of its own, because the variable is read once.
[[noreturn]] void PrintLevels(const char* variable) {
  setenv("MOX_LOG_LEVEL", variable, 1);
  for (const Level level : {Level::None, Level::Trace, Level::Debug, Level::Info, Level::Warning, Level::Error}) {
    if (Log.Filter(Log.GetName(), level)) {
      std::cerr << static_cast<int>(level) << " ";
    }
  }
  std::exit(0);
}

TEST(LoggerDeathTest, VariableSetsTheLowestLevelWritten) {
  const struct {
    const char* variable;
    std::string levels;
  } rows[] = {{"all", "0 1 2 4 8 16 "}, {"trace", "1 2 4 8 16 "}, {"debug", "2 4 8 16 "}, {"info", "4 8 16 "},
              {"unknown", "4 8 16 "},   {"warning", "8 16 "},     {"error", "16 "},       {"none", ""}};
  for (const auto& row : rows) {
    EXPECT_EXIT(PrintLevels(row.variable), testing::ExitedWithCode(0), testing::Eq(row.levels)) << row.variable;
  }
}

TEST(Logger, ReplacesPlaceholdersAndWritesOneLine) {
  const Capture capture;
  std::string bytes("a\0\r\nb", 5);
  int zero = 0, most = std::numeric_limits<int>::max(), least = std::numeric_limits<int>::min();
  Log.Log(Level::Info, "%3%|%0%|%1%\n%2%|%3%", bytes, zero, least, most);
  Log.Log(Level::Error, "%10%%0%", "%1%", "", "", "", "", "", "", "", "", "", "eleventh ");
  Log.Log(Level::Warning, "100%, %, %%0%, %-1%, %x%, %1% %99999999999999999999%, %0", "zero");
  EXPECT_THAT(capture.GetLines(),
              ElementsAre("info mox.test: 2147483647|" + std::string("a\0  b", 5) + "|0 -2147483648|2147483647",
                          "error mox.test: eleventh %1%",
                          "warning mox.test: 100%, %, %zero, %-1%, %x%, %1% %99999999999999999999%, %0"));
}

TEST(Logger, LinesOfThreadsDoNotMix) {
  const Capture capture;
  const auto log = [] {
    for (int i = 0; i < 10'000; ++i) {
      Log.Log(Level::Error, "%0%", "whole");
    }
  };
  const auto other = std::async(std::launch::async, log);
  log();
  other.wait();
  const auto lines = capture.GetLines();
  EXPECT_EQ(lines.size(), 20'000U);
  EXPECT_THAT(lines, Each("error mox.test: whole"));
}

TEST(Logger, OnlyErrorsAreFlushed) {
  const Capture capture;
  std::setvbuf(stderr, nullptr, _IOFBF, BUFSIZ);
  Log.Log(Level::Warning, "buffered");
  EXPECT_THAT(capture.GetLines(), IsEmpty());
  Log.Log(Level::Error, "flushed");
  EXPECT_THAT(capture.GetLines(), ElementsAre("warning mox.test: buffered", "error mox.test: flushed"));
  std::setvbuf(stderr, nullptr, _IONBF, 0);
}

TEST(Logger, RecordHasTheTimeInUtcAndTheNameGiven) {
  setenv("TZ", "Test-5", 1);
  tzset();
  std::string record;
  const std::time_t before = std::time(nullptr);
  Log.Format(&record, Name("other"), Level::Info, "", nullptr, 0);
  EXPECT_THAT(record, testing::MatchesRegex(R"(....-..-..T..:..:..\.[0-9][0-9][0-9][0-9][0-9][0-9]Z info other: )"));
  std::tm written{};
  strptime(record.c_str(), "%FT%T", &written);
  EXPECT_GE(timegm(&written), before);
  EXPECT_LE(timegm(&written), std::time(nullptr));
}

}  // namespace mox::logging
