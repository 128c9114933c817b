#include "mox/gstreamer/check/ptr.h"
#include "mox/gstreamer/session.h"
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

namespace {

GstLogFunction bridge = nullptr;

}  // namespace

// The functions, not the macros of the same names, which are not valid in C++.
#undef gst_debug_add_log_function
#undef gst_debug_remove_log_function

/** Stands before GStreamer's function of this name and keeps what the session hands to it, so that the bridge can be
 *  called with what this build of GStreamer refuses to pass on. */
extern "C" __attribute__((visibility("default"))) void gst_debug_add_log_function(GstLogFunction function,
                                                                                  gpointer data,
                                                                                  GDestroyNotify notify) {
  if (bridge == nullptr) {
    bridge = function;
  }
  void* const next = dlsym(RTLD_NEXT, "gst_debug_add_log_function");
  reinterpret_cast<decltype(&gst_debug_add_log_function)>(next)(function, data, notify);
}

namespace mox::gstreamer {
namespace {

using logging::Capture;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Gt;
using testing::HasSubstr;

/** The line that the bridge logs at any level about any object. */
std::string Log(int level, const void* object) {
  static std::pair<int, const void*> about;
  about = {level, object};
  const GstLogFunction forward = [](GstDebugCategory* category, GstDebugLevel, const char* file, const char* function,
                                    int line, GObject*, GstDebugMessage* message, void* data) {
    bridge(category, static_cast<GstDebugLevel>(about.first), file, function, line,
           static_cast<GObject*>(const_cast<void*>(about.second)), message, data);
  };
  gst_debug_remove_log_function(bridge);
  gst_debug_add_log_function(forward, nullptr, nullptr);
  const Capture capture;
  gst_debug_log(GST_CAT_DEFAULT, GST_LEVEL_ERROR, "file.c", "function", 7, nullptr, "%s", "text");
  gst_debug_remove_log_function(forward);
  const auto lines = capture.GetLines();
  return lines.size() == 1 ? lines[0] : "not one line";
}

TEST(LogBridge, NamesTheLevelAndTheTypeOfAnyObject) {
  setenv("MOX_LOG_LEVEL", "all", 1);
  const Session session;
  const Ptr<GstElement> pipeline(gst_parse_launch("fakesrc num-buffers=10 ! queue ! fakesink name=sink", nullptr));
  const Ptr<GstElement> element(gst_bin_get_by_name(GST_BIN(pipeline.Get()), "sink"));
  {
    const Capture capture;
    gst_debug_log(GST_CAT_DEFAULT, GST_LEVEL_ERROR, "file.c", "function", -7, G_OBJECT(element.Get()), "%d%%", 5);
    const std::string invalid = "%d%";
    gst_debug_log(GST_CAT_DEFAULT, GST_LEVEL_WARNING, "file.c", "function", 7, nullptr, invalid.c_str(), 5);
    EXPECT_THAT(capture.GetLines(),
                ElementsAre("error mox.gstreamer.session: [file.c:-7 (function)] GObject Type: GstFakeSink: 5%",
                            "warning mox.gstreamer.session: [file.c:7 (function)] GObject Type: Unknown: "
                            "gst_debug_message_get returned NULL"));

    gst_debug_set_threshold_from_string("*:7", TRUE);
    gst_element_set_state(pipeline.Get(), GST_STATE_PLAYING);
    const Ptr<GstBus> bus(gst_element_get_bus(pipeline.Get()));
    EXPECT_TRUE(Ptr<GstMessage>(gst_bus_timed_pop_filtered(bus.Get(), 60 * GST_SECOND, GST_MESSAGE_EOS)));
    gst_element_set_state(pipeline.Get(), GST_STATE_NULL);
    EXPECT_THAT(capture.GetLines(), Each(HasSubstr(" mox.gstreamer.session: [")));
    EXPECT_THAT(capture.GetLines(), Contains(HasSubstr("GObject Type: GstFakeSrc: ")).Times(Gt(10)));
    gst_debug_set_threshold_from_string("*:1", TRUE);
  }

  const std::string text = " mox.gstreamer.session: [file.c:7 (function)] GObject Type: ";
  const std::array<const char*, 11> levels{"none", "error", "warning", "none", "info", "debug",
                                           "none", "trace", "none",    "none", "none"};
  for (std::size_t level = 0; level < levels.size(); ++level) {
    EXPECT_EQ(Log(static_cast<int>(level), nullptr), levels[level] + text + "Unknown: text");
  }

  GObject* const object = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
  GParamSpec* const param_spec = g_param_spec_int("name", "nick", "blurb", 0, 1, 0, G_PARAM_READABLE);
  const Ptr<GstCaps> caps(gst_caps_from_string("video/x-raw"));
  const GType boxed = g_boxed_type_register_static(
      "MoxTestBoxed", [](gpointer) -> gpointer { return nullptr; }, [](gpointer) {});
  GstSegment segment;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  const GList list{element.Get(), nullptr, nullptr};
  alignas(void*) const std::array<char, 32> characters{"no object at all, but a text"};
  const std::array<std::uintptr_t, 4> zeros{};
  const void* const loop = &loop;
  const std::uintptr_t fundamental = G_TYPE_OBJECT;
  const void* const to_boxed = &boxed;
  const void* const to_characters = characters.data();
  const std::map<std::string, std::vector<const void*>> objects = {
      {"GObject", {object}},
      {"GstFakeSink", {element.Get()}},
      {"GParamInt", {param_spec}},
      {"GstCaps", {caps.Get()}},
      {"GstStructure", {gst_caps_get_structure(caps.Get(), 0)}},
      {"MoxTestBoxed", {&boxed}},
      {"Unknown",
       {&segment, &list, characters.data(), characters.data() + 1, zeros.data(), &loop, &fundamental, &to_boxed,
        &to_characters, reinterpret_cast<const void*>(16)}}};
  for (const auto& [type, pointers] : objects) {
    for (const void* const pointer : pointers) {
      EXPECT_EQ(Log(GST_LEVEL_ERROR, pointer), "error" + text + type + ": text") << pointer;
    }
  }
  g_param_spec_unref(param_spec);
  g_object_unref(object);
}

}  // namespace
}  // namespace mox::gstreamer
