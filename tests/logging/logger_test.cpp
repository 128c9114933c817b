#include "mox/logging/logger.h"

#include <cstdio>
#include <future>
#include <regex>

#include <gtest/gtest.h>

namespace mox::logging {

const Logger Log(Name("mox.test"));

// Each in a process of its own, for the variable is read once.
TEST(LoggerDeathTest, TheVariableDecidesWhatIsWritten) {
  const auto exit = [](const char* variable) {
    setenv("MOX_LOG_LEVEL", variable, 1);
    int written = 0;
    for (const Level level : {Level::None, Level::Trace, Level::Debug, Level::Info, Level::Warning, Level::Error}) {
      written = 2 * written + (Log.Filter(Log.GetName(), level) ? 1 : 0);
    }
    std::exit(written);
  };
  const std::pair<const char*, int> counts[]{{"all", 63}, {"trace", 31},  {"debug", 15}, {"info", 7},
                                             {"loud", 7}, {"warning", 3}, {"error", 1},  {"none", 0}};
  for (const auto& [variable, count] : counts) {
    EXPECT_EXIT(exit(variable), testing::ExitedWithCode(count), "") << variable;
  }
}

TEST(Logger, WritesEachRecordAsOneLine) {
  std::string bytes("a\0b", 3);
  std::array<int, 5> numbers{0, -9, 10, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()};
  const auto log = [](const char* name) {
    for (unsigned i = 0; i < 10'000; ++i) {
      Log.Log(Level::Error, "<%0%>", name);
    }
  };
  // A standard error that has a buffer: what is written shows when it is flushed.
  char* data = nullptr;
  std::size_t size = 0;
  std::FILE* const saved = std::exchange(stderr, open_memstream(&data, &size));
  Log.Log(Level::Warning, "%10%, %1%%1% and\n%2%|%3%|%4%|%5%|%6%|%7%|%8%|%9%", "zero", "%0%", "two\r\nlines", bytes,
          static_cast<const char*>("now"), numbers[0], numbers[1], numbers[2], numbers[3], numbers[4], "ten");
  Log.Log(Level::Info, "100%, %, %%0%, %-1%, %x%, %1% %99999999999999999999%, %0", "zero");
  const auto other = std::async(std::launch::async, log, "one");
  log("other");
  other.wait();
  Log.Log(Level::Warning, "later");
  const auto text = std::regex_replace(std::string(data, size), std::regex(R"(\d{4}(-\d\d){2}T[\d:]{8}\.\d{6}Z)"), "T");
  std::fclose(std::exchange(stderr, saved));
  std::free(data);
  EXPECT_EQ(std::regex_replace(text, std::regex("T error mox.test: <(one|other)>\n"), "."),
            "T warning mox.test: ten, %0%%0% and two  lines|" + bytes + "|now|0|-9|10|2147483647|-2147483648\n" +
                "T info mox.test: 100%, %, %zero, %-1%, %x%, %1% %99999999999999999999%, %0\n" +
                std::string(20'000, '.'));
}

}  // namespace mox::logging
