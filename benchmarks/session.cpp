#include "mox/gstreamer/session.h"

#include "benchmarks/child.h"

#include <benchmark/benchmark.h>
#include <gst/gst.h>

// The start of GStreamer.
namespace benchmarks {
namespace {

void Library() {
  new mox::gstreamer::Session;  // ends with the process, as GStreamer does
}

void OnLine(GstDebugCategory* /*category*/, GstDebugLevel level, const char* file, const char* function, int line,
            GObject* /*object*/, GstDebugMessage* message, void* /*data*/) {
  if (level <= GST_LEVEL_WARNING) {
    g_printerr("%s:%d (%s) %s\n", file, line, function, gst_debug_message_get(message));
  }
}

/** The same calls by hand. */
void Bare() {
  gst_init(nullptr, nullptr);
  gst_debug_set_default_threshold(GST_LEVEL_WARNING);
  gst_debug_set_active(TRUE);
  (gst_debug_remove_log_function)(nullptr);
  (gst_debug_add_log_function)(OnLine, nullptr, nullptr);
  gst_registry_scan_path(gst_registry_get(), "gstreamer-1.0");
  for (const char* const name : {"nvh264dec", "nvh265dec", "vaapidecodebin", "vaapih264dec", "vaapih265dec"}) {
    GstPluginFeature* const feature = gst_registry_lookup_feature(gst_registry_get(), name);
    if (feature != nullptr) {
      gst_plugin_feature_set_rank(feature, GST_RANK_PRIMARY + 1);
      gst_object_unref(feature);
    }
  }
}

void Start(benchmark::State& state, void (*start)()) {
  for ([[maybe_unused]] auto _ : state) {
    const Times taken = InChild([&] {
      const Times begin = Times::Current();
      start();
      return Times::Current().Since(begin);
    });
    state.SetIterationTime(taken.wall);
  }
}

BENCHMARK_CAPTURE(Start, library, Library)->Name("starting a session/library")->UseManualTime();
BENCHMARK_CAPTURE(Start, bare, Bare)->Name("starting a session/bare calls")->UseManualTime();

}  // namespace
}  // namespace benchmarks
