#include "mox/logging/logger.h"

#include "tests/logging/capture.h"

#include <ctime>
#include <thread>

#include <gmock/gmock.h>

namespace mox::logging {

const Logger Log(Name("mox.test"));

/** Exits with the number of levels that are written. The variable is read once in a process. */
[[noreturn]] void CountLevels(const std::string& variable) {
  setenv("MOX_LOG_LEVEL", variable.c_str(), 1);
  int written = 0;
  for (const Level level : {Level::None, Level::Trace, Level::Debug, Level::Info, Level::Warning, Level::Error}) {
    written += Log.Filter(Log.GetName(), level);
  }
  std::exit(written);
}

TEST(LoggerDeathTest, VariableSetsTheLowestLevelWritten) {
  int written = 6;
  for (const std::string variable : {"all", "trace", "debug", "info", "warning", "error", "none"}) {
    EXPECT_EXIT(CountLevels(variable), testing::ExitedWithCode(written--), "") << variable;
  }
  EXPECT_EXIT(CountLevels("unknown"), testing::ExitedWithCode(3), "");
}

TEST(Logger, ReplacesPlaceholdersAndWritesOneLine) {
  const Capture capture;
  std::string bytes("%1%\0\r\nb", 7);
  int zero = 0, most = std::numeric_limits<int>::max(), least = std::numeric_limits<int>::min();
  Log.Log(Level::Error, "%3%|%0%|%1%\n%2%", bytes, zero, least, most);
  Log.Log(Level::Debug, "below the level of the tests");
  Log.Log(Level::Warning, "100%, %, %%0%, %-1%, %x%, %1% %99999999999999999999%, %0", "zero");
  EXPECT_THAT(capture.GetLines(),
              testing::ElementsAre("error mox.test: 2147483647|" + std::string("%1%\0  b", 7) + "|0 -2147483648",
                                   "warning mox.test: 100%, %, %zero, %-1%, %x%, %1% %99999999999999999999%, %0"));
}

TEST(Logger, LinesOfThreadsDoNotMix) {
  const Capture capture;
  const auto log = [] {
    for (int i = 0; i < 10'000; ++i) {
      Log.Log(Level::Error, "%0%", "whole");
    }
  };
  std::thread other(log);
  log();
  other.join();
  EXPECT_EQ(capture.GetLines(), std::vector<std::string>(20'000, "error mox.test: whole"));
}

TEST(Logger, RecordHasTheTimeInUtcAndTheNameGiven) {
  setenv("TZ", "Test-5", 1);
  std::string record;
  Log.Format(&record, Name("other"), Level::Info, "", nullptr, 0);
  EXPECT_THAT(record, testing::MatchesRegex(R"(.{10}T..:..:..\.[0-9]{6}Z info other: )"));
  std::tm written{};
  strptime(record.c_str(), "%FT%T", &written);
  EXPECT_NEAR(std::difftime(timegm(&written), std::time(nullptr)), 0, 60);
}

}  // namespace mox::logging
