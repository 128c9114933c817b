#define GST_USE_UNSTABLE_API  // for the tracer hooks

#include "mox/export.h"
#include "mox/gstreamer/session.h"
#include "tests/gstreamer/live.h"

#include <algorithm>
#include <map>

#include <dlfcn.h>

static std::atomic<std::size_t> allocations, references;

// Replaces the C library's function for all loaded libraries. Does not count calls to calloc and
// realloc.
extern "C" MOX_EXPORT void* malloc(std::size_t size) {
  static const auto allocate = reinterpret_cast<void* (*)(std::size_t)>(dlsym(RTLD_NEXT, "malloc"));
  ++allocations;
  return allocate(size);
}

namespace live {

using ChangeCost = live::Test;
using LogCost = live::Test;

struct Cost {
  std::size_t allocations = 0, references = 0;
};

// The most that adding and erasing a filter may cost, for each 1.x series of GStreamer.
// Lower the limits when the cost falls.
static const std::map<guint, Cost> kLimits{
    {22, {11972, 4153}},
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

// Counts what both changes and the two frames that they block cost in GStreamer, GLib and the
// library together. That is the same in every build. Nearly every call to GStreamer allocates
// memory or takes a reference, so one more call exceeds a limit.
TEST_F(ChangeCost, StaysWithinLimits) {
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

  // The cheapest round counts. On a busy machine a change waits longer, and each slice checks for a
  // stop and for the end of the stream.
  const auto filter = Make("identity");
  Cost least{SIZE_MAX, SIZE_MAX};
  for (std::size_t frames = 0; frames < 42;) {
    const Cost before{allocations, references};
    for (const auto change : {&Pipeline::AddFilters, &Pipeline::EraseFilters}) {
      (stream.pipeline.*change)({filter});
      ++frames;
      Await([&] { return stream.watch.frames == frames && made == frames + 1; });
    }
    least = {std::min(least.allocations, allocations - before.allocations),
             std::min(least.references, references - before.references)};
  }

  const auto limit = kLimits.find(GST_VERSION_MINOR);
  if (limit == kLimits.end()) {
    GTEST_SKIP() << "no limits for this GStreamer: " << least.allocations << " allocations, " << least.references
                 << " references";
  }
  EXPECT_LE(least.allocations, limit->second.allocations);
  EXPECT_LE(least.references, limit->second.references);
}

TEST_F(LogCost, RejectedLineOfGstreamerAllocatesNothing) {
  const mox::gstreamer::Session session;
  gst_debug_set_default_threshold(GST_LEVEL_DEBUG);
  const Ptr<GstElementFactory> object(gst_element_factory_find("identity"));
  const auto log = [&] {
    gst_debug_log(GST_CAT_DEFAULT, GST_LEVEL_DEBUG, "file", "function", 1, G_OBJECT(object.Get()), "%s", "text");
  };
  log();
  const std::size_t before = allocations;
  log();
  EXPECT_EQ(allocations, before);
}

}  // namespace live
