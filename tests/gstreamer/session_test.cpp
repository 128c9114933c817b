#include "mox/gstreamer/session.h"

#include "mox/gstreamer/check/ptr.h"
#include "tests/logging/capture.h"

#include <tuple>

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <dlfcn.h>

static GstLogFunction bridge = nullptr;

/** Stands before GStreamer's own, and keeps the bridge so that it can be called with what this build refuses. */
extern "C" [[gnu::visibility("default")]] void(gst_debug_add_log_function)(GstLogFunction function, gpointer data,
                                                                           GDestroyNotify notify) {
  bridge = bridge != nullptr ? bridge : function;
  void* const next = dlsym(RTLD_NEXT, "gst_debug_add_log_function");
  reinterpret_cast<decltype(&gst_debug_add_log_function)>(next)(function, data, notify);
}

namespace mox::gstreamer {
namespace {

// GStreamer goes up and down once in a process.
TEST(Session, BringsGstreamerUpLogsAndDown) {
  setenv("GST_REGISTRY_DISABLE", "yes", 1);  // leaves the plugins that are registered here
  setenv("GST_DEBUG", "", 1);
  setenv("MOX_LOG_LEVEL", "all", 1);
  const logging::Capture capture;
  static const void* const first = MoxGstreamerSessionCreate();  // never released
  // Not more than warnings, so that GStreamer itself leaves out most of the many lines a frame.
  ASSERT_TRUE(first != nullptr && gst_debug_is_active() && _gst_debug_min == GST_LEVEL_WARNING);
  setenv("GST_DEBUG", "1", 1);
  gst_debug_set_default_threshold(GST_LEVEL_ERROR);
  const auto load = [](GstPlugin*) -> gboolean { return TRUE; };
  for (const char* const name : {"nvcodec", "vaapi"}) {
    gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, name, "-", load, "1", "LGPL", "-", "-", "-");
  }
  const std::vector<std::pair<const char*, unsigned>> ranks = {
      {"nvh264dec", 258}, {"vaapih264dec", 257}, {"vaapih265dec", 257}, {"vaapidecodebin", 64}};
  for (const auto& [name, rank] : ranks) {
    gst_element_register(nullptr, name, GST_RANK_SECONDARY, GST_TYPE_BIN);
  }
  void* const second = MoxGstreamerSessionCreate();
  for (const auto& [name, rank] : ranks) {
    const Ptr<GstPluginFeature> feature(gst_registry_lookup_feature(gst_registry_get(), name));
    EXPECT_EQ(gst_plugin_feature_get_rank(feature.Get()), rank) << name;
    EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(feature.Get()), 2) << "The registry and this test hold it";
  }
  GST_WARNING("below the threshold");

  void* registry = gst_registry_get();
  std::vector<std::tuple<int, gpointer, const char*, const char*>> rows = {
      {2, registry, "warning", "GstRegistry"},
      {3, g_object_class_find_property(G_OBJECT_GET_CLASS(registry), "name"), "none", "Unknown"},
      {4, nullptr, "info", "Unknown"},
      {5, nullptr, "debug", "Unknown"},
      {6, nullptr, "none", "Unknown"},
      {7, nullptr, "trace", "Unknown"},
      {8, nullptr, "none", "Unknown"},
      {1, nullptr, "error", "Unknown"}};
  const GstLogFunction forward = [](GstDebugCategory* category, GstDebugLevel, const char* file, const char* function,
                                    int line, GObject*, GstDebugMessage* message, gpointer data) {
    for (const auto& [level, object, word, name] : *static_cast<decltype(rows)*>(data)) {
      bridge(category, static_cast<GstDebugLevel>(level), file, function, line, static_cast<GObject*>(object), message,
             nullptr);
    }
  };
  (gst_debug_add_log_function)(forward, &rows, nullptr);
  const std::string log = " mox.gstreamer.session: ";
  std::vector<std::string> lines = {"info" + log + "NVIDIA plugin not loaded, using CPU decoding",
                                    "info" + log + "NVIDIA plugin loaded, attempting to use GPU decoding",
                                    "info" + log + "nvh264dec element avaliable, Bumpping gst rank to highest",
                                    "warning" + log + "Could not find nvh265dec element despite loading nvcodec!"};
  for (const auto& [format, text] :
       {std::pair("%d%%", "5%"), std::pair("%d%", "gst_debug_message_get returned NULL")}) {
    gst_debug_log(GST_CAT_DEFAULT, GST_LEVEL_ERROR, "file.c", "function", -7, nullptr, format, 5);
    for (const auto& [level, object, word, name] : rows) {
      lines.push_back(word + log + "[file.c:-7 (function)] GObject Type: " + name + ": " + text);
    }
    lines.insert(lines.end(), 2, lines.back());  // each session logs
  }
  EXPECT_EQ(capture.GetLines(), lines);
  g_object_add_weak_pointer(static_cast<GObject*>(registry), &registry);
  MoxGstreamerSessionRelease(second);
  EXPECT_EQ(registry, nullptr);
}

}  // namespace
}  // namespace mox::gstreamer
