#include "tests/gstreamer/live.h"

#include "tests/gstreamer/faulty.h"

#include <gst/base/gstbasesink.h>

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using namespace std::chrono_literals;
using testing::StartsWith;
using testing::ThrowsMessage;
using Live = live::Test;

// A tag event with the same number precedes each frame.
TEST_F(Live, OnlyOutputComesAndGoesBetweenEvents) {
  std::atomic<int> missed = 0;
  const auto number_of = [](const auto& info) { return static_cast<guint32>(GST_BUFFER_OFFSET(info.data)) + 1; };
  Stream stream(MakeSource(), {}, false);
  AddProbe(*PadOf(*stream.Find("output_bin"), "sink"), GST_PAD_PROBE_TYPE_BUFFER, [&](GstPad& pad, auto& info) {
    GstEvent* const event = gst_event_new_tag(gst_tag_list_new_empty());
    gst_event_set_seqnum(event, number_of(info));
    gst_pad_send_event(&pad, event);
    return GST_PAD_PROBE_OK;
  });
  stream.pipeline.EraseOutputs({stream.watch.element});
  stream.pipeline.SetEnable(true);
  for (int i = 0; i < 4000; ++i) {
    const Watch output(Make("fakesink"));
    AddProbe(*PadOf(*output.element, "sink"), GST_PAD_PROBE_TYPE_BUFFER, [&](GstPad& pad, auto& info) {
      const Ptr<GstEvent> event(gst_pad_get_sticky_event(&pad, GST_EVENT_TAG, 0));
      missed += event && gst_event_get_seqnum(event.Get()) == number_of(info) ? 0 : 1;
      return GST_PAD_PROBE_OK;
    });
    stream.pipeline.AddOutputs({output.element});
    output.AwaitFrames(1);
    stream.pipeline.EraseOutputs({output.element});
    ASSERT_THAT(output, IsIntact());
  }
  EXPECT_EQ(missed, 0);
}

Ptr<GstElement> MakeFormat(const std::string& formats, const std::string& end = " ! fakesink") {
  return Parse("capsfilter caps=\"video/x-raw,format={" + formats + "}\"" + end);
}

// The stream renegotiates twice, and drops the frame that waits with the old caps.
TEST_F(Live, OutputsAgreeOnCaps) {
  Stream stream(MakeSource(false, ",format=I420"), {MakeFormat("I420,RGB,Y42B", ""), Make("queue")});
  const Watch last(MakeFormat("Y42B"));
  stream.pipeline.AddOutputs({MakeFormat("RGB,Y42B,NV12"), last.element});
  last.AwaitFrames();
  stream.watch.ExpectWhole(2);
}

TEST_F(Live, OutputsThatCannotAgreeOnCapsAreRefused) {
  Stream stream(MakeSource(true, ",format=I420"), {MakeFormat("I420,RGB,Y42B", "")});
  stream.pipeline.AddOutputs({MakeFormat("RGB,Y42B,NV12")});
  for (const auto& refused : {MakeFormat("I420,NV12"), MakeFormat("GRAY8"), Parse("audioconvert ! fakesink")}) {
    EXPECT_THAT([&] { stream.pipeline.AddOutputs({refused}); },
                ThrowsMessage<std::runtime_error>(
                    StartsWith("Element Error: Failed to link element 'output_tee [output_tee]' with element 'queue")));
  }
  EXPECT_EQ(stream.Find("output_tee")->numsrcpads, 2);
  stream.watch.AwaitFrames();
  EXPECT_EQ(stream.watch.eos, 0U);
}

// The stream renegotiates for the output, and the filter fails as its bin restarts.
TEST_F(Live, OutputIsRefusedIfAFilterDoesNotRestart) {
  const auto filter = faulty::Make();
  Stream stream(MakeSource(true, ",format=I420"), {filter});
  faulty::Of(filter.Get()).once = TRUE;
  faulty::Of(filter.Get()).fails = GST_STATE_CHANGE_READY_TO_PAUSED;
  EXPECT_THROW(stream.pipeline.AddOutputs({MakeFormat("RGB")}), std::runtime_error);
  EXPECT_EQ(stream.Find("output_tee")->numsrcpads, 1);
  stream.watch.ExpectWhole();
}

const std::string kAnySize = "videotestsrc ! capsfilter caps=video/x-raw,framerate=60/1";
const std::string kOtherSize = "capsfilter caps=video/x-raw,width=32,height=8";

// The source renegotiates at each change, and drops the frame that waits with the old size.
TEST_F(Live, SourceFollowsAnotherSize) {
  const auto filter = Parse(kOtherSize);
  Stream stream(Parse(kAnySize), {Make("queue")});
  stream.pipeline.AddFilters({filter});
  stream.watch.AwaitFrames();
  stream.pipeline.EraseFilters({filter});
  stream.watch.ExpectWhole(2);

  Stream other(Parse(kAnySize), {Make("queue")});
  other.pipeline.AddOutputs({Parse(kOtherSize + " ! fakesink")});
  other.watch.ExpectWhole(1);
}

TEST_F(Live, SizeThatUpstreamCannotChangeIsRefused) {
  for (const std::string input_end : {" ! queue", ",width=16,height=16"}) {
    SCOPED_TRACE(input_end);
    Stream stream(Parse(kAnySize + input_end), {Make("queue")});
    EXPECT_THROW(stream.pipeline.AddFilters({Parse(kOtherSize)}), std::runtime_error);
    EXPECT_THROW(stream.pipeline.AddOutputs({Parse(kOtherSize + " ! fakesink")}), std::runtime_error);
    EXPECT_EQ(stream.pipeline.GetFilters().size(), 1U);
    stream.watch.ExpectWhole();
  }
}

// The outputs receive no frame, wait for the clock, or take half a minute for the second of video in
// each of their queues. Allocation queries overtake that video.
TEST_F(Live, ChangesDoNotWaitForSlowOutputs) {
  std::atomic<bool> is_full = false;
  Stream stream(MakeSource(true));
  const Elements stuck{Parse("valve drop=true ! fakesink"),
                       Parse("identity ! fakesink sync=true ts-offset=3600000000000")};
  stream.pipeline.AddOutputs(stuck);
  const auto note = [](std::atomic<bool>* full) { *full = true; };
  g_signal_connect_swapped(stream.pipeline.GetOutputs().at(2).queue.Get(), "overrun", G_CALLBACK(+note), &is_full);
  Await([&] { return is_full.load(); });
  stream.pipeline.EraseOutputs({stuck[0], stuck[1], stream.watch.element});

  // The slow one receives each query first. It has been attached before, with its own queue.
  const auto slow = Parse("queue ! identity sleep-time=500000 ! fakesink");
  stream.pipeline.AddOutputs({slow});
  stream.pipeline.EraseOutputs({slow});
  stream.pipeline.AddOutputs({slow, stream.watch.element});
  stream.watch.AwaitFrames(110);
  SetDeadline(15);
  stream.AddAndEraseFilter("identity");
  stream.watch.AwaitFrames();
}

// Matches the error of a waiting change that a stop has ended.
auto IsEndedByStop(const std::string& changed) {
  return ThrowsMessage<std::runtime_error>("Cannot change the " + changed + " because the pipeline is being stopped");
}

// Closes the valve, and expects a stop to end the change that waits because of it.
void ExpectStopEnds(Stream& stream, const std::string& changed, const std::function<void()>& change) {
  const auto filters = stream.pipeline.GetFilters();
  const std::size_t outputs = stream.pipeline.GetOutputs().size();
  stream.SetDrop(TRUE);
  const auto waiting = StartToWait(change);
  stream.pipeline.SetEnable(false);
  EXPECT_THAT([&] { waiting.get(); }, IsEndedByStop(changed));
  EXPECT_EQ(stream.pipeline.GetFilters(), filters);
  EXPECT_EQ(stream.pipeline.GetOutputs().size(), outputs);
  EXPECT_EQ(stream.watch.eos, 0U);
  stream.SetDrop(FALSE);
}

TEST_F(Live, StopEndsAChangeThatWaitsForAFilter) {
  Stream stream(MakeSource(false, ",format=I420"), {Parse("identity ! valve name=valve")});
  ExpectStopEnds(stream, "filters", [&] { stream.pipeline.AddFilters({Make("identity")}); });
  stream.pipeline.SetEnable(true);
  stream.watch.AwaitFrames();
  ExpectStopEnds(stream, "outputs", [&] { stream.pipeline.AddOutputs({MakeFormat("RGB")}); });
  stream.pipeline.SetEnable(true);
  stream.watch.AwaitFrames();
}

// At an EOS the filter pushes, as an encoder does, until the queue of a stuck output is full.
TEST_F(Live, StopEndsAPushOfAFilterThatDrains) {
  std::atomic<bool> is_pushing = false;
  const auto filter = Make("identity");
  const auto stuck = Make("fakesink");
  Stream stream(MakeSource(true), {filter});
  stream.pipeline.AddOutputs({stuck});
  Block(*stuck);
  AddProbe(*PadOf(*filter, "sink"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [&](GstPad&, auto& info) {
    is_pushing = IsEos(info);
    while (is_pushing) {
      is_pushing = gst_pad_push(PadOf(*filter, "src").Get(), gst_buffer_new()) == GST_FLOW_OK;
    }
    return GST_PAD_PROBE_OK;
  });
  const auto change = StartToWait([&] { stream.pipeline.AddFilters({Make("identity")}); });
  Await([&] { return is_pushing.load(); });
  stream.pipeline.SetEnable(false);
  EXPECT_THAT([&] { change.get(); }, IsEndedByStop("filters"));
}

TEST_F(Live, StopOfAFirstOutputRestoresThePlaceholder) {
  Stream stream(MakeSource(false, ",format=I420 ! valve name=valve"));
  const auto output = MakeFormat("RGB");
  stream.pipeline.EraseOutputs({stream.watch.element});
  ExpectStopEnds(stream, "outputs", [&] { stream.pipeline.AddOutputs({output}); });
  EXPECT_TRUE(stream.Find("dummy_output"));

  stream.pipeline.AddOutputs({output, stream.watch.element});
  stream.pipeline.SetEnable(true);
  stream.watch.AwaitFrames();
}

TEST_F(Live, ChangesDoNotWaitForPreroll) {
  Stream stream(MakeSource(false, " ! identity sleep-time=1000"), {}, false);
  stream.pipeline.AddOutputs({Parse("valve name=valve drop=true ! fakesink")});
  stream.pipeline.SetEnable(true);
  stream.watch.AwaitFrames(1);
  for (int i = 0; i < 25; ++i) {
    stream.AddAndEraseFilter("edgetv");
    stream.AddAndEraseFilter("identity");
  }
  stream.pipeline.AddOutputs({Make("fakesink")});
  // Each refused query adds no probe of its own.
  for (const auto& output : stream.pipeline.GetOutputs()) {
    EXPECT_LE(PadOf(*output.queue, "sink")->num_probes, 1);
  }
  stream.SetDrop(FALSE);
  stream.watch.ExpectWhole();
}

// The program sets the state through the element.
TEST_F(Live, ExchangesAndErrorsKeepTheTargetStateOfTheProgram) {
  const struct {
    bool is_enabled;
    GstState state;
  } rows[] = {{true, GST_STATE_PAUSED}, {false, GST_STATE_PLAYING}, {false, GST_STATE_PAUSED}};
  for (const auto& row : rows) {
    SCOPED_TRACE(gst_element_state_get_name(row.state));
    Stream stream(MakeSource(), {}, row.is_enabled);
    stream.SetState(row.state);
    ASSERT_EQ(stream.AwaitState(), row.state);
    stream.pipeline.SetInput(MakeSource());
    EXPECT_EQ(stream.AwaitState(), row.state);
    EXPECT_THROW(stream.pipeline.AddOutputs({Make("filesink")}), std::runtime_error);
    EXPECT_EQ(stream.AwaitState(), row.state);
    EXPECT_EQ(GST_STATE_TARGET(stream.Find("output_bin").Get()), row.state);
  }
}

// The filter drops the EOS of a drain, as if the flush had discarded it. It also drops one that
// precedes any segment, as some filters with several inputs do.
TEST_F(Live, FlushingSeekEndsADrain) {
  std::atomic<bool> drops_eos = false;
  const auto filter = Make("queue");
  AddProbe(*PadOf(*filter, "sink"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [&](GstPad& pad, auto& info) {
    const Ptr<GstEvent> segment(gst_pad_get_sticky_event(&pad, GST_EVENT_SEGMENT, 0));
    return IsEos(info) && (!segment || drops_eos.exchange(false)) ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
  });
  Stream stream(MakeSource(), {filter});
  for (int i = 0; i < 100; ++i) {
    stream.watch.AwaitFrames();
    drops_eos = true;
    auto change = std::async(std::launch::async, [&] { stream.AddAndEraseFilter("identity"); });
    Await([&] { return !drops_eos || change.wait_for(0s) == std::future_status::ready; });
    gst_element_seek_simple(GST_ELEMENT(&stream.pipeline.Get()), GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, 0);
    change.get();
  }
  EXPECT_EQ(stream.watch.eos, 0U);
}

// The other output prerolls during the ERROR, and its failed bin ignores that.
TEST_F(Live, RefusedOutputLeavesTheOthersPlaying) {
  Stream stream(Parse("videotestsrc ! identity"), {}, false);
  const auto output_bin = stream.Find("output_bin");
  AddProbe(*PadOf(*stream.watch.element, "sink"), GST_PAD_PROBE_TYPE_BUFFER, [&](auto&...) {
    Await([&] { return gst_element_get_state(output_bin.Get(), nullptr, nullptr, 0) == GST_STATE_CHANGE_FAILURE; });
    return GST_PAD_PROBE_REMOVE;
  });
  const Ptr<GstBus> bus(gst_pipeline_get_bus(&stream.pipeline.Get()));
  gst_bus_enable_sync_message_emission(bus.Get());
  const auto on_error = [](GstBaseSink* other) { Await([&] { return other->have_preroll != FALSE; }); };
  g_signal_connect_swapped(bus.Get(), "sync-message::error", G_CALLBACK(+on_error), stream.watch.element.Get());
  stream.pipeline.SetEnable(true);
  EXPECT_THROW(stream.pipeline.AddOutputs({Make("filesink")}), std::runtime_error);
  stream.watch.AwaitFrames(300);
  stream.AddAndEraseFilter("queue");
  stream.watch.AwaitFrames(300);
}

TEST_F(Live, OutputsHaveTheLatencyOfTheFilters) {
  Stream stream(MakeSource(true), {}, false);
  g_object_set(stream.watch.element.Get(), "sync", TRUE, nullptr);
  const auto latency = [&] { return gst_base_sink_get_latency(GST_BASE_SINK(stream.watch.element.Get())); };
  stream.pipeline.SetEnable(true);
  Await([&] { return latency() > 0; });
  const auto before = latency();
  const auto delay = Make("queue");
  g_object_set(delay.Get(), "min-threshold-time", 200 * GST_MSECOND, nullptr);
  stream.pipeline.AddFilters({delay});
  EXPECT_EQ(latency(), before + 200 * GST_MSECOND);

  g_object_set(delay.Get(), "min-threshold-time", 300 * GST_MSECOND, nullptr);
  gst_element_post_message(delay.Get(), gst_message_new_latency(GST_OBJECT(delay.Get())));
  Await([&] { return latency() == before + 300 * GST_MSECOND; });
}

// The time of the new input starts at zero: with the old base time all its frames would be late.
TEST_F(Live, OutputsRenderAnotherInputOnTime) {
  std::atomic<int> rendered = 0;
  Stream stream(MakeSource(true), {}, false);
  auto* const output = stream.watch.element.Get();
  g_object_set(output, "sync", TRUE, "max-lateness", 300 * GST_MSECOND, "signal-handoffs", TRUE, nullptr);
  const auto count = [](std::atomic<int>* frames) { ++*frames; };
  g_signal_connect_swapped(output, "handoff", G_CALLBACK(+count), &rendered);
  stream.pipeline.SetEnable(true);
  Await([&] { return rendered > 60; });
  EXPECT_THROW(stream.pipeline.SetInput(Make("fakesink")), std::runtime_error);
  EXPECT_THROW(stream.pipeline.AddFilters({Make("identity")}), std::runtime_error) << "without an input";

  rendered = 0;
  stream.pipeline.SetInput(Parse("videotestsrc num-buffers=20 ! capsfilter caps=video/x-raw,framerate=60/1"));
  Await([&] { return stream.watch.eos == 1; });
  EXPECT_GE(rendered, 5);
  EXPECT_TRUE(GST_OBJECT_FLAG_IS_SET(&stream.pipeline.Get(), GST_PIPELINE_FLAG_FIXED_CLOCK));
}

}  // namespace
