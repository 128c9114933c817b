#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include <sys/wait.h>

namespace {

struct Result {
  std::string text;  // standard output and standard error
  int status;
};

// Runs the program with the commands on its standard input.
Result RunLive(const std::string& options, const std::string& commands) {
  const std::string file =
      testing::TempDir() + "mox_live_" + testing::UnitTest::GetInstance()->current_test_info()->name();
  std::ofstream(file) << commands;
  FILE* const program = popen(("'" MOX_LIVE "' " + options + " 2>&1 <'" + file + "'").c_str(), "r");
  std::string text;
  std::array<char, 4096> part{};
  while (std::fgets(part.data(), part.size(), program) != nullptr) {
    text += part.data();
  }
  const int status = pclose(program);
  std::remove(file.c_str());
  return {text, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

void ExpectText(const Result& result, const std::string& pattern) {
  EXPECT_TRUE(std::regex_search(result.text, std::regex(pattern))) << pattern << "\nin\n" << result.text;
}

TEST(MoxLive, ChangesAPlayingPipelineWithoutLosingFrames) {
  const auto result = RunLive(
      "--report --input 'videotestsrc is-live=true' --output 'fakesink name=screen sync=true' "
      "--filter 'videobalance name=grey'",
      "start\nwait 0.5\n# a comment\n"
      "filter add ( name=flip videoflip video-direction=horiz ! queue )\noutput add fakesink name=second\nwait 0.5\n"
      "show\nfilter erase grey\noutput erase second\nfilter erase flip\nwait 0.5\n"
      "input ( name=other videotestsrc is-live=true ! videobalance )\nwait 0.5\nshow\nstop\n");
  EXPECT_EQ(result.status, 0) << result.text;
  ExpectText(result, R"(filter add flip: \d+\.\d ms, now \[grey -> flip\])");
  ExpectText(result,
             R"(state    playing, enabled\ninput    videotestsrc0\nfilters  \[grey -> flip\]\noutput screen: )");
  ExpectText(result, R"(input    other\nfilters  \[\]\noutput screen: )");
  ExpectText(result, R"(output screen +\d{2,} +0 +0\n)");
  ExpectText(result, R"(output second +[1-9]\d* +0 +0\n)");
  ExpectText(result, R"(input other +[1-9]\d* +0 +0\n)");
}

TEST(MoxLive, GoesOnAfterARefusedCommand) {
  const auto result =
      RunLive("",
              "start\nfly\nwait long\nfilter add nosuchelement\noutput add videotestsrc\nfilter erase x\n"
              "output add filesink location=/nosuchfolder/file\noutput add audioconvert ! fakesink\n"
              "input videotestsrc is-live=true\noutput add fakesink name=screen\n"
              "filter add identity name=screen\nstart\nwait 0.5\ninput none\nshow\nquit\nfly again\n");
  EXPECT_EQ(result.status, 1) << result.text;
  ExpectText(result,
             "mox-live: Cannot set the state of the pipeline with ID '1' to playing because it does not have an input");
  ExpectText(result, "mox-live: unknown command 'fly'; the commands are: input, filter add, .*, quit\n");
  ExpectText(result, "mox-live: 'long' is not a number of seconds\n");
  ExpectText(result, "mox-live: no element \"nosuchelement\"\n");
  ExpectText(result, "mox-live: videotestsrc\\d has no pad 'sink'\n");
  ExpectText(result, R"(mox-live: no filter 'x' in \[\]\n)");
  ExpectText(result, R"(mox-live: filesink\d does not start\n)");
  ExpectText(result, R"(mox-live: bin\d has no raw video on its pad 'sink'\n)");
  ExpectText(result, "mox-live: the name 'screen' is taken\n");
  ExpectText(result, "mox-live: Cannot remove the input if the pipeline is not stopped\n");
  ExpectText(result, R"(state    playing, enabled\n(.*\n)*output screen: [1-9])");
  EXPECT_EQ(result.text.find("fly again"), std::string::npos);
}

TEST(MoxLive, SetsAndDescribesWhatPlays) {
  const auto result = RunLive(
      "-i 'videotestsrc is-live=true' -o 'fakesink name=screen' -f 'moxlevels name=levels'",
      "start\nwait 0.5\nset levels gain 1.5\nset levels label a \"b\" \xc3\xa9\nset screen sync true\ndescribe levels\n"
      "set levels gain 17\nset levels gain much\nset levels shine 1\nset levels gain\nset nobody gain 1\n"
      "describe screen\ndescribe levels\nshow\n");
  EXPECT_EQ(result.status, 1) << result.text;
  ExpectText(result, R"(set levels gain: \d+\.\d ms, now 1.5\n)");
  ExpectText(result,
             R"(\{"properties":\[.*"value":1.5,"minimum":0.0,"maximum":16.0\}.*"value":"a \\"b\\" \xc3\xa9"\}\]\}\n)");
  ExpectText(result, "mox-live: the property 'gain' of levels does not take '17'\n(.*\n)*.*does not take 'much'\n");
  ExpectText(result, "mox-live: cannot set the property 'shine' of levels\n");
  ExpectText(result, "mox-live: use: set ELEMENT PROPERTY VALUE\n");
  ExpectText(result, "mox-live: no element 'nobody'\n");
  ExpectText(result, "mox-live: 'screen' does not describe itself\n");
  ExpectText(result, R"(filters  \[levels\]\noutput screen: [1-9])");
}

TEST(MoxLive, TellsAStreamThatEnded) {
  const auto result = RunLive("-i 'videotestsrc num-buffers=5' -o 'fakesink name=screen'",
                              "start\nwait 60\nfilter add identity\ninput videotestsrc num-buffers=7\nwait 60\nshow\n");
  EXPECT_EQ(result.status, 1) << result.text;
  ExpectText(result,
             "end of stream\n(.*\n)*.*Cannot change the filters because the stream has ended\n(.*\n)*.*end of stream");
  ExpectText(result, "output screen: 12 frames, 0 lost, 0 repeated\n");
}

TEST(MoxLive, RefusesWrongOptions) {
  EXPECT_EQ(RunLive("--help", "").status, 0);
  EXPECT_EQ(RunLive("--frames", "").status, 2);
  EXPECT_EQ(RunLive("extra", "").status, 2);
}

}  // namespace
