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

const auto kStreamHasEnded =
    ThrowsMessage<std::runtime_error>("Cannot change the filters because the stream has ended");

/** The outcomes for a playing pipeline with a faulty element, as docs/faults.md names them. */
enum Outcome { kContinues, kRefused, kCannotStop, kEnds, kSilent };

struct Fault {
  const char* name;
  std::atomic<int> Faults::*kind;
  int value;
  Outcome as_filter;
  Outcome as_output;
  Outcome as_input;

  friend std::ostream& operator<<(std::ostream& stream, const Fault& fault) { return stream << fault.name; }
};

constexpr Fault kFaults[] = {
    {"FailsNullToReady", &Faults::fails, GST_STATE_CHANGE_NULL_TO_READY, kRefused, kRefused, kRefused},
    {"FailsReadyToPaused", &Faults::fails, GST_STATE_CHANGE_READY_TO_PAUSED, kRefused, kRefused, kRefused},
    {"FailsPausedToPlaying", &Faults::fails, GST_STATE_CHANGE_PAUSED_TO_PLAYING, kRefused, kRefused, kRefused},
    {"FailsPlayingToPaused", &Faults::fails, GST_STATE_CHANGE_PLAYING_TO_PAUSED, kCannotStop, kCannotStop, kCannotStop},
    {"FailsPausedToReady", &Faults::fails, GST_STATE_CHANGE_PAUSED_TO_READY, kCannotStop, kCannotStop, kCannotStop},
    {"FailsReadyToNull", &Faults::fails, GST_STATE_CHANGE_READY_TO_NULL, kCannotStop, kCannotStop, kCannotStop},
    {"BlocksWhileStarting", &Faults::blocks, GST_STATE_CHANGE_READY_TO_PAUSED, kContinues, kContinues, kContinues},
    {"BlocksWhileStopping", &Faults::blocks, GST_STATE_CHANGE_PAUSED_TO_READY, kContinues, kContinues, kContinues},
    {"RefusesCaps", &Faults::refuses_caps, TRUE, kEnds, kEnds, kEnds},
    {"DropsEveryFrame", &Faults::flow, Faults::kDrops, kSilent, kContinues, kSilent},
    {"NotLinked", &Faults::flow, GST_FLOW_NOT_LINKED, kEnds, kContinues, kEnds},
    {"Flushing", &Faults::flow, GST_FLOW_FLUSHING, kSilent, kSilent, kSilent},
    {"Eos", &Faults::flow, GST_FLOW_EOS, kEnds, kEnds, kEnds},
    {"NotNegotiated", &Faults::flow, GST_FLOW_NOT_NEGOTIATED, kEnds, kEnds, kEnds},
    {"Error", &Faults::flow, GST_FLOW_ERROR, kEnds, kEnds, kEnds},
    {"NotSupported", &Faults::flow, GST_FLOW_NOT_SUPPORTED, kEnds, kEnds, kEnds},
    {"PostsErrors", &Faults::errors, 5, kContinues, kContinues, kSilent},
};

// Makes a bin of a description with the element "faulty".
Ptr<GstElement> MakeFaulty(const std::string& description) {
  gst_element_register(nullptr, "faulty", GST_RANK_NONE, faulty::Type());
  return Parse(description);
}

Ptr<GstElement> MakeFaultyInput() {
  return MakeFaulty("videotestsrc pattern=black ! capsfilter caps=video/x-raw,width=16,height=16 ! faulty name=faulty");
}

Ptr<GstElement> FindFaulty(const Ptr<GstElement>& bin) {
  return Find(*GST_BIN(bin.Get()), "faulty");
}

auto FailsTo(const std::string& operation) {
  return ThrowsMessage<std::runtime_error>(StartsWith("Element Error: Failed to " + operation + " of the element '"));
}

struct FaultsTest : live::Test, testing::WithParamInterface<Fault> {
  // Puts a faulty element into the playing pipeline and takes it out.
  void Expect(Outcome outcome, const Ptr<GstElement>& element, const Call& put, const Call& take) {
    const bool is_input = element->numsinkpads == 0;
    const auto is_in = [&] { return GST_OBJECT_PARENT(element.Get()) != nullptr; };
    Faults& faults = faulty::Of(FindFaulty(element).Get());
    faults.*GetParam().kind = GetParam().value;
    switch (outcome) {
      case kContinues:
        put();
        stream.watch.AwaitFrames();
        take();
        EXPECT_FALSE(is_in());
        break;
      case kRefused:
        EXPECT_THAT(put, FailsTo("sync the state"));
        EXPECT_EQ(is_in(), is_input);
        break;
      case kCannotStop:
        put();
        stream.watch.AwaitFrames();
        EXPECT_THAT(take, FailsTo("set the state"));
        EXPECT_TRUE(is_in());
        faults.fails = Faults::kNone;
        if (!is_input) {
          Watch(element).AwaitFrames();
        }
        break;
      case kEnds:
        put();
        Await([&] { return stream.watch.eos == 1; });
        EXPECT_THAT([&] { pipeline.AddFilters({Make("identity")}); }, kStreamHasEnded);
        break;
      case kSilent:
        put();
    }
    EXPECT_EQ(stream.watch.eos, static_cast<std::size_t>(outcome == kEnds));
    if (!is_input && outcome != kEnds && outcome != kSilent) {
      stream.watch.ExpectWhole();
    }

    // In each case the pipeline can be stopped, and started with another input.
    pipeline.SetEnable(false);
    if (is_in()) {
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
  const auto filter = MakeFaulty("faulty name=faulty");
  const auto put = [&] { pipeline.AddFilters({filter}); };
  const auto take = [&] { pipeline.EraseFilters({filter}); };
  Expect(GetParam().as_filter, filter, put, take);
}

TEST_P(FaultsTest, AsOutputBesideAnother) {
  const auto output = MakeFaulty("faulty name=faulty ! fakesink");
  const auto put = [&] { pipeline.AddOutputs({output}); };
  const auto take = [&] { pipeline.EraseOutputs({output}); };
  Expect(GetParam().as_output, output, put, take);
}

TEST_P(FaultsTest, AsInput) {
  const auto input = MakeFaultyInput();
  const auto put = [&] { pipeline.SetInput(input); };
  const auto take = [&] { pipeline.SetInput(MakeSource()); };
  Expect(GetParam().as_input, input, put, take);
}

INSTANTIATE_TEST_SUITE_P(Element, FaultsTest, testing::ValuesIn(kFaults),
                         [](const auto& test) { return test.param.name; });

using Faulty = live::Test;

// A source that is to renegotiate, as it is after a change, ignores a not-negotiated and tries again.
TEST_F(Faulty, TransientNotNegotiatedDoesNotEndTheStream) {
  const auto filter = faulty::Make();
  faulty::Of(filter.Get()).once = TRUE;
  faulty::Of(filter.Get()).flow = GST_FLOW_NOT_NEGOTIATED;
  Stream stream(Parse("videotestsrc is-live=true ! capsfilter caps=video/x-raw,framerate=5/1"));
  stream.pipeline.AddFilters({filter});
  const auto feeding = PadOf(*stream.pipeline.GetInput(), "src");
  Await([&] { return gst_pad_get_last_flow_return(feeding.Get()) == GST_FLOW_NOT_NEGOTIATED; });
  stream.pipeline.AddFilters({Make("identity")});
  EXPECT_EQ(stream.pipeline.GetFilters().size(), 2U);
  stream.watch.AwaitFrames();
}

// If the others were left running, GStreamer would wait for their threads.
TEST_F(Faulty, DestructionStopsTheElementsBesideOneThatRefuses) {
  const auto filter = MakeFaulty("queue ! faulty name=faulty");
  const auto refusing = FindFaulty(filter);
  {
    Stream stream(MakeSource(), {filter});
    faulty::Of(refusing.Get()).fails = GST_STATE_CHANGE_PAUSED_TO_READY;
    SetDeadline(10);
  }
  EXPECT_EQ(GST_STATE(refusing.Get()), GST_STATE_PAUSED);
  faulty::Of(refusing.Get()).fails = Faults::kNone;
  EXPECT_EQ(gst_element_set_state(refusing.Get(), GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
  gst_deinit();
}

// A queue that has failed sends no EOS.
TEST_F(Faulty, FailureOfAQueueInTheInputEndsTheStream) {
  Stream stream(MakeSource(false, " ! queue name=last ! identity error-after=20"), {}, false);
  stream.pipeline.SetEnable(true);
  const auto pad = PadOf(*stream.Find("last"), "src");
  Await([&] { return gst_pad_get_last_flow_return(pad.Get()) == GST_FLOW_ERROR; });
  EXPECT_THAT([&] { stream.pipeline.AddFilters({Make("identity")}); }, kStreamHasEnded);
}

// The input fails while an output has yet to stop.
TEST_F(Faulty, StopsAndExchangesSendNoEos) {
  void (*const stops[])(Pipeline&) = {[](Pipeline& pipeline) { pipeline.SetEnable(false); },
                                      [](Pipeline& pipeline) { pipeline.SetInput(MakeSource()); }};
  for (const auto& stop : stops) {
    const auto input = MakeFaultyInput();
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
    faulty::Of(FindFaulty(input).Get()).flow = GST_FLOW_ERROR;
    stopped.get();
    EXPECT_EQ(slow.eos, 0U);
  }
}

struct FailedAllocation : live::Test {
  // Lets each allocation of the call fail in turn, until it makes no more.
  void FailEach(const Call& call, const Call& repair) {
    long succeeding = 0;
    for (bool has_failed = true; has_failed; ++succeeding) {
      repair();
      stream.watch.AwaitFrames();
      until_failure = succeeding;
      try {
        call();
      } catch (const std::bad_alloc&) {  // the call may also survive the failure
      }
      has_failed = until_failure.exchange(-1) < 0;
    }
    EXPECT_GT(succeeding, 1) << "no allocation was made";
  }

  Stream stream;
  Pipeline& pipeline = stream.pipeline;
};

TEST_F(FailedAllocation, LeavesEachChangeMadeOrNotMade) {
  const Elements filters{Make("identity")};
  const Elements outputs{Parse("identity ! fakesink")};
  const auto change = [&] {
    pipeline.AddFilters(filters);
    pipeline.EraseFilters(filters);
    pipeline.AddOutputs(outputs);
    pipeline.EraseOutputs(outputs);
  };
  const auto repair = [&] {
    pipeline.EraseFilters(pipeline.GetFilters());
    if (pipeline.GetOutputs().size() == 2) {
      pipeline.EraseOutputs(outputs);
    }
  };
  FailEach(change, repair);
  EXPECT_EQ(GST_BIN(stream.Find("output_bin").Get())->numchildren, 3);
  stream.watch.ExpectWhole();
}

TEST_F(FailedAllocation, OfAnExchangeIsRepairedByTheNext) {
  const auto exchange = [&] { pipeline.SetInput(MakeSource()); };
  FailEach(exchange, exchange);
}

TEST_F(FailedAllocation, OfAnAllocationQueryRefusesIt) {
  const auto sink = PadOf(*pipeline.GetOutputs().front().queue, "sink");
  const Ptr<GstQuery> query(gst_query_new_allocation(nullptr, FALSE));
  FailEach([&] { gst_pad_query(sink.Get(), query.Get()); }, [] {});
}

TEST_F(FailedAllocation, DoesNotOutliveTheCall) {
  const auto nothing = [] {};
  FailEach([] { Pipeline(2, "second"); }, nothing);
  FailEach([] { EXPECT_EQ(MoxGstreamerPluginPathResolveFromLibraryName("none"), nullptr); }, nothing);
  const auto log = [] {
    auto full = std::make_unique<std::string>("no room for one character more");
    mox::logging::Logger(mox::logging::Name("full")).Output(std::move(full), false);
  };
  FailEach(log, nothing);
}

}  // namespace
