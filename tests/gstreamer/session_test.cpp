#include "mox/gstreamer/session.h"

#include "mox/gstreamer/check/ptr.h"
#include "tests/logging/capture.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <dlfcn.h>

// The functions, not the macros of the same names, which are not valid in C++.
#undef gst_debug_add_log_function
#undef gst_debug_remove_log_function

static GstLogFunction bridge = nullptr;

/** Stands before GStreamer's function of this name and keeps what the session hands to it, so that the bridge can be
 *  called with what this build of GStreamer refuses to pass on. */
extern "C" [[gnu::visibility("default")]] void gst_debug_add_log_function(GstLogFunction function, gpointer data,
                                                                          GDestroyNotify notify) {
  bridge = bridge != nullptr ? bridge : function;
  void* const next = dlsym(RTLD_NEXT, "gst_debug_add_log_function");
  reinterpret_cast<decltype(&gst_debug_add_log_function)>(next)(function, data, notify);
}

namespace mox::gstreamer {
namespace {

using logging::Capture;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kPlugin = "info mox.gstreamer.session: NVIDIA plugin loaded, attempting to use GPU decoding";

// GStreamer goes up and down once in a process.
TEST(Session, BringsGstreamerUpAndDown) {
  setenv("GST_REGISTRY_DISABLE", "yes", 1);  // leaves the plugins that are registered here
  unsetenv("GST_DEBUG");
  MoxGstreamerSessionRelease(nullptr);
  ASSERT_FALSE(gst_is_initialized());
  const Capture without_plugins;
  static const void* const first = MoxGstreamerSessionCreate();  // never released
  ASSERT_TRUE(first != nullptr && gst_is_initialized() && gst_debug_is_active());
  EXPECT_EQ(gst_debug_get_default_threshold(), GST_LEVEL_WARNING);
  // What is compared first, inline, at each of the many lines a frame.
  EXPECT_EQ(_gst_debug_min, GST_LEVEL_WARNING);
  EXPECT_THAT(without_plugins.GetLines(),
              ElementsAre("info mox.gstreamer.session: NVIDIA plugin not loaded, using CPU decoding"));

  setenv("GST_DEBUG", "", 1);
  gst_debug_set_default_threshold(GST_LEVEL_ERROR);
  gst_debug_set_active(FALSE);
  for (const char* const name : {"nvcodec", "vaapi"}) {
    ASSERT_TRUE(gst_plugin_register_static(
        GST_VERSION_MAJOR, GST_VERSION_MINOR, name, "Stand-in", [](GstPlugin*) -> gboolean { return TRUE; }, "1",
        "LGPL", "mox", "mox", "mox"));
  }
  const Capture without_decoders;
  static const void* const second = MoxGstreamerSessionCreate();
  EXPECT_EQ(gst_debug_get_default_threshold(), GST_LEVEL_WARNING);
  EXPECT_TRUE(second != nullptr && gst_debug_is_active());
  const std::string missing = "warning mox.gstreamer.session: Could not find ";
  EXPECT_THAT(without_decoders.GetLines(), ElementsAre(kPlugin, missing + "nvh264dec element despite loading nvcodec!",
                                                       missing + "nvh265dec element despite loading nvcodec!"));

  setenv("GST_DEBUG", "1", 1);
  gst_debug_set_default_threshold(GST_LEVEL_ERROR);
  const std::vector<std::pair<const char*, unsigned>> ranks = {
      {"nvh264dec", 258}, {"nvh265dec", 258}, {"vaapih264dec", 257}, {"vaapih265dec", 257}, {"vaapidecodebin", 64}};
  for (const auto& [name, rank] : ranks) {
    gst_element_register(nullptr, name, GST_RANK_SECONDARY, GST_TYPE_BIN);
  }
  const Capture with_decoders;
  void* const third = MoxGstreamerSessionCreate();
  EXPECT_EQ(gst_debug_get_default_threshold(), GST_LEVEL_ERROR);
  const std::string found = " element avaliable, Bumpping gst rank to highest";
  EXPECT_THAT(with_decoders.GetLines(), ElementsAre(kPlugin, "info mox.gstreamer.session: nvh264dec" + found,
                                                    "info mox.gstreamer.session: nvh265dec" + found));
  for (const auto& [name, rank] : ranks) {
    GstPluginFeature* const feature = gst_registry_lookup_feature(gst_registry_get(), name);
    EXPECT_EQ(gst_plugin_feature_get_rank(feature), rank) << name;
    EXPECT_EQ(G_OBJECT(feature)->ref_count, 2U) << "The registry and this test hold it";
    gst_object_unref(feature);
  }

  const Capture logged;
  gst_debug_set_default_threshold(GST_LEVEL_DEBUG);
  GST_DEBUG("below the threshold of the logger");
  gst_debug_set_default_threshold(GST_LEVEL_INFO);  // with which GStreamer tells that it goes down
  GST_WARNING("careful");
  EXPECT_THAT(logged.GetLines(), AllOf(SizeIs(3), Each(EndsWith(": careful")))) << "Each session logs";
  void* registry = gst_registry_get();
  g_object_add_weak_pointer(static_cast<GObject*>(registry), &registry);
  const Capture end;
  MoxGstreamerSessionRelease(third);
  EXPECT_EQ(registry, nullptr);
  EXPECT_THAT(end.GetLines(), IsEmpty());
}

/** The line that the bridge logs at any level about any object. */
std::string Log(int level, const void* object) {
  std::pair about(static_cast<GstDebugLevel>(level), static_cast<GObject*>(const_cast<void*>(object)));
  const GstLogFunction forward = [](GstDebugCategory* category, GstDebugLevel, const char* file, const char* function,
                                    int line, GObject*, GstDebugMessage* message, void* data) {
    const auto& other = *static_cast<decltype(about)*>(data);
    bridge(category, other.first, file, function, line, other.second, message, nullptr);
  };
  gst_debug_remove_log_function(bridge);
  gst_debug_add_log_function(forward, &about, nullptr);
  const Capture capture;
  gst_debug_log(GST_CAT_DEFAULT, GST_LEVEL_ERROR, "file.c", "function", 7, nullptr, "%d%%", 5);
  gst_debug_remove_log_function(forward);
  const auto lines = capture.GetLines();
  return lines.size() == 1 ? lines[0] : "not one line";
}

TEST(LogBridge, NamesTheLevelAndTheTypeOfAnyObject) {
  setenv("MOX_LOG_LEVEL", "all", 1);
  const Session session;
  const Ptr<GstElement> element(gst_element_factory_make("fakesink", nullptr));
  {
    const Capture capture;
    const std::string invalid = "%d%";
    GObject* const object = G_OBJECT(element.Get());
    gst_debug_log(GST_CAT_DEFAULT, GST_LEVEL_WARNING, "file.c", "function", -7, object, invalid.c_str(), 5);
    EXPECT_THAT(capture.GetLines(), ElementsAre("warning mox.gstreamer.session: [file.c:-7 (function)] GObject Type: "
                                                "GstFakeSink: gst_debug_message_get returned NULL"));
  }
  const std::string text = " mox.gstreamer.session: [file.c:7 (function)] GObject Type: ";
  const std::array<const char*, 11> levels{"none", "error", "warning", "none", "info", "debug",
                                           "none", "trace", "none",    "none", "none"};
  for (std::size_t level = 0; level < levels.size(); ++level) {
    EXPECT_EQ(Log(static_cast<int>(level), nullptr), levels[level] + text + "Unknown: 5%");
  }

  GObject* const object = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
  GParamSpec* const param_spec = g_param_spec_int("name", "nick", "blurb", 0, 1, 0, G_PARAM_READABLE);
  const Ptr<GstCaps> caps(gst_caps_from_string("video/x-raw"));
  const GType boxed = g_boxed_type_register_static(
      "MoxTestBoxed", [](gpointer) -> gpointer { return nullptr; }, [](gpointer) {});
  const GList list{element.Get(), nullptr, nullptr};
  alignas(void*) const std::array<char, 32> characters{"no object at all, but a text"};
  const std::vector<std::uintptr_t> ones(20, 1);  // where the number of a name would be, there is one
  const void* const loop = &loop;
  const std::uintptr_t fundamental = G_TYPE_OBJECT;
  const std::array<const void*, 4> indirect{&fundamental, &boxed, characters.data(), ones.data()};
  const std::map<std::string, std::vector<const void*>> objects = {
      {"GObject", {object}},
      {"GstFakeSink", {element.Get()}},
      {"GParamInt", {param_spec}},
      {"GstCaps", {caps.Get()}},
      {"GstStructure", {gst_caps_get_structure(caps.Get(), 0)}},
      {"MoxTestBoxed", {&boxed}},
      {"Unknown",
       {&list, characters.data(), characters.data() + 1, &loop, &fundamental, &indirect[0], &indirect[1], &indirect[2],
        &indirect[3], reinterpret_cast<const void*>(16)}}};
  for (const auto& [type, pointers] : objects) {
    for (const void* const pointer : pointers) {
      EXPECT_EQ(Log(GST_LEVEL_ERROR, pointer), "error" + text + type + ": 5%") << pointer;
    }
  }
  g_param_spec_unref(param_spec);
  g_object_unref(object);
}

}  // namespace
}  // namespace mox::gstreamer
