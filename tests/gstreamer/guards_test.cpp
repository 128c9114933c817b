#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using namespace std::chrono_literals;
using faulty::Faults;

struct Guards : Test {
  Guards() { gst_element_register(nullptr, "faulty", GST_RANK_NONE, faulty::Type()); }
};

Faults& FaultsOf(const Ptr<GstElement>& bin, const char* name) {
  return faulty::Of(Find(*GST_BIN(bin.Get()), name).Get());
}

TEST_F(Guards, FailedStartLeavesThePipelineStopped) {
  std::atomic<int> starts = 0;
  const auto filter = faulty::Make();
  Stream stream(MakeSource(true), {filter}, false);
  const auto on_start = stream.pipeline.GetBus().Bind(GST_MESSAGE_STREAM_START, [&](const GstMessage&) { ++starts; });
  const std::function<void()> changes[] = {[&] { stream.pipeline.SetInput(MakeSource(true)); },
                                           [&] { stream.pipeline.AddFilters({}); }};
  for (const auto& change : changes) {
    starts = 0;
    faulty::Of(filter.Get()).fails = GST_STATE_CHANGE_PAUSED_TO_PLAYING;
    EXPECT_THROW(stream.pipeline.SetEnable(true), std::runtime_error);
    faulty::Of(filter.Get()).fails = Faults::kNone;
    Await([&] { return starts > 0; });
    EXPECT_EQ(stream.pipeline.GetState(), Pipeline::State::Stopped);
    change();
    EXPECT_EQ(GST_STATE(&stream.pipeline.Get()), GST_STATE_NULL);
    EXPECT_EQ(GST_STATE(stream.watch.element.Get()), GST_STATE_NULL);
  }
}

TEST_F(Guards, EventsThatAreNotSerializedDoNotDrain) {
  Stream stream(MakeSource(false, " ! valve name=valve"));
  const auto valve = stream.Find("valve");
  stream.SetDrop(TRUE);
  const auto sink = PadOf(*valve, "sink");
  GST_PAD_STREAM_LOCK(sink.Get());  // the last frame that passes has passed
  GST_PAD_STREAM_UNLOCK(sink.Get());
  const auto change = StartToWait([&] { stream.pipeline.AddFilters({Make("identity")}); });
  auto* const event = gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM_OOB, gst_structure_new_empty("any"));
  gst_pad_push_event(PadOf(*valve, "src").Get(), event);
  EXPECT_EQ(change.wait_for(100ms), std::future_status::timeout);
  stream.SetDrop(FALSE);
  change.get();
}

TEST_F(Guards, FlushThatMeetsStoppedFiltersReachesTheOutputs) {
  Stream stream;
  const auto feeding = PadOf(*stream.pipeline.GetInput(), "src");
  const auto filter = faulty::Make();
  faulty::Of(filter.Get()).blocks = GST_STATE_CHANGE_NULL_TO_READY;
  auto change = std::async(std::launch::async, [&] { stream.pipeline.AddFilters({filter}); });
  Await([&] { return GST_OBJECT_PARENT(filter.Get()) != nullptr; });
  gst_pad_push_event(feeding.Get(), gst_event_new_flush_start());
  change.get();
  EXPECT_TRUE(GST_PAD_IS_FLUSHING(PadOf(*stream.watch.element, "sink").Get()));
}

TEST_F(Guards, OutputRestartsWithFramesInItsQueue) {
  const auto output = Parse("faulty name=refusing ! fakesink sync=true");
  Stream stream(MakeSource(false, " ! identity sleep-time=2000"), {}, false);
  stream.pipeline.AddOutputs({output});
  stream.pipeline.SetEnable(true);
  stream.watch.AwaitFrames(100);
  FaultsOf(output, "refusing").fails = GST_STATE_CHANGE_PLAYING_TO_PAUSED;
  EXPECT_THROW(stream.pipeline.EraseOutputs({output}), std::runtime_error);
  FaultsOf(output, "refusing").fails = Faults::kNone;
  stream.watch.ExpectWhole();
}

TEST_F(Guards, OutputThatCannotRestartStaysCutOff) {
  const auto output = Parse("faulty name=first ! faulty name=last ! fakesink");
  Stream stream;
  stream.pipeline.AddOutputs({output});
  const auto queue = stream.pipeline.GetOutputs().at(1).queue;
  const Ptr<GstPad> pad(gst_pad_get_peer(PadOf(*queue, "sink").Get()));
  FaultsOf(output, "first").fails = GST_STATE_CHANGE_READY_TO_NULL;
  FaultsOf(output, "last").fails = GST_STATE_CHANGE_READY_TO_PAUSED;
  for (int i = 0; i < 2; ++i) {
    EXPECT_THROW(stream.pipeline.EraseOutputs({output}), std::runtime_error);
    EXPECT_EQ(pad->num_probes, 1);
  }
  guint limit = 0;
  g_object_get(queue.Get(), "max-size-buffers", &limit, nullptr);
  EXPECT_EQ(limit, 200U);
  stream.watch.ExpectWhole();
  FaultsOf(output, "first").fails = Faults::kNone;
  FaultsOf(output, "last").fails = Faults::kNone;
}

TEST_F(Guards, OutputThatRefusesEosIsNamedAtOnce) {
  const auto output = faulty::Make("refusing");
  faulty::Of(output.Get()).flow = GST_FLOW_NOT_LINKED;
  Stream stream;
  stream.pipeline.AddOutputs({output});
  const auto pad = PadOf(*stream.pipeline.GetOutputs().at(1).queue, "src");
  Await([&] { return gst_pad_get_last_flow_return(pad.Get()) == GST_FLOW_NOT_LINKED; });
  EXPECT_THROW(stream.pipeline.FinishOutputs({output}, 200s), std::runtime_error);
}

TEST_F(Guards, FlushingOutputReceivesEosAfterwards) {
  Stream stream;
  stream.AwaitState();
  const auto sink = PadOf(*stream.pipeline.GetOutputs().front().queue, "sink");
  gst_pad_send_event(sink.Get(), gst_event_new_flush_start());
  const auto finished = StartToWait([&] { stream.pipeline.FinishOutputs({stream.watch.element}, 200s); });
  gst_pad_send_event(sink.Get(), gst_event_new_flush_stop(FALSE));
  finished.get();
  EXPECT_EQ(stream.watch.eos, 1U);
}

TEST_F(Guards, StopEndsTheWaitForAPushToThePlaceholder) {
  Stream stream;
  stream.pipeline.EraseOutputs({stream.watch.element});
  Block(*stream.Find("dummy_output"));
  const auto change = StartToWait([&] { stream.pipeline.AddOutputs({stream.watch.element}); });
  stream.pipeline.SetEnable(false);
  EXPECT_THROW(change.get(), std::runtime_error);
}

TEST_F(Guards, OtherProbesDoNotSeeTheEosOfADrain) {
  std::atomic<int> ends = 0;
  Stream stream;
  AddProbe(*PadOf(*stream.Find("filter_bin"), "src"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [&](GstPad&, auto& info) {
    ends += GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(&info)) == GST_EVENT_EOS ? 1 : 0;
    return GST_PAD_PROBE_OK;
  });
  stream.pipeline.AddFilters({Make("identity")});
  EXPECT_EQ(ends, 0);
}

// As if a flush came in between: the filter passes the EOS on to its queue, and answers that it has
// not.
TEST_F(Guards, RefusedEosOfADrainDoesNotReachTheOutputs) {
  const auto filter = Parse("identity name=refusing ! queue");
  const auto sink = PadOf(*Find(*GST_BIN(filter.Get()), "refusing"), "sink");
  static const GstPadEventFunction forward = GST_PAD_EVENTFUNC(sink.Get());
  gst_pad_set_event_function(sink.Get(), [](GstPad* pad, GstObject* element, GstEvent* event) -> gboolean {
    const bool is_eos = GST_EVENT_TYPE(event) == GST_EVENT_EOS;
    return forward(pad, element, event) != FALSE && !is_eos;
  });
  Stream stream(MakeSource(), {filter});
  for (int i = 0; i < 50; ++i) {
    stream.AddAndEraseFilter("identity");
  }
  EXPECT_EQ(stream.watch.eos, 0U);
}

// One frame a second, so the queue has failed before the next one comes.
TEST_F(Guards, FilterWithAFailedQueueIsErased) {
  const auto filter = Parse("queue name=failed ! faulty name=told");
  Stream stream(Parse("videotestsrc is-live=true ! capsfilter caps=video/x-raw,framerate=1/1"), {filter});
  FaultsOf(filter, "told").flow = GST_FLOW_ERROR;
  const auto pad = PadOf(*stream.Find("failed"), "src");
  Await([&] { return gst_pad_get_last_flow_return(pad.Get()) == GST_FLOW_ERROR; });
  stream.pipeline.EraseFilters({filter});
  stream.watch.AwaitFrames();
}

// With two sources no task tells that the stream has ended.
TEST_F(Guards, EndedStreamAcceptsOutputsAndRefusesFilters) {
  Stream stream(Parse("funnel name=both ! capsfilter caps=video/x-raw,format=I420 "
                      "videotestsrc num-buffers=5 ! both. videotestsrc num-buffers=5 ! both."),
                {}, false);
  stream.pipeline.SetEnable(true);
  Await([&] { return stream.watch.eos > 0; });
  stream.pipeline.AddOutputs({Parse("capsfilter caps=video/x-raw,format=RGB ! fakesink")});
  EXPECT_THROW(stream.pipeline.AddFilters({Make("identity")}), std::runtime_error);
}

TEST_F(Guards, InputThatDidNotStartRefusesFilters) {
  const auto input = Parse("videotestsrc ! faulty name=refusing");
  FaultsOf(input, "refusing").fails = GST_STATE_CHANGE_READY_TO_PAUSED;
  Stream stream;
  EXPECT_THROW(stream.pipeline.SetInput(input), std::runtime_error);
  EXPECT_THROW(stream.pipeline.AddFilters({Make("identity")}), std::runtime_error);
}

TEST_F(Guards, MissingFilterLeavesTheOthersErased) {
  const auto filter = Make("identity");
  Stream stream(MakeSource(), {filter});
  EXPECT_THROW(stream.pipeline.EraseFilters({filter, filter}), std::runtime_error);
  EXPECT_TRUE(stream.pipeline.GetFilters().empty());
}

}  // namespace
