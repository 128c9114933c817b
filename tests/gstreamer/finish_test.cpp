#include "tests/gstreamer/duration.h"
#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

#include <filesystem>
#include <fstream>
#include <string_view>

#include <gmock/gmock.h>

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using namespace std::chrono_literals;
using testing::IsEmpty;
using testing::ThrowsMessage;

constexpr auto kFrameRate = 60;

// Ghosts only "sink". The parser would also ghost a pad inside a splitmuxsink.
Ptr<GstElement> MakeOutput(const std::string& description) {
  Ptr<GstElement> bin(gst_parse_bin_from_description(description.c_str(), FALSE, nullptr));
  const Ptr<GstPad> inner(gst_bin_find_unlinked_pad(GST_BIN(bin.Get()), GST_PAD_SINK));
  gst_element_add_pad(bin.Get(), gst_ghost_pad_new("sink", inner.Get()));
  return bin;
}

// Drops every EOS at the sink.
void DropEos(GstElement& sink) {
  AddProbe(*PadOf(sink, "sink"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [](GstPad&, auto& info) {
    const bool is_eos = GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(&info)) == GST_EVENT_EOS;
    return is_eos ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
  });
}

class Finish : public Test {
 protected:
  Finish() { std::filesystem::create_directories(folder); }
  ~Finish() override { std::filesystem::remove_all(folder); }

  const std::filesystem::path folder = testing::TempDir() + "mox-finish-" + std::to_string(getpid());
  Stream stream;
};

// Converts the frames to caps that this encoder accepts, and encodes a stream that every muxer
// accepts.
constexpr auto kH264 =
    "videoscale ! capsfilter caps=video/x-raw,width=64,height=64 ! videoconvert "
    "! openh264enc gop-size=15 ! h264parse ! ";
constexpr auto kVp8 = "videoconvert ! vp8enc deadline=1 ! ";

TEST_F(Finish, RecordingsLastAsLongAsTheirFrames) {
  struct Format {
    std::string file;
    std::string elements;
  };
  for (const auto& [file, elements] :
       {Format{"video.mp4", std::string(kH264) + "mp4mux"}, Format{"video.webm", std::string(kVp8) + "webmmux"},
        Format{"video.mkv", std::string(kVp8) + "matroskamux"}}) {
    const Watch recording(MakeOutput(elements + " ! filesink location=" + (folder / file).string()));
    stream.pipeline.AddOutputs({recording.element});
    recording.AwaitFrames(50);
    stream.pipeline.FinishOutputs({recording.element}, 20s);
    EXPECT_NEAR(DurationOf(folder / file), static_cast<double>(recording.frames) / kFrameRate, 1.0 / kFrameRate)
        << file;
  }
}

TEST_F(Finish, PlaylistsListEverySegmentAndEnd) {
  const auto list = folder / "list.m3u8";
  const Watch recording(MakeOutput(std::string(kH264) + "hlssink2 target-duration=1 playlist-length=0 location=" +
                                   (folder / "%d.ts").string() + " playlist-location=" + list.string()));
  stream.pipeline.AddOutputs({recording.element});
  recording.AwaitFrames(200);
  stream.pipeline.FinishOutputs({recording.element}, 20s);

  double duration = 0;
  std::string line;
  for (std::ifstream file(list); std::getline(file, line);) {
    constexpr std::string_view segment = "#EXTINF:";
    if (line.compare(0, segment.size(), segment) == 0) {
      duration += std::stod(line.substr(segment.size()));
    }
  }
  EXPECT_EQ(line, "#EXT-X-ENDLIST");
  // The last segment is listed without the duration of its last frame.
  EXPECT_NEAR(duration, static_cast<double>(recording.frames) / kFrameRate, 1.1 / kFrameRate);
}

TEST_F(Finish, RecordingsLeaveAnotherOutputIntact) {
  std::atomic<int> ends = 0;
  const auto on_end = stream.pipeline.GetBus().Bind(GST_MESSAGE_EOS, [&](const GstMessage&) { ++ends; });
  for (int i = 0; i < 200; ++i) {
    const auto file = folder / (std::to_string(i) + ".webm");
    const Watch recording(MakeOutput(std::string(kVp8) + "webmmux ! filesink location=" + file.string()));
    stream.pipeline.AddOutputs({recording.element});
    recording.AwaitFrames(3);
    stream.pipeline.FinishOutputs({recording.element}, 20s);
    ASSERT_NEAR(DurationOf(file), static_cast<double>(recording.frames) / kFrameRate, 1.0 / kFrameRate) << file;
    std::filesystem::remove(file);
  }
  stream.watch.ExpectWhole();
  EXPECT_EQ(ends, 0);
}

// The stream of the pipeline goes on, so the pipeline must not post EOS.
TEST_F(Finish, TheLastOutputEndsWithoutThePipeline) {
  std::atomic<int> ends = 0;
  const auto on_end = stream.pipeline.GetBus().Bind(GST_MESSAGE_EOS, [&](const GstMessage&) { ++ends; });
  stream.pipeline.FinishOutputs({stream.watch.element}, 20s);
  EXPECT_EQ(stream.watch.eos, 1U);
  EXPECT_THAT(stream.pipeline.GetOutputs(), IsEmpty());
  EXPECT_EQ(stream.Find("output_tee")->numsrcpads, 1);

  const Watch next(Make("fakesink"));
  stream.pipeline.AddOutputs({next.element});
  next.ExpectWhole();
  EXPECT_EQ(ends, 0);
}

TEST_F(Finish, EverySinkOfAnOutputReceivesEos) {
  const auto output = MakeOutput("tee name=both ! queue ! fakesink name=one both. ! queue ! fakesink name=two");
  const Watch one(Find(*GST_BIN(output.Get()), "one"));
  const Watch two(Find(*GST_BIN(output.Get()), "two"));
  stream.pipeline.AddOutputs({output});
  one.AwaitFrames();
  stream.pipeline.FinishOutputs({output}, 20s);
  EXPECT_EQ(one.eos, 1U);
  EXPECT_EQ(two.eos, 1U);
  EXPECT_EQ(one.frames, two.frames);
}

TEST_F(Finish, OutputsThatDropEosAreNamedAndDetached) {
  const auto stubborn = Make("fakesink", "stubborn");
  DropEos(*stubborn);
  const Watch other(Make("fakesink", "other"));
  stream.pipeline.AddOutputs({stubborn, other.element});
  other.AwaitFrames();
  EXPECT_THAT(
      [&] {
        stream.pipeline.FinishOutputs({stubborn, other.element}, 2s);
      },
      ThrowsMessage<std::runtime_error>("Bin Error: Failed to finish the output 'stubborn [stubborn]' in time"));
  EXPECT_EQ(other.eos, 1U);
  EXPECT_EQ(stream.pipeline.GetOutputs().size(), 1U);
  stream.watch.ExpectWhole();
}

TEST_F(Finish, OutputsThatAreNotAttachedLeaveTheOthersAsTheyAre) {
  EXPECT_THAT(
      [&] {
        stream.pipeline.FinishOutputs({stream.watch.element, Make("fakesink")}, 20s);
      },
      ThrowsMessage<std::runtime_error>("Cannot remove an output that has not been added to the bin"));
  EXPECT_THAT(
      [&] {
        stream.pipeline.FinishOutputs({stream.watch.element, stream.watch.element}, 20s);
      },
      ThrowsMessage<std::runtime_error>("Cannot remove an output that has not been added to the bin"));
  stream.watch.ExpectWhole();
}

TEST_F(Finish, AStopEndsTheWait) {
  const Watch stubborn(Make("fakesink"));
  DropEos(*stubborn.element);
  stream.pipeline.AddOutputs({stubborn.element});
  stubborn.AwaitFrames();
  auto finished = std::async(std::launch::async, [&] { stream.pipeline.FinishOutputs({stubborn.element}, 200s); });
  Await([&] { return stubborn.eos > 0; });
  stream.pipeline.SetEnable(false);
  EXPECT_THAT([&] { finished.get(); },
              ThrowsMessage<std::runtime_error>("Cannot finish the outputs because the pipeline is being stopped"));
  EXPECT_EQ(stream.pipeline.GetOutputs().size(), 1U);
}

TEST_F(Finish, StoppedPipelinesHaveNothingToEnd) {
  stream.pipeline.SetEnable(false);
  stream.pipeline.FinishOutputs({stream.watch.element}, 200s);
  EXPECT_EQ(stream.watch.eos, 0U);
  EXPECT_THAT(stream.pipeline.GetOutputs(), IsEmpty());
}

TEST_F(Finish, ABranchWithoutDataHasNothingToEnd) {
  stream.pipeline.SetInput(MakeSource(false, " ! valve drop=true"));
  const Watch empty(Make("fakesink"));
  stream.pipeline.AddOutputs({empty.element});
  stream.pipeline.FinishOutputs({empty.element}, 200s);
  EXPECT_EQ(empty.eos, 0U);
}

// The seek discards the EOS that waits in the queue.
TEST_F(Finish, APausedPipelineEndsItsOutputsOnceItPlays) {
  auto& element = *GST_ELEMENT(&stream.pipeline.Get());
  gst_element_set_state(&element, GST_STATE_PAUSED);
  gst_element_get_state(&element, nullptr, nullptr, GST_CLOCK_TIME_NONE);
  const auto queue = PadOf(*stream.pipeline.GetOutputs().front().queue, "sink");
  auto finished = std::async(std::launch::async, [&] { stream.pipeline.FinishOutputs({stream.watch.element}, 200s); });
  Await([&] { return GST_PAD_IS_EOS(queue.Get()); });
  gst_element_seek_simple(&element, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, 0);
  EXPECT_EQ(stream.watch.eos, 0U);
  gst_element_set_state(&element, GST_STATE_PLAYING);
  finished.get();
  EXPECT_EQ(stream.watch.eos, 1U);
}

TEST_F(Finish, AfterTheEndOfTheStreamThereIsNothingToWaitFor) {
  std::atomic<int> ends = 0;
  const auto on_end = stream.pipeline.GetBus().Bind(GST_MESSAGE_EOS, [&](const GstMessage&) { ++ends; });
  stream.pipeline.SetInput(Parse("videotestsrc num-buffers=5"));
  Await([&] { return ends == 1; });
  EXPECT_NO_THROW(stream.pipeline.FinishOutputs({stream.watch.element}, 20s));
  EXPECT_EQ(stream.watch.eos, 1U);
}

// A sink keeps a buffer for ever. The allocation query that follows a new output would wait for it.
TEST_F(Finish, StuckOutputsBlockNoOther) {
  std::atomic<bool> is_stuck = false;
  const Watch other(Make("fakesink", "other"));
  const Watch third(Make("fakesink", "third"));
  stream.pipeline.AddOutputs({other.element});
  other.AwaitFrames();
  AddProbe(*PadOf(*stream.watch.element, "sink"), GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_BUFFER,
           [&](GstPad&, auto&) {
             is_stuck = true;
             return GST_PAD_PROBE_OK;
           });
  Await([&] { return is_stuck.load(); });
  stream.pipeline.AddOutputs({third.element});
  auto finished = std::async(std::launch::async, [&] { stream.pipeline.FinishOutputs({stream.watch.element}, 2s); });
  other.ExpectWhole();
  EXPECT_EQ(finished.wait_for(0s), std::future_status::timeout) << "the others waited for the output that is stuck";
  EXPECT_THROW(finished.get(), std::runtime_error);
  third.ExpectWhole();
}

// The pads of elements inside the output store the EOS, and would end the stream with it.
TEST_F(Finish, OutputsThatRefuseToStopRunAgain) {
  const auto refusing = faulty::Make("refusing");
  const Ptr<GstElement> output(gst_bin_new("output"));
  const Watch last(Make("fakesink"));
  gst_bin_add_many(GST_BIN(output.Get()), refusing.Ref(), last.element.Ref(), nullptr);
  gst_element_link(refusing.Get(), last.element.Get());
  gst_element_add_pad(output.Get(), gst_ghost_pad_new("sink", PadOf(*refusing, "sink").Get()));
  stream.pipeline.AddOutputs({output});
  last.AwaitFrames();
  faulty::Of(refusing.Get()).once = true;
  faulty::Of(refusing.Get()).fails = GST_STATE_CHANGE_PAUSED_TO_READY;
  EXPECT_THROW(stream.pipeline.FinishOutputs({output}, 20s), std::runtime_error);
  last.AwaitFrames();
  stream.watch.ExpectWhole();

  // The EOS of the first time does not count.
  DropEos(*refusing);
  EXPECT_THROW(stream.pipeline.FinishOutputs({output}, 100ms), std::runtime_error);
}

TEST_F(Finish, SourcesInsideAnOutputEndToo) {
  const auto output = MakeOutput("fakesink videotestsrc is-live=true ! fakesink name=own");
  const Watch own(Find(*GST_BIN(output.Get()), "own"));
  stream.pipeline.AddOutputs({output});
  own.AwaitFrames();
  stream.pipeline.FinishOutputs({output}, 20s);
  EXPECT_EQ(own.eos, 1U);
}

}  // namespace
