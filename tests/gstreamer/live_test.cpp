#include "tests/gstreamer/live.h"

#include "tests/gstreamer/faulty.h"

#include <gmock/gmock.h>
#include <gst/base/gstbasesink.h>

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using Live = live::Test;

guint32 NumberOf(GstPadProbeInfo& info) {
  return static_cast<guint32>(GST_BUFFER_OFFSET(GST_PAD_PROBE_INFO_BUFFER(&info))) + 1;
}

void AddAndEraseFilter(Pipeline& pipeline, const char* factory) {
  const auto filter = Make(factory);
  pipeline.AddFilters({filter});
  pipeline.EraseFilters({filter});
}

// Ahead of each frame goes an event with its number. No change may let it fail or pass by an output that is just
// coming, beside another that stays, or alone.
TEST_F(Live, ThousandsOfChangesBackToBackInTheMiddleOfEvents) {
  for (const bool alone : {false, true}) {
    std::atomic<std::size_t> untold = 0;
    Stream stream(MakeSource(), alone ? Elements() : Elements{Make("queue")}, false);
    AddProbe(*PadOf(*stream.Find(alone ? "output_bin" : "filter_bin"), "sink"), GST_PAD_PROBE_TYPE_BUFFER,
             [&](GstPad& pad, auto& info) {
               GstEvent* const event = gst_event_new_tag(gst_tag_list_new_empty());
               gst_event_set_seqnum(event, NumberOf(info));
               untold += gst_pad_send_event(&pad, event) != FALSE ? 0 : 1;
               return GST_PAD_PROBE_OK;
             });
    stream.pipeline.EraseOutputs(alone ? Elements{stream.watch.element} : Elements());
    stream.pipeline.SetEnable(true);
    for (int i = 0; i < (alone ? 4000 : 1000); ++i) {
      const Watch output(Make("fakesink"));
      AddProbe(*PadOf(*output.element, "sink"), GST_PAD_PROBE_TYPE_BUFFER, [&](GstPad& pad, auto& info) {
        const Ptr<GstEvent> event(gst_pad_get_sticky_event(&pad, GST_EVENT_TAG, 0));
        untold += event && gst_event_get_seqnum(event.Get()) == NumberOf(info) ? 0 : 1;
        return GST_PAD_PROBE_OK;
      });
      stream.pipeline.AddOutputs({output.element});
      if (alone) {
        output.AwaitFrames(1);
      } else {
        AddAndEraseFilter(stream.pipeline, i % 2 == 0 ? "identity" : "queue");
      }
      stream.pipeline.EraseOutputs({output.element});
      EXPECT_EQ(output.lost + output.misplaced + output.eos, 0U);
    }
    EXPECT_EQ(untold + stream.watch.lost + stream.watch.misplaced + stream.watch.eos, 0U);
  }
}

TEST_F(Live, OutputsAgreeOnAFormatWithEachOtherAndTheFiltersOrAreRefused) {
  const auto format = [](const char* formats) {
    return Parse(std::string("capsfilter caps=\"video/x-raw,format={") + formats + "}\" ! fakesink");
  };
  const Watch other(format("Y42B"));
  const auto filter = faulty::Make("refusing");
  faulty::Of(filter.Get()).once = true;
  Stream stream(MakeSource(true, ",format=I420"),
                {filter, Parse("capsfilter caps=\"video/x-raw,format={I420,RGB,Y42B}\"")});
  // For another format the filters are stopped and started.
  faulty::Of(filter.Get()).fails = GST_STATE_CHANGE_READY_TO_PAUSED;
  EXPECT_THROW(stream.pipeline.AddOutputs({format("RGB")}), std::runtime_error);
  stream.pipeline.AddOutputs({format("RGB,Y42B,NV12")});
  for (const auto& refused : {format("I420,NV12"), format("GRAY8"), Parse("audioconvert ! fakesink")}) {
    EXPECT_THAT(
        ErrorOf([&] { stream.pipeline.AddOutputs({refused}); }),
        testing::StartsWith("Element Error: Failed to link element 'output_tee [output_tee]' with element 'queue"));
  }
  stream.pipeline.AddOutputs({other.element});
  other.AwaitFrames();
  EXPECT_EQ(stream.Find("output_tee")->numsrcpads, 3);
  stream.watch.ExpectWhole(2);
}

// One that gets no frame, one that waits for the clock, and one that sleeps: an allocation that is asked for overtakes
// what its queue holds, a second of video, which it takes 20 to get through.
TEST_F(Live, ChangesDoNotWaitForSlowOutputs) {
  std::atomic<bool> is_full = false;
  Stream stream(MakeSource(true));
  const Elements stuck{Parse("valve drop=true ! fakesink"),
                       Parse("identity ! fakesink sync=true ts-offset=3600000000000")};
  stream.pipeline.AddOutputs(stuck);
  const auto tell = [](std::atomic<bool>* full) { *full = true; };
  g_signal_connect_swapped(stream.pipeline.GetOutputs().at(2).queue.Get(), "overrun", G_CALLBACK(+tell), &is_full);
  Await([&] { return is_full.load(); });
  stream.pipeline.EraseOutputs({stuck[0], stuck[1], stream.watch.element});
  // The first to be asked.
  stream.pipeline.AddOutputs({Parse("identity sleep-time=300000 ! fakesink"), stream.watch.element});
  stream.watch.AwaitFrames(70);
  SetDeadline(15);
  AddAndEraseFilter(stream.pipeline, "identity");
  stream.watch.AwaitFrames();
}

TEST_F(Live, FiltersOfOtherCapsLoseNoFrame) {
  for (const bool paced : {false, true}) {
    Stream stream(MakeSource(paced, ",format=I420"));
    for (int i = 0; i < (paced ? 5 : 100); ++i) {
      for (const char* factory : {"edgetv", "videoflip", "videoscale"}) {
        AddAndEraseFilter(stream.pipeline, factory);
      }
      const auto converts = Parse("videoconvert ! capsfilter caps=video/x-raw,format=NV12 ! videoconvert");
      stream.pipeline.AddFilters({converts});
      stream.pipeline.EraseFilters({converts});
    }
    stream.watch.ExpectWhole();
  }
}

// A source renegotiates and drops the one frame that waits with its old size. What a queue or a decoder has sent keeps
// its size.
TEST_F(Live, AnotherSizeIsScaledOrFollowedByTheSourceOrRefused) {
  constexpr auto kSize = "capsfilter caps=video/x-raw,width=32,height=8";
  constexpr auto kSource = "videotestsrc ! capsfilter caps=video/x-raw,framerate=60/1";
  struct Row {
    std::string input;
    bool is_scaled;
    bool is_refused;
    std::size_t lost;
  };
  const Row rows[] = {
      {kSource, false, false, 2},
      {kSource, true, false, 0},
      {std::string(kSource) + " ! queue", false, true, 0},
      {std::string(kSource) + " ! queue", true, false, 0},
      {std::string(kSource) + ",width=16,height=16", false, true, 0},
      {std::string(kSource) + ",width=16,height=16 ! pngenc ! queue ! pngdec", false, true, 0},
      {std::string(kSource) + ",width=16,height=16 ! pngenc ! queue ! pngdec", true, false, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.input + (row.is_scaled ? ", scaled" : ""));
    Stream stream(Parse(row.input), {Make("queue")});
    const auto filter = Parse(std::string(row.is_scaled ? "videoscale ! " : "") + kSize);
    const auto output = Parse(std::string(row.is_scaled ? "videoscale ! " : "") + kSize + " ! fakesink");
    const auto expected = testing::StartsWith(row.is_refused ? "Element Error: Failed to link element '" : "no error");
    EXPECT_THAT(ErrorOf([&] { stream.pipeline.AddFilters({filter}); }), expected);
    stream.watch.AwaitFrames(10);
    if (!row.is_refused) {
      stream.pipeline.EraseFilters({filter});
    }
    EXPECT_THAT(ErrorOf([&] { stream.pipeline.AddOutputs({output}); }), expected);
    stream.watch.AwaitFrames(10);
    EXPECT_EQ(stream.pipeline.GetFilters().size(), 1U);
    if (row.input.find("png") == std::string::npos) {  // a decoder does not number its frames
      stream.watch.ExpectWhole(row.lost + row.lost / 2);
    }
  }
}

// Whether a queue that has its second of frames keeps the thread that pushes into it.
bool HasWaitingPush(GstElement& queue) {
  guint64 frames = 0;
  guint64 most = 0;
  g_object_get(&queue, "current-level-time", &frames, "max-size-time", &most, nullptr);
  const auto sink = PadOf(queue, "sink");
  if (GST_PAD_STREAM_TRYLOCK(sink.Get())) {
    GST_PAD_STREAM_UNLOCK(sink.Get());
    return false;
  }
  return frames >= most;
}

TEST_F(Live, AStopEndsAChangeThatWaits) {
  struct Row {
    const char* waits_for;
    const char* input_end;
    const char* filter;
    bool has_stuck_output;
  };
  constexpr Row kRows[] = {
      {"a frame of a silent source", " ! valve name=valve", "identity", false},
      {"the EOS that a closed filter drops", "", "identity ! valve name=valve", false},
      {"a frame after one that an output does not take", "", "identity", true},
      {"the EOS in a queue after such a frame", "", "queue max-size-buffers=1", true},
  };
  for (const auto& row : kRows) {
    for (const bool adds_output : {false, true}) {
      SCOPED_TRACE(std::string(row.waits_for) + (adds_output ? ", an output" : ", a filter"));
      std::atomic<bool> is_taken = false;
      Stream stream(MakeSource(false, std::string(",format=I420") + row.input_end), {Parse(row.filter)});
      const auto stuck = Make("fakesink");
      const auto valve = stream.Find("valve");
      if (row.has_stuck_output) {
        AddProbe(*PadOf(*stuck, "sink"), GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_BUFFER, [&](auto&...) {
          is_taken = true;
          return GST_PAD_PROBE_OK;
        });
        stream.pipeline.AddOutputs({stuck});
        // A push that has just filled the queue is over by the next look.
        int looks = 0;
        Await([&, queue = stream.pipeline.GetOutputs().at(1).queue] {
          looks = is_taken && HasWaitingPush(*queue) ? looks + 1 : 0;
          return looks > 20;
        });
      } else {
        g_object_set(valve.Get(), "drop", TRUE, nullptr);
      }
      const std::size_t outputs = stream.pipeline.GetOutputs().size();

      auto change = std::async(std::launch::async, [&] {
        return ErrorOf([&] {
          if (adds_output) {
            stream.pipeline.AddOutputs({Parse("capsfilter caps=video/x-raw,format=RGB ! fakesink")});
          } else {
            stream.pipeline.AddFilters({Make("identity")});
          }
        });
      });
      ASSERT_EQ(change.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout) << change.get();
      stream.pipeline.SetEnable(false);

      EXPECT_EQ(change.get(), std::string("Cannot change the ") + (adds_output ? "outputs" : "filters") +
                                  " because the pipeline is being stopped");
      EXPECT_EQ(stream.pipeline.GetFilters().size(), 1U);
      EXPECT_EQ(stream.pipeline.GetOutputs().size(), outputs);
      EXPECT_EQ(stream.watch.eos, 0U);
      if (row.has_stuck_output) {
        stream.pipeline.EraseOutputs({stuck});
      } else {
        g_object_set(valve.Get(), "drop", FALSE, nullptr);
      }
      stream.pipeline.SetEnable(true);
      stream.watch.AwaitFrames();
    }
  }
}

// As an encoder that pushes what it has kept.
TEST_F(Live, AStopEndsTheEosOfAFilterThatPushesMore) {
  std::atomic<bool> is_pushing = false;
  const auto filter = Make("identity");
  const auto stuck = Make("fakesink");
  Stream stream(MakeSource(true), {filter});
  AddProbe(*PadOf(*stuck, "sink"), GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_BUFFER,
           [](auto&...) { return GST_PAD_PROBE_OK; });
  stream.pipeline.AddOutputs({stuck});
  AddProbe(*PadOf(*filter, "sink"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [&](GstPad&, auto& info) {
    is_pushing = GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(&info)) == GST_EVENT_EOS;
    while (is_pushing) {
      is_pushing = gst_pad_push(PadOf(*filter, "src").Get(), gst_buffer_new()) == GST_FLOW_OK;
    }
    return GST_PAD_PROBE_OK;
  });
  auto change =
      std::async(std::launch::async, [&] { return ErrorOf([&] { stream.pipeline.AddFilters({Make("identity")}); }); });
  Await([&] { return is_pushing.load(); });
  SetDeadline(15);
  stream.pipeline.SetEnable(false);
  EXPECT_EQ(change.get(), "Cannot change the filters because the pipeline is being stopped");
}

TEST_F(Live, AStopLeavesThePlaceholderOfAnOutputThatWasToBeTheFirst) {
  Stream stream(MakeSource(false, ",format=I420 ! valve name=valve"), {}, false);
  const auto second = Parse("capsfilter caps=video/x-raw,format=RGB ! fakesink");
  stream.pipeline.EraseOutputs({stream.watch.element});
  stream.pipeline.SetEnable(true);
  const auto pad = PadOf(*stream.Find("dummy_output"), "sink");
  Await([&] { return gst_pad_has_current_caps(pad.Get()) != FALSE; });
  g_object_set(stream.Find("valve").Get(), "drop", TRUE, nullptr);
  auto change = std::async(std::launch::async, [&] { return ErrorOf([&] { stream.pipeline.AddOutputs({second}); }); });
  ASSERT_EQ(change.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  stream.pipeline.SetEnable(false);
  EXPECT_EQ(change.get(), "Cannot change the outputs because the pipeline is being stopped");
  EXPECT_TRUE(stream.Find("dummy_output"));
  g_object_set(stream.Find("valve").Get(), "drop", FALSE, nullptr);
  stream.pipeline.AddOutputs({second, stream.watch.element});
  stream.pipeline.SetEnable(true);
  stream.watch.AwaitFrames();
}

int CountProbes(Stream& stream) {
  int probes = 0;
  for (const char* bin : {"input_bin", "filter_bin", "output_bin"}) {
    for (const auto& pad : {PadOf(*stream.Find(bin), "src"), PadOf(*stream.Find(bin), "sink")}) {
      probes += pad ? pad->num_probes : 0;
    }
  }
  for (const auto& [queue, element] : stream.pipeline.GetOutputs()) {
    probes += PadOf(*queue, "sink")->num_probes;
  }
  return probes;
}

TEST_F(Live, ProbesDoNotPileUpWhileNoFrameFlows) {
  Stream stream(MakeSource());
  AddProbe(*PadOf(*stream.Find("color_converter"), "sink"), GST_PAD_PROBE_TYPE_BUFFER, [](GstPad& pad, auto& info) {
    const GstBuffer& frame = *GST_PAD_PROBE_INFO_BUFFER(&info);
    gst_pad_send_event(&pad, gst_event_new_gap(frame.pts, frame.duration));
    return GST_PAD_PROBE_DROP;
  });
  const int before = CountProbes(stream);
  for (int i = 0; i < 200; ++i) {
    AddAndEraseFilter(stream.pipeline, i % 2 == 0 ? "edgetv" : "identity");
  }
  EXPECT_EQ(CountProbes(stream), before);
}

TEST_F(Live, ProbesDoNotPileUpWhileAnOutputWaitsForItsPreroll) {
  Stream stream(MakeSource(false, " ! identity sleep-time=1000"), {}, false);
  stream.pipeline.AddOutputs({Parse("valve drop=true ! fakesink")});
  stream.pipeline.SetEnable(true);
  stream.watch.AwaitFrames(1);
  for (int i = 0; i < 50; ++i) {
    AddAndEraseFilter(stream.pipeline, i % 2 == 0 ? "edgetv" : "identity");
  }
  EXPECT_LE(CountProbes(stream), 2) << "more than one at each output's queue";
}

GstState SettledState(Pipeline& pipeline) {
  GstState state = GST_STATE_VOID_PENDING;
  gst_element_get_state(GST_ELEMENT(&pipeline.Get()), &state, nullptr, GST_CLOCK_TIME_NONE);
  return state;
}

// The program sets the state through the element; an exchange and what follows an ERROR keep to it.
TEST_F(Live, ExchangesAndErrorsLeaveTheTargetStateOfTheProgram) {
  struct Row {
    const char* name;
    bool is_enabled;
    GstState state;
  };
  constexpr Row kRows[] = {{"paused", true, GST_STATE_PAUSED},
                           {"started by the program", false, GST_STATE_PLAYING},
                           {"paused by the program", false, GST_STATE_PAUSED},
                           {"stopped", false, GST_STATE_NULL}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    Stream stream(MakeSource(), {}, row.is_enabled);
    gst_element_set_state(GST_ELEMENT(&stream.pipeline.Get()), row.state);
    ASSERT_EQ(SettledState(stream.pipeline), row.state);
    stream.pipeline.SetInput(MakeSource());
    EXPECT_EQ(SettledState(stream.pipeline), row.state);
    const auto refused = Parse("identity ! filesink location=/nowhere/at/all");
    EXPECT_EQ(ErrorOf([&] { stream.pipeline.AddOutputs({refused}); }) == "no error", row.state == GST_STATE_NULL);
    EXPECT_EQ(SettledState(stream.pipeline), row.state);
    EXPECT_EQ(GST_STATE_TARGET(stream.Find("output_bin").Get()), row.state);
  }
}

// A flush takes away the EOS that drains the filters. Here a filter swallows it, and the flush comes after it. It also
// keeps one that comes before any segment, as some do that put several streams together.
TEST_F(Live, AFilterChangeOutlastsAFlushingSeek) {
  std::atomic<bool> next = false;
  const auto filter = Make("queue");
  AddProbe(*PadOf(*filter, "sink"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [&](GstPad& pad, GstPadProbeInfo& info) {
    const bool is_eos = GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(&info)) == GST_EVENT_EOS;
    const Ptr<GstEvent> segment(gst_pad_get_sticky_event(&pad, GST_EVENT_SEGMENT, 0));
    return is_eos && (!segment || next.exchange(false)) ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
  });
  Stream stream(MakeSource(), {filter});
  for (int i = 0; i < 100; ++i) {
    stream.watch.AwaitFrames();
    next = true;
    auto change = std::async(std::launch::async, [&] { AddAndEraseFilter(stream.pipeline, "identity"); });
    Await([&] { return !next || change.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
    gst_element_seek_simple(GST_ELEMENT(&stream.pipeline.Get()), GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, 0);
    change.get();
  }
  EXPECT_EQ(stream.watch.eos, 0U);
}

// An encoder, for one, needs several frames before its first comes out, while the other output waits with its own.
TEST_F(Live, ChangesWhileAnOutputStillNeedsFrames) {
  std::atomic<int> arrived = 0;
  const auto slow = Parse("identity ! fakesink");
  AddProbe(*PadOf(*slow, "sink"), GST_PAD_PROBE_TYPE_BUFFER,
           [&](auto&...) { return ++arrived < 30 ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK; });
  Stream stream(MakeSource(false, " ! identity sleep-time=10000"), {}, false);
  stream.pipeline.AddOutputs({slow});
  stream.pipeline.SetEnable(true);
  for (int i = 0; i < 2; ++i) {
    Await([&] { return arrived > 0; });
    stream.pipeline.AddFilters({Make("videoflip")});
    stream.pipeline.AddOutputs({Make("fakesink")});
    Await([&] { return arrived > 100; });
    arrived = 0;
    stream.pipeline.SetInput(Parse("videotestsrc ! identity sleep-time=10000"));
  }
}

// From an ERROR on a bin takes no notice of what becomes of what is in it, as here of the first frame of the other
// output.
TEST_F(Live, AnOutputThatIsRefusedDoesNotKeepTheOthersFromPlaying) {
  std::pair<std::atomic<bool>, GstBaseSink*> told(false, nullptr);
  Stream stream(Parse("videotestsrc ! identity"), {}, false);
  const auto watched = stream.watch.element;
  AddProbe(*PadOf(*watched, "sink"), GST_PAD_PROBE_TYPE_BUFFER, [&](auto&...) {
    Await([&] { return told.first.load(); });
    return GST_PAD_PROBE_REMOVE;
  });
  const Ptr<GstBus> bus(gst_pipeline_get_bus(&stream.pipeline.Get()));
  gst_bus_enable_sync_message_emission(bus.Get());
  told.second = GST_BASE_SINK(watched.Get());
  const auto on_error = [](decltype(told)* now) {
    now->first = true;
    Await([&] { return now->second->have_preroll != FALSE; });
  };
  g_signal_connect_swapped(bus.Get(), "sync-message::error", G_CALLBACK(+on_error), &told);
  stream.pipeline.SetEnable(true);
  EXPECT_THROW(stream.pipeline.AddOutputs({Parse("identity ! filesink location=/nowhere/at/all")}), std::runtime_error);
  stream.watch.AwaitFrames(300);
  AddAndEraseFilter(stream.pipeline, "queue");
  stream.watch.AwaitFrames(300);
}

TEST_F(Live, OutputsFollowTheTimeOfTheInputAndTheLatencyOfTheFilters) {
  std::atomic<int> shown = 0;
  Stream stream(MakeSource(true));
  const auto sink = Make("fakesink");
  g_object_set(sink.Get(), "sync", TRUE, "max-lateness", 20 * GST_MSECOND, "signal-handoffs", TRUE, nullptr);
  const auto show = [](std::atomic<int>* frames) { ++*frames; };
  g_signal_connect_swapped(sink.Get(), "handoff", G_CALLBACK(+show), &shown);
  stream.pipeline.AddOutputs({sink});
  const auto delay = Make("queue", "delay");
  g_object_set(delay.Get(), "min-threshold-time", 200 * GST_MSECOND, nullptr);
  const auto before = gst_base_sink_get_latency(GST_BASE_SINK(sink.Get()));
  stream.pipeline.AddFilters({delay});
  EXPECT_GE(gst_base_sink_get_latency(GST_BASE_SINK(sink.Get())), before + 200 * GST_MSECOND);
  stream.pipeline.EraseFilters({delay});
  EXPECT_EQ(gst_base_sink_get_latency(GST_BASE_SINK(sink.Get())), before);

  const auto converter = stream.Find("color_converter");
  AddProbe(*PadOf(*converter, "src"), GST_PAD_PROBE_TYPE_QUERY_UPSTREAM | GST_PAD_PROBE_TYPE_PULL,
           [](GstPad&, auto& info) {
             GstQuery* const query = GST_PAD_PROBE_INFO_QUERY(&info);
             gboolean is_live = FALSE;
             GstClockTime least = 0;
             GstClockTime most = 0;
             if (GST_QUERY_TYPE(query) == GST_QUERY_LATENCY) {
               gst_query_parse_latency(query, &is_live, &least, &most);
               gst_query_set_latency(query, is_live, least + 300 * GST_MSECOND, most);
             }
             return GST_PAD_PROBE_OK;
           });
  gst_element_post_message(converter.Get(), gst_message_new_latency(GST_OBJECT(converter.Get())));
  Await([&] { return gst_base_sink_get_latency(GST_BASE_SINK(sink.Get())) == before + 300 * GST_MSECOND; });

  Await([&] { return shown > 30; });
  EXPECT_THROW(stream.pipeline.SetInput(Make("fakesink")), std::runtime_error);
  EXPECT_THROW(stream.pipeline.AddFilters({Make("identity")}), std::runtime_error) << "there is no input";
  shown = 0;
  stream.pipeline.SetInput(Parse("videotestsrc num-buffers=20 ! capsfilter caps=video/x-raw,framerate=60/1"));
  Await([&] { return stream.watch.eos == 1 && shown >= 5; });
  EXPECT_TRUE(GST_OBJECT_FLAG_IS_SET(&stream.pipeline.Get(), GST_PIPELINE_FLAG_FIXED_CLOCK)) << "No element's own";
}

}  // namespace
