#include "mox/logging/logger.h"

#include "tests/allocations.h"
#include "tests/logging/capture.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mox::logging {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

const Logger Log(Name("mox.test"));

[[noreturn]] void TellWhatIsWritten(const std::string& variable) {
  variable == "unset" ? unsetenv("MOX_LOG_LEVEL") : setenv("MOX_LOG_LEVEL", variable.c_str(), 1);
  for (const Level level : {Level::None, Level::Trace, Level::Debug, Level::Info, Level::Warning, Level::Error}) {
    std::fputc(Log.Filter(Log.GetName(), level) ? '1' : '0', stderr);
  }
  std::exit(0);
}

// Each in a process of its own, for the variable is read once.
TEST(LoggerDeathTest, TheVariableDecidesWhatIsWritten) {
  for (const auto& [variable, written] : std::map<std::string, std::string>{{"unset", "^000111$"},
                                                                            {"loud", "^000111$"},
                                                                            {"all", "^111111$"},
                                                                            {"trace", "^011111$"},
                                                                            {"debug", "^001111$"},
                                                                            {"info", "^000111$"},
                                                                            {"warning", "^000011$"},
                                                                            {"error", "^000001$"},
                                                                            {"none", "^000000$"}}) {
    EXPECT_EXIT(TellWhatIsWritten(variable), testing::ExitedWithCode(0), written) << variable;
  }
}

TEST(Logger, TakesNumbersAndTexts) {
  const Capture capture;
  std::string bytes("a\0b", 3);
  int least = std::numeric_limits<int>::min();
  const char* text = "text";
  const char* const constant = "constant";
  Log.Log(Level::Warning, "%2%|%0%|%1%|%3%|%4%", text, constant, bytes, static_cast<const char*>("temporary"),
          "literal");
  for (int number : {0, -9, 10, std::numeric_limits<int>::max()}) {
    Log.Log(Level::Info, "%0%", number);
  }
  Log.Log(Level::Error, "%0%", least);
  EXPECT_THAT(capture.GetLines(), ElementsAre("warning mox.test: " + bytes + "|text|constant|temporary|literal",
                                              "info mox.test: 0", "info mox.test: -9", "info mox.test: 10",
                                              "info mox.test: 2147483647", "error mox.test: -2147483648"));

  using Functor = Logger::Functor<std::string&>;
  static_assert(std::is_trivially_copyable_v<Functor> && sizeof(Functor) == sizeof(void*), "std::function allocates");
  allocations::until_failure = 1000;
  Log.Log(Level::Debug, "%0% %1%", bytes, least);
  EXPECT_EQ(allocations::until_failure.exchange(-1), 1000) << "A record that is not written takes no memory";
}

TEST(Logger, FormatsPlaceholders) {
  const Capture capture;
  for (const char* const format :
       {"%10%, %0%%0% and\n%1%\r\n", "100%, %, %%0%, %-1%, %x%, %0", "%11% %99999999999999999999%"}) {
    Log.Log(Level::Info, format, "zero", "two\nlines", "", "", "", "", "", "", "", "", "%0%");
  }
  EXPECT_THAT(capture.GetLines(), ElementsAre("info mox.test: %0%, zerozero and two lines  ",
                                              "info mox.test: 100%, %, %zero, %-1%, %x%, %0",
                                              "info mox.test: %11% %99999999999999999999%"));
  std::string text;
  Log.Format(&text, Log.GetName(), Level::Info, "", nullptr, 0);
  EXPECT_THAT(text, MatchesRegex("[0-9]{4}(-[0-9]{2}){2}T([0-9]{2}:){2}[0-9]{2}\\.[0-9]{6}Z info mox\\.test: "));
}

TEST(Logger, LinesOfThreadsStayApart) {
  const auto log = [](char letter) {
    for (unsigned i = 0; i < 1000; ++i) {
      std::string text(100 * (i % 7), letter);
      Log.Log(Level::Info, "<%0%>", text);
    }
  };
  const Capture capture;
  std::thread other(log, 'a');
  log('b');
  other.join();
  EXPECT_THAT(capture.GetLines(), SizeIs(2000));
  EXPECT_THAT(capture.GetLines(), Each(MatchesRegex("info mox.test: <(a*|b*)>")));
}

TEST(Logger, ErrorsDoNotStayInTheBufferOfTheStream) {
  std::array<char, 4096> buffer;
  const Capture capture;
  std::setvbuf(stderr, buffer.data(), _IOFBF, buffer.size());
  Log.Log(Level::Warning, "one");
  EXPECT_THAT(capture.GetLines(), IsEmpty());
  Log.Log(Level::Error, "two");
  EXPECT_THAT(capture.GetLines(), ElementsAre("warning mox.test: one", "error mox.test: two"));
  std::setvbuf(stderr, nullptr, _IONBF, 0);
}

}  // namespace
}  // namespace mox::logging
