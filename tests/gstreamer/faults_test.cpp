#include "mox/gstreamer/plugin/path/resolve/from_library_name.h"
#include "mox/logging/logger.h"
#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

#include <memory>
#include <new>

#include <dlfcn.h>

// The number of allocations that succeed before one fails; if negative, none fails.
static std::atomic<long> until_failure = -1;

// Replaces the operator of the program and of its libraries.
void* operator new(std::size_t size) {
  static const auto allocate = reinterpret_cast<void* (*)(std::size_t)>(dlsym(RTLD_NEXT, "_Znwm"));
  return until_failure >= 0 && until_failure-- == 0 ? throw std::bad_alloc() : allocate(size);
}

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using faulty::Faults;

using Call = std::function<void()>;
using testing::StartsWith;
using testing::ThrowsMessage;

const testing::Matcher<Call> kSucceeds = testing::Not(testing::Throws<std::exception>());
const testing::Matcher<Call> kStreamHasEnded =
    ThrowsMessage<std::runtime_error>("Cannot change the filters because the stream has ended");

/** The outcomes for a playing pipeline with a faulty element, as docs/faults.md names them. */
enum Outcome { kContinues, kRefused, kCannotStop, kEnds, kSilent };

struct Fault {
  const char* name;
  void (*set)(Faults&);
  Outcome as_filter;
  Outcome as_output;
  Outcome as_input;

  friend std::ostream& operator<<(std::ostream& stream, const Fault& fault) { return stream << fault.name; }
};

template <auto kMember, auto kValue>
void Set(Faults& faults) {
  faults.*kMember = kValue;
}
template <GstStateChange kChange>
constexpr auto kFails = Set<&Faults::fails, kChange>;
template <GstStateChange kChange>
constexpr auto kBlocks = Set<&Faults::blocks, kChange>;
template <GstFlowReturn kFlow>
constexpr auto kReturns = Set<&Faults::flow, kFlow>;

constexpr Fault kFaults[] = {
    {"FailsNullToReady", kFails<GST_STATE_CHANGE_NULL_TO_READY>, kRefused, kRefused, kRefused},
    {"FailsReadyToPaused", kFails<GST_STATE_CHANGE_READY_TO_PAUSED>, kRefused, kRefused, kRefused},
    {"FailsPausedToPlaying", kFails<GST_STATE_CHANGE_PAUSED_TO_PLAYING>, kRefused, kRefused, kRefused},
    {"FailsPlayingToPaused", kFails<GST_STATE_CHANGE_PLAYING_TO_PAUSED>, kCannotStop, kCannotStop, kCannotStop},
    {"FailsPausedToReady", kFails<GST_STATE_CHANGE_PAUSED_TO_READY>, kCannotStop, kCannotStop, kCannotStop},
    {"FailsReadyToNull", kFails<GST_STATE_CHANGE_READY_TO_NULL>, kCannotStop, kCannotStop, kCannotStop},
    {"BlocksWhileStarting", kBlocks<GST_STATE_CHANGE_READY_TO_PAUSED>, kContinues, kContinues, kContinues},
    {"BlocksWhileStopping", kBlocks<GST_STATE_CHANGE_PAUSED_TO_READY>, kContinues, kContinues, kContinues},
    {"RefusesCaps", Set<&Faults::refuses_caps, true>, kEnds, kEnds, kEnds},
    {"DropsEveryFrame", kReturns<Faults::kDrops>, kSilent, kContinues, kSilent},
    {"NotLinked", kReturns<GST_FLOW_NOT_LINKED>, kEnds, kContinues, kEnds},
    {"Flushing", kReturns<GST_FLOW_FLUSHING>, kSilent, kSilent, kSilent},
    {"Eos", kReturns<GST_FLOW_EOS>, kEnds, kEnds, kEnds},
    {"NotNegotiated", kReturns<GST_FLOW_NOT_NEGOTIATED>, kEnds, kEnds, kEnds},
    {"Error", kReturns<GST_FLOW_ERROR>, kEnds, kEnds, kEnds},
    {"NotSupported", kReturns<GST_FLOW_NOT_SUPPORTED>, kEnds, kEnds, kEnds},
    {"PostsErrors", Set<&Faults::errors, 5>, kContinues, kContinues, kSilent},
};

// Makes a bin of a description with the element "faulty".
Ptr<GstElement> MakeFaulty(const std::string& description) {
  gst_element_register(nullptr, "faulty", GST_RANK_NONE, faulty::Type());
  return Parse(description);
}

const std::string kGoodInput = "videotestsrc pattern=black ! capsfilter caps=video/x-raw,width=16,height=16";
const std::string kFaultyInput = kGoodInput + " ! faulty name=faulty";

Faults& FaultsIn(const Ptr<GstElement>& bin) {
  return faulty::Of(Find(*GST_BIN(bin.Get()), "faulty").Get());
}

struct FaultsTest : live::Test, testing::WithParamInterface<Fault> {
  // Puts a faulty element into the playing pipeline and takes it out.
  void Expect(Outcome outcome, const Ptr<GstElement>& element, const Call& put, const Call& take,
              const testing::Matcher<Call>& take_at_the_end = kSucceeds) {
    Faults& faults = FaultsIn(element);
    GetParam().set(faults);
    switch (outcome) {
      case kContinues:
        put();
        stream.watch.AwaitFrames();
        take();
        EXPECT_FALSE(IsIn(element));
        break;
      case kRefused:
        EXPECT_THAT(put, ThrowsMessage<std::runtime_error>(
                             StartsWith("Element Error: Failed to sync the state of the element '")));
        EXPECT_EQ(IsIn(element), IsInput(element));
        break;
      case kCannotStop:
        put();
        stream.watch.AwaitFrames();
        EXPECT_THAT(take, ThrowsMessage<std::runtime_error>(
                              StartsWith("Element Error: Failed to set the state of the element '")));
        EXPECT_TRUE(IsIn(element));
        faults.fails = Faults::kNone;
        break;
      case kEnds:
        put();
        Await([&] { return stream.watch.eos == 1; });
        EXPECT_THAT(take, take_at_the_end);
        break;
      case kSilent:
        put();
        EXPECT_TRUE(IsIn(element));
    }
    EXPECT_EQ(stream.watch.eos, static_cast<std::size_t>(outcome == kEnds));
    if (!IsInput(element) && outcome == kCannotStop) {
      Watch(element).AwaitFrames();
    }
    if (!IsInput(element) && outcome != kEnds && outcome != kSilent) {
      stream.watch.ExpectWhole();
    }

    // In each case the pipeline can be stopped, and started with another input.
    pipeline.SetEnable(false);
    if (IsIn(element)) {
      take();
    }
    pipeline.SetInput(MakeSource());
    pipeline.SetEnable(true);
    stream.watch.AwaitFrames();
    EXPECT_EQ(stream.watch.misplaced, 0U);
  }

  static bool IsIn(const Ptr<GstElement>& element) { return GST_OBJECT_PARENT(element.Get()) != nullptr; }
  static bool IsInput(const Ptr<GstElement>& element) { return element->numsinkpads == 0; }

  Stream stream;
  Pipeline& pipeline = stream.pipeline;
};

TEST_P(FaultsTest, AsFilter) {
  const auto filter = MakeFaulty("faulty name=faulty");
  const auto put = [&] { pipeline.AddFilters({filter}); };
  const auto take = [&] { pipeline.EraseFilters({filter}); };
  Expect(GetParam().as_filter, filter, put, take, kStreamHasEnded);
}

TEST_P(FaultsTest, AsOutputBesideAnother) {
  const auto output = MakeFaulty("faulty name=faulty ! fakesink");
  const auto put = [&] { pipeline.AddOutputs({output}); };
  const auto take = [&] { pipeline.EraseOutputs({output}); };
  Expect(GetParam().as_output, output, put, take);
}

TEST_P(FaultsTest, AsInput) {
  const auto input = MakeFaulty(kFaultyInput);
  const auto put = [&] { pipeline.SetInput(input); };
  const auto take = [&] { pipeline.SetInput(MakeSource()); };
  Expect(GetParam().as_input, input, put, take);
}

INSTANTIATE_TEST_SUITE_P(Element, FaultsTest, testing::ValuesIn(kFaults),
                         [](const auto& test) { return test.param.name; });

using Faulty = live::Test;

// A source that is to renegotiate ignores a not-negotiated, and tries again.
TEST_F(Faulty, TransientNotNegotiatedDoesNotEndTheStream) {
  std::atomic<bool> has_failed = false;
  const auto filter = faulty::Make();
  Stream stream(Parse("videotestsrc is-live=true ! capsfilter caps=video/x-raw,framerate=5/1"), {filter});
  AddProbe(*PadOf(*filter, "sink"), GST_PAD_PROBE_TYPE_BUFFER, [&](GstPad& pad, auto&) {
    gst_pad_push_event(&pad, gst_event_new_reconfigure());
    faulty::Of(filter.Get()).flow = has_failed.exchange(true) ? GST_FLOW_OK : GST_FLOW_NOT_NEGOTIATED;
    return GST_PAD_PROBE_OK;
  });
  const auto feeding = PadOf(*stream.pipeline.GetInput(), "src");
  Await([&] { return gst_pad_get_last_flow_return(feeding.Get()) == GST_FLOW_NOT_NEGOTIATED; });
  stream.pipeline.AddFilters({Make("identity")});
  EXPECT_EQ(stream.pipeline.GetFilters().size(), 2U);
  stream.watch.AwaitFrames();
}

// Otherwise the threads of the others would continue, and GStreamer would wait for them.
TEST_F(Faulty, DestructionStopsTheElementsBesideOneThatRefuses) {
  const struct {
    const char* faulty;
    std::string input;
    std::string filter;
    std::string output;
  } rows[] = {
      {"input", kFaultyInput, "identity", "queue ! fakesink"},
      {"filter", kGoodInput, "queue ! faulty name=faulty", "queue ! fakesink"},
      {"output", kGoodInput, "identity", "queue ! faulty name=faulty ! fakesink"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.faulty);
    Ptr<GstElement> refusing;
    {
      Stream stream(MakeFaulty(row.input), {MakeFaulty(row.filter)}, false);
      stream.pipeline.AddOutputs({MakeFaulty(row.output)});
      stream.pipeline.SetEnable(true);
      stream.watch.AwaitFrames();
      refusing = stream.Find("faulty");
      faulty::Of(refusing.Get()).fails = GST_STATE_CHANGE_PAUSED_TO_READY;
      SetDeadline(10);
    }
    EXPECT_EQ(GST_STATE(refusing.Get()), GST_STATE_PAUSED);
    faulty::Of(refusing.Get()).fails = Faults::kNone;
    EXPECT_EQ(gst_element_set_state(refusing.Get(), GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
  }
  gst_deinit();
}

// A queue that has failed sends no EOS.
TEST_F(Faulty, FailureOfAQueueInTheInputEndsTheStream) {
  const auto failing = faulty::Make();
  faulty::Of(failing.Get()).flow = GST_FLOW_ERROR;
  const struct {
    const char* input_end;
    Ptr<GstElement> filter;
  } rows[] = {{" ! queue name=last", failing}, {" ! queue name=last ! identity error-after=20", Make("identity")}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.input_end);
    Stream stream(MakeSource(false, row.input_end), {row.filter}, false);
    stream.pipeline.SetEnable(true);
    const auto pad = PadOf(*stream.Find("last"), "src");
    Await([&] { return gst_pad_get_last_flow_return(pad.Get()) == GST_FLOW_ERROR; });
    EXPECT_THAT([&] { stream.pipeline.AddFilters({Make("identity")}); }, kStreamHasEnded);
  }
}

// The input fails while an output has yet to stop.
TEST_F(Faulty, StopsAndExchangesSendNoEos) {
  void (*const stops[])(Pipeline&) = {[](Pipeline& pipeline) { pipeline.SetEnable(false); },
                                      [](Pipeline& pipeline) { pipeline.SetInput(MakeSource()); }};
  for (const auto& stop : stops) {
    const auto input = MakeFaulty(kFaultyInput);
    const Watch slow(faulty::Make());
    Faults& faults = faulty::Of(slow.element.Get());
    faults.flow = Faults::kDrops;  // no element follows
    faults.blocks = GST_STATE_CHANGE_PAUSED_TO_READY;
    Pipeline pipeline(1, "stopped");
    pipeline.SetInput(input);
    pipeline.AddOutputs({slow.element});
    pipeline.SetEnable(true);
    slow.AwaitFrames();
    auto stopped = std::async(std::launch::async, stop, std::ref(pipeline));
    Await([&] { return GST_STATE(slow.element.Get()) == GST_STATE_PAUSED; });
    FaultsIn(input).flow = GST_FLOW_ERROR;
    stopped.get();
    EXPECT_EQ(slow.eos, 0U);
  }
}

// Lets each allocation of the call fail in turn, until it makes no more.
void FailEachAllocation(
    const Call& call, const Call& prepare = [] {}) {
  long failed = -1;
  bool was_reached = true;
  for (; was_reached; ++failed) {
    prepare();
    until_failure = failed + 1;
    try {
      call();
    } catch (const std::bad_alloc&) {  // or another call has to fail
    }
    was_reached = until_failure.exchange(-1) < 0;
  }
  EXPECT_GT(failed, 0) << "no allocation was made";
}

TEST_F(Faulty, FailedAllocationLeavesEachChangeMadeOrNotMade) {
  Stream stream;
  auto& pipeline = stream.pipeline;
  const Elements filter{Make("identity")};
  const Elements output{Parse("identity ! fakesink")};
  const auto have_filter = [&](bool wanted) {
    stream.watch.AwaitFrames();
    if (pipeline.GetFilters().empty() == wanted) {
      const auto change = wanted ? &Pipeline::AddFilters : &Pipeline::EraseFilters;
      (pipeline.*change)(filter);
    }
  };
  const auto have_output = [&](bool wanted) {
    stream.watch.AwaitFrames();
    if ((pipeline.GetOutputs().size() == 2) != wanted) {
      const auto change = wanted ? &Pipeline::AddOutputs : &Pipeline::EraseOutputs;
      (pipeline.*change)(output);
    }
  };
  FailEachAllocation([&] { pipeline.AddFilters(filter); }, [&] { have_filter(false); });
  FailEachAllocation([&] { pipeline.EraseFilters(filter); }, [&] { have_filter(true); });
  FailEachAllocation([&] { pipeline.AddOutputs(output); }, [&] { have_output(false); });
  FailEachAllocation([&] { pipeline.EraseOutputs(output); }, [&] { have_output(true); });
  EXPECT_EQ(GST_BIN(stream.Find("output_bin").Get())->numchildren, 3);
  stream.watch.ExpectWhole();
}

TEST_F(Faulty, FailedAllocationOfAnExchangeIsRepairedByTheNext) {
  Stream stream;
  const auto exchange = [&] { stream.pipeline.SetInput(MakeSource()); };
  FailEachAllocation(exchange, [&] {
    exchange();
    stream.watch.AwaitFrames();
  });
}

TEST_F(Faulty, FailedAllocationDoesNotOutliveTheCall) {
  FailEachAllocation([] { Pipeline(2, "second"); });
  FailEachAllocation([] { EXPECT_EQ(MoxGstreamerPluginPathResolveFromLibraryName("none"), nullptr); });
  FailEachAllocation([] {
    auto full = std::make_unique<std::string>("no room for one character more");
    mox::logging::Logger(mox::logging::Name("full")).Output(std::move(full), false);
  });
}

}  // namespace
