#include "mox/export.h"
#include "mox/gstreamer/session.h"
#include "tests/gstreamer/live.h"

#include <algorithm>
#include <map>

#include <dlfcn.h>

static std::atomic<std::size_t> allocations;

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

// The most allocations that adding and erasing a filter may cost, for each 1.x series of GStreamer.
// Lower the limits when the cost falls.
static const std::map<guint, std::size_t> kLimits{{22, 11972}, {26, 18973}};

// Counts what both changes and the two frames that they block cost in GStreamer, GLib and the
// library together. That is the same in every build. Most calls to GStreamer allocate memory, so one
// more call exceeds a limit.
TEST_F(ChangeCost, StaysWithinLimits) {
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
  std::size_t least = SIZE_MAX;
  for (std::size_t frames = 0; frames < 42;) {
    const std::size_t before = allocations;
    for (const auto change : {&Pipeline::AddFilters, &Pipeline::EraseFilters}) {
      (stream.pipeline.*change)({filter});
      ++frames;
      Await([&] { return stream.watch.frames == frames && made == frames + 1; });
    }
    least = std::min(least, allocations - before);
  }

  const auto limit = kLimits.find(GST_VERSION_MINOR);
  if (limit == kLimits.end()) {
    GTEST_SKIP() << "no limit for this GStreamer: " << least << " allocations";
  }
  EXPECT_LE(least, limit->second);
}

TEST_F(LogCost, RejectedLineOfGstreamerAllocatesNothing) {
  const mox::gstreamer::Session session;
  gst_debug_set_default_threshold(GST_LEVEL_DEBUG);
  const Ptr<GstElementFactory> object(gst_element_factory_find("identity"));
  const auto log = [&] { GST_DEBUG_OBJECT(object.Get(), "%s", "text"); };
  log();
  const std::size_t before = allocations;
  log();
  EXPECT_EQ(allocations, before);
}

}  // namespace live
