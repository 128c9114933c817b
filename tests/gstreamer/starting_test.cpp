#include "mox/gstreamer/pad_probe.h"
#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

#include <atomic>
#include <future>
#include <optional>
#include <stdexcept>

#include <gst/base/gstbasesink.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using mox::gstreamer::PadProbe;
using std::chrono::seconds;

using Starting = live::Test;

// An encoder, for one, needs several frames before its first comes out, while the other output waits with its own.
TEST_F(Starting, ChangesWhileAnOutputStillNeedsFrames) {
  constexpr auto kInput =
      "videotestsrc ! capsfilter caps=video/x-raw,width=16,height=16,framerate=60/1 ! identity sleep-time=10000";
  for (const bool exchanged : {false, true}) {
    std::atomic<int> arrived = 0;
    Stream stream(true);
    const auto slow = Parse("identity ! fakesink");
    AddProbe(*PadOf(*slow, "sink"), GST_PAD_PROBE_TYPE_BUFFER,
             [&](auto&...) { return ++arrived < 30 ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK; });
    stream.pipeline.SetInput(Parse(kInput));
    stream.pipeline.AddOutputs({slow});
    stream.pipeline.SetEnable(true);
    if (exchanged) {
      Await("frames", [&] { return arrived > 40; });
      arrived = 0;
      stream.pipeline.SetInput(Parse("videotestsrc ! identity sleep-time=10000"));
    }
    Await("the first frame", [&] { return arrived > 0; });
    Within(seconds(20), "a change", [&] {
      stream.pipeline.AddFilters({Make("videoflip")});
      stream.pipeline.AddOutputs({MakeSink()});
    });
    Await("frames", [&] { return arrived > 100; });
  }
}

// From an ERROR on a bin takes no notice of what becomes of what is in it, as here of the first frame of the other
// output.
TEST_F(Starting, ErrorsDoNotKeepTheOthersFromPlaying) {
  const auto refused = Make("filesink", "refused");
  g_object_set(refused.Get(), "location", "/nowhere/at/all", nullptr);
  for (const bool posted : {false, true}) {
    struct Meeting {
      GstBaseSink& sink;
      std::atomic<bool> told = false;
    };
    Stream stream;
    Meeting meeting{*GST_BASE_SINK(stream.watch.Element().Get())};
    const auto input = Parse("videotestsrc ! identity");
    if (posted) {
      AddProbe(*PadOf(*input, "src"), GST_PAD_PROBE_TYPE_BUFFER, [&](auto&...) {
        GST_ELEMENT_ERROR(input.Get(), STREAM, FAILED, ("told to"), (nullptr));
        return GST_PAD_PROBE_REMOVE;
      });
      stream.pipeline.EraseOutputs({stream.watch.Element()});
    } else {
      AddProbe(*PadOf(*stream.watch.Element(), "sink"), GST_PAD_PROBE_TYPE_BUFFER, [&](auto&...) {
        Await("an error", [&] { return meeting.told.load(); });
        return GST_PAD_PROBE_REMOVE;
      });
      const auto on_error = [](GstBus*, GstMessage*, Meeting* with) {
        with->told = true;
        Await("a preroll", [&] { return with->sink.have_preroll != FALSE; });
      };
      const Ptr<GstBus> bus(gst_element_get_bus(GST_ELEMENT(&stream.pipeline.Get())));
      gst_bus_enable_sync_message_emission(bus.Get());
      g_signal_connect(bus.Get(), "sync-message::error", G_CALLBACK(+on_error), &meeting);
    }
    stream.pipeline.SetInput(input);
    stream.pipeline.SetEnable(true);
    Within(seconds(20), "a change", [&] {
      if (posted) {
        stream.pipeline.AddOutputs({stream.watch.Element()});
      } else {
        EXPECT_THROW(stream.pipeline.AddOutputs({refused}), std::runtime_error);
      }
      stream.watch.AwaitFrames(300);
      stream.pipeline.AddFilters({Make("queue")});
    });
    stream.watch.AwaitFrames(300);
  }
}

// GStreamer stops the pads of an element one after the other, and what passes it meanwhile may fail.
TEST_F(Starting, WhatFailsAsAnExchangeStopsItIsNoFailure) {
  std::atomic<int> errors = 0;
  std::atomic<bool> met = false;
  Stream stream;
  const Watch leaving(stream.Find("output_bin"));
  const Ptr<GstBus> bus(gst_element_get_bus(GST_ELEMENT(&stream.pipeline.Get())));
  gst_bus_enable_sync_message_emission(bus.Get());
  const auto on_error = [](GstBus*, GstMessage*, std::atomic<int>* count) { ++*count; };
  g_signal_connect(bus.Get(), "sync-message::error", G_CALLBACK(+on_error), &errors);
  const auto tee = stream.Find("output_tee");
  AddProbe(*PadOf(*stream.Find("source_filter"), "src"), GST_PAD_PROBE_TYPE_BUFFER, [&](auto&, auto& info) {
    if (met.exchange(true)) {
      return GST_PAD_PROBE_OK;
    }
    Await("a stop", [&] { return GST_STATE(tee.Get()) == GST_STATE_NULL; });
    gst_buffer_unref(GST_PAD_PROBE_INFO_BUFFER(&info));
    GST_PAD_PROBE_INFO_FLOW_RETURN(&info) = GST_FLOW_ERROR;
    return GST_PAD_PROBE_HANDLED;
  });
  stream.pipeline.SetEnable(true);
  Await("a frame", [&] { return met.load(); });
  stream.pipeline.SetInput(MakeSource());
  leaving.AwaitFrames();
  leaving.ExpectWhole();
  EXPECT_EQ(errors, 0);
}

TEST_F(Starting, TheTimeStartsAnewWithEveryInput) {
  Stream stream(true);
  stream.Play();
  const auto sink = Make("fakesink");
  g_object_set(sink.Get(), "sync", TRUE, "max-lateness", 20 * GST_MSECOND, "signal-handoffs", TRUE, nullptr);
  std::atomic<int> shown = 0;
  const auto show = [](GstElement*, GstBuffer*, GstPad*, gpointer count) { ++*static_cast<std::atomic<int>*>(count); };
  g_signal_connect(sink.Get(), "handoff", G_CALLBACK(+show), &shown);
  stream.pipeline.AddOutputs({sink});
  Await("half a second of video", [&] { return shown > 30; });
  shown = 0;
  stream.pipeline.SetInput(Parse("videotestsrc num-buffers=20 ! capsfilter caps=video/x-raw,framerate=60/1"));
  Await("the end of the stream", [&] { return stream.watch.Eos() == 1; });
  Await("most of the frames", [&] { return shown >= 15; });
  const Ptr<GstClock> clock(gst_pipeline_get_pipeline_clock(&stream.pipeline.Get()));
  EXPECT_EQ(clock, Ptr<GstClock>(gst_system_clock_obtain())) << "No element's own, which may be taken away";
}

TEST_F(Starting, WhatKeptTheStartFromSucceedingIsTakenOut) {
  Stream stream(true);
  const auto failing = faulty::Make("failing");
  faulty::Of(failing.Get()).fails = GST_STATE_CHANGE_PAUSED_TO_PLAYING;
  stream.pipeline.AddFilters({failing});
  for (int i = 0; i < 10; ++i) {
    EXPECT_THROW(stream.pipeline.SetEnable(true), std::runtime_error);
  }
  Within(seconds(20), "taking out", [&] { stream.pipeline.EraseFilters({failing}); });
  EXPECT_EQ(stream.pipeline.GetState(), Pipeline::State::Stopped);
  stream.Play();
}

TEST_F(Starting, ChangesAreRefusedWithoutAnInput) {
  Stream stream;
  stream.Play();
  EXPECT_THROW(stream.pipeline.SetInput(MakeSink()), std::runtime_error);
  Within(seconds(20), "a refused change", [&] {
    EXPECT_THROW(stream.pipeline.AddFilters({Make("identity")}), std::runtime_error);
    stream.pipeline.SetInput(MakeSource());
  });
  stream.watch.AwaitFrames();
}

TEST_F(Starting, AChangeOfSizeComesAheadOfAllThatWaitsInTheInput) {
  Stream stream;
  const auto input = Parse("videotestsrc ! capsfilter caps=video/x-raw,framerate=60/1 ! queue name=waiting");
  const Ptr<GstElement> queue(gst_bin_get_by_name(GST_BIN(input.Get()), "waiting"));
  const Ptr<GstPad> pad(gst_element_get_static_pad(queue.Get(), "src"));
  stream.pipeline.SetInput(input);
  std::optional<PadProbe> held(std::in_place, *pad, GST_PAD_PROBE_TYPE_BLOCK_DOWNSTREAM,
                               [](GstPad&, GstPadProbeInfo&) { return GST_PAD_PROBE_OK; });
  stream.pipeline.SetEnable(true);
  const Ptr<GstPad> filled(gst_element_get_static_pad(queue.Get(), "sink"));
  Await("a size in the queue", [&] { return gst_pad_has_current_caps(filled.Get()) != FALSE; });
  const Ptr<GstElement> input_bin(gst_bin_get_by_name(GST_BIN(&stream.pipeline.Get()), "input_bin"));
  const Ptr<GstPad> entrance(gst_element_get_static_pad(input_bin.Get(), "src"));
  Within(seconds(20), "a change", [&] {
    auto change = std::async(std::launch::async, [&] {
      stream.pipeline.AddFilters({Parse("capsfilter caps=video/x-raw,width=32,height=16")});
    });
    Await("the change", [&] { return gst_pad_is_blocked(entrance.Get()) != FALSE; });
    held.reset();
    change.get();
  });
  stream.watch.AwaitFrames(10);
}

// As some do that put several streams together.
TEST_F(Starting, FiltersMayKeepAnEosThatComesBeforeAnySegment) {
  Stream stream;
  const auto filter = Make("identity", "filter");
  AddProbe(*PadOf(*filter, "sink"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [](GstPad& pad, GstPadProbeInfo& info) {
    const bool is_eos = EventType(info) == GST_EVENT_EOS;
    const Ptr<GstEvent> segment(gst_pad_get_sticky_event(&pad, GST_EVENT_SEGMENT, 0));
    return is_eos && !segment ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
  });
  stream.pipeline.AddFilters({filter});
  stream.pipeline.SetEnable(true);
  Within(seconds(20), "a change", [&] {
    for (int i = 0; i < 100; ++i) {
      const auto other = Make("identity");
      stream.pipeline.AddFilters({other});
      stream.pipeline.EraseFilters({other});
    }
  });
  stream.watch.AwaitFrames();
  stream.watch.ExpectWhole();
}

TEST_F(Starting, OutputsLearnTheLatencyOfAFilter) {
  Stream stream(true);
  g_object_set(stream.watch.Element().Get(), "sync", TRUE, nullptr);
  stream.Play();
  const auto delay = Make("queue", "delay");
  g_object_set(delay.Get(), "min-threshold-time", 200 * GST_MSECOND, nullptr);
  auto* const sink = GST_BASE_SINK(stream.watch.Element().Get());
  const auto before = gst_base_sink_get_latency(sink);
  stream.pipeline.AddFilters({delay});
  EXPECT_GE(gst_base_sink_get_latency(sink), before + 200 * GST_MSECOND);
  stream.pipeline.EraseFilters({delay});
  EXPECT_EQ(gst_base_sink_get_latency(sink), before);
}

}  // namespace
