#include "mox/logging/logger.h"

#include "tests/logging/capture.h"

#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mox::logging {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::MatchesRegex;
using testing::SizeIs;

const Logger Log(Name("mox.test"));

struct Threshold {
  const char* variable;
  std::vector<std::string> levels;

  friend void PrintTo(const Threshold& threshold, std::ostream* out) {
    *out << (threshold.variable == nullptr ? "unset" : threshold.variable);
  }
};

class ThresholdTest : public testing::TestWithParam<Threshold> {};

TEST_P(ThresholdTest, DecidesWhatIsWritten) {
  unsetenv("MOX_LOG_LEVEL");
  if (GetParam().variable != nullptr) {
    setenv("MOX_LOG_LEVEL", GetParam().variable, 1);
  }
  const Capture capture;
  for (const Level level : {Level::None, Level::Trace, Level::Debug, Level::Info, Level::Warning, Level::Error}) {
    Log.Log(level, "text");
  }
  std::vector<std::string> lines;
  for (const std::string& level : GetParam().levels) {
    lines.push_back(level + " mox.test: text");
  }
  EXPECT_EQ(capture.GetLines(), lines);
}

INSTANTIATE_TEST_SUITE_P(Logger, ThresholdTest,
                         testing::Values(Threshold{nullptr, {"info", "warning", "error"}},
                                         Threshold{"loud", {"info", "warning", "error"}},
                                         Threshold{"all", {"none", "trace", "debug", "info", "warning", "error"}},
                                         Threshold{"trace", {"trace", "debug", "info", "warning", "error"}},
                                         Threshold{"debug", {"debug", "info", "warning", "error"}},
                                         Threshold{"info", {"info", "warning", "error"}},
                                         Threshold{"warning", {"warning", "error"}}, Threshold{"error", {"error"}},
                                         Threshold{"none", {}}));

std::string Format(const char* format, const std::vector<std::function<void(std::string*)>>& arguments) {
  std::string text;
  Log.Format(&text, Log.GetName(), Level::Info, format, arguments.data(), arguments.size());
  EXPECT_THAT(text, MatchesRegex("[0-9]{4}(-[0-9]{2}){2}T([0-9]{2}:){2}[0-9]{2}\\.[0-9]{6}Z info mox\\.test: .*"));
  return text.substr(text.find(": ") + 2);
}

TEST(Logger, FormatsPlaceholders) {
  std::vector<std::function<void(std::string*)>> arguments(11, [](std::string* out) { out->append("x"); });
  arguments[0] = [](std::string* out) { out->append("zero"); };
  arguments[10] = [](std::string* out) { out->append("%0%"); };
  EXPECT_EQ(Format("%10%, %0%%0% and %1%", arguments), "%0%, zerozero and x");
  EXPECT_EQ(Format("100%, %, %%0%, %-1%, %x%, %0", arguments), "100%, %, %zero, %-1%, %x%, %0");
  EXPECT_EQ(Format("%11% %99999999999999999999%", arguments), "%11% %99999999999999999999%");
  EXPECT_EQ(Format("%0%\n%1%\r\n", {[](std::string* out) { out->append("two\nlines"); }}), "two lines %1%  ");
  EXPECT_EQ(Format("", {}), "");
}

TEST(Logger, LinesOfThreadsStayApart) {
  const Capture capture;
  std::vector<std::thread> threads;
  for (char letter = 'a'; letter < 'e'; ++letter) {
    threads.emplace_back([letter] {
      for (unsigned i = 0; i < 500; ++i) {
        std::string text(100 * (i % 7), letter);
        Log.Log(Level::Info, "<%0%>", text);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_THAT(capture.GetLines(), SizeIs(2000));
  EXPECT_THAT(capture.GetLines(), Each(MatchesRegex("info mox.test: <(a*|b*|c*|d*)>")));
}

TEST(Logger, ErrorsDoNotStayInTheBufferOfTheStream) {
  std::array<char, 4096> buffer;
  const Capture capture;
  std::setvbuf(stderr, buffer.data(), _IOFBF, buffer.size());
  Log.Log(Level::Warning, "one");
  const auto before = capture.GetLines();
  Log.Log(Level::Error, "two");
  const auto after = capture.GetLines();
  std::setvbuf(stderr, nullptr, _IONBF, 0);
  EXPECT_THAT(before, SizeIs(0));
  EXPECT_THAT(after, ElementsAre("warning mox.test: one", "error mox.test: two"));
}

}  // namespace
}  // namespace mox::logging
