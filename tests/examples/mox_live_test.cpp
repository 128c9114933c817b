#include <cstdio>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include <sys/wait.h>

constexpr auto kCommands =
    "start\nfly\nwait long\nfilter add nosuchelement\nfilter erase x\noutput add audioconvert ! fakesink\n"
    "output add filesink location=/none/file\nfilter add identity name=screen\nset screen sync x\ndescribe screen\n"
    "input videotestsrc is-live=true\nfilter add moxlevels name=levels\nstart\nwait 0.5\n"
    "filter add ( name=flip videoflip video-direction=horiz ! queue )\nset levels gain 1.5\n"
    "output add fakesink name=second\nwait 0.5\ndescribe levels\nshow\nfilter erase levels\nfilter erase flip\n"
    "output erase second\ninput ( name=other videotestsrc num-buffers=50 ! videobalance )\nwait 60\n"
    "input none\nfilter add identity\nshow\nquit\nfly again\n";

TEST(MoxLive, ChangesAPlayingPipelineAndGoesOnAfterARefusedCommand) {
  const std::string command = "MOX_LOG_LEVEL=none '" MOX_LIVE "' -r -o 'fakesink name=screen' 2>&1 <<'END'\n";
  std::FILE* const program = popen((command + kCommands + "END\n").c_str(), "r");
  std::string text(1 << 16, '\0');
  text.resize(std::fread(text.data(), 1, text.size(), program));
  EXPECT_EQ(WEXITSTATUS(pclose(program)), 1);
  // In this order, with other lines between them.
  auto from = text.cbegin();
  for (
      const char* const pattern :
      {R"(mox-live: Cannot set the state .* does not have an input\n.*unknown command 'fly'; .* input, .*, quit\n)"
       R"(.*'long' is not a number of seconds\n.*no element "nosuchelement"\n.*no filter 'x' in \[\]\n)"
       R"(.*bin\d has no raw video on its pad 'sink'\n.*filesink\d does not start\n.*name 'screen' is taken\n)"
       R"(.*'sync' of screen does not take 'x'\n.*'screen' does not describe itself\n)",
       R"(filter add flip: \d+\.\d ms, now \[levels -> flip\]\n)", R"(set levels gain: \d+\.\d ms, now 1.5\n)",
       R"(\{"properties":\[\{"name":"enabled",.*"value":1.5,"minimum":0.0,"maximum":16.0\},.*\]\}\n)",
       R"(state    playing, enabled\ninput    videotestsrc0\nfilters  \[levels -> flip\]\noutput screen: )",
       R"(end of stream\n(?:.*input other: .*\n)?.*Cannot remove the input .*\n.*Cannot change the filters .*\nstate    playing, enabled\n)",
       R"(input    other\nfilters  \[\]\n)", R"(output screen +\d{2,} +0 +0\n)", R"(output second +[1-9]\d* +0 +0\n)",
       R"(input other +50 +0 +0\n)"}) {
    std::smatch match;
    ASSERT_TRUE(std::regex_search(from, text.cend(), match, std::regex(pattern))) << pattern << "\nin\n" << text;
    from = match[0].second;
  }
}
