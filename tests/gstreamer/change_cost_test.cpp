#include "mox/export.h"
#include "mox/gstreamer/bin/pipeline.h"
#include "mox/gstreamer/pad_probe.h"
#include "tests/gstreamer/calls.h"
#include "tests/gstreamer/live.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <future>
#include <numeric>
#include <string>

#include <gtest/gtest.h>

namespace {

std::atomic<std::uint64_t> allocations = 0;

}  // namespace

// In the place of the C library's own, for all that is loaded.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

MOX_EXPORT void* malloc(std::size_t size) {
  ++allocations;
  return __libc_malloc(size);
}
MOX_EXPORT void* calloc(std::size_t count, std::size_t size) {
  ++allocations;
  return __libc_calloc(count, size);
}
MOX_EXPORT void* realloc(void* memory, std::size_t size) {
  ++allocations;
  return __libc_realloc(memory, size);
}
}

namespace live {
namespace {

struct Cost {
  std::uint64_t allocations = 0;
  calls::Counts calls;

  friend bool operator<(const Cost& left, const Cost& right) { return left.allocations < right.allocations; }
};

std::uint64_t Sum(const calls::Counts& calls) {
  return std::accumulate(calls.begin(), calls.end(), std::uint64_t{0},
                         [](std::uint64_t sum, const auto& call) { return sum + call.second; });
}

/** A pipeline whose frames come when the test says so. */
class Fed {
 public:
  explicit Fed(int chain) {
    pipeline_.SetInput(input_);
    Elements filters;
    for (int i = 0; i < chain; ++i) {
      filters.push_back(Make("identity"));
    }
    pipeline_.AddFilters(filters);
    pipeline_.AddOutputs({watch_.Element()});
    pipeline_.SetEnable(true);
    const Ptr<GstCaps> caps(gst_caps_from_string("video/x-raw,format=I420,width=16,height=16,framerate=60/1"));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_send_event(sink_.Get(), gst_event_new_stream_start("fed"));
    gst_pad_send_event(sink_.Get(), gst_event_new_caps(caps.Get()));
    gst_pad_send_event(sink_.Get(), gst_event_new_segment(&segment));
    Feed();
    Await("playing", [&] { return pipeline_.GetState() == Pipeline::State::Playing; });
  }

  /** What a change costs together with the one frame that it holds and that comes out at the end. */
  template <typename Change>
  Cost Measure(const Change& change) {
    const Ptr<GstElement> input_bin(gst_bin_get_by_name(GST_BIN(&pipeline_.Get()), "input_bin"));
    const Ptr<GstPad> held(gst_element_get_static_pad(input_bin.Get(), "src"));
    counter_.Take();
    const std::uint64_t before = allocations;
    auto fed = std::async(std::launch::async, [&] {
      Await("the hold", [&] { return gst_pad_is_blocked(held.Get()) != FALSE; });
      Feed();
    });
    change(pipeline_);
    fed.get();
    Cost cost{allocations - before, counter_.Take()};
    cost.calls.erase("gst_bus_timed_pop_filtered");  // the reader looks at the bus twice a second
    return cost;
  }

 private:
  // Pushes a frame and waits until it has passed the output.
  void Feed() {
    const std::size_t frames = watch_.Frames();
    GstBuffer* const frame = gst_buffer_new_allocate(nullptr, 16 * 16 * 3 / 2, nullptr);
    GST_BUFFER_OFFSET(frame) = frames;
    gst_pad_chain(sink_.Get(), frame);
    Await("the frame", [&] { return watch_.Frames() > frames; });
    const Ptr<GstPad> at_output(gst_element_get_static_pad(watch_.Element().Get(), "sink"));
    const Ptr<GstPad> queue(gst_pad_get_peer(at_output.Get()));
    mox::gstreamer::PadProbe passed(*queue, GST_PAD_PROBE_TYPE_IDLE, [](auto&, auto&) { return GST_PAD_PROBE_OK; });
    passed.GetFuture().wait();
  }

  Watch watch_{MakeSink()};
  Ptr<GstElement> input_ = Make("identity");
  Ptr<GstPad> sink_{gst_element_get_static_pad(input_.Get(), "sink")};
  Pipeline pipeline_{1, "fed"};
  calls::Counter counter_{"libmox_integration_gstreamer.so.1", "gst_"};
};

using ChangeCost = live::Test;

// Numbers to be lowered with what they count. They are the same in every build: all that is counted is GStreamer's,
// GLib's and the library's, for one frame and one change.
TEST_F(ChangeCost, DoesNotGrow) {
  struct Limits {
    int chain;
    std::uint64_t allocations_to_add, calls_to_add, allocations_to_erase, calls_to_erase;
  };
  for (const auto& limits : {Limits{1, 4288, 161, 4326, 173}, Limits{8, 6295, 322, 6277, 334}}) {
    Fed fed(limits.chain);
    Cost add;
    Cost erase;
    // The first ones settle things. Of the others the cheapest counts: threads that meet may cost an allocation.
    for (int i = 0; i < 6; ++i) {
      const auto filter = Make("identity");
      const Cost added = fed.Measure([&](Pipeline& pipeline) { pipeline.AddFilters({filter}); });
      const Cost erased = fed.Measure([&](Pipeline& pipeline) { pipeline.EraseFilters({filter}); });
      add = i <= 1 ? added : std::min(add, added);
      erase = i <= 1 ? erased : std::min(erase, erased);
    }
    EXPECT_LE(add.allocations, limits.allocations_to_add);
    EXPECT_LE(erase.allocations, limits.allocations_to_erase);
    EXPECT_LE(Sum(add.calls), limits.calls_to_add) << testing::PrintToString(add.calls);
    EXPECT_LE(Sum(erase.calls), limits.calls_to_erase) << testing::PrintToString(erase.calls);
  }
}

}  // namespace
}  // namespace live
