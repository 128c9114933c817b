#include "tests/gstreamer/live.h"

#include "mox/gstreamer/session.h"
#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/faulty.h"
#include "tests/logging/capture.h"

#include <atomic>
#include <cstdio>
#include <exception>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

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

// Puts each filter in and takes it out again, one change right after the other.
void ChangeFilters(Pipeline& pipeline, const std::vector<const char*>& factories, std::size_t changes) {
  for (std::size_t i = 0; i < changes / 2; ++i) {
    const auto filter = Make(factories[i % factories.size()]);
    pipeline.AddFilters({filter});
    pipeline.EraseFilters({filter});
  }
}

TEST_F(Live, ThousandFilterChangesBackToBackLoseNothing) {
  for (const auto& [paced, standing, callers] :
       {std::tuple(false, "identity", std::size_t{1}), std::tuple(true, "queue", std::size_t{4})}) {
    Stream stream(paced);
    const auto stays = Make(standing, "standing");
    stream.pipeline.AddFilters({stays});
    stream.Play();
    Within(seconds(120), "a filter change", [&, count = callers] {
      std::vector<std::future<void>> calls(count);
      for (auto& call : calls) {
        call = std::async(std::launch::async, ChangeFilters, std::ref(stream.pipeline),
                          std::vector{"identity", "queue"}, 1000 / count);
      }
      for (auto& call : calls) {
        call.get();
      }
    });
    stream.watch.AwaitFrames(10);
    stream.watch.ExpectWhole();
    EXPECT_EQ(stream.Graph(), "[standing]");
    EXPECT_EQ(GST_STATE(stays.Get()), GST_STATE_PLAYING);
    stream.pipeline.EraseFilters({stays});
    AwaitLastReference(stays);
  }
}

// A filter that lets tags out ahead of the EOS: on the thread that brings the EOS, or on one of its own.
TEST_F(Live, EventsAheadOfTheDrainPass) {
  for (const char* factory : {"identity", "queue"}) {
    std::vector<guint32> heard;
    Stream stream;
    const auto talker = Make(factory);
    AddProbe(*PadOf(*talker, "sink"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [](GstPad& pad, GstPadProbeInfo& info) {
      for (guint32 i = 1; i <= 3 && EventType(info) == GST_EVENT_EOS; ++i) {
        GstEvent* const event = gst_event_new_tag(gst_tag_list_new_empty());
        gst_event_set_seqnum(event, i);
        gst_pad_send_event(&pad, event);
      }
      return GST_PAD_PROBE_OK;
    });
    AddProbe(*PadOf(*stream.Find("filter_bin"), "src"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
             [&](GstPad&, GstPadProbeInfo& info) {
               if (EventType(info) == GST_EVENT_TAG) {
                 heard.push_back(gst_event_get_seqnum(GST_PAD_PROBE_INFO_EVENT(&info)));
               }
               return GST_PAD_PROBE_OK;
             });
    stream.pipeline.AddFilters({talker});
    stream.Play();
    Within(seconds(20), "a filter change", [&] { stream.pipeline.AddFilters({Make("identity")}); });
    stream.watch.AwaitFrames(10);
    EXPECT_THAT(heard, testing::ElementsAre(1, 2, 3));
    stream.watch.ExpectWhole();
  }
}

TEST_F(Live, FailedChangesLeaveTheStreamFlowing) {
  Stream stream;
  const auto kept = Make("queue", "kept");
  const auto gone = Make("identity", "gone");
  const auto audio = Make("audioconvert", "audio");
  const auto wide = Parse("capsfilter caps=video/x-raw,width=32", "wide");
  const auto refusing = faulty::Make("refusing");
  faulty::Of(refusing.Get()).fails = GST_STATE_CHANGE_READY_TO_PAUSED;
  auto& pipeline = stream.pipeline;
  pipeline.AddFilters({kept, gone});
  stream.Play();
  const std::string missing = "Cannot remove a filter that has not been added to the filters list";
  const std::string unlinked =
      "Element Error: Failed to link element 'sink_filter [sink_filter]' with element 'kept [kept]'";
  const std::pair<Elements, std::string> additions[] = {
      {{kept}, "Bin Error: Failed to add element 'kept [kept]' to bin 'filter_bin [filter_bin]'"},
      {{gone, audio}, unlinked},
      {{gone, wide}, unlinked},
      {{gone, refusing},
       "Element Error: Failed to sync the state of the element 'filter_bin [filter_bin]' with its parent"},
      {{gone, {}}, "Cannot add a filter that is null"},
  };
  Within(seconds(60), "a failing change", [&] {
    EXPECT_EQ(ErrorOf([&] { pipeline.EraseFilters({audio}); }), missing);
    EXPECT_EQ(stream.Graph(), "[kept -> gone]");
    EXPECT_EQ(ErrorOf([&] { pipeline.EraseFilters({gone, audio}); }), missing);
    for (int i = 0; i < 5; ++i) {
      for (const auto& [filters, text] : additions) {
        EXPECT_EQ(ErrorOf<std::exception>([&, &added = filters] { pipeline.AddFilters(added); }), text);
        EXPECT_EQ(stream.Graph(), "[kept]") << "what was listed before the missing one is gone";
      }
    }
  });
  EXPECT_EQ(GST_BIN(stream.Find("filter_bin").Get())->numchildren, 3);
  stream.watch.AwaitFrames(100);
  stream.watch.ExpectWhole();
  EXPECT_EQ(CountProbes(*GST_BIN(&pipeline.Get())), 1) << "only the one of the watch";
}

// Waits until a frame waits for its turn in the queue of an output.
void AwaitFullQueue(const mox::gstreamer::pipeline::Output& output) {
  std::atomic<bool> full = false;
  const auto overrun = [](GstElement*, gpointer data) { *static_cast<std::atomic<bool>*>(data) = true; };
  const gulong handler = g_signal_connect(output.queue.Get(), "overrun", G_CALLBACK(+overrun), &full);
  Await("a full queue", [&] { return full.load(); });
  g_signal_handler_disconnect(output.queue.Get(), handler);
}

constexpr auto kSleeping = "identity sleep-time=300000 ! fakesink";

TEST_F(Live, SlowAndUnprerolledOutputsGoWithoutStallingTheOthers) {
  Stream stream(true);
  stream.Play();
  // One that sleeps and one that waits for the clock, which only its own stop ends.
  constexpr auto kWaiting = "identity ! fakesink sync=true ts-offset=60000000000";
  for (const char* description : {kSleeping, kWaiting, kSleeping, kWaiting}) {
    const auto slow = Parse(description);
    stream.pipeline.AddOutputs({slow});
    const auto output = stream.pipeline.GetOutputs().at(1);
    g_object_set(output.queue.Get(), "max-size-buffers", 2, nullptr);
    AwaitFullQueue(output);
    Within(seconds(5), "detaching a slow output", [&] { stream.pipeline.EraseOutputs({slow}); });
    const auto unprerolled = Parse("valve drop=true ! fakesink");
    stream.pipeline.AddOutputs({unprerolled});
    stream.watch.AwaitFrames();
    Within(seconds(5), "detaching an output without a frame", [&] { stream.pipeline.EraseOutputs({unprerolled}); });
    stream.watch.AwaitFrames();
  }
  stream.watch.ExpectWhole();
}

TEST_F(Live, ChangesDoNotWaitForTheQueueOfASlowOutput) {
  Stream stream(true);
  stream.pipeline.EraseOutputs({stream.watch.Element()});
  stream.pipeline.AddOutputs({Parse(kSleeping), stream.watch.Element()});
  stream.Play();
  AwaitFullQueue(stream.pipeline.GetOutputs().front());
  Within(seconds(10), "a change", [&] {
    ChangeFilters(stream.pipeline, {"identity"}, 4);
    stream.pipeline.AddOutputs({MakeSink()});
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
    // Ahead of each frame goes an event with its number.
    AddProbe(
        *PadOf(*stream.Find("output_bin"), "sink"), GST_PAD_PROBE_TYPE_BUFFER, [](GstPad& pad, GstPadProbeInfo& info) {
          GstEvent* const event = gst_event_new_tag(gst_tag_list_new_empty());
          gst_event_set_seqnum(event, static_cast<guint32>(GST_BUFFER_OFFSET(GST_PAD_PROBE_INFO_BUFFER(&info)) + 1));
          gst_pad_send_event(&pad, event);
          return GST_PAD_PROBE_OK;
        });
    const auto check = [&](GstPad& pad, GstPadProbeInfo& info) {
      const Ptr<GstEvent> event(gst_pad_get_sticky_event(&pad, GST_EVENT_TAG, 0));
      const guint64 number = GST_BUFFER_OFFSET(GST_PAD_PROBE_INFO_BUFFER(&info));
      untold += event && gst_event_get_seqnum(event.Get()) == number + 1 ? 0 : 1;
      ++arrived;
      return GST_PAD_PROBE_OK;
    };
    stream.Play();
    if (!beside) {
      stream.pipeline.EraseOutputs({stream.watch.Element()});
    }
    Within(seconds(240), "a change", [&] {
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
    if (!beside) {
      stream.pipeline.AddOutputs({stream.watch.Element()});
    }
    stream.watch.AwaitFrames();
    EXPECT_EQ(untold, 0);
    EXPECT_EQ(stream.watch.Misplaced() + stream.watch.Eos() + (beside ? stream.watch.Lost() : 0), 0U);
    EXPECT_EQ(stream.Find("output_tee")->numsrcpads, 1);
  }
}

TEST_F(Live, ExchangesOfTheInputNeverEndTheStream) {
  for (const bool with_output : {true, false}) {
    const int exchanges = with_output ? 100 : 1000;
    Stream stream;
    const Watch leaving(stream.Find("output_bin"));
    if (!with_output) {
      stream.pipeline.EraseOutputs({stream.watch.Element()});
    }
    stream.pipeline.SetEnable(true);
    for (int i = 0; i < exchanges; ++i) {
      leaving.AwaitFrames();
      stream.pipeline.SetInput(MakeSource());
    }
    leaving.AwaitFrames();
    leaving.ExpectWhole();
  }
}

TEST_F(Live, OutputsAgreeOnAFormatOrAreRefused) {
  Stream stream;
  // Some frames of the format of before are on their way when a new one is agreed upon.
  stream.pipeline.AddFilters({Parse("queue max-size-buffers=5 ! identity sleep-time=10000")});
  stream.Play();
  stream.watch.AwaitFrames(20);
  const Watch rgb(Parse("capsfilter caps=video/x-raw,format=RGB ! fakesink"));
  const Watch converting(Parse("videoconvert ! capsfilter caps=video/x-raw,format=I420 ! fakesink"));
  stream.pipeline.AddOutputs({rgb.Element()});
  rgb.AwaitFrames();
  for (const char* refused : {"capsfilter caps=video/x-raw,format=I420 ! fakesink", "audioconvert ! fakesink"}) {
    const auto output = Parse(refused);
    EXPECT_EQ(ErrorOf([&] {
                stream.pipeline.AddOutputs({output});
              }).rfind("Element Error: Failed to link element 'output_tee [output_tee]' with element 'queue", 0),
              0U);
    AwaitLastReference(output);
  }
  stream.pipeline.AddOutputs({converting.Element()});
  converting.AwaitFrames();
  EXPECT_EQ(stream.pipeline.GetOutputs().size(), 3U);
  EXPECT_EQ(stream.Find("output_tee")->numsrcpads, 3);
  stream.watch.AwaitFrames();
  stream.watch.ExpectWhole(1);
}

// The stream takes another format for the new output, for which the filters are stopped and started.
TEST_F(Live, AnOutputThatTheFiltersDoNotStartForIsRefused) {
  for (int i = 0; i < 5; ++i) {
    Stream stream(true);
    const auto filter = faulty::Make("refusing");
    faulty::Of(filter.Get()).once = true;
    stream.pipeline.AddFilters({filter});
    stream.Play();
    faulty::Of(filter.Get()).fails = GST_STATE_CHANGE_READY_TO_PAUSED;
    const auto output = Parse("capsfilter caps=video/x-raw,format=RGB ! fakesink");
    EXPECT_THROW(stream.pipeline.AddOutputs({output}), std::runtime_error);
    AwaitLastReference(output);
    EXPECT_EQ(stream.Find("output_tee")->numsrcpads, 1);
    stream.watch.AwaitFrames(10);
    stream.watch.ExpectWhole(1);
  }
}

TEST_F(Live, TheFormatChangesWithTheFilters) {
  constexpr std::size_t kTimes = 60;
  constexpr auto kSmall = "capsfilter caps=video/x-raw,width=32,height=16";
  for (const auto& [end_of_input, description, given_up] : {
           std::tuple("", "edgetv ! identity", 2 * kTimes),
           std::tuple("", "videoflip ! identity", 2 * kTimes),
           std::tuple("", kSmall, 2 * kTimes),
           // What is in a queue of the input cannot be had in another size.
           std::tuple(" ! queue", kSmall, 201 * 2 * kTimes),
       }) {
    Stream stream;
    stream.pipeline.SetInput(
        Parse(std::string("videotestsrc pattern=black ! capsfilter caps=video/x-raw,framerate=60/1") + end_of_input));
    stream.Play();
    const auto sink = PadOf(*stream.watch.Element(), "sink");
    const Ptr<GstCaps> before(gst_pad_get_current_caps(sink.Get()));
    const auto has_changed = [&] {
      return gst_caps_is_equal(Ptr<GstCaps>(gst_pad_get_current_caps(sink.Get())).Get(), before.Get()) == FALSE;
    };
    for (std::size_t i = 0; i < kTimes; ++i) {
      const auto filter = Parse(description);
      Within(seconds(20), "a change", [&] { stream.pipeline.AddFilters({filter}); });
      // Most come before the source has followed the one of before.
      const bool settles = i < kTimes / 6;
      Await("another format", [&] { return !settles || has_changed(); });
      Within(seconds(20), "a change", [&] { stream.pipeline.EraseFilters({filter}); });
      Await("the format of before", [&] { return !settles || !has_changed(); });
    }
    stream.watch.AwaitFrames();
    stream.watch.ExpectWhole(given_up);
    Await("only the probe of the watch", [&] { return CountProbes(*GST_BIN(&stream.pipeline.Get())) == 1; });
  }
}

// What asks for an allocation first is not the source, but an element behind the queue.
TEST_F(Live, WhatIsFarBackInAQueueOfTheInputIsGivenUp) {
  Stream stream;
  stream.pipeline.SetInput(
      Parse("videotestsrc ! capsfilter caps=video/x-raw,framerate=60/1 ! queue name=far ! ( videoflip "
            "video-direction=vert )"));
  stream.pipeline.AddFilters({Parse("identity sleep-time=2000")});
  stream.Play();
  const auto queue = stream.Find("far");
  const auto filled_with = [&](int width) {
    const Ptr<GstCaps> caps(gst_pad_get_current_caps(PadOf(*queue, "sink").Get()));
    int sent = 0;
    gst_structure_get_int(gst_caps_get_structure(caps.Get(), 0), "width", &sent);
    return sent == width;
  };
  const auto small = Parse("capsfilter caps=video/x-raw,width=32,height=16");
  Within(seconds(20), "a change", [&] {
    stream.pipeline.AddFilters({small});
    Await("small frames in the queue", [&] {
      guint frames = 0;
      g_object_get(queue.Get(), "current-level-buffers", &frames, nullptr);
      return filled_with(32) && frames > 50;
    });
    stream.pipeline.EraseFilters({small});
    Await("the other size", [&] { return filled_with(320); });
    stream.pipeline.AddFilters({small});
  });
  stream.watch.AwaitFrames(200);
  EXPECT_EQ(stream.watch.Eos(), 0U);
}

// A flush takes away the EOS that drains the filters. Here a filter swallows it, and the flush comes after it.
TEST_F(Live, AFilterChangeOutlastsAFlushingSeek) {
  std::atomic<bool> next = false;
  Stream stream;
  const auto filter = Make("queue", "filter");
  AddProbe(*PadOf(*filter, "sink"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [&](GstPad&, GstPadProbeInfo& info) {
    return EventType(info) == GST_EVENT_EOS && next.exchange(false) ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
  });
  stream.pipeline.AddFilters({filter});
  stream.Play();
  for (int i = 1; i <= 10; ++i) {
    next = true;
    auto change = std::async(std::launch::async, [&] { stream.pipeline.AddFilters({Make("identity")}); });
    Await("the drain", [&] { return !next; });
    Within(seconds(20), "a seek", [&] {
      gst_element_seek_simple(GST_ELEMENT(&stream.pipeline.Get()), GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, 0);
      change.get();
    });
    EXPECT_EQ(stream.pipeline.GetFilters().size(), static_cast<std::size_t>(1 + i));
    stream.watch.AwaitFrames(10);
  }
  // Changes and seeks as they happen to meet.
  std::atomic<bool> stop = false;
  auto seeks = std::async(std::launch::async, [&] {
    while (!stop) {
      gst_element_seek_simple(GST_ELEMENT(&stream.pipeline.Get()), GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, 0);
    }
  });
  Within(seconds(60), "a change", [&] { ChangeFilters(stream.pipeline, {"identity", "queue"}, 200); });
  stop = true;
  Within(seconds(20), "a seek", [&] { seeks.get(); });
  stream.watch.AwaitFrames(10);
  EXPECT_EQ(stream.watch.Eos(), 0U);
  stream.pipeline.SetEnable(false);
}

TEST_F(Live, OutputsThatAgreeWithEachOtherButNotWithTheFiltersAreRefused) {
  Stream stream(true);
  stream.pipeline.AddFilters({Parse("capsfilter caps=\"video/x-raw,format={RGB,I420}\"")});
  stream.pipeline.AddOutputs({Parse("capsfilter caps=\"video/x-raw,format={RGB,NV12}\" ! fakesink")});
  stream.Play();
  EXPECT_THROW(stream.pipeline.AddOutputs({Parse("capsfilter caps=\"video/x-raw,format={I420,NV12}\" ! fakesink")}),
               std::runtime_error);
  stream.watch.AwaitFrames(30);
  stream.watch.ExpectWhole();
}

// As some elements do, the overlays of text for example.
TEST_F(Live, AFilterThatTakesAnyForNoFormatHasOutputs) {
  Stream stream;
  const auto filter = Make("identity");
  const auto pad = PadOf(*filter, "src");
  static const GstPadQueryFunction own = GST_PAD_QUERYFUNC(pad.Get());
  gst_pad_set_query_function(pad.Get(), [](GstPad* source, GstObject* parent, GstQuery* query) -> gboolean {
    GstCaps* asked = nullptr;
    if (GST_QUERY_TYPE(query) == GST_QUERY_CAPS) {
      gst_query_parse_caps(query, &asked);
    }
    if (asked == nullptr || gst_caps_is_any(asked) == FALSE) {
      return own(source, parent, query);
    }
    gst_query_set_caps_result(query, Ptr<GstCaps>(gst_caps_new_empty()).Get());
    return TRUE;
  });
  stream.pipeline.AddFilters({filter});
  const Watch beside(MakeSink());
  stream.pipeline.AddOutputs({beside.Element()});
  stream.Play();
  beside.AwaitFrames();
  stream.pipeline.EraseOutputs({beside.Element(), stream.watch.Element()});
  stream.pipeline.AddOutputs({stream.watch.Element()});
  stream.watch.AwaitFrames();
}

TEST(LiveLog, EverythingLoggedOverAChangingPipeline) {
  g_setenv("GST_DEBUG", "*:7", TRUE);
  g_setenv("MOX_LOG_LEVEL", "all", TRUE);
  ASSERT_NE(std::freopen("/dev/null", "w", stderr), nullptr);
  mox::gstreamer::Session session;
  Stream stream(true);
  {
    const mox::logging::Capture capture;
    stream.Play();
    EXPECT_THAT(capture.GetLines(), testing::Contains(testing::HasSubstr("GObject Type: GstFakeSink")));
  }
  Within(seconds(100), "a change", [&] { ChangeFilters(stream.pipeline, {"queue", "videoflip"}, 20); });
  stream.pipeline.SetInput(MakeSource(true));
  stream.watch.AwaitFrames();
  EXPECT_EQ(stream.watch.Eos(), 0U);
}

}  // namespace
