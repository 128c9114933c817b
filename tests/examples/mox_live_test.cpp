#include "tests/gstreamer/duration.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include <gio/gio.h>
#include <unistd.h>

namespace {

/** A running mox-live that reports at the end. Its errors come with its output. */
class MoxLive : public testing::Test {
 protected:
  MoxLive() {
    setenv("MOX_LOG_LEVEL", "none", 1);
    std::filesystem::create_directories(folder);
  }

  ~MoxLive() override {
    g_subprocess_force_exit(program_.get());
    g_subprocess_wait(program_.get(), nullptr, nullptr);
    std::filesystem::remove_all(folder);
  }

  template <typename... Options>
  void Start(Options... options) {
    constexpr auto pipes = static_cast<GSubprocessFlags>(
        G_SUBPROCESS_FLAGS_STDIN_PIPE | G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_MERGE);
    program_.reset(g_subprocess_new(pipes, nullptr, MOX_LIVE, "--report", options..., nullptr));
    output_.reset(g_data_input_stream_new(g_subprocess_get_stdout_pipe(program_.get())));
  }

  void Write(const std::string& text) {
    GOutputStream* const input = g_subprocess_get_stdin_pipe(program_.get());
    EXPECT_TRUE(g_output_stream_write_all(input, text.data(), text.size(), nullptr, nullptr, nullptr));
  }

  // Sends "show" until the output has received this many frames.
  void AwaitFrames(const std::string& output, int count = 1) {
    int frames = 0;
    do {
      Write("show\n");
      frames = std::atoi(ReadUntil("output " + output + ": (\\d+) frames").c_str());
    } while (frames < count && !HasFailure());
  }

  // Reads on until the pattern appears, and returns its group.
  std::string ReadUntil(const std::string& pattern) {
    std::smatch match;
    const std::regex regex(pattern);
    while (!std::regex_search(unread_, match, regex)) {
      if (!ReadLine()) {
        ADD_FAILURE() << "expected " << pattern << " in\n" << unread_;
        return "";
      }
    }
    std::string group = match[match.size() - 1];
    unread_ = match.suffix();
    return group;
  }

  void Send(int signal) { g_subprocess_send_signal(program_.get(), signal); }

  // Ends standard input, and returns the exit status.
  int Finish() {
    g_output_stream_close(g_subprocess_get_stdin_pipe(program_.get()), nullptr, nullptr);
    while (ReadLine()) {
    }
    g_subprocess_wait(program_.get(), nullptr, nullptr);
    EXPECT_TRUE(g_subprocess_get_if_exited(program_.get())) << "ended by a signal";
    return g_subprocess_get_exit_status(program_.get());
  }

  const std::filesystem::path folder = testing::TempDir() + "mox-live-" + std::to_string(getpid());

 private:
  // Returns false at the end of the output. Ends the program if no line comes for a minute.
  bool ReadLine() {
    auto reading =
        std::async(std::launch::async, g_data_input_stream_read_line, output_.get(), nullptr, nullptr, nullptr);
    if (reading.wait_for(std::chrono::minutes(1)) == std::future_status::timeout) {
      g_subprocess_force_exit(program_.get());
    }
    const std::unique_ptr<char, decltype(&g_free)> line(reading.get(), g_free);
    if (line) {
      unread_.append(line.get()).append("\n");
    }
    return line != nullptr;
  }

  std::unique_ptr<GSubprocess, decltype(&g_object_unref)> program_{nullptr, g_object_unref};
  std::unique_ptr<GDataInputStream, decltype(&g_object_unref)> output_{nullptr, g_object_unref};
  std::string unread_;  // lines that `ReadUntil` has yet to find
};

// At 30 frames a second.
constexpr auto kInput = "videotestsrc is-live=true";
constexpr auto kScreen = "fakesink name=screen";

std::string MakeRecording(const std::filesystem::path& file) {
  return "( name=recording videoconvert ! vp8enc deadline=1 ! webmmux offset-to-zero=true ! filesink location=" +
         file.string() + " )";
}

TEST_F(MoxLive, RefusedCommandsSayWhy) {
  struct Refused {
    std::string command;
    std::string reason;
  };
  Start("-o", kScreen);
  for (const auto& [command, reason] : {
           Refused{"fly", "unknown command 'fly'; .* input, .*, quit"},
           Refused{"show all", "use: show"},
           Refused{"graph", "use: graph FILE"},
           Refused{"graph picture.jpeg", "'picture.jpeg' does not end in .dot, .svg or .png"},
           Refused{"graph /none/graph.dot", "cannot write /none/graph.dot: No such file or directory"},
           Refused{"wait long", "'long' is not a number of seconds"},
           Refused{"filter add nosuchelement", "no element \"nosuchelement\""},
           Refused{"filter add audioconvert", "audioconvert0 has no sink pad for raw video"},
           Refused{"filter add fakesink", R"(fakesink\d has no source pad 'src' for raw video)"},
           Refused{"filter erase x", R"(no filter 'x' in \[\])"},
           Refused{"output add audioconvert ! fakesink", R"(bin\d has no sink pad for raw video)"},
           Refused{"output add filesink location=/none/file", R"(filesink\d does not start)"},
           Refused{"output finish x", "no output 'x'"},
           Refused{"filter add identity name=screen", "the name 'screen' is taken"},
           Refused{"set screen sync x", "the property 'sync' of screen does not take 'x'"},
           Refused{"describe screen", "'screen' does not describe itself"},
       }) {
    Write(command + "\n");
    ReadUntil("mox-live: " + reason + "\n");
  }
  EXPECT_EQ(Finish(), 1);
}

TEST_F(MoxLive, CommandsChangeAPlayingPipeline) {
  Start("-i", kInput, "-f", "moxlevels name=levels", "-o", kScreen);
  Write("start\nfilter add ( name=flip videoflip video-direction=horiz ! queue )\nset levels gain 1.5\n");
  ReadUntil(R"(filter add flip: \d+\.\d ms, now \[levels -> flip\]\n)");
  ReadUntil(R"(set levels gain: \d+\.\d ms, now 1.5\n)");
  Write("describe levels\noutput add fakesink name=second\n");
  ReadUntil(R"(\{"properties":\[\{"name":"enabled",.*"value":1.5,"minimum":0.0,"maximum":16.0\},.*\]\}\n)");
  AwaitFrames("second");
  Write("show\noutput erase second\nfilter erase levels\nfilter erase flip\nstop\ninput none\nshow\nquit\nfly\n");
  ReadUntil(R"(state    playing, enabled\ninput    videotestsrc0\nfilters  \[levels -> flip\]\noutput screen: )");
  ReadUntil(R"(state    stopped, not enabled\ninput    none\nfilters  \[\]\n)");
  ReadUntil(R"(output screen +[1-9]\d* +0 +0\n)");
  ReadUntil(R"(output second +[1-9]\d* +0 +0\n)");
  EXPECT_EQ(Finish(), 0);
}

TEST_F(MoxLive, FiltersMayHaveARequestPad) {
  Start("-i", kInput, "-f", "compositor name=mixer", "-o", kScreen);
  Write("start\n");
  AwaitFrames("screen");
  Write("filter add identity name=next\nfilter erase mixer\n");
  ReadUntil(R"(filter erase mixer: \d+\.\d ms, now \[next\]\n)");
  EXPECT_EQ(Finish(), 0);
}

TEST_F(MoxLive, InputsPlayOneAfterTheOther) {
  Start("-i", "videotestsrc name=one num-buffers=50", "-i", "videotestsrc name=two num-buffers=30", "-o", kScreen);
  Write("start\nwait 100\ninput next videotestsrc name=three num-buffers=20\nwait 100\nquit\n");
  for (const char* const line : {"end of stream\n", "input two: .*\n", "end of stream\n", "input three: .*\n"}) {
    ReadUntil(line);
  }
  ReadUntil(R"(input one +50 +0 +0\n)");
  ReadUntil(R"(output screen +100 +0 +0\n)");
  ReadUntil(R"(input two +30 +0 +0\n)");
  ReadUntil(R"(input three +20 +0 +0\n)");
  EXPECT_EQ(Finish(), 0);
}

TEST_F(MoxLive, RecordingsAreWholeHoweverTheyEnd) {
  struct End {
    std::string command;
    int signal;  ///< Sent afterwards, unless 0.
    int status;
  };
  for (const auto& [command, signal, status] :
       {End{"output finish recording\nquit\n", 0, 0}, End{"wait 1000\n", SIGINT, 130}, End{"", SIGTERM, 143}}) {
    Start("-i", kInput, "-o", MakeRecording(folder / "file.webm").c_str());
    Write("start\n");
    AwaitFrames("recording", 30);
    Write(command);
    Send(signal);
    const int frames = std::stoi(ReadUntil(R"(output recording +(\d+) +0 +0\n)"));
    EXPECT_EQ(Finish(), status);
    EXPECT_NEAR(DurationOf(folder / "file.webm"), frames / 30.0, 1 / 30.0);
  }
}

// The first interrupt waits for an output whose valve drops the EOS.
TEST_F(MoxLive, ASecondInterruptEndsTheProgramAtOnce) {
  Start("-i", kInput, "-o", "( name=stuck identity ! valve drop-mode=drop-all name=valve ! fakesink )", "-o", kScreen);
  Write("start\n");
  AwaitFrames("screen");
  Write("set valve drop true\nshow\n");
  ReadUntil("state");
  Send(SIGINT);
  Send(SIGTERM);
  EXPECT_EQ(Finish(), 128 + SIGTERM);
}

TEST_F(MoxLive, GraphsAreDrawn) {
  Start("-i", kInput, "-f", "videoflip name=flip", "-o", kScreen);
  const auto file = (folder / "live.dot").string();
  Write("graph " + file + "\n");
  ReadUntil("graph " + file + "\n");
  EXPECT_EQ(Finish(), 0);
  std::ifstream stream(file);
  const std::string text(std::istreambuf_iterator<char>(stream), {});
  EXPECT_NE(text.find("GstVideoFlip\\nflip"), std::string::npos);
}

TEST_F(MoxLive, ErrorsNameTheElementAndEndTheWait) {
  Start("-i", kInput, "-o", kScreen);
  Write("start\nfilter add identity name=fragile error-after=3\nwait 1000\nshow\n");
  ReadUntil(
      "mox-live: ERROR of /GstPipeline:live/GstBin:filter_bin/GstIdentity:fragile: "
      R"(Failed after iterations as requested. \(.*gstidentity.c.*\)\n)");
  ReadUntil("state    playing, enabled\n");
}

}  // namespace
