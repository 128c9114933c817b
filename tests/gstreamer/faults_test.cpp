#include "mox/gstreamer/plugin/path/resolve/from_library_name.h"
#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

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
using testing::ThrowsMessage;
using Call = std::function<void()>;
using Change = std::function<void(Pipeline&, Elements)>;

/** The outcomes for a playing pipeline with a faulty element, as docs/faults.md names them. */
enum Outcome { kContinues, kRefused, kCannotStop, kEnds, kSilent, kMaybeSilent };

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
    {"PostsErrors", &Faults::errors, 5, kContinues, kContinues, kMaybeSilent},
};

struct Faulty : live::Test {
  Stream stream;
  Pipeline& pipeline = stream.pipeline;
};

struct FaultsTest : Faulty, testing::WithParamInterface<Fault> {
  FaultsTest() { gst_element_register(nullptr, "faulty", GST_RANK_NONE, faulty::Type()); }

  // Puts a bin with the element "faulty" into the playing pipeline and takes it out.
  void Expect(Outcome outcome, const std::string& description, const Change& put_in, const Change& take_out) {
    const auto bin = Parse(description);
    const bool is_input = bin->numsinkpads == 0;
    const auto is_in = [&] { return GST_OBJECT_PARENT(bin.Get()) != nullptr; };
    const auto put = [&] { put_in(pipeline, {bin}); };
    const auto take = [&] { take_out(pipeline, {bin}); };
    Faults& faults = faulty::Of(Find(*GST_BIN(bin.Get()), "faulty").Get());
    std::shared_future<void> next_frames;
    faults.*GetParam().kind = GetParam().value;
    switch (outcome) {
      case kContinues:
        put();
        stream.watch.AwaitFrames();
        take();
        break;
      case kRefused:
        EXPECT_THROW(put(), std::runtime_error);
        EXPECT_EQ(is_in(), is_input);
        break;
      case kCannotStop:
        put();
        stream.watch.AwaitFrames();
        EXPECT_THROW(take(), std::runtime_error);
        faults.fails = Faults::kNone;
        if (!is_input) {
          Watch(bin).AwaitFrames();
        }
        break;
      case kEnds:
        put();
        Await([&] { return stream.watch.eos == 1; });
        EXPECT_THAT([&] { pipeline.AddFilters({Make("identity")}); },
                    ThrowsMessage<std::runtime_error>("Cannot change the filters because the stream has ended"));
        break;
      case kSilent:
        put();
        next_frames = StartToWait([&] { stream.watch.AwaitFrames(1000); });  // more than the queues contain
        break;
      case kMaybeSilent:
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
};

TEST_P(FaultsTest, AsFilter) {
  Expect(GetParam().as_filter, "faulty name=faulty", &Pipeline::AddFilters, &Pipeline::EraseFilters);
}

TEST_P(FaultsTest, AsOutputBesideAnother) {
  Expect(GetParam().as_output, "faulty name=faulty ! fakesink", &Pipeline::AddOutputs, &Pipeline::EraseOutputs);
}

TEST_P(FaultsTest, AsInput) {
  const std::string source = "videotestsrc pattern=black ! capsfilter caps=video/x-raw,width=16,height=16";
  const auto set = [](Pipeline& changed, const Elements& inputs) { changed.SetInput(inputs.front()); };
  const auto replace = [](Pipeline& changed, const Elements&) { changed.SetInput(MakeSource()); };
  Expect(GetParam().as_input, source + " ! faulty name=faulty", set, replace);
}

INSTANTIATE_TEST_SUITE_P(Element, FaultsTest, testing::ValuesIn(kFaults),
                         [](const auto& test) { return test.param.name; });

// A source that is to renegotiate, as it is after a change, ignores a not-negotiated and tries again.
TEST_F(Faulty, TransientNotNegotiatedDoesNotEndTheStream) {
  const auto filter = faulty::Make();
  faulty::Of(filter.Get()).once = TRUE;
  faulty::Of(filter.Get()).flow = GST_FLOW_NOT_NEGOTIATED;
  pipeline.SetInput(Parse("videotestsrc is-live=true ! capsfilter caps=video/x-raw,framerate=5/1"));
  stream.watch.AwaitFrames();
  pipeline.AddFilters({filter});
  const auto feeding = PadOf(*pipeline.GetInput(), "src");
  Await([&] { return gst_pad_get_last_flow_return(feeding.Get()) == GST_FLOW_NOT_NEGOTIATED; });
  pipeline.AddFilters({Make("identity")});
  stream.watch.AwaitFrames();
}

// A queue that has failed sends no EOS.
TEST_F(Faulty, FailureOfAQueueInTheInputEndsTheStream) {
  pipeline.SetInput(MakeSource(false, " ! queue name=last ! identity error-after=20"));
  const auto pad = PadOf(*stream.Find("last"), "src");
  Await([&] { return gst_pad_get_last_flow_return(pad.Get()) == GST_FLOW_ERROR; });
  EXPECT_THROW(pipeline.AddFilters({Make("identity")}), std::runtime_error);
}

// The source receives an error while the output has yet to stop.
TEST_F(Faulty, StopsAndExchangesSendNoEos) {
  const auto filter = faulty::Make();
  const Watch slow(faulty::Make());
  Faults& faults = faulty::Of(slow.element.Get());
  faults.flow = Faults::kDrops;  // no element follows
  faults.blocks = GST_STATE_CHANGE_PAUSED_TO_READY;
  pipeline.AddFilters({filter});
  pipeline.AddOutputs({slow.element});
  pipeline.EraseOutputs({stream.watch.element});
  const Call stops[] = {[&] { pipeline.SetInput(MakeSource()); }, [&] { pipeline.SetEnable(false); }};
  for (const auto& stop : stops) {
    slow.AwaitFrames();
    auto stopped = std::async(std::launch::async, stop);
    Await([&] { return GST_STATE(slow.element.Get()) == GST_STATE_PAUSED; });
    faulty::Of(filter.Get()).once = TRUE;
    faulty::Of(filter.Get()).flow = GST_FLOW_ERROR;
    stopped.get();
    EXPECT_EQ(slow.eos, 0U);
  }
}

using Destruction = live::Test;

// If the other elements were left running, GStreamer would wait for their threads.
TEST_F(Destruction, StopsTheElementsBesideOneThatRefuses) {
  const auto refusing = faulty::Make();
  {
    const Stream stream(MakeSource(), {Make("queue"), refusing});
    faulty::Of(refusing.Get()).fails = GST_STATE_CHANGE_PAUSED_TO_READY;
    SetDeadline(10);
  }
  EXPECT_EQ(GST_STATE(refusing.Get()), GST_STATE_PAUSED);
  faulty::Of(refusing.Get()).fails = Faults::kNone;
  gst_element_set_state(refusing.Get(), GST_STATE_NULL);
  gst_deinit();
}

struct FailedAllocation : Faulty {
  static void DoNothing() {}

  // Lets each allocation of the call fail in turn, until it makes no more.
  void FailEach(const Call& call, const Call& repair = DoNothing) {
    long succeeding = 0;
    do {
      repair();
      stream.watch.AwaitFrames();
      until_failure = succeeding++;
      try {
        call();
      } catch (const std::bad_alloc&) {  // the call may also survive the failure
      }
    } while (until_failure.exchange(-1) < 0);
    EXPECT_GT(succeeding, 2) << "no allocation was made";
  }
};

TEST_F(FailedAllocation, LeavesEachChangeMadeOrNotMade) {
  const auto output = Parse("identity ! fakesink");
  const auto change = [&] {
    stream.AddAndEraseFilter("identity");
    pipeline.AddOutputs({output});
    pipeline.EraseOutputs({output});
  };
  const auto repair = [&] {
    pipeline.EraseFilters(pipeline.GetFilters());
    if (pipeline.GetOutputs().size() == 2) {
      pipeline.EraseOutputs({output});
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

TEST_F(FailedAllocation, DoesNotEndTheProgram) {
  const auto queue = PadOf(*pipeline.GetOutputs().front().queue, "sink");
  const Ptr<GstQuery> query(gst_query_new_allocation(nullptr, FALSE));
  FailEach([&] { gst_pad_query(queue.Get(), query.Get()); });
  FailEach([] { EXPECT_EQ(MoxGstreamerPluginPathResolveFromLibraryName("none"), nullptr); });
  FailEach([] { Pipeline(2, "second"); });
}

}  // namespace
