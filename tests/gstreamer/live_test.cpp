#include "tests/gstreamer/live.h"

#include "mox/gstreamer/bin/output.h"
#include "mox/gstreamer/session.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using std::chrono::seconds;

// Messages on the bus, which tell of state changes, refer to their element until the reader has discarded them.
void AwaitLastReference(const Ptr<GstElement>& element) {
  Await("the last reference", [&] { return GST_OBJECT_REFCOUNT_VALUE(element.Get()) == 1; });
}

// Puts each filter in and takes it out again, one change right after the other.
void ChangeFilters(Pipeline& pipeline, const std::vector<const char*>& factories, int changes) {
  Elements filters;
  std::vector<int> finalised(factories.size(), 0);
  for (std::size_t i = 0; i < factories.size(); ++i) {
    filters.push_back(Make(factories[i]));
    const auto count = [](gpointer counter, GObject*) { ++*static_cast<int*>(counter); };
    g_object_weak_ref(G_OBJECT(filters[i].Get()), count, &finalised[i]);
  }
  for (int i = 0; i < changes / 2; ++i) {
    const auto& filter = filters[static_cast<std::size_t>(i) % filters.size()];
    pipeline.AddFilters({filter});
    pipeline.EraseFilters({filter});
  }
  for (const auto& filter : filters) {
    AwaitLastReference(filter);
  }
  filters.clear();
  EXPECT_EQ(finalised, std::vector<int>(factories.size(), 1));
}

// What the call raises.
template <typename Call>
std::string Error(const Call& call) {
  try {
    call();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "no error";
}

// Every probe on a pad of the bin or of what is below it.
int CountProbes(GstBin& bin) {
  int probes = 0;
  const auto count = [](GstElement*, GstPad* pad, gpointer sum) -> gboolean {
    *static_cast<int*>(sum) += pad->num_probes;
    return TRUE;
  };
  for (GList* child = bin.children; child != nullptr; child = child->next) {
    gst_element_foreach_pad(GST_ELEMENT(child->data), count, &probes);
    probes += GST_IS_BIN(child->data) ? CountProbes(*GST_BIN(child->data)) : 0;
  }
  return probes;
}

struct Change {
  const char* name;
  bool paced;
  const char* standing;
  int threads;
};

class FilterChanges : public testing::TestWithParam<Change> {
 protected:
  static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
};

TEST_P(FilterChanges, ThousandBackToBackLoseNothing) {
  Stream stream(GetParam().paced);
  const auto standing = Make(GetParam().standing, "standing");
  stream.pipeline.AddFilters({standing});
  stream.Play();
  Within(seconds(120), "a filter change", [&] {
    std::vector<std::thread> callers;
    for (int i = 0; i < GetParam().threads; ++i) {
      callers.emplace_back([&] { ChangeFilters(stream.pipeline, {"identity", "queue"}, 1000 / GetParam().threads); });
    }
    for (auto& caller : callers) {
      caller.join();
    }
  });
  stream.watch.AwaitFrames(10);
  stream.watch.ExpectWhole();
  EXPECT_EQ(stream.Graph(), "[standing]");
  EXPECT_EQ(GST_STATE(standing.Get()), GST_STATE_PLAYING);
  EXPECT_EQ(CountProbes(*GST_BIN(&stream.pipeline.Get())), 1) << "only the one of the watch";
}

INSTANTIATE_TEST_SUITE_P(Live, FilterChanges,
                         testing::Values(Change{"Unthrottled", false, "identity", 1},
                                         Change{"Paced", true, "identity", 1}, Change{"Queue", false, "queue", 1},
                                         Change{"Threads", false, "identity", 4},
                                         Change{"PacedQueueThreads", true, "queue", 3}),
                         [](const auto& test) { return test.param.name; });

using Live = live::Test;

TEST_F(Live, FiltersOfOtherFormatsRenegotiate) {
  for (const bool paced : {false, true}) {
    Stream stream(paced);
    stream.Play();
    const int changes = paced ? 60 : 600;
    Within(seconds(60), "a filter change", [&] { ChangeFilters(stream.pipeline, {"videoflip", "edgetv"}, changes); });
    stream.watch.AwaitFrames(10);
    stream.watch.ExpectWhole(static_cast<std::size_t>(changes));
  }
}

TEST_F(Live, ChangesWhileStarting) {
  for (int i = 0; i < 12; ++i) {
    Stream stream(i % 2 == 0);
    if (i % 3 == 0) {
      stream.pipeline.EraseOutputs({stream.watch.Element()});
    }
    stream.pipeline.SetEnable(true);
    Within(seconds(20), "a filter change", [&] {
      ChangeFilters(stream.pipeline, {"identity", "queue", "videoflip"}, 6);
    });
    if (i % 3 == 0) {
      stream.pipeline.AddOutputs({stream.watch.Element()});
    }
    stream.watch.AwaitFrames(10);
    stream.watch.ExpectWhole(6);
  }
}

// A filter that lets tags out ahead of every EOS: on the thread that brings the EOS, or on one of its own.
TEST_F(Live, EventsAheadOfTheDrainPass) {
  for (const char* factory : {"identity", "queue"}) {
    Stream stream;
    const auto talker = Make(factory, "talker");
    const Ptr<GstPad> sink(gst_element_get_static_pad(talker.Get(), "sink"));
    const auto talk = [](GstPad* pad, GstPadProbeInfo* info, gpointer) -> GstPadProbeReturn {
      if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_EOS) {
        for (guint i = 0; i < 3; ++i) {
          gst_pad_send_event(pad, gst_event_new_tag(gst_tag_list_new(GST_TAG_TRACK_NUMBER, i + 1, nullptr)));
        }
      }
      return GST_PAD_PROBE_OK;
    };
    gst_pad_add_probe(sink.Get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, talk, nullptr, nullptr);
    struct Heard {
      std::vector<guint> tags;
    } heard;
    const Ptr<GstPad> out(gst_element_get_static_pad(GST_ELEMENT(&stream.FilterBin()), "src"));
    const auto hear = [](GstPad*, GstPadProbeInfo* info, gpointer data) -> GstPadProbeReturn {
      GstEvent* const event = GST_PAD_PROBE_INFO_EVENT(info);
      if (GST_EVENT_TYPE(event) == GST_EVENT_TAG) {
        GstTagList* tags = nullptr;
        guint number = 0;
        gst_event_parse_tag(event, &tags);
        gst_tag_list_get_uint(tags, GST_TAG_TRACK_NUMBER, &number);
        static_cast<Heard*>(data)->tags.push_back(number);
      }
      return GST_PAD_PROBE_OK;
    };
    const gulong hearing = gst_pad_add_probe(out.Get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, hear, &heard, nullptr);
    stream.pipeline.AddFilters({talker});
    stream.Play();
    const auto added = Make("identity", "added");
    Within(seconds(20), "a filter change", [&] { stream.pipeline.AddFilters({added}); });
    EXPECT_EQ(stream.Graph(), "[talker -> added]");
    EXPECT_EQ(heard.tags, (std::vector<guint>{1, 2, 3}));
    gst_pad_remove_probe(out.Get(), hearing);
    Within(seconds(20), "a filter change", [&] { ChangeFilters(stream.pipeline, {"identity"}, 50); });
    stream.watch.AwaitFrames(10);
    stream.watch.ExpectWhole();
  }
}

// A filter bin whose state change to PAUSED fails.
Ptr<GstElement> MakeRefusing() {
  auto bin = Parse("identity", "refusing");
  auto source = Make("filesrc");
  g_object_set(source.Get(), "location", "/nowhere/at/all", nullptr);
  gst_bin_add(GST_BIN(bin.Get()), source.Ref());
  return bin;
}

TEST_F(Live, FailedChangesLeaveTheStreamFlowing) {
  Stream stream;
  const auto kept = Make("queue", "kept");
  const auto gone = Make("identity", "gone");
  stream.pipeline.AddFilters({kept, gone});
  stream.Play();
  const auto refused = Parse("audioconvert", "audio");
  const auto wide = Parse("capsfilter caps=video/x-raw,width=32", "wide");
  auto& pipeline = stream.pipeline;
  const std::string missing = "Cannot remove a filter that has not been added to the filters list";
  Within(seconds(60), "a failing change", [&] {
    EXPECT_EQ(Error([&] { pipeline.EraseFilters({Make("identity")}); }), missing);
    EXPECT_EQ(Error([&] { pipeline.EraseFilters({gone, refused}); }), missing);
    EXPECT_EQ(stream.Graph(), "[kept]") << "what was listed before the missing one goes";
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(Error([&] { pipeline.AddFilters({kept}); }),
                "Bin Error: Failed to add element 'kept [kept]' to bin 'filter_bin [filter_bin]'");
      EXPECT_NE(Error([&] {
                  pipeline.AddFilters({gone, refused});
                }).find("Element Error: Failed to link"),
                std::string::npos);
      EXPECT_NE(Error([&] {
                  pipeline.AddFilters({gone, wide});
                }).find("Element Error: Failed to link"),
                std::string::npos);
      EXPECT_EQ(Error([&] {
                  pipeline.AddFilters({gone, MakeRefusing()});
                }),
                "Element Error: Failed to sync the state of the element 'filter_bin [filter_bin]' with its parent");
      EXPECT_EQ(Error([&] { pipeline.AddFilters({Ptr<GstElement>()}); }), "Cannot add a filter that is null");
    }
  });
  EXPECT_EQ(stream.Graph(), "[kept]");
  EXPECT_EQ(stream.FilterBin().numchildren, 3);
  AwaitLastReference(gone);
  AwaitLastReference(refused);
  stream.watch.AwaitFrames(100);
  stream.watch.ExpectWhole();
  EXPECT_EQ(CountProbes(*GST_BIN(&pipeline.Get())), 1) << "only the one of the watch";
}

TEST_F(Live, AChangeAfterTheEndOfTheStreamIsRefused) {
  Stream stream;
  const auto source = Parse("videotestsrc num-buffers=5 ! identity");
  stream.pipeline.SetInput(source);
  stream.pipeline.SetEnable(true);
  Await("the end of the stream", [&] { return stream.watch.Eos() == 1; });
  Within(seconds(20), "a refused change", [&] {
    EXPECT_EQ(Error([&] { stream.pipeline.AddFilters({Make("identity")}); }),
              "Cannot change the filters because the stream has ended");
  });
  EXPECT_EQ(stream.Graph(), "[]");
  stream.watch.Restart();
  stream.pipeline.SetInput(MakeSource());
  stream.watch.AwaitFrames();
  Within(seconds(20), "a change", [&] { stream.pipeline.AddFilters({Make("identity", "next")}); });
  EXPECT_EQ(stream.Graph(), "[next]");
}

TEST_F(Live, AFailedStartIsFollowedByAGoodOne) {
  Stream stream;
  const auto missing = Make("filesrc");
  g_object_set(missing.Get(), "location", "/nowhere/at/all", nullptr);
  stream.pipeline.SetInput(missing);
  EXPECT_THROW(stream.pipeline.SetEnable(true), std::runtime_error);
  stream.pipeline.SetInput(MakeSource());
  EXPECT_EQ(stream.pipeline.GetState(), Pipeline::State::Stopped);
  EXPECT_LE(GST_STATE(&stream.OutputBin()), GST_STATE_READY);
  Within(seconds(20), "a start", [&] { stream.Play(); });
  stream.watch.ExpectWhole();
}

TEST_F(Live, ThousandOutputsComeAndGoBesideAnother) {
  Stream stream;
  stream.Play();
  Within(seconds(120), "an output change", [&] {
    for (int i = 0; i < 1000; ++i) {
      Watch other(MakeSink());
      stream.pipeline.AddOutputs({other.Element()});
      if (i % 4 == 0) {
        other.AwaitFrames();
      }
      stream.pipeline.EraseOutputs({other.Element()});
      other.ExpectWhole();
      AwaitLastReference(other.Element());
    }
  });
  stream.watch.AwaitFrames(100);
  stream.watch.ExpectWhole();
  const Ptr<GstElement> tee(gst_bin_get_by_name(&stream.OutputBin(), "output_tee"));
  EXPECT_EQ(tee->numsrcpads, 1);
  EXPECT_EQ(CountProbes(*GST_BIN(&stream.pipeline.Get())), 1) << "only the one of the watch";
}

TEST_F(Live, TheFirstOutputComesAndTheLastGoes) {
  Stream stream;
  stream.Play();
  Within(seconds(120), "an output change", [&] {
    for (int i = 0; i < 1000; ++i) {
      stream.pipeline.EraseOutputs({stream.watch.Element()});
      stream.watch.Restart();
      stream.pipeline.AddOutputs({stream.watch.Element()});
      if (i % 4 == 0) {
        stream.watch.AwaitFrames();
      }
    }
  });
  stream.watch.AwaitFrames(100);
  stream.watch.ExpectWhole();
  const Ptr<GstElement> tee(gst_bin_get_by_name(&stream.OutputBin(), "output_tee"));
  EXPECT_EQ(tee->numsrcpads, 1);
}

TEST_F(Live, SlowAndUnprerolledOutputsGoWithoutStallingTheOthers) {
  Stream stream(true);
  stream.Play();
  for (int i = 0; i < 5; ++i) {
    const auto slow = Parse("identity sleep-time=300000 ! fakesink", "slow");
    stream.pipeline.AddOutputs({slow});
    const auto queue = stream.pipeline.GetOutputs().at(1).queue;
    g_object_set(queue.Get(), "max-size-buffers", 2, nullptr);
    Await("a full queue", [&] {
      guint level = 0;
      g_object_get(queue.Get(), "current-level-buffers", &level, nullptr);
      return level >= 2;
    });
    Within(seconds(5), "detaching a slow output", [&] { stream.pipeline.EraseOutputs({slow}); });
    // Waits for a frame that never comes: the valve is shut.
    const auto unprerolled = Parse("valve drop=true ! fakesink", "unprerolled");
    stream.pipeline.AddOutputs({unprerolled});
    stream.watch.AwaitFrames();
    Within(seconds(5), "detaching an output without a frame", [&] { stream.pipeline.EraseOutputs({unprerolled}); });
    stream.watch.AwaitFrames();
  }
  stream.watch.ExpectWhole();
}

TEST_F(Live, OutputsAgreeOnAFormatOrAreRefused) {
  Stream stream(true);
  stream.Play();
  const auto rgb = Parse("capsfilter caps=video/x-raw,format=RGB ! fakesink", "rgb");
  const Ptr<GstPad> pad(gst_element_get_static_pad(rgb.Get(), "sink"));
  stream.pipeline.AddOutputs({rgb});
  Await("the format of the new output", [&] {
    const Ptr<GstCaps> caps(gst_pad_get_current_caps(pad.Get()));
    return caps && gst_structure_has_name(gst_caps_get_structure(caps.Get(), 0), "video/x-raw");
  });
  stream.watch.AwaitFrames();
  const auto i420 = Parse("capsfilter caps=video/x-raw,format=I420 ! fakesink", "i420");
  const auto audio = Parse("audioconvert ! fakesink", "audio");
  for (const auto* output : {&i420, &audio}) {
    EXPECT_EQ(Error([&] {
                stream.pipeline.AddOutputs({*output});
              }).rfind("Element Error: Failed to link element 'output_tee [output_tee]' with element 'queue", 0),
              0U);
    AwaitLastReference(*output);
  }
  const auto converting = Parse("videoconvert ! capsfilter caps=video/x-raw,format=I420 ! fakesink", "converting");
  stream.pipeline.AddOutputs({converting});
  stream.watch.AwaitFrames(5);
  EXPECT_EQ(stream.pipeline.GetOutputs().size(), 3U);
  stream.watch.ExpectWhole(1);
}

TEST_F(Live, HundredExchangesOfTheInput) {
  for (const bool with_output : {true, false}) {
    Stream stream;
    stream.Play();
    if (!with_output) {
      stream.pipeline.EraseOutputs({stream.watch.Element()});
    }
    // Without an output the frames are seen where they leave the filters.
    Watch leaving(Ptr<GstElement>(GST_ELEMENT(gst_object_ref(&stream.OutputBin()))));
    for (int i = 0; i < 100; ++i) {
      Within(seconds(20), "an exchange", [&] { stream.pipeline.SetInput(MakeSource(i % 4 == 0)); });
      leaving.AwaitFrames();
      if (i % 10 == 0) {
        Within(seconds(20), "a change", [&] { ChangeFilters(stream.pipeline, {"queue"}, 2); });
      }
    }
    EXPECT_EQ(leaving.Eos(), 0U);
  }
}

TEST_F(Live, EverythingAtOnceFromSeveralThreads) {
  Stream stream;
  stream.Play();
  auto& pipeline = stream.pipeline;
  Within(seconds(120), "a change", [&] {
    std::vector<std::thread> callers;
    callers.emplace_back([&] { ChangeFilters(pipeline, {"identity", "queue"}, 200); });
    callers.emplace_back([&] { ChangeFilters(pipeline, {"videoflip", "edgetv"}, 200); });
    callers.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        const auto sink = MakeSink();
        pipeline.AddOutputs({sink});
        pipeline.EraseOutputs({sink});
      }
    });
    callers.emplace_back([&] {
      for (int i = 0; i < 30; ++i) {
        pipeline.SetInput(MakeSource(i % 2 == 0));
        EXPECT_TRUE(pipeline.GetEnable());
        EXPECT_EQ(pipeline.GetOutputs().front().element, stream.watch.Element());
      }
    });
    for (auto& caller : callers) {
      caller.join();
    }
  });
  stream.watch.AwaitFrames(10);
  EXPECT_EQ(stream.watch.Eos(), 0U);
  EXPECT_EQ(stream.Graph(), "[]");
}

TEST(LiveLeaks, NothingIsLeftOfAPipelineThatChanged) {
  g_setenv("GST_TRACERS", "leaks", TRUE);
  gst_init(nullptr, nullptr);
  const auto run = [] {
    Stream stream;
    stream.Play();
    ChangeFilters(stream.pipeline, {"identity", "queue", "videoflip"}, 60);
    Error([&] { stream.pipeline.AddFilters({Parse("audioconvert")}); });
    Error([&] { stream.pipeline.AddOutputs({Parse("audioconvert")}); });
    for (int i = 0; i < 20; ++i) {
      stream.pipeline.EraseOutputs({stream.watch.Element()});
      stream.pipeline.AddOutputs({stream.watch.Element()});
      stream.pipeline.SetInput(MakeSource());
    }
    stream.watch.AwaitFrames();
  };
  run();  // what GStreamer makes once and keeps
  const std::size_t before = CountObjects();
  run();
  EXPECT_EQ(CountObjects(), before);
}

TEST(LiveLog, EverythingLoggedOverAChangingPipeline) {
  g_setenv("GST_DEBUG", "*:7", TRUE);
  ASSERT_NE(std::freopen("/dev/null", "w", stderr), nullptr);
  mox::gstreamer::Session session;
  Stream stream(true);
  stream.Play();
  Within(seconds(100), "a change", [&] { ChangeFilters(stream.pipeline, {"queue", "videoflip"}, 20); });
  stream.pipeline.SetInput(MakeSource(true));
  stream.watch.AwaitFrames();
  EXPECT_EQ(stream.watch.Eos(), 0U);
}

}  // namespace
