#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <gst/pbutils/pbutils.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/** A running mox-live that reports at the end. Its errors come with its output. */
class MoxLive : public testing::Test {
 protected:
  MoxLive() { std::filesystem::create_directories(folder); }

  ~MoxLive() override {
    if (program_ > 0) {
      kill(program_, SIGKILL);
      waitpid(program_, nullptr, 0);
    }
    std::filesystem::remove_all(folder);
  }

  void Start(std::vector<std::string> options) {
    setenv("MOX_LOG_LEVEL", "none", 1);
    options.insert(options.begin(), {MOX_LIVE, "--report"});
    std::vector<char*> arguments;
    std::transform(options.begin(), options.end(), std::back_inserter(arguments), [](auto& one) { return one.data(); });
    arguments.push_back(nullptr);
    std::array<int, 2> input{};
    std::array<int, 2> output{};
    ASSERT_EQ(pipe2(input.data(), O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(output.data(), O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDERR_FILENO);
    ASSERT_EQ(posix_spawn(&program_, MOX_LIVE, &actions, nullptr, arguments.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(input[0]);
    close(output[1]);
    input_ = input[1];
    output_ = output[0];
  }

  void Write(const std::string& text) {
    ASSERT_EQ(write(input_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  // Sends "show" until the output has received this many frames.
  void AwaitFrames(const std::string& output, int count = 1) {
    int frames = 0;
    do {
      ASSERT_NO_FATAL_FAILURE(Write("show\n"));
      frames = std::atoi(ReadUntil("output " + output + ": (\\d+) frames").c_str());
    } while (frames < count && !HasFailure());
  }

  // Reads on until the pattern appears, and returns its group.
  std::string ReadUntil(const std::string& pattern) {
    std::smatch match;
    const std::regex regex(pattern);
    while (!std::regex_search(text_.cbegin() + read_, text_.cend(), match, regex)) {
      if (!ReadMore()) {
        ADD_FAILURE() << "expected " << pattern << " in\n" << text_;
        return "";
      }
    }
    read_ = match[0].second - text_.cbegin();
    return match[match.size() - 1];
  }

  void Kill(int signal) { kill(program_, signal); }

  // Ends standard input, and returns the exit status.
  int Finish() {
    close(input_);
    while (ReadMore()) {
    }
    close(output_);
    int status = 0;
    EXPECT_NE(waitpid(std::exchange(program_, 0), &status, 0), -1);
    EXPECT_TRUE(WIFEXITED(status)) << "ended by the signal " << WTERMSIG(status);
    return WEXITSTATUS(status);
  }

  const std::filesystem::path folder = testing::TempDir() + "mox-live-" + std::to_string(getpid());

 private:
  // Returns false at the end of the output, or if nothing comes for a minute.
  bool ReadMore() {
    pollfd output{output_, POLLIN, 0};
    std::array<char, 4096> data{};
    const auto size = poll(&output, 1, 60'000) > 0 ? read(output_, data.data(), data.size()) : 0;
    text_.append(data.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    return size > 0;
  }

  pid_t program_ = 0;
  int input_ = -1;
  int output_ = -1;
  std::string text_;
  std::ptrdiff_t read_ = 0;  // the position up to which `ReadUntil` has read
};

/** The duration of a file in seconds, as GStreamer's discoverer reads it; 0 if it has none. */
double DurationOf(const std::filesystem::path& file) {
  gst_init(nullptr, nullptr);
  GstDiscoverer* discoverer = gst_discoverer_new(20 * GST_SECOND, nullptr);
  GstDiscovererInfo* info = gst_discoverer_discover_uri(discoverer, ("file://" + file.string()).c_str(), nullptr);
  const GstClockTime duration = info != nullptr ? gst_discoverer_info_get_duration(info) : GST_CLOCK_TIME_NONE;
  g_clear_object(&discoverer);
  g_clear_object(&info);
  return GST_CLOCK_TIME_IS_VALID(duration) ? static_cast<double>(duration) / GST_SECOND : 0;
}

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
  Start({"-o", kScreen});
  for (const auto& [command, reason] : {
           Refused{"start", "Cannot set the state .* does not have an input"},
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
  Start({"-i", kInput, "-f", "moxlevels name=levels", "-o", kScreen});
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
  Start({"-i", kInput, "-f", "compositor name=mixer", "-o", kScreen});
  Write("start\n");
  AwaitFrames("screen");
  Write("filter add identity name=next\nfilter erase mixer\n");
  ReadUntil(R"(filter erase mixer: \d+\.\d ms, now \[next\]\n)");
  EXPECT_EQ(Finish(), 0);
}

TEST_F(MoxLive, InputsPlayOneAfterTheOther) {
  Start({"-i", "videotestsrc name=one num-buffers=50", "-i", "videotestsrc name=two num-buffers=30", "-o", kScreen});
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

TEST_F(MoxLive, AFinishedRecordingIsWhole) {
  Start({"-i", kInput, "-o", kScreen});
  Write("start\noutput add " + MakeRecording(folder / "file.webm") + "\n");
  AwaitFrames("recording", 30);
  Write("output finish recording\nshow\n");
  ReadUntil(R"(output finish recording: \d+\.\d ms\nstate    playing, enabled\n.*\n.*\noutput screen.*\n)");
  EXPECT_EQ(Finish(), 0);
  const int frames = std::stoi(ReadUntil(R"(output recording +(\d+) +0 +0\n)"));
  EXPECT_NEAR(DurationOf(folder / "file.webm"), frames / 30.0, 1 / 30.0);
}

TEST_F(MoxLive, AnInterruptEndsRecordingsAndTheProgram) {
  struct Interrupt {
    int signal;
    std::string command;  ///< What the program waits for.
  };
  for (const auto& [signal, command] : {Interrupt{SIGINT, "wait 1000\n"}, Interrupt{SIGTERM, ""}}) {
    Start({"-i", kInput, "-o", MakeRecording(folder / "file.webm")});
    Write("start\n");
    AwaitFrames("recording", 30);
    Write(command);
    Kill(signal);
    const int frames = std::stoi(ReadUntil(R"(output recording +(\d+) +0 +0\n)"));
    EXPECT_EQ(Finish(), 128 + signal);
    EXPECT_NEAR(DurationOf(folder / "file.webm"), frames / 30.0, 1 / 30.0);
  }
}

// The end of the recording waits for a valve that drops the EOS.
TEST_F(MoxLive, ASecondInterruptEndsTheProgramAtOnce) {
  Start(
      {"-i", kInput, "-o", "( name=stuck identity ! valve drop-mode=drop-all name=valve ! fakesink )", "-o", kScreen});
  Write("start\n");
  AwaitFrames("screen");
  Write("set valve drop true\nshow\n");
  ReadUntil("state");
  Kill(SIGINT);
  Kill(SIGTERM);
  EXPECT_EQ(Finish(), 128 + SIGTERM);
}

TEST_F(MoxLive, GraphsAreDrawn) {
  Start({"-i", kInput, "-f", "videoflip name=flip", "-o", kScreen});
  const auto file = (folder / "live.dot").string();
  Write("graph " + file + "\n");
  ReadUntil("graph " + file + "\n");
  EXPECT_EQ(Finish(), 0);
  std::ifstream stream(file);
  const std::string text(std::istreambuf_iterator<char>(stream), {});
  EXPECT_NE(text.find("digraph pipeline"), std::string::npos);
  EXPECT_NE(text.find("GstVideoFlip\\nflip"), std::string::npos);
}

TEST_F(MoxLive, ErrorsNameTheElementAndEndTheWait) {
  Start({"-i", kInput, "-o", kScreen});
  Write("start\nfilter add identity name=fragile error-after=3\nwait 1000\nshow\n");
  ReadUntil(
      "mox-live: ERROR of /GstPipeline:live/GstBin:filter_bin/GstIdentity:fragile: "
      R"(Failed after iterations as requested. \(.*gstidentity.c.*\)\n)");
  ReadUntil("state    playing, enabled\n");
}

}  // namespace
