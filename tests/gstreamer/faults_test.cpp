#include "mox/gstreamer/bus.h"
#include "mox/gstreamer/plugin/path/resolve/from_library_name.h"
#include "mox/logging/logger.h"
#include "tests/allocations.h"
#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

#include <memory>
#include <new>

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using allocations::until_failure;
using elements::ErrorOf;
using faulty::Faults;
using std::chrono::seconds;

constexpr auto kEnded = "Cannot change the filters because the stream has ended";

/** What comes of a faulty element in a playing pipeline. */
enum Outcome {
  kGoesOn,
  kRefused,     // it is not taken in; the stream goes on, as soon as it has an input again
  kCannotStop,  // it runs, but the call that takes it out raises and leaves it in
  kEnds,        // the call succeeds; the source ends the stream and the outputs get an EOS
  kSilent       // the call succeeds; nothing arrives any more
};

struct Fault {
  const char* name;
  void (*tell)(Faults&);
  Outcome as_filter, as_output, as_input;
};

template <GstStateChange kChange, std::atomic<GstStateChange> Faults::*kFault = &Faults::fails>
void On(Faults& faults) {
  faults.*kFault = kChange;
}

template <int kFlow>
void Answers(Faults& faults) {
  faults.flow = static_cast<GstFlowReturn>(kFlow);
}

constexpr Fault kFaults[] = {
    {"FailsNullToReady", On<GST_STATE_CHANGE_NULL_TO_READY>, kRefused, kRefused, kRefused},
    {"FailsReadyToPaused", On<GST_STATE_CHANGE_READY_TO_PAUSED>, kRefused, kRefused, kRefused},
    {"FailsPausedToPlaying", On<GST_STATE_CHANGE_PAUSED_TO_PLAYING>, kRefused, kRefused, kRefused},
    {"FailsPlayingToPaused", On<GST_STATE_CHANGE_PLAYING_TO_PAUSED>, kCannotStop, kCannotStop, kCannotStop},
    {"FailsPausedToReady", On<GST_STATE_CHANGE_PAUSED_TO_READY>, kCannotStop, kCannotStop, kCannotStop},
    {"FailsReadyToNull", On<GST_STATE_CHANGE_READY_TO_NULL>, kCannotStop, kCannotStop, kCannotStop},
    {"BlocksWhileStarting", On<GST_STATE_CHANGE_READY_TO_PAUSED, &Faults::blocks>, kGoesOn, kGoesOn, kGoesOn},
    {"BlocksWhileStopping", On<GST_STATE_CHANGE_PAUSED_TO_READY, &Faults::blocks>, kGoesOn, kGoesOn, kGoesOn},
    {"RefusesCaps", [](Faults& faults) { faults.refuses_caps = true; }, kEnds, kEnds, kEnds},
    {"DropsEveryFrame", Answers<Faults::kDrops>, kSilent, kGoesOn, kSilent},
    {"NotLinked", Answers<GST_FLOW_NOT_LINKED>, kEnds, kGoesOn, kEnds},
    {"Flushing", Answers<GST_FLOW_FLUSHING>, kSilent, kSilent, kSilent},
    {"Eos", Answers<GST_FLOW_EOS>, kEnds, kEnds, kEnds},
    {"NotNegotiated", Answers<GST_FLOW_NOT_NEGOTIATED>, kEnds, kEnds, kEnds},
    {"Error", Answers<GST_FLOW_ERROR>, kEnds, kEnds, kEnds},
    {"NotSupported", Answers<GST_FLOW_NOT_SUPPORTED>, kEnds, kEnds, kEnds},
    {"PostsErrors", [](Faults& faults) { faults.errors = 5; }, kGoesOn, kGoesOn, kSilent},
};

constexpr auto kFaultyInput =
    "videotestsrc pattern=black ! capsfilter caps=video/x-raw,width=16,height=16 ! faulty name=told";

// A bin made of a description, which has a faulty element of the name "told".
Ptr<GstElement> MakeFaulty(const char* description) {
  gst_element_register(nullptr, "faulty", GST_RANK_NONE, faulty::Type());
  return Parse(description);
}

Faults& Told(const Ptr<GstElement>& bin) {
  return faulty::Of(Find(*GST_BIN(bin.Get()), "told").Get());
}

class FaultsTest : public testing::TestWithParam<Fault> {
 protected:
  static void SetUpTestSuite() { gst_init(nullptr, nullptr); }

  // The pipeline is stopped and destroyed within bounded time, and started again before, with a good input.
  void TearDown() override {
    stream->SetEnable(false);
    stream->SetInput(MakeSource());
    stream->SetEnable(true);
    stream->watch.AwaitFrames();
    EXPECT_EQ(stream->watch.Misplaced(), 0U);
    Within(kDeadline, [&] { stream.reset(); });
  }

  /** Tells an element of the fault, puts it into the pipeline by one call and takes it out by the other. */
  template <typename Take, typename Put>
  void Expect(Faults& told, Outcome outcome, const Take& take, const Put& put) {
    GetParam().tell(told);
    const auto expect = [](bool raises, const std::string& text, const auto& call) {
      EXPECT_EQ(ErrorOf(call).substr(0, text.size()), raises ? text : "no error");
    };
    expect(outcome == kRefused, "Element Error: Failed to sync the state of the element '", put);
    if (outcome == kEnds) {
      Await("the end of the stream", [&] { return stream->watch.Eos() == 1; });
    } else if (outcome == kGoesOn || outcome == kCannotStop) {
      stream->watch.AwaitFrames();
      expect(outcome == kCannotStop, "Element Error: Failed to set the state of the element '", take);
      told.fails = Faults::kNone;  // what could never be stopped could not be destroyed either
    }
  }

  std::unique_ptr<Stream> stream = std::make_unique<Stream>();
};

TEST_P(FaultsTest, AsFilter) {
  const Outcome outcome = GetParam().as_filter;
  const auto filter = MakeFaulty("faulty name=told");
  const auto take = [&] { stream->EraseFilters({filter}); };
  Expect(Told(filter), outcome, take, [&] { stream->AddFilters({filter}); });
  if (outcome == kEnds) {
    EXPECT_EQ(ErrorOf(take), kEnded);
  } else if (outcome != kSilent) {
    stream->watch.AwaitFrames(100);
    stream->watch.ExpectWhole();
    EXPECT_EQ(stream->Graph(), outcome == kCannotStop ? "[" + std::string(GST_OBJECT_NAME(filter.Get())) + "]" : "[]");
  }
  stream->SetEnable(false);
  stream->EraseFilters(stream->pipeline.GetFilters());
}

TEST_P(FaultsTest, AsOutputBesideAnother) {
  const Outcome outcome = GetParam().as_output;
  const auto output = MakeFaulty("faulty name=told ! fakesink");
  const auto take = [&] { stream->EraseOutputs({output}); };
  Expect(Told(output), outcome, take, [&] { stream->AddOutputs({output}); });
  if (outcome != kEnds && outcome != kSilent) {
    stream->watch.ExpectWhole();
  }
  if (outcome == kCannotStop) {
    Watch(output).AwaitFrames();
  }
  const bool stays = outcome != kRefused && outcome != kGoesOn;
  EXPECT_EQ(stream->pipeline.GetOutputs().size(), stays ? 2U : 1U);
  if (stays) {
    take();
  }
}

TEST_P(FaultsTest, AsInput) {
  const auto input = MakeFaulty(kFaultyInput);
  const auto take = [&] { stream->SetInput(MakeSource()); };
  Expect(Told(input), GetParam().as_input, take, [&] { stream->SetInput(input); });
  if (GetParam().as_input != kCannotStop) {
    take();
    stream->watch.AwaitFrames();
  }
}

INSTANTIATE_TEST_SUITE_P(Element, FaultsTest, testing::ValuesIn(kFaults),
                         [](const auto& test) { return test.param.name; });

using Faulty = live::Test;

TEST_F(Faulty, AChangeWaitsForASourceThatIsSilent) {
  const auto input = MakeFaulty(kFaultyInput);
  Faults& faults = Told(input);
  Stream stream(input);
  faults.flow = Faults::kDrops;
  Await("a dropped frame", [&] { return faults.dropped > 0; });
  const auto add = [&](const char* name) {
    return std::async(std::launch::async, [&stream, name] { stream.pipeline.AddFilters({Make("identity", name)}); });
  };
  auto change = add("late");
  EXPECT_EQ(change.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  faults.flow = GST_FLOW_OK;
  Within(kDeadline, [&] { change.get(); });
  EXPECT_EQ(stream.Graph(), "[late]");
  stream.watch.AwaitFrames();

  // A change that fails while the pipeline is stopped leaves the chain open, and the next has nothing to drain.
  stream.SetEnable(false);
  const auto twice = Make("identity");
  EXPECT_THROW(stream.AddFilters({twice, twice}), std::runtime_error);
  faults.flow = Faults::kDrops;
  stream.SetEnable(true);
  change = add("closing");
  Await("a change", [&] {
    gst_element_send_event(stream.Find("told").Get(), gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, nullptr));
    return change.wait_for(seconds(0)) == std::future_status::ready;
  });
  faults.flow = GST_FLOW_OK;
  EXPECT_EQ(stream.Graph(), "[closing]");
  stream.watch.AwaitFrames();
}

// An input with a queue of its own sends no EOS when a frame fails, here the one that passes while a change waits.
TEST_F(Faulty, AFailureEndsTheStreamOfAnInputWithAQueue) {
  const auto filter = faulty::Make("filter");
  Stream stream(MakeSource(false, " ! queue"), {filter});
  const auto held = PadOf(*stream.Find("filter_bin"), "sink");
  const Ptr<GstPad> upstream(gst_pad_get_peer(held.Get()));
  const auto change = [&] { return ErrorOf([&] { stream.AddFilters({Make("identity")}); }); };
  const auto await_failure = [](GstPad* pad) {
    Await("a failure", [&] { return gst_pad_get_last_flow_return(pad) == GST_FLOW_ERROR; });
  };
  std::future<std::string> waiting;
  AddProbe(*held, GST_PAD_PROBE_TYPE_BUFFER, [&](auto&...) {
    waiting = std::async(std::launch::async, change);
    Await("the change", [&] { return upstream->num_probes > 0; });
    faulty::Of(filter.Get()).flow = GST_FLOW_ERROR;
    return GST_PAD_PROBE_REMOVE;
  });
  await_failure(upstream.Get());
  EXPECT_EQ(waiting.get(), kEnded);
  EXPECT_EQ(change(), kEnded);
  faulty::Of(filter.Get()).flow = GST_FLOW_OK;
  stream.SetInput(MakeSource());
  stream.watch.AwaitFrames();
  EXPECT_EQ(change(), "no error");

  // Of a failure between its queue and the end of the input that queue alone knows.
  stream.SetInput(Parse("videotestsrc ! queue name=last ! identity error-after=20"));
  await_failure(PadOf(*stream.Find("last"), "src").Get());
  EXPECT_EQ(change(), kEnded);
}

TEST_F(Faulty, ABusMayBeFloodedAndACallbackSlow) {
  Stream stream;
  const Ptr<GstBus> raw(gst_pipeline_get_bus(&stream.pipeline.Get()));
  for (int i = 0; i < 100000; ++i) {
    gst_bus_post(raw.Get(), gst_message_new_latency(GST_OBJECT(&stream.pipeline.Get())));
  }
  stream.AddFilters({Make("queue")});
  stream.watch.AwaitFrames();
  stream.SetEnable(false);
  Await("an empty bus", [&] { return gst_bus_have_pending(raw.Get()) == FALSE; });

  std::atomic<int> calls = 0;
  const Ptr<GstBus> slow(gst_bus_new());
  auto bus = std::make_unique<mox::gstreamer::Bus>(slow);
  const auto binding = bus->Bind(GST_MESSAGE_EOS, [&](const GstMessage&) {
    ++calls;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  });
  for (int i = 0; i < 1000; ++i) {
    gst_bus_post(slow.Get(), gst_message_new_eos(nullptr));
  }
  Await("a call", [&] { return calls > 1; });
  Within(seconds(5), [&] { bus.reset(); });
  EXPECT_LT(calls, 1000);
}

// Lets each allocation of the call fail in turn until there is none left, every time from the same start.
void FailEachAllocation(
    const std::function<void()>& call, const std::function<void()>& prepare = [] {}) {
  bool reached = true;
  for (long i = 0; reached; ++i) {
    prepare();
    until_failure = i;
    const std::string error = ErrorOf<std::bad_alloc>(call);
    reached = until_failure.exchange(-1) < 0;
    EXPECT_TRUE(reached || i > 0);
    EXPECT_TRUE(reached || error == "no error") << error;
  }
}

TEST_F(Faulty, AnAllocationMayFail) {
  Stream stream;
  auto& pipeline = stream.pipeline;
  const Elements filter{Make("identity", "filter")};
  const Elements output{Parse("identity ! fakesink", "output")};
  // The stream flows, and the change before was made wholly or not at all: it can be made or undone.
  const auto have = [&](bool with_filter, bool with_output) {
    stream.watch.AwaitFrames();
    if ((stream.Graph() == "[filter]") != with_filter) {
      with_filter ? pipeline.AddFilters(filter) : pipeline.EraseFilters(filter);
    }
    if ((pipeline.GetOutputs().size() == 2) != with_output) {
      with_output ? pipeline.AddOutputs(output) : pipeline.EraseOutputs(output);
    }
  };
  Within(seconds(60), [&] {
    FailEachAllocation([&] { pipeline.AddFilters(filter); }, [&] { have(false, false); });
    FailEachAllocation([&] { pipeline.EraseFilters(filter); }, [&] { have(true, false); });
    FailEachAllocation([&] { pipeline.AddOutputs(output); }, [&] { have(false, false); });
    FailEachAllocation([&] { pipeline.EraseOutputs(output); }, [&] { have(false, true); });
    stream.watch.ExpectWhole();
    const auto exchange = [&] { pipeline.SetInput(MakeSource()); };
    FailEachAllocation(exchange, [&] { exchange(), stream.watch.AwaitFrames(); });
    FailEachAllocation([] { Pipeline(2, "second"); });
    FailEachAllocation([] { EXPECT_EQ(MoxGstreamerPluginPathResolveFromLibraryName("none"), nullptr); });
    FailEachAllocation([] {
      auto line = std::make_unique<std::string>("x");
      line->resize(line->capacity());
      mox::logging::Logger(mox::logging::Name("full")).Output(std::move(line), false);
    });
  });
}

}  // namespace
