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
  faulty::Of(filter.Get()).fails = GST_STATE_CHANGE_PAUSED_TO_PLAYING;
  EXPECT_THROW(stream.pipeline.SetEnable(true), std::runtime_error);
  faulty::Of(filter.Get()).fails = Faults::kNone;
  Await([&] { return starts > 0; });
  EXPECT_EQ(stream.pipeline.GetState(), Pipeline::State::Stopped);
  stream.pipeline.SetInput(MakeSource(true));
  EXPECT_EQ(GST_STATE(stream.watch.element.Get()), GST_STATE_NULL);
}

TEST_F(Guards, EventsThatAreNotSerializedDoNotDrain) {
  Stream stream(MakeSource(false, " ! valve name=valve"));
  const auto valve = stream.Find("valve");
  stream.SetDrop(TRUE);
  const auto change = StartToWait([&] { stream.pipeline.AddFilters({Make("identity")}); });
  auto* const event = gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM_OOB, gst_structure_new_empty("any"));
  gst_pad_push_event(PadOf(*valve, "src").Get(), event);
  EXPECT_EQ(change.wait_for(100ms), std::future_status::timeout);
  stream.SetDrop(FALSE);
  change.get();
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
  SetDeadline(15);
  EXPECT_THAT([&] { stream.pipeline.FinishOutputs({output}, 200s); },
              testing::ThrowsMessage<std::runtime_error>(testing::HasSubstr("'refusing [refusing]'")));
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
  const Ptr<GstPad> pad(gst_pad_get_peer(PadOf(*stream.Find("dummy_output"), "sink").Get()));
  const auto change = StartToWait([&] { stream.pipeline.AddOutputs({stream.watch.element}); });
  stream.pipeline.SetEnable(false);
  EXPECT_THROW(change.get(), std::runtime_error);
  EXPECT_EQ(pad->num_probes, 0) << "the placeholder is still cut off";
}

TEST_F(Guards, OtherProbesDoNotSeeTheEosOfADrain) {
  std::atomic<int> ends = 0;
  Stream stream;
  AddProbe(*PadOf(*stream.Find("filter_bin"), "src"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [&](GstPad&, auto& info) {
    ends += IsEos(info) ? 1 : 0;
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

const std::string kRgb = "capsfilter caps=video/x-raw,format=RGB ! fakesink";

// The program has started the pipeline through its element.
TEST_F(Guards, StopOfAPipelineThatIsNotEnabledEndsNoChange) {
  Stream stream(MakeSource(false, " ! valve name=valve"), {}, false);
  stream.SetState(GST_STATE_PLAYING);
  stream.watch.AwaitFrames();
  stream.SetDrop(TRUE);
  const auto change = StartToWait([&] { stream.pipeline.AddFilters({Make("identity")}); });
  stream.pipeline.SetEnable(false);
  stream.SetDrop(FALSE);
  EXPECT_NO_THROW(change.get());
}

TEST_F(Guards, EnableMayBeReadByAStreamingThread) {
  Stream stream;
  AddProbe(*PadOf(*stream.watch.element, "sink"), GST_PAD_PROBE_TYPE_BUFFER, [&](auto&...) {
    stream.pipeline.GetEnable();
    return GST_PAD_PROBE_OK;
  });
  stream.watch.AwaitFrames();
  stream.pipeline.SetEnable(false);
}

TEST_F(Guards, StateMayBeSetWhileAnOutputWaitsForData) {
  Stream stream(MakeSource(false, ",format=I420 ! valve name=valve"));
  stream.SetDrop(TRUE);
  const auto change = StartToWait([&] { stream.pipeline.AddOutputs({Parse(kRgb)}); });
  stream.SetState(GST_STATE_PAUSED);
  EXPECT_EQ(change.wait_for(0s), std::future_status::timeout);
  stream.pipeline.SetEnable(false);
}

// The program pauses and plays, and the outputs have yet to preroll when an element is refused.
TEST_F(Guards, RefusalDuringAPauseLetsTheOutputsPlayAgain) {
  const auto refused = faulty::Make();
  faulty::Of(refused.Get()).fails = GST_STATE_CHANGE_READY_TO_PAUSED;
  Stream stream(MakeSource(false, " ! identity sleep-time=10000"));
  stream.SetState(GST_STATE_PAUSED);
  stream.SetState(GST_STATE_PLAYING);
  EXPECT_THROW(stream.pipeline.AddFilters({refused}), std::runtime_error);
  stream.watch.AwaitFrames(3);
}

// The other output receives nothing after the seek, so that its bin stays in PAUSED.
TEST_F(Guards, OutputPlaysWhileAnotherWaitsForItsPreroll) {
  std::atomic<bool> drops = false;
  Stream stream;
  AddProbe(*PadOf(*stream.watch.element, "sink"), GST_PAD_PROBE_TYPE_BUFFER,
           [&](auto&...) { return drops ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK; });
  drops = true;
  gst_element_seek_simple(GST_ELEMENT(&stream.pipeline.Get()), GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, 0);
  const Watch output(Make("fakesink"));
  stream.pipeline.AddOutputs({output.element});
  output.AwaitFrames(10);
}

// The flush discards the RECONFIGURE event of the change, and its FLUSH_START stops at the filters.
TEST_F(Guards, FlushDuringAChangePassesAndLetsUpstreamRenegotiate) {
  Stream stream(MakeSource(false, ",format=I420"));
  const auto filter = Parse("faulty name=slow ! capsfilter caps=video/x-raw,format=GRAY8");
  const auto feeding = PadOf(*stream.pipeline.GetInput(), "src");
  FaultsOf(filter, "slow").blocks = GST_STATE_CHANGE_NULL_TO_READY;
  auto change = std::async(std::launch::async, [&] { stream.pipeline.AddFilters({filter}); });
  Await([&] { return GST_OBJECT_PARENT(filter.Get()) != nullptr; });
  gst_pad_send_event(feeding.Get(), gst_event_new_seek(1, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, GST_SEEK_TYPE_SET, 0,
                                                       GST_SEEK_TYPE_NONE, 0));
  change.get();
  stream.watch.AwaitFrames();
  EXPECT_EQ(stream.watch.flushes, 1U);
  EXPECT_EQ(stream.watch.eos, 0U);
}

// The caps event for the first output waits at the filter.
TEST_F(Guards, OutputsThatShareNoCapsAreRefusedBeforeTheCapsArrive) {
  const auto filter = Make("identity");
  std::atomic<bool> blocks_caps = false;
  Stream stream(MakeSource(true, ",format=I420"), {filter});
  AddProbe(*PadOf(*filter, "sink"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [&](GstPad&, auto& info) {
    if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(&info)) == GST_EVENT_CAPS) {
      Await([&] { return !blocks_caps; });
    }
    return GST_PAD_PROBE_OK;
  });
  blocks_caps = true;
  EXPECT_THROW(stream.pipeline.AddOutputs({Parse(kRgb), Parse("capsfilter caps=video/x-raw,format=I420 ! fakesink")}),
               std::runtime_error);
  blocks_caps = false;
  EXPECT_EQ(stream.pipeline.GetOutputs().size(), 2U);
}

// A probe blocks an event that has not reached the tee.
TEST_F(Guards, StopDetachesAnOutputWhileAnEventWaitsAtTheTee) {
  Stream stream(MakeSource(true));
  const auto sink = PadOf(*stream.Find("output_tee"), "sink");
  AddProbe(*sink, GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
           [](auto&...) { return GST_PAD_PROBE_OK; });
  AddProbe(*PadOf(*stream.Find("filter_bin"), "sink"), GST_PAD_PROBE_TYPE_BUFFER, [](GstPad& pad, auto&) {
    gst_pad_send_event(&pad, gst_event_new_tag(gst_tag_list_new_empty()));
    return GST_PAD_PROBE_REMOVE;
  });
  Await([&] { return gst_pad_is_blocking(sink.Get()) != FALSE; });
  const auto change = StartToWait([&] { stream.pipeline.EraseOutputs({stream.watch.element}); });
  stream.pipeline.SetEnable(false);
  EXPECT_NO_THROW(change.get());
  EXPECT_TRUE(stream.Find("dummy_output"));
}

// A sink that is stuck keeps a serialized query in the queue, as a decoder sends it.
TEST_F(Guards, QueryInTheQueueOfAnOutputDoesNotDelayItsEnd) {
  std::atomic<bool> is_querying = false;
  const auto stuck = Make("fakesink");
  Stream stream(MakeSource(true));
  stream.pipeline.AddOutputs({stuck});
  Block(*stuck);
  const auto queue = PadOf(*stream.pipeline.GetOutputs().at(1).queue, "sink");
  AddProbe(*PadOf(*stream.Find("output_tee"), "sink"), GST_PAD_PROBE_TYPE_BUFFER, [&](auto&...) {
    is_querying = true;
    gst_pad_query(queue.Get(), Ptr<GstQuery>(gst_query_new_drain()).Get());
    return GST_PAD_PROBE_REMOVE;
  });
  Await([&] { return is_querying.load(); });
  EXPECT_THROW(stream.pipeline.FinishOutputs({stuck}, 100ms), std::runtime_error);
  stream.watch.ExpectWhole();
}

// The queue has room, so that the query reaches it although the pipeline is paused. A query that is
// refused leaves a probe.
TEST_F(Guards, RefusedAllocationQueryComesAgainOnceTheOutputPlays) {
  std::atomic<int> answered = 0;
  Stream stream(MakeSource(false, " ! identity sleep-time=1000"));
  AddProbe(*PadOf(*stream.watch.element, "sink"), GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM, [&](GstPad&, auto& info) {
    answered += GST_QUERY_TYPE(GST_PAD_PROBE_INFO_QUERY(&info)) == GST_QUERY_ALLOCATION ? 1 : 0;
    return GST_PAD_PROBE_OK;
  });
  const auto queue = stream.pipeline.GetOutputs().front().queue;
  const auto sink = PadOf(*queue, "sink");
  g_object_set(queue.Get(), "max-size-buffers", 0, "max-size-time", guint64(0), nullptr);
  stream.SetState(GST_STATE_PAUSED);
  stream.AwaitState();
  gst_pad_push_event(sink.Get(), gst_event_new_reconfigure());
  Await([&] { return sink->num_probes > 0; });
  const int before = answered;
  stream.SetState(GST_STATE_PLAYING);
  Await([&] { return answered > before; });
}

// The query waits for a frame that the slow output consumes. After the pause that frame is its
// preroll, and the other output still needs a frame, which the query blocks.
TEST_F(Guards, PauseEndsTheWaitOfAnAllocationQuery) {
  const Watch slow(Parse("identity sleep-time=2000000 ! fakesink"));
  Stream stream(MakeSource(false, " ! identity sleep-time=10000"));
  stream.pipeline.EraseOutputs({stream.watch.element});
  stream.pipeline.AddOutputs({slow.element, stream.watch.element});  // the slow one receives each query first
  slow.AwaitFrames(1);
  const auto queue = stream.pipeline.GetOutputs().front().queue;
  gst_pad_push_event(PadOf(*queue, "sink").Get(), gst_event_new_reconfigure());
  Await([&] { return PadOf(*queue, "src")->num_probes > 0; });
  stream.SetState(GST_STATE_PAUSED);
  EXPECT_EQ(stream.AwaitState(), GST_STATE_PAUSED);
}

}  // namespace
