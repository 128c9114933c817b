#include "mox/gstreamer/bus.h"
#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>

namespace {

// After how many allocations one is to fail; none is while it is negative.
std::atomic<long> until_failure = -1;

}  // namespace

// Of the whole program, the library among it. Not inlined, for g++ then takes new and free for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (until_failure >= 0 && until_failure-- == 0) {
    throw std::bad_alloc();
  }
  void* const memory = std::malloc(size);
  return memory != nullptr ? memory : throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using elements::ErrorOf;
using faulty::Faults;
using std::chrono::seconds;

constexpr auto kBounded = seconds(10);

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
  Outcome as_filter;
  Outcome as_output;
  Outcome as_input;
};

template <GstStateChange kChange>
void Fails(Faults& faults) {
  faults.fails = kChange;
}

template <GstStateChange kChange>
void Blocks(Faults& faults) {
  faults.blocks = kChange;
}

template <int kFlow>
void Answers(Faults& faults) {
  faults.flow = static_cast<GstFlowReturn>(kFlow);
}

constexpr Fault kFaults[] = {
    {"FailsNullToReady", Fails<GST_STATE_CHANGE_NULL_TO_READY>, kRefused, kRefused, kRefused},
    {"FailsReadyToPaused", Fails<GST_STATE_CHANGE_READY_TO_PAUSED>, kRefused, kRefused, kRefused},
    {"FailsPausedToPlaying", Fails<GST_STATE_CHANGE_PAUSED_TO_PLAYING>, kRefused, kRefused, kRefused},
    {"FailsPlayingToPaused", Fails<GST_STATE_CHANGE_PLAYING_TO_PAUSED>, kCannotStop, kCannotStop, kCannotStop},
    {"FailsPausedToReady", Fails<GST_STATE_CHANGE_PAUSED_TO_READY>, kCannotStop, kCannotStop, kCannotStop},
    {"FailsReadyToNull", Fails<GST_STATE_CHANGE_READY_TO_NULL>, kCannotStop, kCannotStop, kCannotStop},
    {"BlocksWhileStarting", Blocks<GST_STATE_CHANGE_READY_TO_PAUSED>, kGoesOn, kGoesOn, kGoesOn},
    {"BlocksWhileStopping", Blocks<GST_STATE_CHANGE_PAUSED_TO_READY>, kGoesOn, kGoesOn, kGoesOn},
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

class FaultsTest : public testing::TestWithParam<Fault> {
 protected:
  static void SetUpTestSuite() {
    gst_init(nullptr, nullptr);
    faulty::Register();
  }

  void SetUp() override { stream->Play(); }

  // The pipeline is stopped and destroyed within bounded time, and started again before, with a good input.
  void TearDown() override {
    Within(kBounded, "stopping", [&] { stream->pipeline.SetEnable(false); });
    stream->pipeline.SetInput(MakeSource());
    stream->pipeline.SetEnable(true);
    stream->watch.AwaitFrames();
    EXPECT_EQ(stream->watch.Repeated(), 0U);
    Within(kBounded, "destroying", [&] { stream.reset(); });
  }

  /** An element told of the fault, in a bin made of a description. */
  Ptr<GstElement> MakeFaulty(const std::string& description) {
    auto bin = Parse(description);
    told = Ptr<GstElement>(gst_bin_get_by_name(GST_BIN(bin.Get()), "told"));
    GetParam().tell(faulty::Of(*told));
    return bin;
  }

  /** Puts the element in by one call and takes it out by another, which both are to end in bounded time. */
  template <typename Put, typename Take>
  void Expect(Outcome outcome, const Put& put, const Take& take) {
    std::string error;
    Within(kBounded, "putting in", [&] { error = ErrorOf(put); });
    if (outcome == kRefused) {
      EXPECT_EQ(error.rfind("Element Error: Failed to sync the state of the element '", 0), 0U) << error;
      return;
    }
    EXPECT_EQ(error, "no error");
    const auto& watch = stream->watch;
    switch (outcome) {
      case kEnds:
        return Await("the end of the stream", [&] { return watch.Eos() == 1; });
      case kSilent:
        return;
      default:
        watch.AwaitFrames();
        Within(kBounded, "taking out", [&] { error = ErrorOf(take); });
        faulty::Of(*told).fails = Faults::kNone;  // what could never be stopped could not be destroyed either
        if (outcome == kGoesOn) {
          EXPECT_EQ(error, "no error");
          watch.AwaitFrames();
        } else {
          EXPECT_EQ(error.rfind("Element Error: Failed to set the state of the element '", 0), 0U) << error;
        }
    }
  }

  std::unique_ptr<Stream> stream = std::make_unique<Stream>();
  Pipeline& pipeline = stream->pipeline;
  Ptr<GstElement> told;
};

TEST_P(FaultsTest, AsFilter) {
  const auto filter = MakeFaulty("faulty name=told");
  const auto take = [&] { pipeline.EraseFilters({filter}); };
  Expect(
      GetParam().as_filter, [&] { pipeline.AddFilters({filter}); }, take);
  if (GetParam().as_filter == kRefused) {
    stream->watch.AwaitFrames();
    EXPECT_EQ(stream->Graph(), "[]");
  } else if (GetParam().as_filter == kEnds) {
    EXPECT_EQ(ErrorOf(take), "Cannot change the filters because the stream has ended");
  }
  Within(kBounded, "stopping", [&] { pipeline.SetEnable(false); });
  for (const auto& left : pipeline.GetFilters()) {
    pipeline.EraseFilters({left});
  }
}

TEST_P(FaultsTest, AsOutputBesideAnother) {
  const auto output = MakeFaulty("faulty name=told ! fakesink");
  Expect(
      GetParam().as_output, [&] { pipeline.AddOutputs({output}); }, [&] { pipeline.EraseOutputs({output}); });
  if (GetParam().as_output == kRefused || GetParam().as_output == kCannotStop) {
    stream->watch.AwaitFrames();
    stream->watch.ExpectWhole();
  }
  const bool stays = GetParam().as_output != kRefused && GetParam().as_output != kGoesOn;
  EXPECT_EQ(pipeline.GetOutputs().size(), stays ? 2U : 1U);
  if (stays) {
    Within(kBounded, "taking out", [&] { pipeline.EraseOutputs({output}); });
  }
}

TEST_P(FaultsTest, AsInput) {
  const auto input =
      MakeFaulty("videotestsrc pattern=black ! capsfilter caps=video/x-raw,width=16,height=16 ! faulty name=told");
  const auto take = [&] { pipeline.SetInput(MakeSource()); };
  Expect(
      GetParam().as_input, [&] { pipeline.SetInput(input); }, take);
  if (GetParam().as_input != kCannotStop) {
    Within(kBounded, "exchanging", take);
    stream->watch.AwaitFrames();
  }
}

INSTANTIATE_TEST_SUITE_P(Element, FaultsTest, testing::ValuesIn(kFaults),
                         [](const auto& test) { return test.param.name; });

using Faulty = live::Test;

TEST_F(Faulty, AChangeWaitsForASourceThatIsSilent) {
  faulty::Register();
  Stream stream;
  const auto input =
      Parse("videotestsrc pattern=black ! capsfilter caps=video/x-raw,width=16,height=16 ! faulty name=told");
  stream.pipeline.SetInput(input);
  stream.Play();
  const Ptr<GstElement> told(gst_bin_get_by_name(GST_BIN(input.Get()), "told"));
  faulty::Of(*told).flow = Faults::kDrops;
  auto change = std::async(std::launch::async, [&] { stream.pipeline.AddFilters({Make("identity", "late")}); });
  EXPECT_EQ(change.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  faulty::Of(*told).flow = GST_FLOW_OK;
  Within(kBounded, "a change", [&] { change.get(); });
  EXPECT_EQ(stream.Graph(), "[late]");
  stream.watch.AwaitFrames();
}

TEST_F(Faulty, ABusMayBeFlooded) {
  Stream stream;
  stream.Play();
  const Ptr<GstBus> bus(gst_pipeline_get_bus(&stream.pipeline.Get()));
  for (int i = 0; i < 100000; ++i) {
    gst_bus_post(bus.Get(), gst_message_new_latency(GST_OBJECT(&stream.pipeline.Get())));
  }
  gst_bus_post(bus.Get(), gst_message_new_eos(nullptr));
  stream.watch.AwaitFrames();
  Within(kBounded, "a change", [&] { stream.pipeline.AddFilters({Make("queue")}); });
  Within(kBounded, "stopping", [&] { stream.pipeline.SetEnable(false); });
  Await("an empty bus", [&] { return gst_bus_have_pending(bus.Get()) == FALSE; });
}

TEST_F(Faulty, ACallbackMayBeSlow) {
  std::atomic<int> calls = 0;
  Ptr<GstBus> raw(gst_bus_new());
  auto bus = std::make_unique<mox::gstreamer::Bus>(raw);
  auto binding = bus->Bind(GST_MESSAGE_EOS, [&](const GstMessage&) {
    ++calls;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  });
  for (int i = 0; i < 1000; ++i) {
    gst_bus_post(raw.Get(), gst_message_new_eos(nullptr));
  }
  Await("a call", [&] { return calls > 1; });
  Within(seconds(5), "destroying", [&] { bus.reset(); });
  EXPECT_LT(calls, 1000);
}

// Lets each allocation of the call fail in turn until there is none left.
template <typename Call, typename Check>
void FailEachAllocation(const Call& call, const Check& check) {
  for (long i = 0;; ++i) {
    until_failure = i;
    bool failed = false;
    try {
      call();
    } catch (const std::bad_alloc&) {
      failed = true;
    }
    const bool reached = until_failure.exchange(-1) < 0;
    EXPECT_LE(failed, reached);
    check();
    if (!reached) {
      EXPECT_GT(i, 0);
      return;
    }
  }
}

TEST_F(Faulty, AnAllocationMayFail) {
  Stream stream;
  stream.Play();
  auto& pipeline = stream.pipeline;
  const auto filter = Make("identity", "filter");
  const auto output = MakeSink("output");
  const auto flows = [&] { stream.watch.AwaitFrames(); };
  const auto is_filter = [&] { return stream.Graph() == "[filter]"; };
  Within(seconds(60), "a change", [&] {
    FailEachAllocation([&] { pipeline.AddFilters({filter}); },
                       [&] {
                         flows();
                         if (is_filter()) {
                           pipeline.EraseFilters({filter});
                         }
                       });
    pipeline.AddFilters({filter});
    FailEachAllocation([&] { pipeline.EraseFilters({filter}); },
                       [&] {
                         flows();
                         if (!is_filter()) {
                           pipeline.AddFilters({filter});
                         }
                       });
    FailEachAllocation([&] { pipeline.AddOutputs({output}); },
                       [&] {
                         flows();
                         if (pipeline.GetOutputs().size() == 2) {
                           pipeline.EraseOutputs({output});
                         }
                       });
    pipeline.AddOutputs({output});
    FailEachAllocation([&] { pipeline.EraseOutputs({output}); },
                       [&] {
                         flows();
                         if (pipeline.GetOutputs().size() == 1) {
                           pipeline.AddOutputs({output});
                         }
                       });
    stream.watch.ExpectWhole();
    FailEachAllocation([&] { pipeline.SetInput(MakeSource()); },
                       [&] {
                         pipeline.SetInput(MakeSource());
                         flows();
                       });
    FailEachAllocation([&] { Pipeline(2, "second"); }, [] {});
  });
}

}  // namespace
