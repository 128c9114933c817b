#include "mox/gstreamer/plugin/path/resolve/from_library_name.h"
#include "mox/logging/logger.h"
#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

#include <memory>
#include <new>

#include <dlfcn.h>

// After how many allocations one is to fail, counted down by each; none is while it is negative.
static std::atomic<long> until_failure = -1;

// In the place of the program's own, for all that it loads.
void* operator new(std::size_t size) {
  static const auto allocate = reinterpret_cast<void* (*)(std::size_t)>(dlsym(RTLD_NEXT, "_Znwm"));
  return until_failure >= 0 && until_failure-- == 0 ? throw std::bad_alloc() : allocate(size);
}

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using faulty::Faults;

constexpr auto kNoError = "no error";
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

  friend std::ostream& operator<<(std::ostream& stream, const Fault& fault) { return stream << fault.name; }
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

// A bin made of a description, which has a faulty element of the name "told".
Ptr<GstElement> MakeFaulty(const char* description) {
  gst_element_register(nullptr, "faulty", GST_RANK_NONE, faulty::Type());
  return Parse(description);
}

constexpr auto kFaultyInput =
    "videotestsrc pattern=black ! capsfilter caps=video/x-raw,width=16,height=16 ! faulty name=told";

Faults& Told(const Ptr<GstElement>& bin) {
  return faulty::Of(Find(*GST_BIN(bin.Get()), "told").Get());
}

struct FaultsTest : live::Test, testing::WithParamInterface<Fault> {
  // Tells an element of the fault, puts it into the playing pipeline by one call and takes it out by the other.
  void Expect(const Ptr<GstElement>& element, Outcome outcome, const std::string& at_the_end,
              const std::function<void()>& put, const std::function<void()>& take) {
    const auto expect = [](const std::function<void()>& call, const std::string& text) {
      EXPECT_EQ(ErrorOf(call).substr(0, text.size()), text);
    };
    GetParam().tell(Told(element));
    expect(put, outcome == kRefused ? "Element Error: Failed to sync the state of the element '" : kNoError);
    if (outcome == kEnds) {
      Await([&] { return stream.watch.eos == 1; });
      expect(take, at_the_end);
    } else if (outcome == kGoesOn || outcome == kCannotStop) {
      stream.watch.AwaitFrames();
      expect(take, outcome == kCannotStop ? "Element Error: Failed to set the state of the element '" : kNoError);
      Told(element).fails = Faults::kNone;  // what could never be stopped could not be destroyed either
    }
    const bool is_input = !PadOf(*element, "sink");
    const bool is_out =
        outcome == kGoesOn || (outcome == kRefused && !is_input) || (outcome == kEnds && at_the_end == kNoError);
    EXPECT_EQ(GST_OBJECT_PARENT(element.Get()) == nullptr, is_out);
    const auto inside = outcome == kCannotStop && !is_input ? std::make_unique<Watch>(element) : nullptr;
    if (inside) {
      inside->AwaitFrames();
    }
    if (outcome <= kCannotStop && !is_input) {
      stream.watch.ExpectWhole();
    }
    EXPECT_EQ(stream.watch.eos, outcome == kEnds ? 1U : 0U);
    // Whatever was wrong, the pipeline can be stopped, and started with a good input.
    pipeline.SetEnable(false);
    if (!is_out) {
      take();
    }
    pipeline.SetInput(MakeSource());
    pipeline.SetEnable(true);
    stream.watch.AwaitFrames();
    EXPECT_EQ(stream.watch.misplaced, 0U);
  }

  Stream stream;
  Pipeline& pipeline = stream.pipeline;
};

TEST_P(FaultsTest, AsFilter) {
  const auto filter = MakeFaulty("faulty name=told");
  Expect(
      filter, GetParam().as_filter, kEnded, [&] { pipeline.AddFilters({filter}); },
      [&] { pipeline.EraseFilters({filter}); });
}

TEST_P(FaultsTest, AsOutputBesideAnother) {
  const auto output = MakeFaulty("faulty name=told ! fakesink");
  Expect(
      output, GetParam().as_output, kNoError, [&] { pipeline.AddOutputs({output}); },
      [&] { pipeline.EraseOutputs({output}); });
}

TEST_P(FaultsTest, AsInput) {
  const auto input = MakeFaulty(kFaultyInput);
  Expect(
      input, GetParam().as_input, kNoError, [&] { pipeline.SetInput(input); },
      [&] { pipeline.SetInput(MakeSource()); });
}

INSTANTIATE_TEST_SUITE_P(Element, FaultsTest, testing::ValuesIn(kFaults),
                         [](const auto& test) { return test.param.name; });

using Faulty = live::Test;

TEST_F(Faulty, AChangeWaitsForASourceThatIsSilent) {
  const auto input = MakeFaulty(kFaultyInput);
  Stream stream(input);
  Told(input).flow = Faults::kDrops;
  Await([&] { return Told(input).dropped > 0; });
  auto change = std::async(std::launch::async, [&] { stream.pipeline.AddFilters({Make("identity", "late")}); });
  EXPECT_EQ(change.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  Told(input).flow = GST_FLOW_OK;
  change.get();
  EXPECT_EQ(stream.pipeline.GetFilters().size(), 1U);
}

// The source tries again when it is to renegotiate, as here, and goes on.
TEST_F(Faulty, ATransientFailureToNegotiateDoesNotEndTheStream) {
  const auto filter = MakeFaulty("faulty name=told");
  std::atomic<bool> has_failed = false;
  Stream stream(Parse("videotestsrc is-live=true ! capsfilter caps=video/x-raw,framerate=5/1"), {filter});
  AddProbe(*PadOf(*filter, "sink"), GST_PAD_PROBE_TYPE_BUFFER, [&](GstPad& pad, auto&) {
    gst_pad_push_event(&pad, gst_event_new_reconfigure());
    Told(filter).flow = has_failed.exchange(true) ? GST_FLOW_OK : GST_FLOW_NOT_NEGOTIATED;
    return GST_PAD_PROBE_OK;
  });
  const auto feeding = PadOf(*stream.pipeline.GetInput(), "src");
  Await([&] { return gst_pad_get_last_flow_return(feeding.Get()) == GST_FLOW_NOT_NEGOTIATED; });
  EXPECT_EQ(ErrorOf([&] { stream.pipeline.AddFilters({Make("identity")}); }), kNoError);
  stream.watch.AwaitFrames();
}

// The others are stopped around it, or their threads would go on for ever and GStreamer could not be taken down.
TEST_F(Faulty, DestructionEndsBesideAnElementThatRefusesToStop) {
  for (const char* bin : {"input", "filter", "output"}) {
    SCOPED_TRACE(bin);
    const auto refusing = MakeFaulty(bin == std::string("input")    ? kFaultyInput
                                     : bin == std::string("filter") ? "queue ! faulty name=told"
                                                                    : "queue ! faulty name=told ! fakesink");
    const auto told = Find(*GST_BIN(refusing.Get()), "told");
    {
      Watch watch(Make("fakesink"));
      Pipeline pipeline(1, "destroyed");
      pipeline.SetInput(bin == std::string("input") ? refusing : MakeSource());
      pipeline.AddFilters(bin == std::string("filter") ? Elements{refusing} : Elements());
      pipeline.AddOutputs({watch.element});
      pipeline.AddOutputs(bin == std::string("output") ? Elements{refusing} : Elements());
      pipeline.SetEnable(true);
      watch.AwaitFrames();
      faulty::Of(told.Get()).fails = GST_STATE_CHANGE_PAUSED_TO_READY;
      SetDeadline(10);
    }
    EXPECT_EQ(GST_STATE(told.Get()), GST_STATE_PAUSED);
    faulty::Of(told.Get()).fails = Faults::kNone;
    EXPECT_EQ(gst_element_set_state(told.Get(), GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
  }
  gst_deinit();
}

// An input with a queue of its own sends no EOS when a frame fails. Of a failure between its queue and its end that
// queue alone knows.
TEST_F(Faulty, AFailureEndsTheStreamOfAnInputWithAQueue) {
  for (const auto& [end, flow] : {std::pair(" ! queue name=last", GST_FLOW_ERROR),
                                  std::pair(" ! queue name=last ! identity error-after=20", GST_FLOW_OK)}) {
    const auto filter = faulty::Make();
    faulty::Of(filter.Get()).flow = flow;
    Stream stream(MakeSource(false, end), {filter}, false);
    stream.pipeline.SetEnable(true);
    const auto pad = PadOf(*stream.Find("last"), "src");
    Await([&] { return gst_pad_get_last_flow_return(pad.Get()) == GST_FLOW_ERROR; });
    EXPECT_EQ(ErrorOf([&] { stream.pipeline.AddFilters({Make("identity")}); }), kEnded);
  }
}

// What the input sends may fail while an output is yet to stop.
TEST_F(Faulty, AStreamThatIsStoppedDoesNotEnd) {
  for (const bool is_exchanged : {false, true}) {
    const auto input = MakeFaulty(kFaultyInput);
    const Watch slow(faulty::Make());
    Pipeline pipeline(1, "stopped");
    faulty::Of(slow.element.Get()).flow = Faults::kDrops;  // no element follows
    faulty::Of(slow.element.Get()).blocks = GST_STATE_CHANGE_PAUSED_TO_READY;
    pipeline.SetInput(input);
    pipeline.AddOutputs({slow.element});
    pipeline.SetEnable(true);
    slow.AwaitFrames();
    const auto stop = [&] { is_exchanged ? pipeline.SetInput(MakeSource()) : pipeline.SetEnable(false); };
    auto stopped = std::async(std::launch::async, stop);
    Await([&] { return GST_STATE(slow.element.Get()) == GST_STATE_PAUSED; });
    Told(input).flow = GST_FLOW_ERROR;
    stopped.get();
    EXPECT_EQ(slow.eos, 0U);
  }
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
    EXPECT_TRUE(reached || (i > 0 && error == kNoError)) << error;
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
    if (pipeline.GetFilters().empty() == with_filter) {
      const auto change = with_filter ? &Pipeline::AddFilters : &Pipeline::EraseFilters;
      (pipeline.*change)(filter);
    }
    if ((pipeline.GetOutputs().size() == 2) != with_output) {
      const auto change = with_output ? &Pipeline::AddOutputs : &Pipeline::EraseOutputs;
      (pipeline.*change)(output);
    }
  };
  FailEachAllocation([&] { pipeline.AddFilters(filter); }, [&] { have(false, false); });
  FailEachAllocation([&] { pipeline.EraseFilters(filter); }, [&] { have(true, false); });
  FailEachAllocation([&] { pipeline.AddOutputs(output); }, [&] { have(false, false); });
  FailEachAllocation([&] { pipeline.EraseOutputs(output); }, [&] { have(false, true); });
  EXPECT_EQ(GST_BIN(stream.Find("output_bin").Get())->numchildren, 3);
  stream.watch.ExpectWhole();
  const auto exchange = [&] { pipeline.SetInput(MakeSource()); };
  FailEachAllocation(exchange, [&] { exchange(), stream.watch.AwaitFrames(); });
  FailEachAllocation([] { Pipeline(2, "second"); });
  FailEachAllocation([] { EXPECT_EQ(MoxGstreamerPluginPathResolveFromLibraryName("none"), nullptr); });
  FailEachAllocation([] {
    auto full = std::make_unique<std::string>("no room for one character more");
    mox::logging::Logger(mox::logging::Name("full")).Output(std::move(full), false);
  });
}

}  // namespace
