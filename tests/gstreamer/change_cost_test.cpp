#define GST_USE_UNSTABLE_API  // for the tracer hooks

#include "mox/export.h"
#include "tests/gstreamer/live.h"

#include <algorithm>
#include <map>

#include <dlfcn.h>

static std::atomic<std::size_t> allocations, references;

// Replaces the C library's function for everything that is loaded. Calls to calloc and realloc are not counted.
extern "C" MOX_EXPORT void* malloc(std::size_t size) {
  static const auto allocate = reinterpret_cast<void* (*)(std::size_t)>(dlsym(RTLD_NEXT, "malloc"));
  ++allocations;
  return allocate(size);
}

namespace live {

using ChangeCost = live::Test;

struct Cost {
  std::size_t allocations, references;
};

// The most that adding and erasing a filter may cost, for each 1.x series of GStreamer.
// Lower the limits when the cost falls.
static const std::map<guint, Cost> kLimits{
    {22, {10654, 4153}},
    {26, {18973, 4153}},
};

// Counts each reference that is taken to an object, a buffer, an event, a query or caps.
static void CountReferences() {
  const GType type = g_type_register_static_simple(GST_TYPE_TRACER, "ReferenceTracer", sizeof(GstTracerClass), nullptr,
                                                   sizeof(GstTracer), nullptr, static_cast<GTypeFlags>(0));
  auto* const tracer = static_cast<GstTracer*>(g_object_new(type, nullptr));
  const auto count = G_CALLBACK(+[] { ++references; });
  gst_tracing_register_hook(tracer, "object-reffed", count);
  gst_tracing_register_hook(tracer, "mini-object-reffed", count);
}

// Counts what both changes and the two frames that they block cost in GStreamer, GLib and the library together.
// That is the same in every build. Nearly every call to GStreamer allocates memory or takes a reference, so one
// more call exceeds a limit.
TEST_F(ChangeCost, StaysWithinLimits) {
  constexpr std::size_t kRounds = 21;
  CountReferences();
  std::atomic<std::size_t> made = 0;
  Stream stream(MakeSource(), {Make("identity")}, false);
  const auto feeding = PadOf(*stream.pipeline.GetInput(), "src");
  const Ptr<GstPad> upstream(gst_ghost_pad_get_target(GST_GHOST_PAD(feeding.Get())));
  AddProbe(*upstream, GST_PAD_PROBE_TYPE_BUFFER, [&](GstPad& pad, auto&) {
    ++made;
    Await([&] { return GST_PAD_IS_FLUSHING(&pad) || gst_pad_is_blocked(feeding.Get()); });
    return GST_PAD_PROBE_OK;
  });
  stream.pipeline.SetEnable(true);
  Await([&] { return made == 1; });

  const auto filter = Make("identity");
  std::vector<std::size_t> allocations_made, references_taken;
  allocations_made.reserve(kRounds);
  references_taken.reserve(kRounds);
  for (std::size_t frames = 0; frames < 2 * kRounds;) {
    const Cost before{allocations, references};
    for (const auto filter_change : {&Pipeline::AddFilters, &Pipeline::EraseFilters}) {
      (stream.pipeline.*filter_change)({filter});
      ++frames;
      Await([&] { return stream.watch.frames == frames && made == frames + 1; });
    }
    allocations_made.push_back(allocations - before.allocations);
    references_taken.push_back(references - before.references);
  }

  guint major = 0, series = 0, micro = 0, nano = 0;
  gst_version(&major, &series, &micro, &nano);
  // The cheapest round counts. On a busy machine a change that waits looks for a stop and for the end of the stream.
  const auto least = [](const std::vector<std::size_t>& costs) {
    return *std::min_element(costs.begin(), costs.end());
  };
  const Cost cost{least(allocations_made), least(references_taken)};
  std::cout << "GStreamer 1." << series << ": " << cost.allocations << " allocations, " << cost.references
            << " references" << std::endl;
  const auto limit = kLimits.find(series);
  if (limit == kLimits.end()) {
    GTEST_SKIP() << "no limits for this series of GStreamer";
  }
  EXPECT_LE(cost.allocations, limit->second.allocations);
  EXPECT_LE(cost.references, limit->second.references);
}

}  // namespace live
