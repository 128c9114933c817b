#include "tests/gstreamer/duration.h"

#include <csignal>
#include <filesystem>
#include <iostream>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/process.hpp>
#include <gmock/gmock.h>

namespace process = boost::process;

/** A running mox-live that reports at the end. Its errors come with its output. */
struct MoxLive {
  explicit MoxLive(const std::vector<std::string>& options)
      : program(MOX_LIVE, "--report", options, process::std_in<input, (process::std_out & process::std_err)> output) {
    input << std::unitbuf;
  }

  /** Reads lines until the pattern appears, and returns its group. Copies them to the output of the test. */
  std::string ReadUntil(const std::string& pattern) {
    std::smatch match;
    std::string line, lines;
    while (!std::regex_search(lines, match, std::regex(pattern))) {
      if (!std::getline(output, line)) {
        throw std::runtime_error("mox-live ended without " + pattern);
      }
      std::cout << line << std::endl;
      lines += line + "\n";
    }
    return match.str(match.size() - 1);
  }

  /** Sends "show" until the output has received this many frames. */
  void AwaitFrames(const std::string& name, int count = 1) {
    do {
      input << "wait 0.1\nshow\n";
    } while (std::stoi(ReadUntil("output " + name + ": (\\d+) frames")) < count);
  }

  /** Ends standard input, and returns the exit status. */
  int Finish() {
    input.pipe().close();
    std::cout << output.rdbuf();
    program.wait();
    return program.exit_code();
  }

  process::opstream input;
  process::ipstream output;
  process::child program;
};

constexpr auto kInput = "videotestsrc is-live=true";  // at 30 frames a second
constexpr auto kScreen = "fakesink name=screen";

TEST(MoxLive, RefusedCommandsSayWhy) {
  const struct {
    std::string command, reason;
  } rows[] = {
      {"fly", "unknown command 'fly'; the commands are: input next, input, filter add"},
      {"graph", "use: graph FILE"},
      {"graph /none/graph.dot", "cannot write /none/graph.dot: No such file or directory"},
      {"wait long", "'long' is not a number of seconds"},
      {"filter add nosuchelement", "no element \"nosuchelement\""},
      {"filter add audioconvert", "audioconvert0 has no sink pad for raw video"},
      {"filter add fakesink", "fakesink0 has no source pad 'src' for raw video"},
      {"filter add identity name=screen", "the name 'screen' is taken"},
      {"filter erase x", "no filter 'x' in []"},
      {"output add filesink location=/none/file", "filesink0 does not start"},
      {"output finish x", "no output 'x'"},
      {"set screen sync x", "the property 'sync' of screen does not take 'x'"},
      {"describe screen", "'screen' does not describe itself"},
  };
  MoxLive live({"-o", kScreen});
  for (const auto& row : rows) {
    live.input << row.command + "\n";
    EXPECT_THAT(live.ReadUntil("mox-live: (.*)"), testing::StartsWith(row.reason));
  }
  EXPECT_EQ(live.Finish(), 1);
}

TEST(MoxLive, CommandsChangeAPlayingPipeline) {
  MoxLive live({"-i", kInput, "-f", "moxlevels name=levels", "-f", "compositor name=mixer", "-o", kScreen});
  live.input << "start\nfilter erase mixer\nfilter add ( name=flip videoflip ! queue )\nset levels gain 1.5\n"
             << "describe levels\noutput add fakesink name=second\ngraph live.dot\nshow\n";
  live.ReadUntil(R"(filter add flip: \d+\.\d ms, now \[levels -> flip\]\n)");
  live.ReadUntil(R"(\{"properties":\[.*"value":1.5,.*\]\}\n)");
  live.ReadUntil(R"(input    videotestsrc0\nfilters  \[levels -> flip\]\n)");
  EXPECT_TRUE(std::filesystem::remove("live.dot"));
  live.AwaitFrames("second");
  live.input << "output erase second\noutput finish screen\nfilter erase flip\nstop\ninput none\nshow\nquit\nfly\n";
  live.ReadUntil(R"(state    stopped, not enabled\ninput    none\nfilters  \[levels\]\n\n)");
  live.ReadUntil(R"(output screen +[1-9].*\noutput second +[1-9].*\n)");
  EXPECT_EQ(live.Finish(), 0);
}

TEST(MoxLive, InputsPlayOneAfterTheOther) {
  MoxLive live({"-i", "videotestsrc name=a num-buffers=50", "-i", "videotestsrc name=b num-buffers=30", "-o", kScreen});
  live.input << "start\nwait 100\ninput next videotestsrc name=c num-buffers=20\nwait 100\nquit\n";
  live.ReadUntil(R"(input a +50 +0 +0\noutput screen +100 +0 +0\ninput b +30 +0 +0\ninput c +20 +0 +0\n)");
}

TEST(MoxLive, RecordingsAreWholeAfterAnInterrupt) {
  for (const char* const command : {"wait 1000\n", ""}) {
    MoxLive live({"-i", kInput, "-o", "( name=file vp8enc deadline=1 ! webmmux ! filesink location=live.webm )"});
    live.input << "start\n";
    live.AwaitFrames("file", 30);
    live.input << command;
    kill(live.program.id(), SIGINT);
    const int frames = std::stoi(live.ReadUntil(R"(output file +(\d+) +0 +0\n)"));
    EXPECT_EQ(live.Finish(), 128 + SIGINT);
    EXPECT_NEAR(DurationOf(std::filesystem::absolute("live.webm")), frames / 30.0, 1 / 30.0);
  }
}

// The first interrupt waits for an output that drops the EOS.
TEST(MoxLive, ASecondInterruptEndsTheProgramAtOnce) {
  MoxLive live({"-i", kInput, "-o", "valve drop=true drop-mode=drop-all ! fakesink async=false", "-o", kScreen});
  live.input << "start\n";
  live.AwaitFrames("screen");
  kill(live.program.id(), SIGINT);
  kill(live.program.id(), SIGTERM);
  EXPECT_EQ(live.Finish(), 128 + SIGTERM);
}

TEST(MoxLive, ErrorsNameTheElementAndEndTheWait) {
  MoxLive live({"-i", kInput, "-o", kScreen});
  live.input << "start\nfilter add identity name=fragile error-after=3\nwait 1000\nshow\n";
  live.ReadUntil(R"(mox-live: ERROR of /GstPipeline:live/.*:fragile: Failed after iterations as requested. \(.*\)\n)");
  live.ReadUntil("state    playing, enabled\n");
}
