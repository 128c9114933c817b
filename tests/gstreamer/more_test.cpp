#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using namespace std::chrono_literals;
using faulty::Faults;
using Guards = live::Test;

Ptr<GstElement> MakeFormat(const std::string& formats, const std::string& end = " ! fakesink") {
  return Parse("capsfilter caps=\"video/x-raw,format={" + formats + "}\"" + end);
}

// The stop begins while the pipeline is still stopped, and waits for a change that began later.
TEST_F(Guards, StopEndsAChangeThatOvertakesIt) {
  Stream stream(MakeSource(false, " ! valve drop=true"), {}, false);
  const Elements filter{Make("identity")};
  std::atomic<bool> is_over = false;
  const auto stopping = std::async(std::launch::async, [&] {
    while (!is_over) {
      stream.pipeline.SetEnable(false);
    }
  });
  for (int i = 0; i < 100; ++i) {
    stream.pipeline.SetEnable(true);
    try {
      stream.pipeline.AddFilters(filter);
      stream.pipeline.EraseFilters(filter);
    } catch (const std::runtime_error&) {  // ended by the stop
    }
  }
  is_over = true;
}

// The program pauses the pipeline while no data flows.
TEST_F(Guards, StateMayBeSetWhileAnOutputWaitsForData) {
  Stream stream(MakeSource(false, ",format=I420 ! valve name=valve"));
  g_object_set(stream.Find("valve").Get(), "drop", TRUE, nullptr);
  auto change = std::async(std::launch::async, [&] { stream.pipeline.AddOutputs({MakeFormat("RGB")}); });
  EXPECT_EQ(change.wait_for(100ms), std::future_status::timeout);
  SetDeadline(15);
  gst_element_set_state(GST_ELEMENT(&stream.pipeline.Get()), GST_STATE_PAUSED);
  EXPECT_EQ(change.wait_for(0s), std::future_status::timeout);
  stream.pipeline.SetEnable(false);
  EXPECT_THROW(change.get(), std::runtime_error);
}

bool IsAllocation(GstPadProbeInfo& info) {
  return GST_IS_QUERY(info.data) && GST_QUERY_TYPE(GST_PAD_PROBE_INFO_QUERY(&info)) == GST_QUERY_ALLOCATION;
}

// The queue has room, so that the query reaches it although the pipeline is paused. It has been
// refused once a buffer follows.
TEST_F(Guards, RefusedAllocationQueryComesAgainOnceTheOutputPlays) {
  std::atomic<bool> has_arrived = false;
  std::atomic<bool> is_refused = false;
  std::atomic<int> answered = 0;
  Stream stream(MakeSource(false, " ! identity sleep-time=1000"), {}, false);
  const auto queue = stream.pipeline.GetOutputs().front().queue;
  g_object_set(queue.Get(), "max-size-buffers", 0, "max-size-time", guint64(0), nullptr);
  const auto sink = PadOf(*queue, "sink");
  AddProbe(*sink, GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM | GST_PAD_PROBE_TYPE_BUFFER, [&](GstPad&, auto& info) {
    has_arrived = has_arrived || IsAllocation(info);
    is_refused = has_arrived && !IsAllocation(info);
    return GST_PAD_PROBE_OK;
  });
  AddProbe(*PadOf(*stream.watch.element, "sink"), GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM, [&](GstPad&, auto& info) {
    answered += IsAllocation(info) ? 1 : 0;
    return GST_PAD_PROBE_OK;
  });
  auto& element = *GST_ELEMENT(&stream.pipeline.Get());
  gst_element_set_state(&element, GST_STATE_PAUSED);
  gst_element_get_state(&element, nullptr, nullptr, GST_CLOCK_TIME_NONE);
  has_arrived = false;
  gst_pad_push_event(sink.Get(), gst_event_new_reconfigure());
  Await([&] { return has_arrived && is_refused; });
  const int before = answered;
  gst_element_set_state(&element, GST_STATE_PLAYING);
  Await([&] { return answered > before; });
}

// A sink that is stuck keeps a serialized query in the queue, as a decoder sends it.
TEST_F(Guards, QueryInTheQueueOfAnOutputDoesNotDelayItsEnd) {
  std::atomic<bool> is_stuck = false;
  std::atomic<bool> is_querying = false;
  const auto stuck = Make("fakesink");
  Stream stream(MakeSource(true));
  AddProbe(*PadOf(*stuck, "sink"), GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_BUFFER, [&](auto&...) {
    is_stuck = true;
    return GST_PAD_PROBE_OK;
  });
  stream.pipeline.AddOutputs({stuck});
  Await([&] { return is_stuck.load(); });
  const auto queue = PadOf(*stream.pipeline.GetOutputs().at(1).queue, "sink");
  AddProbe(*PadOf(*stream.Find("output_tee"), "sink"), GST_PAD_PROBE_TYPE_BUFFER, [&](auto&...) {
    is_querying = true;
    gst_pad_query(queue.Get(), Ptr<GstQuery>(gst_query_new_drain()).Get());
    return GST_PAD_PROBE_REMOVE;
  });
  Await([&] { return is_querying.load(); });
  SetDeadline(15);
  EXPECT_THROW(stream.pipeline.FinishOutputs({stuck}, 100ms), std::runtime_error);
  stream.watch.ExpectWhole();
}

// The caps event for the first output waits at the filter.
TEST_F(Guards, OutputsThatShareNoCapsAreRefusedBeforeTheCapsArrive) {
  const auto filter = Make("identity");
  std::atomic<bool> holds = false;
  Stream stream(MakeSource(true, ",format=I420"), {filter});
  AddProbe(*PadOf(*filter, "sink"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [&](GstPad&, auto& info) {
    if (holds && GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(&info)) == GST_EVENT_CAPS) {
      Await([&] { return !holds; });
    }
    return GST_PAD_PROBE_OK;
  });
  holds = true;
  EXPECT_THROW(stream.pipeline.AddOutputs({MakeFormat("RGB"), MakeFormat("I420")}), std::runtime_error);
  holds = false;
  EXPECT_EQ(stream.pipeline.GetOutputs().size(), 2U);
  stream.watch.AwaitFrames();
}

// An event that a probe blocks has not reached the tee.
TEST_F(Guards, StopDetachesAnOutputWhileAnEventWaitsAtTheTee) {
  std::atomic<bool> is_blocked = false;
  Stream stream(MakeSource(true));
  AddProbe(*PadOf(*stream.Find("output_tee"), "sink"), GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
           [&](GstPad&, auto& info) {
             const bool is_tag = GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(&info)) == GST_EVENT_TAG;
             is_blocked = is_blocked || is_tag;
             return is_tag ? GST_PAD_PROBE_OK : GST_PAD_PROBE_PASS;
           });
  AddProbe(*PadOf(*stream.Find("filter_bin"), "sink"), GST_PAD_PROBE_TYPE_BUFFER, [](GstPad& pad, auto&) {
    gst_pad_send_event(&pad, gst_event_new_tag(gst_tag_list_new_empty()));
    return GST_PAD_PROBE_REMOVE;
  });
  Await([&] { return is_blocked.load(); });
  const auto change =
      std::async(std::launch::async, [&] { stream.pipeline.EraseOutputs({stream.watch.element}); }).share();
  EXPECT_EQ(change.wait_for(100ms), std::future_status::timeout);
  stream.pipeline.SetEnable(false);
  EXPECT_NO_THROW(change.get());
  EXPECT_TRUE(stream.Find("dummy_output"));
}

// The slow output keeps a frame, and the query waits for it. After the pause that frame is the
// output's preroll, while the other one still needs a frame.
TEST_F(Guards, PauseEndsTheWaitOfAnAllocationQuery) {
  std::promise<void> end;
  std::atomic<bool> is_kept = false;
  const auto slow = Make("fakesink");
  Stream stream(MakeSource(false, " ! identity sleep-time=10000"));
  AddProbe(*PadOf(*slow, "sink"), GST_PAD_PROBE_TYPE_BUFFER, [&, kept = end.get_future().share()](auto&...) {
    is_kept = true;
    kept.wait();
    return GST_PAD_PROBE_OK;
  });
  stream.pipeline.EraseOutputs({stream.watch.element});
  stream.pipeline.AddOutputs({slow, stream.watch.element});  // the slow one receives each query first
  Await([&] { return is_kept.load(); });
  const auto outputs = stream.pipeline.GetOutputs();
  gst_pad_push_event(PadOf(*outputs.at(0).queue, "sink").Get(), gst_event_new_reconfigure());
  Await([&] {
    guint frames = 0;
    g_object_get(outputs.at(1).queue.Get(), "current-level-buffers", &frames, nullptr);
    return frames == 0 && PadOf(*outputs.at(0).queue, "src")->num_probes > 0;
  });
  auto& element = *GST_ELEMENT(&stream.pipeline.Get());
  gst_element_set_state(&element, GST_STATE_PAUSED);
  end.set_value();
  SetDeadline(15);
  EXPECT_EQ(gst_element_get_state(&element, nullptr, nullptr, GST_CLOCK_TIME_NONE), GST_STATE_CHANGE_SUCCESS);
}

// The flush drops the RECONFIGURE event of the change.
TEST_F(Guards, FlushDuringAChangeLetsUpstreamRenegotiate) {
  gst_element_register(nullptr, "faulty", GST_RANK_NONE, faulty::Type());
  Stream stream(MakeSource(false, ",format=I420"));
  const auto filter = Parse("faulty name=slow ! capsfilter caps=video/x-raw,format=GRAY8");
  const auto feeding = PadOf(*stream.pipeline.GetInput(), "src");
  faulty::Of(Find(*GST_BIN(filter.Get()), "slow").Get()).blocks = GST_STATE_CHANGE_NULL_TO_READY;
  auto change = std::async(std::launch::async, [&] { stream.pipeline.AddFilters({filter}); });
  Await([&] { return GST_OBJECT_PARENT(filter.Get()) != nullptr; });
  const auto seeking = std::async(std::launch::async, [&] {
    gst_pad_send_event(feeding.Get(), gst_event_new_seek(1, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, GST_SEEK_TYPE_SET, 0,
                                                         GST_SEEK_TYPE_NONE, 0));
  });
  Await([&] { return GST_PAD_IS_FLUSHING(feeding.Get()); });
  change.get();
  seeking.wait();
  stream.watch.AwaitFrames();
  EXPECT_EQ(stream.watch.eos, 0U);
}

TEST_F(Guards, EnableMayBeReadDuringAStateChange) {
  Stream stream(MakeSource(), {}, false);
  const Ptr<GstBus> bus(gst_pipeline_get_bus(&stream.pipeline.Get()));
  const auto read = [](GstBus*, GstMessage*, gpointer pipeline) {
    static_cast<Pipeline*>(pipeline)->GetEnable();
    return GST_BUS_PASS;
  };
  gst_bus_set_sync_handler(bus.Get(), read, &stream.pipeline, nullptr);
  SetDeadline(15);
  stream.pipeline.SetEnable(true);
  stream.watch.AwaitFrames();
  gst_bus_set_sync_handler(bus.Get(), nullptr, nullptr, nullptr);
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

// The program pauses and plays, and the outputs have yet to preroll when an element is refused.
TEST_F(Guards, RefusalDuringAPauseLetsTheOutputsPlayAgain) {
  void (Pipeline::*const changes[])(Elements) = {&Pipeline::AddFilters, &Pipeline::AddOutputs};
  for (const auto change : changes) {
    const auto refused = faulty::Make();
    faulty::Of(refused.Get()).fails = GST_STATE_CHANGE_READY_TO_PAUSED;
    Stream stream(MakeSource(false, " ! identity sleep-time=10000"));
    gst_element_set_state(GST_ELEMENT(&stream.pipeline.Get()), GST_STATE_PAUSED);
    gst_element_set_state(GST_ELEMENT(&stream.pipeline.Get()), GST_STATE_PLAYING);
    EXPECT_THROW((stream.pipeline.*change)({refused}), std::runtime_error);
    stream.watch.AwaitFrames(3);
  }
}

}  // namespace
