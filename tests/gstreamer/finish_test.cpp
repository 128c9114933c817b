#include "mox/type/binding.h"
#include "tests/gstreamer/duration.h"
#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using namespace std::chrono_literals;
using testing::IsEmpty;
using testing::ThrowsMessage;

// Ghosts only "sink". The parser would also ghost a pad inside a splitmuxsink.
Ptr<GstElement> MakeOutput(const std::string& description) {
  Ptr<GstElement> bin(gst_parse_bin_from_description(description.c_str(), FALSE, nullptr));
  const Ptr<GstPad> inner(gst_bin_find_unlinked_pad(GST_BIN(bin.Get()), GST_PAD_SINK));
  gst_element_add_pad(bin.Get(), gst_ghost_pad_new("sink", inner.Get()));
  return bin;
}

// Drops every EOS at the sink.
void DropEos(GstElement& sink) {
  AddProbe(*PadOf(sink, "sink"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
           [](GstPad&, auto& info) { return IsEos(info) ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK; });
}

/** A playing pipeline, in a folder of its own. */
class Finish : public Test {
 protected:
  Finish() {
    std::filesystem::create_directories(folder);
    std::filesystem::current_path(folder);
  }
  ~Finish() override { std::filesystem::remove_all(folder); }

  // Writes a recording, and expects that it lasts as long as the frames that were sent to it.
  void Record(const std::string& file, const std::string& elements, std::size_t frames = 200) {
    const Watch recording(MakeOutput(elements));
    stream.pipeline.AddOutputs({recording.element});
    recording.AwaitFrames(frames);
    stream.pipeline.FinishOutputs({recording.element}, 20s);
    // Some files lack the duration of the last frame.
    EXPECT_NEAR(DurationOf(folder / file), static_cast<double>(recording.frames) / 60, 1.1 / 60) << file;
  }

  const std::filesystem::path folder = testing::TempDir() + "mox-finish-" + std::to_string(getpid());
  Stream stream;
  std::atomic<int> ends = 0;  ///< The number of EOS messages of the pipeline.
  const mox::type::Binding on_end =
      stream.pipeline.GetBus().Bind(GST_MESSAGE_EOS, [this](const GstMessage&) { ++ends; });
};

// Converts the frames to caps that this encoder accepts, and encodes a stream that every muxer
// accepts.
const std::string kH264 =
    "videoscale ! capsfilter caps=video/x-raw,width=64,height=64 ! videoconvert "
    "! openh264enc gop-size=15 ! h264parse ! ";
const std::string kVp8 = "videoconvert ! vp8enc deadline=1 ! ";

TEST_F(Finish, RecordingsAreWholeAndLeaveAnotherOutputIntact) {
  Record("video.mp4", kH264 + "mp4mux ! filesink location=video.mp4");
  Record("video.mkv", kVp8 + "matroskamux ! filesink location=video.mkv");
  Record("playlist.m3u8", kH264 + "hlssink2 target-duration=1 playlist-length=0");
  for (int i = 0; i < 200; ++i) {
    Record("video.webm", kVp8 + "webmmux ! filesink location=video.webm", 3);
  }
  stream.watch.ExpectWhole();
  EXPECT_EQ(ends, 0);
}

// The stream of the pipeline goes on, so the pipeline must not post EOS.
TEST_F(Finish, TheLastOutputEndsWithoutThePipeline) {
  stream.pipeline.FinishOutputs({stream.watch.element}, 20s);
  EXPECT_EQ(stream.watch.eos, 1U);
  EXPECT_THAT(stream.pipeline.GetOutputs(), IsEmpty());
  EXPECT_EQ(stream.Find("output_tee")->numsrcpads, 1);

  const Watch next(Make("fakesink"));
  stream.pipeline.AddOutputs({next.element});
  next.ExpectWhole();
  EXPECT_EQ(ends, 0);
}

// Once all sinks of the output bin have posted EOS, it would post one and drop those of its outputs.
TEST_F(Finish, OutputEndsBesideOneThatHasPostedEos) {
  const auto ended = Make("fakesink");
  stream.pipeline.AddOutputs({ended});
  gst_element_post_message(ended.Get(), gst_message_new_eos(GST_OBJECT(ended.Get())));
  EXPECT_NO_THROW(stream.pipeline.FinishOutputs({stream.watch.element}, 5s));
}

TEST_F(Finish, OutputsThatDropEosAreNamedAndDetached) {
  const auto stubborn = Make("fakesink", "stubborn");
  DropEos(*stubborn);
  const Watch other(Make("fakesink"));
  const Elements outputs{stubborn, other.element};
  stream.pipeline.AddOutputs(outputs);
  other.AwaitFrames();
  EXPECT_THAT(
      [&] { stream.pipeline.FinishOutputs(outputs, 2s); },
      ThrowsMessage<std::runtime_error>("Bin Error: Failed to finish the output 'stubborn [stubborn]' in time"));
  EXPECT_EQ(other.eos, 1U);
  EXPECT_EQ(stream.pipeline.GetOutputs().size(), 1U);
  stream.watch.ExpectWhole();
}

TEST_F(Finish, OutputsThatAreNotAttachedLeaveTheOthersAsTheyAre) {
  EXPECT_THROW(stream.pipeline.FinishOutputs({stream.watch.element, Make("fakesink")}, 20s), std::runtime_error);
  stream.watch.ExpectWhole();
}

TEST_F(Finish, AStopEndsTheWait) {
  const Watch stubborn(Make("fakesink"));
  DropEos(*stubborn.element);
  stream.pipeline.AddOutputs({stubborn.element});
  stubborn.AwaitFrames();
  const auto finished = StartToWait([&] { stream.pipeline.FinishOutputs({stubborn.element}, 200s); });
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

// The seek discards the EOS that waits in the queue.
TEST_F(Finish, APausedPipelineEndsItsOutputsOnceItPlays) {
  stream.SetState(GST_STATE_PAUSED);
  stream.AwaitState();
  const auto queue = PadOf(*stream.pipeline.GetOutputs().front().queue, "sink");
  const auto finished = StartToWait([&] { stream.pipeline.FinishOutputs({stream.watch.element}, 200s); });
  Await([&] { return GST_PAD_IS_EOS(queue.Get()); });
  gst_element_seek_simple(GST_ELEMENT(&stream.pipeline.Get()), GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, 0);
  EXPECT_EQ(stream.watch.eos, 0U);
  stream.SetState(GST_STATE_PLAYING);
  finished.get();
  EXPECT_EQ(stream.watch.eos, 1U);
}

TEST_F(Finish, AfterTheEndOfTheStreamThereIsNothingToWaitFor) {
  stream.pipeline.SetInput(Parse("videotestsrc num-buffers=5"));
  Await([&] { return ends == 1; });
  stream.pipeline.FinishOutputs({stream.watch.element}, 20s);
  EXPECT_EQ(stream.watch.eos, 1U);
}

// The allocation query that follows a new output, and the queries of a decoder, would wait for the
// output that is stuck.
TEST_F(Finish, StuckOutputsBlockNoOther) {
  const Watch other(Make("fakesink"));
  Block(*stream.watch.element);
  stream.pipeline.AddOutputs({other.element});
  const Ptr<GstPad> pad(gst_pad_get_peer(PadOf(*stream.pipeline.GetOutputs().front().queue, "sink").Get()));
  const auto finished = StartToWait([&] { stream.pipeline.FinishOutputs({stream.watch.element}, 2s); });
  Await([&] { return pad->num_probes > 0; });
  EXPECT_FALSE(gst_pad_peer_query(pad.Get(), Ptr<GstQuery>(gst_query_new_drain()).Get()));
  other.ExpectWhole();
  EXPECT_EQ(finished.wait_for(0s), std::future_status::timeout) << "the other waited for the output that is stuck";
  EXPECT_THROW(finished.get(), std::runtime_error);
}

// The pads of elements inside the output store the EOS, and would end the stream with it.
TEST_F(Finish, OutputsThatRefuseToStopRunAgain) {
  gst_element_register(nullptr, "faulty", GST_RANK_NONE, faulty::Type());
  const auto output = Parse("faulty name=refusing ! fakesink name=last");
  const auto refusing = Find(*GST_BIN(output.Get()), "refusing");
  const Watch last(Find(*GST_BIN(output.Get()), "last"));
  stream.pipeline.AddOutputs({output});
  stream.pipeline.EraseOutputs({stream.watch.element});
  last.AwaitFrames();
  for (int i = 0; i < 2; ++i) {  // the second time the placeholder is there already
    faulty::Of(refusing.Get()).once = true;
    faulty::Of(refusing.Get()).fails = GST_STATE_CHANGE_PAUSED_TO_READY;
    EXPECT_THROW(stream.pipeline.FinishOutputs({output}, 20s), std::runtime_error);
    last.AwaitFrames();
  }
  stream.pipeline.AddOutputs({stream.watch.element});
  EXPECT_FALSE(stream.Find("dummy_output"));

  // The EOS messages of before do not count.
  DropEos(*refusing);
  EXPECT_THROW(stream.pipeline.FinishOutputs({output}, 100ms), std::runtime_error);
  EXPECT_EQ(stream.pipeline.GetOutputs().size(), 1U);
}

TEST_F(Finish, SourcesInsideAnOutputEndToo) {
  const auto output = Parse("fakesink videotestsrc is-live=true ! fakesink name=own");
  const Watch own(Find(*GST_BIN(output.Get()), "own"));
  stream.pipeline.AddOutputs({output});
  own.AwaitFrames();
  stream.pipeline.FinishOutputs({output}, 20s);
  EXPECT_EQ(own.eos, 1U);
}

}  // namespace
