#include "tests/gstreamer/live.h"

#include "mox/gstreamer/session.h"
#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/faulty.h"
#include "tests/logging/capture.h"

#include <cstdio>
#include <exception>
#include <memory>
#include <stdexcept>
#include <tuple>

#include <gmock/gmock.h>
#include <gst/base/gstbasesink.h>

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using elements::ErrorOf;
using elements::References;
using std::chrono::seconds;

using Live = live::Test;

// Messages on the bus, which tell of state changes, refer to their element until the reader has discarded them.
void AwaitLastReference(const Ptr<GstElement>& element) {
  Await("the last reference", [&] { return References(element) == 1; });
}

guint64 NumberOf(GstPadProbeInfo& info) {
  return GST_BUFFER_OFFSET(GST_PAD_PROBE_INFO_BUFFER(&info));
}

void SendTag(GstPad& pad, guint64 number) {
  GstEvent* const event = gst_event_new_tag(gst_tag_list_new_empty());
  gst_event_set_seqnum(event, static_cast<guint32>(number));
  gst_pad_send_event(&pad, event);
}

// Puts each filter in and takes it out again, one change right after the other.
void ChangeFilters(Pipeline& pipeline, const std::vector<const char*>& factories, std::size_t changes) {
  for (std::size_t i = 0; i < changes / 2; ++i) {
    const auto filter = Make(factories[i % factories.size()]);
    pipeline.AddFilters({filter});
    pipeline.EraseFilters({filter});
  }
}

TEST_F(Live, ThousandFilterChangesBackToBackLoseNothing) {
  for (const auto& [paced, standing, callers] : {std::tuple(false, "identity", 1U), std::tuple(true, "queue", 4U)}) {
    const auto stays = Make(standing, "standing");
    Stream stream(MakeSource(paced), {stays});
    Within(seconds(120), [&, count = callers] {
      std::vector<std::future<void>> calls(count);
      for (auto& call : calls) {
        call = std::async(std::launch::async, ChangeFilters, std::ref(stream.pipeline),
                          std::vector{"identity", "queue"}, 1000 / count);
      }
      for (auto& call : calls) {
        call.get();
      }
    });
    stream.watch.ExpectWhole();
    EXPECT_EQ(stream.Graph(), "[standing]");
    EXPECT_EQ(GST_STATE(stays.Get()), GST_STATE_PLAYING);
    stream.EraseFilters({stays});
    AwaitLastReference(stays);
  }
}

// A filter that lets tags out ahead of the EOS: on the thread that brings the EOS, or on one of its own.
TEST_F(Live, EventsAheadOfTheDrainPass) {
  for (const char* factory : {"identity", "queue"}) {
    std::vector<guint32> heard;
    const auto talker = Make(factory);
    AddProbe(*PadOf(*talker, "sink"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [](GstPad& pad, GstPadProbeInfo& info) {
      for (guint64 i = 1; i <= 3 && EventType(info) == GST_EVENT_EOS; ++i) {
        SendTag(pad, i);
      }
      return GST_PAD_PROBE_OK;
    });
    Stream stream(MakeSource(), {talker});
    AddProbe(*PadOf(*stream.Find("filter_bin"), "src"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
             [&](GstPad&, GstPadProbeInfo& info) {
               if (EventType(info) == GST_EVENT_TAG) {
                 heard.push_back(gst_event_get_seqnum(GST_PAD_PROBE_INFO_EVENT(&info)));
               }
               return GST_PAD_PROBE_OK;
             });
    stream.AddFilters({Make("identity")});
    stream.watch.ExpectWhole();
    EXPECT_THAT(heard, testing::ElementsAre(1, 2, 3));
  }
}

TEST_F(Live, FailedChangesLeaveTheStreamFlowing) {
  const auto kept = Make("queue", "kept");
  const auto gone = Make("identity", "gone");
  const auto audio = Make("audioconvert", "audio");
  const auto refusing = faulty::Make("refusing");
  faulty::Of(refusing.Get()).fails = GST_STATE_CHANGE_READY_TO_PAUSED;
  Stream stream(MakeSource(), {kept, gone});
  const std::string missing = "Cannot remove a filter that has not been added to the filters list";
  const std::string unlinked =
      "Element Error: Failed to link element 'sink_filter [sink_filter]' with element 'kept [kept]'";
  const std::pair<Elements, std::string> additions[] = {
      {{kept}, "Bin Error: Failed to add element 'kept [kept]' to bin 'filter_bin [filter_bin]'"},
      {{gone, audio}, unlinked},
      {{gone, Parse("capsfilter caps=video/x-raw,width=32", "wide")}, unlinked},
      {{gone, refusing},
       "Element Error: Failed to sync the state of the element 'filter_bin [filter_bin]' with its parent"},
      {{gone, {}}, "Cannot add a filter that is null"},
  };
  EXPECT_EQ(ErrorOf([&] { stream.EraseFilters({audio}); }), missing);
  EXPECT_EQ(stream.Graph(), "[kept -> gone]");
  EXPECT_EQ(ErrorOf([&] { stream.EraseFilters({gone, audio}); }), missing);
  for (int i = 0; i < 5; ++i) {
    for (const auto& [filters, text] : additions) {
      EXPECT_EQ(ErrorOf<std::exception>([&, &added = filters] { stream.AddFilters(added); }), text);
      EXPECT_EQ(stream.Graph(), "[kept]") << "what was listed before the missing one is gone";
    }
  }
  EXPECT_EQ(GST_BIN(stream.Find("filter_bin").Get())->numchildren, 3);
  stream.watch.AwaitFrames(100);
  stream.watch.ExpectWhole();
  EXPECT_EQ(CountProbes(stream.Bin()), 1) << "only the one of the watch";

  EXPECT_THROW(stream.SetInput(MakeSink()), std::runtime_error);
  EXPECT_THROW(stream.AddFilters({Make("identity")}), std::runtime_error) << "there is no input";
  stream.SetInput(MakeSource());
  stream.watch.AwaitFrames();
}

// Waits until a frame waits for its turn in the queue of an output.
void AwaitFullQueue(const mox::gstreamer::pipeline::Output& output) {
  const auto full = std::make_shared<std::atomic<bool>>(false);
  Connect(output.queue.Get(), "overrun", [full] { *full = true; });
  Await("a full queue", [&] { return full->load(); });
}

constexpr auto kSleeping = "identity sleep-time=300000 ! fakesink";

TEST_F(Live, SlowAndUnprerolledOutputsGoWithoutStallingTheOthers) {
  Stream stream(MakeSource(true));
  // One that sleeps and one that waits for the clock, which only its own stop ends.
  constexpr auto kWaiting = "identity ! fakesink sync=true ts-offset=60000000000";
  for (const char* description : {kSleeping, kWaiting, kSleeping, kWaiting}) {
    const auto slow = Parse(description);
    stream.AddOutputs({slow});
    const auto output = stream.pipeline.GetOutputs().at(1);
    g_object_set(output.queue.Get(), "max-size-buffers", 2, nullptr);
    AwaitFullQueue(output);
    Within(seconds(5), [&] { stream.EraseOutputs({slow}); });
    const auto unprerolled = Parse("valve drop=true ! fakesink");
    stream.AddOutputs({unprerolled});
    stream.watch.AwaitFrames();
    Within(seconds(5), [&] { stream.EraseOutputs({unprerolled}); });
    stream.watch.AwaitFrames();
  }
  stream.watch.ExpectWhole();
}

TEST_F(Live, ChangesDoNotWaitForTheQueueOfASlowOutput) {
  Stream stream(MakeSource(true), {}, Stream::kStopped);
  stream.EraseOutputs({stream.watch.Element()});
  stream.AddOutputs({Parse(kSleeping), stream.watch.Element()});
  stream.Play();
  AwaitFullQueue(stream.pipeline.GetOutputs().front());
  Within(seconds(10), [&] {
    ChangeFilters(stream.pipeline, {"identity"}, 4);
    stream.AddOutputs({MakeSink()});
    stream.watch.AwaitFrames();
  });
  stream.watch.ExpectWhole();
}

// An event must neither pass by a tee pad that comes in the middle of it nor fail at one that goes.
TEST_F(Live, ThousandOutputsComeAndGoInTheMiddleOfEvents) {
  for (const bool beside : {true, false}) {
    std::atomic<int> arrived = 0;
    std::atomic<int> untold = 0;
    Stream stream;
    const Elements watched{stream.watch.Element()};
    // Ahead of each frame goes an event with its number.
    AddProbe(*PadOf(*stream.Find("output_bin"), "sink"), GST_PAD_PROBE_TYPE_BUFFER,
             [](GstPad& pad, GstPadProbeInfo& info) { return SendTag(pad, NumberOf(info) + 1), GST_PAD_PROBE_OK; });
    const auto check = [&](GstPad& pad, GstPadProbeInfo& info) {
      const Ptr<GstEvent> event(gst_pad_get_sticky_event(&pad, GST_EVENT_TAG, 0));
      untold += event && gst_event_get_seqnum(event.Get()) == NumberOf(info) + 1 ? 0 : 1;
      ++arrived;
      return GST_PAD_PROBE_OK;
    };
    stream.EraseOutputs(beside ? Elements() : watched);
    Within(seconds(240), [&] {
      for (int i = 0; i < (beside ? 1000 : 3000); ++i) {
        const auto output = MakeSink();
        AddProbe(*PadOf(*output, "sink"), GST_PAD_PROBE_TYPE_BUFFER, check);
        const int before = arrived;
        stream.pipeline.AddOutputs({output});
        while (i % 2 == 0 && arrived == before) {
          std::this_thread::yield();
        }
        stream.pipeline.EraseOutputs({output});
      }
    });
    stream.AddOutputs(beside ? Elements() : watched);
    stream.watch.AwaitFrames();
    EXPECT_EQ(untold, 0);
    EXPECT_EQ(stream.watch.Misplaced() + stream.watch.Eos() + (beside ? stream.watch.Lost() : 0), 0U);
    EXPECT_EQ(stream.Find("output_tee")->numsrcpads, 1);
  }
}

TEST_F(Live, ExchangesOfTheInputNeverEndTheStream) {
  for (const bool with_output : {true, false}) {
    Stream stream(MakeSource(), {}, Stream::kStopped);
    const Watch leaving(stream.Find("output_bin"));
    stream.EraseOutputs(with_output ? Elements() : Elements{stream.watch.Element()});
    stream.SetEnable(true);
    for (int i = 0; i < (with_output ? 100 : 1000); ++i) {
      leaving.AwaitFrames();
      stream.SetInput(MakeSource());
    }
    leaving.ExpectWhole();
  }
}

TEST_F(Live, OutputsAgreeOnAFormatOrAreRefused) {
  // Some frames of the format of before are on their way when a new one is agreed upon.
  Stream stream(MakeSource(), {Parse("queue max-size-buffers=5 ! identity sleep-time=10000")});
  stream.watch.AwaitFrames(20);
  const Watch rgb(Parse("capsfilter caps=video/x-raw,format=RGB ! fakesink"));
  const Watch converting(Parse("videoconvert ! capsfilter caps=video/x-raw,format=I420 ! fakesink"));
  stream.AddOutputs({rgb.Element()});
  rgb.AwaitFrames();
  for (const char* refused : {"capsfilter caps=video/x-raw,format=I420 ! fakesink", "audioconvert ! fakesink"}) {
    const auto output = Parse(refused);
    EXPECT_THAT(
        ErrorOf([&] { stream.AddOutputs({output}); }),
        testing::StartsWith("Element Error: Failed to link element 'output_tee [output_tee]' with element 'queue"));
    AwaitLastReference(output);
  }
  stream.AddOutputs({converting.Element()});
  converting.AwaitFrames();
  EXPECT_EQ(stream.pipeline.GetOutputs().size(), 3U);
  EXPECT_EQ(stream.Find("output_tee")->numsrcpads, 3);
  stream.watch.ExpectWhole(1);
}

TEST_F(Live, OutputsThatAgreeWithEachOtherButNotWithTheFiltersAreRefused) {
  Stream stream(MakeSource(true), {Parse("capsfilter caps=\"video/x-raw,format={RGB,I420}\"")}, Stream::kStopped);
  stream.AddOutputs({Parse("capsfilter caps=\"video/x-raw,format={RGB,NV12}\" ! fakesink")});
  stream.Play();
  EXPECT_THROW(stream.AddOutputs({Parse("capsfilter caps=\"video/x-raw,format={I420,NV12}\" ! fakesink")}),
               std::runtime_error);
  stream.watch.AwaitFrames(20);
  stream.watch.ExpectWhole();
}

// The stream takes another format for the new output, for which the filters are stopped and started.
TEST_F(Live, AnOutputThatTheFiltersDoNotStartForIsRefused) {
  for (int i = 0; i < 5; ++i) {
    const auto filter = faulty::Make("refusing");
    faulty::Of(filter.Get()).once = true;
    Stream stream(MakeSource(true), {filter});
    faulty::Of(filter.Get()).fails = GST_STATE_CHANGE_READY_TO_PAUSED;
    const auto output = Parse("capsfilter caps=video/x-raw,format=RGB ! fakesink");
    EXPECT_THROW(stream.AddOutputs({output}), std::runtime_error);
    AwaitLastReference(output);
    EXPECT_EQ(stream.Find("output_tee")->numsrcpads, 1);
    stream.watch.ExpectWhole(1);
  }
}

// As some elements do, the overlays of text for example.
TEST_F(Live, AFilterThatTakesAnyForNoFormatHasOutputs) {
  const auto filter = Make("identity");
  AddProbe(*PadOf(*filter, "src"), GST_PAD_PROBE_TYPE_QUERY_UPSTREAM, [](GstPad&, GstPadProbeInfo& info) {
    GstCaps* asked = nullptr;
    if (GST_QUERY_TYPE(GST_PAD_PROBE_INFO_QUERY(&info)) == GST_QUERY_CAPS) {
      gst_query_parse_caps(GST_PAD_PROBE_INFO_QUERY(&info), &asked);
    }
    if (asked == nullptr || gst_caps_is_any(asked) == FALSE) {
      return GST_PAD_PROBE_OK;
    }
    gst_query_set_caps_result(GST_PAD_PROBE_INFO_QUERY(&info), Ptr<GstCaps>(gst_caps_new_empty()).Get());
    return GST_PAD_PROBE_HANDLED;
  });
  Stream stream(MakeSource(), {filter}, Stream::kStopped);
  const Watch beside(MakeSink());
  stream.AddOutputs({beside.Element()});
  stream.Play();
  beside.AwaitFrames();
  stream.EraseOutputs({beside.Element(), stream.watch.Element()});
  stream.AddOutputs({stream.watch.Element()});
  stream.watch.AwaitFrames();
}

constexpr auto kWide = "videotestsrc pattern=black ! capsfilter caps=video/x-raw,framerate=60/1";
constexpr auto kSmall = "capsfilter caps=video/x-raw,width=32,height=16";

TEST_F(Live, TheFormatChangesWithTheFilters) {
  constexpr std::size_t kTimes = 60;
  for (const auto& [end_of_input, description, given_up] : {
           std::tuple("", "edgetv ! identity", 2 * kTimes),
           std::tuple("", "videoflip ! identity", 2 * kTimes),
           std::tuple("", kSmall, 2 * kTimes),
           // What is in a queue of the input cannot be had in another size.
           std::tuple(" ! queue", kSmall, 201 * 2 * kTimes),
       }) {
    Stream stream(Parse(std::string(kWide) + end_of_input));
    const auto sink = PadOf(*stream.watch.Element(), "sink");
    const Ptr<GstCaps> before(gst_pad_get_current_caps(sink.Get()));
    const auto has_changed = [&] {
      return gst_caps_is_equal(Ptr<GstCaps>(gst_pad_get_current_caps(sink.Get())).Get(), before.Get()) == FALSE;
    };
    for (std::size_t i = 0; i < kTimes; ++i) {
      const auto filter = Parse(description);
      stream.AddFilters({filter});
      // Most come before the source has followed the one of before.
      const bool settles = i < kTimes / 6;
      Await("another format", [&] { return !settles || has_changed(); });
      stream.EraseFilters({filter});
      Await("the format of before", [&] { return !settles || !has_changed(); });
    }
    stream.watch.ExpectWhole(given_up);
    Await("only the probe of the watch", [&] { return CountProbes(stream.Bin()) == 1; });
  }
}

// What asks for an allocation first is not the source, but an element behind the queue.
TEST_F(Live, WhatIsFarBackInAQueueOfTheInputIsGivenUp) {
  Stream stream(Parse(std::string(kWide) + " ! queue name=far ! ( videoflip video-direction=vert )"),
                {Parse("identity sleep-time=2000")});
  const auto queue = stream.Find("far");
  const auto await_filled_with = [&](int width, guint over) {
    Await("frames of the size", [&] {
      const Ptr<GstCaps> caps(gst_pad_get_current_caps(PadOf(*queue, "sink").Get()));
      int sent = 0;
      gst_structure_get_int(gst_caps_get_structure(caps.Get(), 0), "width", &sent);
      guint frames = 0;
      g_object_get(queue.Get(), "current-level-buffers", &frames, nullptr);
      return sent == width && frames >= over;
    });
  };
  const auto small = Parse(kSmall);
  stream.AddFilters({small});
  await_filled_with(32, 51);
  stream.EraseFilters({small});
  await_filled_with(320, 0);
  stream.AddFilters({small});
  stream.watch.AwaitFrames(200);
  EXPECT_EQ(stream.watch.Eos(), 0U);
}

TEST_F(Live, AChangeOfSizeComesAheadOfAllThatWaitsInTheInput) {
  Stream stream(Parse(std::string(kWide) + " ! queue name=waiting"), {}, Stream::kStopped);
  const auto queue = stream.Find("waiting");
  const auto exit = PadOf(*queue, "src");
  const gulong held = AddProbe(*exit, GST_PAD_PROBE_TYPE_BLOCK_DOWNSTREAM, [](auto&...) { return GST_PAD_PROBE_OK; });
  stream.SetEnable(true);
  Await("a size", [&] { return gst_pad_has_current_caps(PadOf(*queue, "sink").Get()) != FALSE; });
  const auto entrance = PadOf(*stream.Find("input_bin"), "src");
  auto change = std::async(std::launch::async, [&] { stream.AddFilters({Parse(kSmall)}); });
  Await("the change", [&] { return gst_pad_is_blocked(entrance.Get()) != FALSE; });
  gst_pad_remove_probe(exit.Get(), held);
  change.get();
  stream.watch.AwaitFrames(10);
}

// A flush takes away the EOS that drains the filters. Here a filter swallows it, and the flush comes after it.
TEST_F(Live, AFilterChangeOutlastsAFlushingSeek) {
  std::atomic<bool> next = false;
  const auto filter = Make("queue", "filter");
  AddProbe(*PadOf(*filter, "sink"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [&](GstPad&, GstPadProbeInfo& info) {
    return EventType(info) == GST_EVENT_EOS && next.exchange(false) ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
  });
  Stream stream(MakeSource(), {filter});
  const auto seek = [&] {
    gst_element_seek_simple(GST_ELEMENT(&stream.pipeline.Get()), GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, 0);
  };
  for (std::size_t i = 1; i <= 10; ++i) {
    next = true;
    auto change = std::async(std::launch::async, [&] { stream.AddFilters({Make("identity")}); });
    Await("the drain", [&] { return !next; });
    Within(kDeadline, seek);
    change.get();
    EXPECT_EQ(stream.pipeline.GetFilters().size(), 1 + i);
    stream.watch.AwaitFrames(10);
  }
  // Changes and seeks as they happen to meet.
  std::atomic<bool> stop = false;
  auto seeks = std::async(std::launch::async, [&] {
    while (!stop) {
      seek();
    }
  });
  Within(seconds(60), [&] { ChangeFilters(stream.pipeline, {"identity", "queue"}, 200); });
  stop = true;
  Within(kDeadline, [&] { seeks.get(); });
  stream.watch.AwaitFrames(10);
  EXPECT_EQ(stream.watch.Eos(), 0U);
  stream.SetEnable(false);
}

using Starting = live::Test;

// An encoder, for one, needs several frames before its first comes out, while the other output waits with its own.
TEST_F(Starting, ChangesWhileAnOutputStillNeedsFrames) {
  for (const bool exchanged : {false, true}) {
    std::atomic<int> arrived = 0;
    const auto slow = Parse("identity ! fakesink");
    AddProbe(*PadOf(*slow, "sink"), GST_PAD_PROBE_TYPE_BUFFER,
             [&](auto&...) { return ++arrived < 30 ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK; });
    Stream stream(MakeSource(false, " ! identity sleep-time=10000"), {}, Stream::kStopped);
    stream.AddOutputs({slow});
    stream.SetEnable(true);
    if (exchanged) {
      Await("frames", [&] { return arrived > 40; });
      arrived = 0;
      stream.SetInput(Parse("videotestsrc ! identity sleep-time=10000"));
    }
    Await("the first frame", [&] { return arrived > 0; });
    stream.AddFilters({Make("videoflip")});
    stream.AddOutputs({MakeSink()});
    Await("frames", [&] { return arrived > 100; });
  }
}

// From an ERROR on a bin takes no notice of what becomes of what is in it, as here of the first frame of the other
// output.
TEST_F(Starting, ErrorsDoNotKeepTheOthersFromPlaying) {
  const auto refused = Make("filesink", "refused");
  g_object_set(refused.Get(), "location", "/nowhere/at/all", nullptr);
  for (const bool posted : {false, true}) {
    std::atomic<bool> told = false;
    const auto input = Parse("videotestsrc ! identity");
    Stream stream(input, {}, Stream::kStopped);
    const auto watched = stream.watch.Element();
    if (posted) {
      AddProbe(*PadOf(*input, "src"), GST_PAD_PROBE_TYPE_BUFFER, [&](auto&...) {
        GST_ELEMENT_ERROR(input.Get(), STREAM, FAILED, ("told to"), (nullptr));
        return GST_PAD_PROBE_REMOVE;
      });
      stream.EraseOutputs({watched});
      stream.SetEnable(true);
      stream.AddOutputs({watched});
    } else {
      AddProbe(*PadOf(*watched, "sink"), GST_PAD_PROBE_TYPE_BUFFER, [&](auto&...) {
        Await("an error", [&] { return told.load(); });
        return GST_PAD_PROBE_REMOVE;
      });
      const Ptr<GstBus> bus(gst_element_get_bus(GST_ELEMENT(&stream.Bin())));
      gst_bus_enable_sync_message_emission(bus.Get());
      Connect(bus.Get(), "sync-message::error", [&] {
        told = true;
        Await("a preroll", [&] { return GST_BASE_SINK(stream.watch.Element().Get())->have_preroll != FALSE; });
      });
      stream.SetEnable(true);
      EXPECT_THROW(stream.AddOutputs({refused}), std::runtime_error);
    }
    stream.watch.AwaitFrames(300);
    stream.AddFilters({Make("queue")});
    stream.watch.AwaitFrames(300);
  }
}

// GStreamer stops the pads of an element one after the other, and what passes it meanwhile may fail.
TEST_F(Starting, WhatFailsAsAnExchangeStopsItIsNoFailure) {
  std::atomic<int> errors = 0;
  std::atomic<bool> met = false;
  Stream stream(MakeSource(), {}, Stream::kStopped);
  const Watch leaving(stream.Find("output_bin"));
  const Ptr<GstBus> bus(gst_element_get_bus(GST_ELEMENT(&stream.Bin())));
  gst_bus_enable_sync_message_emission(bus.Get());
  Connect(bus.Get(), "sync-message::error", [&] { ++errors; });
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
  stream.SetEnable(true);
  Await("a frame", [&] { return met.load(); });
  stream.SetInput(MakeSource());
  leaving.ExpectWhole();
  EXPECT_EQ(errors, 0);
}

TEST_F(Starting, TheTimeStartsAnewWithEveryInput) {
  std::atomic<int> shown = 0;
  Stream stream(MakeSource(true));
  const auto sink = Make("fakesink");
  g_object_set(sink.Get(), "sync", TRUE, "max-lateness", 20 * GST_MSECOND, "signal-handoffs", TRUE, nullptr);
  Connect(sink.Get(), "handoff", [&] { ++shown; });
  stream.AddOutputs({sink});
  Await("half a second of video", [&] { return shown > 30; });
  shown = 0;
  stream.SetInput(Parse("videotestsrc num-buffers=20 ! capsfilter caps=video/x-raw,framerate=60/1"));
  Await("the end of the stream", [&] { return stream.watch.Eos() == 1; });
  Await("most of the frames", [&] { return shown >= 15; });
  const Ptr<GstClock> clock(gst_pipeline_get_pipeline_clock(&stream.pipeline.Get()));
  EXPECT_EQ(clock, Ptr<GstClock>(gst_system_clock_obtain())) << "No element's own, which may be taken away";
}

TEST_F(Starting, WhatKeptTheStartFromSucceedingIsTakenOut) {
  const auto failing = faulty::Make("failing");
  faulty::Of(failing.Get()).fails = GST_STATE_CHANGE_PAUSED_TO_PLAYING;
  Stream stream(MakeSource(true), {failing}, Stream::kStopped);
  for (int i = 0; i < 10; ++i) {
    EXPECT_THROW(stream.SetEnable(true), std::runtime_error);
  }
  stream.EraseFilters({failing});
  EXPECT_EQ(stream.pipeline.GetState(), Pipeline::State::Stopped);
  stream.Play();
}

// As some do that put several streams together.
TEST_F(Starting, FiltersMayKeepAnEosThatComesBeforeAnySegment) {
  const auto filter = Make("identity", "filter");
  AddProbe(*PadOf(*filter, "sink"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [](GstPad& pad, GstPadProbeInfo& info) {
    const Ptr<GstEvent> segment(gst_pad_get_sticky_event(&pad, GST_EVENT_SEGMENT, 0));
    return EventType(info) == GST_EVENT_EOS && !segment ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
  });
  Stream stream(MakeSource(), {filter}, Stream::kStopped);
  stream.SetEnable(true);
  Within(seconds(20), [&] { ChangeFilters(stream.pipeline, {"identity"}, 200); });
  stream.watch.ExpectWhole();
}

TEST_F(Starting, OutputsLearnTheLatencyOfAFilter) {
  Stream stream(MakeSource(true), {}, Stream::kStopped);
  auto* const sink = GST_BASE_SINK(stream.watch.Element().Get());
  g_object_set(sink, "sync", TRUE, nullptr);
  stream.Play();
  const auto delay = Make("queue", "delay");
  g_object_set(delay.Get(), "min-threshold-time", 200 * GST_MSECOND, nullptr);
  const auto before = gst_base_sink_get_latency(sink);
  stream.AddFilters({delay});
  EXPECT_GE(gst_base_sink_get_latency(sink), before + 200 * GST_MSECOND);
  stream.EraseFilters({delay});
  EXPECT_EQ(gst_base_sink_get_latency(sink), before);
}

TEST(LiveLog, EverythingLoggedOverAChangingPipeline) {
  g_setenv("GST_DEBUG", "*:7", TRUE);
  g_setenv("MOX_LOG_LEVEL", "all", TRUE);
  ASSERT_NE(std::freopen("/dev/null", "w", stderr), nullptr);
  mox::gstreamer::Session session;
  Stream stream(MakeSource(true), {}, Stream::kStopped);
  {
    const mox::logging::Capture capture;
    stream.Play();
    EXPECT_THAT(capture.GetLines(), testing::Contains(testing::HasSubstr("GObject Type: GstFakeSink")));
  }
  Within(seconds(100), [&] { ChangeFilters(stream.pipeline, {"queue", "videoflip"}, 20); });
  stream.SetInput(MakeSource(true));
  stream.watch.AwaitFrames();
  EXPECT_EQ(stream.watch.Eos(), 0U);
}

}  // namespace
