#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <sys/wait.h>

namespace {

// Runs the program with the commands on its standard input. What it writes must match each pattern.
void ExpectLive(const std::string& options, const std::string& commands, int status,
                const std::vector<const char*>& patterns) {
  std::FILE* const program = popen(("'" MOX_LIVE "' " + options + " 2>&1 <<'END'\n" + commands + "END\n").c_str(), "r");
  std::string text(1 << 16, '\0');
  text.resize(std::fread(text.data(), 1, text.size(), program));
  EXPECT_EQ(WEXITSTATUS(pclose(program)), status) << text;
  for (const char* const pattern : patterns) {
    EXPECT_TRUE(std::regex_search(text, std::regex(pattern))) << pattern << "\nin\n" << text;
  }
}

TEST(MoxLive, ChangesAPlayingPipelineWithoutLosingFrames) {
  ExpectLive(
      "--report --input 'videotestsrc is-live=true' --output 'fakesink name=screen sync=true' "
      "--filter 'videobalance name=grey'",
      "start\nwait 0.5\n# a comment\n"
      "filter add ( name=flip videoflip video-direction=horiz ! queue )\noutput add fakesink name=second\n"
      "wait 0.5\nshow\nfilter erase grey\noutput erase second\nfilter erase flip\nwait 0.5\n"
      "input ( name=other videotestsrc is-live=true ! videobalance )\nwait 0.5\nshow\nstop\n",
      0,
      {R"(filter add flip: \d+\.\d ms, now \[grey -> flip\])",
       R"(state    playing, enabled\ninput    videotestsrc0\nfilters  \[grey -> flip\]\noutput screen: )",
       R"(input    other\nfilters  \[\]\noutput screen: )", R"(output screen +\d{2,} +0 +0\n)",
       R"(output second +[1-9]\d* +0 +0\n)", R"(input other +[1-9]\d* +0 +0\n)"});
}

TEST(MoxLive, GoesOnAfterARefusedCommand) {
  ExpectLive(
      "",
      "start\nfly\nwait long\nfilter add nosuchelement\noutput add videotestsrc\nfilter erase x\n"
      "output add filesink location=/nosuchfolder/file\noutput add audioconvert ! fakesink\n"
      "input videotestsrc is-live=true\noutput add fakesink name=screen\n"
      "filter add identity name=screen\nfilter add moxlevels name=levels\nstart\nwait 0.5\ninput none\n"
      "set levels gain 1.5\nset levels label a \"b\" \xc3\xa9\nset screen sync true\ndescribe levels\n"
      "set levels gain 17\nset levels gain much\nset levels shine 1\nset levels gain\nset nobody gain 1\n"
      "describe screen\nshow\nquit\nfly again\n",
      1,
      {"mox-live: Cannot set the state of the pipeline with ID '1' to playing because it does not have an input",
       "mox-live: unknown command 'fly'; the commands are: input, filter add, .*, quit\n",
       "mox-live: 'long' is not a number of seconds\n", "mox-live: no element \"nosuchelement\"\n",
       "mox-live: videotestsrc\\d has no pad 'sink'\n", R"(mox-live: no filter 'x' in \[\]\n)",
       R"(mox-live: filesink\d does not start\n)", R"(mox-live: bin\d has no raw video on its pad 'sink'\n)",
       "mox-live: the name 'screen' is taken\n", "mox-live: Cannot remove the input if the pipeline is not stopped\n",
       R"(set levels gain: \d+\.\d ms, now 1.5\n)",
       R"(\{"properties":\[\{"name":"enabled",.*"value":1.5,"minimum":0.0,"maximum":16.0\}.*)"
       R"("value":"a \\"b\\" \xc3\xa9"\}\]\}\n)",
       "mox-live: the property 'gain' of levels does not take '17'\n(.*\n)*.*does not take 'much'\n",
       "mox-live: cannot set the property 'shine' of levels\n", "mox-live: use: set ELEMENT PROPERTY VALUE\n",
       "mox-live: no element 'nobody'\n", "mox-live: 'screen' does not describe itself\n",
       R"(state    playing, enabled\n.*\nfilters  \[levels\]\noutput screen: [1-9].*\n$)"});
}

TEST(MoxLive, TellsAStreamThatEnded) {
  ExpectLive("-i 'videotestsrc num-buffers=5' -o 'fakesink name=screen'",
             "start\nwait 60\nfilter add identity\ninput videotestsrc num-buffers=7\nwait 60\nshow\n", 1,
             {"end of stream\n(.*\n)*.*Cannot change the filters because the stream has ended\n(.*\n)*.*end of stream",
              "output screen: 12 frames, 0 lost, 0 repeated\n"});
}

TEST(MoxLive, RefusesWrongOptions) {
  ExpectLive("--help", "", 0, {"^Usage: mox-live "});
  ExpectLive("--frames", "", 2, {});
  ExpectLive("extra", "", 2, {});
}

}  // namespace
