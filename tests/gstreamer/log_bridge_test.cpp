#include "mox/gstreamer/session.h"
#include "tests/logging/capture.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <string>
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
using testing::ElementsAre;

class LogBridgeTest : public testing::Test {
 protected:
  LogBridgeTest() {
    setenv("MOX_LOG_LEVEL", "all", 1);
    unsetenv("GST_DEBUG");
  }
};

struct Line {
  GstDebugLevel level;
  GObject* object;
};

/** Has the bridge log one line of any level about any object. */
std::string Log(GstDebugLevel level, const void* object) {
  Line line{level, static_cast<GObject*>(const_cast<void*>(object))};
  const GstLogFunction forward = [](GstDebugCategory* category, GstDebugLevel, const char* file, const char* function,
                                    int number, GObject*, GstDebugMessage* message, void* data) {
    const Line& about = *static_cast<const Line*>(data);
    bridge(category, about.level, file, function, number, about.object, message, nullptr);
  };
  gst_debug_remove_log_function(bridge);
  gst_debug_add_log_function(forward, &line, nullptr);
  const Capture capture;
  gst_debug_log(GST_CAT_DEFAULT, GST_LEVEL_ERROR, "file.c", "function", 7, nullptr, "%s", "text");
  gst_debug_remove_log_function(forward);
  const auto lines = capture.GetLines();
  return lines.size() == 1 ? lines[0] : "not one line";
}

std::string Expect(const std::string& level, const std::string& type) {
  return level + " mox.gstreamer.session: [file.c:7 (function)] GObject Type: " + type + ": text";
}

TEST_F(LogBridgeTest, MapsLevels) {
  const Session session;
  EXPECT_EQ(Log(GST_LEVEL_ERROR, nullptr), Expect("error", "Unknown"));
  EXPECT_EQ(Log(GST_LEVEL_WARNING, nullptr), Expect("warning", "Unknown"));
  EXPECT_EQ(Log(GST_LEVEL_FIXME, nullptr), Expect("none", "Unknown"));
  EXPECT_EQ(Log(GST_LEVEL_INFO, nullptr), Expect("info", "Unknown"));
  EXPECT_EQ(Log(GST_LEVEL_DEBUG, nullptr), Expect("debug", "Unknown"));
  EXPECT_EQ(Log(GST_LEVEL_LOG, nullptr), Expect("none", "Unknown"));
  EXPECT_EQ(Log(GST_LEVEL_TRACE, nullptr), Expect("trace", "Unknown"));
  for (const int level : {0, 8, 9, 10, 15}) {
    EXPECT_EQ(Log(static_cast<GstDebugLevel>(level), nullptr), Expect("none", "Unknown")) << level;
  }
}

TEST_F(LogBridgeTest, LogsWhatGstreamerLogs) {
  const Session session;
  GstElement* const element = gst_element_factory_make("fakesink", nullptr);
  const Capture capture;
  gst_debug_log(GST_CAT_DEFAULT, GST_LEVEL_ERROR, "file.c", "function", -7, G_OBJECT(element), "%d%%", 5);
  const std::string invalid = "%d%";
  gst_debug_log(GST_CAT_DEFAULT, GST_LEVEL_WARNING, "file.c", "function", 7, nullptr, invalid.c_str(), 5);
  EXPECT_THAT(capture.GetLines(),
              ElementsAre("error mox.gstreamer.session: [file.c:-7 (function)] GObject Type: GstFakeSink: 5%",
                          "warning mox.gstreamer.session: [file.c:7 (function)] GObject Type: Unknown: "
                          "gst_debug_message_get returned NULL"));
  gst_object_unref(element);
}

TEST_F(LogBridgeTest, NamesTheTypeOfAnyObject) {
  const Session session;
  GObject* const object = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
  EXPECT_EQ(Log(GST_LEVEL_ERROR, object), Expect("error", "GObject"));
  GstElement* const element = gst_element_factory_make("identity", nullptr);
  EXPECT_EQ(Log(GST_LEVEL_ERROR, element), Expect("error", "GstIdentity"));
  EXPECT_EQ(Log(GST_LEVEL_ERROR, element->sinkpads->data), Expect("error", "GstPad"));
  GParamSpec* const specification = g_param_spec_int("name", "nick", "blurb", 0, 1, 0, G_PARAM_READABLE);
  EXPECT_EQ(Log(GST_LEVEL_ERROR, specification), Expect("error", "GParamInt"));

  GstCaps* const caps = gst_caps_from_string("video/x-raw(memory:DMABuf)");
  EXPECT_EQ(Log(GST_LEVEL_ERROR, caps), Expect("error", "GstCaps"));
  EXPECT_EQ(Log(GST_LEVEL_ERROR, gst_caps_get_structure(caps, 0)), Expect("error", "GstStructure"));
  EXPECT_EQ(Log(GST_LEVEL_ERROR, gst_caps_get_features(caps, 0)), Expect("error", "GstCapsFeatures"));
  GstEvent* const event = gst_event_new_eos();
  EXPECT_EQ(Log(GST_LEVEL_ERROR, event), Expect("error", "GstEvent"));
  GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, 1, nullptr);
  EXPECT_EQ(Log(GST_LEVEL_ERROR, buffer), Expect("error", "GstBuffer"));
  EXPECT_EQ(Log(GST_LEVEL_ERROR, gst_buffer_peek_memory(buffer, 0)), Expect("error", "GstMemory"));
  const GType own = g_boxed_type_register_static(
      "MoxTestBoxed", [](gpointer) -> gpointer { return nullptr; }, [](gpointer) {});
  EXPECT_EQ(Log(GST_LEVEL_ERROR, &own), Expect("error", "MoxTestBoxed"));

  GstSegment segment;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  GList list{element, nullptr, nullptr};
  alignas(void*) const std::array<char, 32> text{"no object at all, but a text"};
  const std::array<std::uintptr_t, 4> zeros{};
  const void* const loop = &loop;
  const std::uintptr_t fundamental = G_TYPE_OBJECT;
  for (const void* const other : std::vector<const void*>{&segment, &list, text.data(), text.data() + 1, zeros.data(),
                                                          &loop, &fundamental, reinterpret_cast<const void*>(16)}) {
    EXPECT_EQ(Log(GST_LEVEL_ERROR, other), Expect("error", "Unknown")) << other;
  }

  gst_buffer_unref(buffer);
  gst_event_unref(event);
  gst_caps_unref(caps);
  g_param_spec_unref(specification);
  gst_object_unref(element);
  g_object_unref(object);
}

TEST_F(LogBridgeTest, LogsAllOfAPipelineThatPlays) {
  setenv("GST_DEBUG", "*:7", 1);
  const Session session;
  const Capture capture;
  GstElement* const pipeline =
      gst_parse_launch("fakesrc num-buffers=10 ! queue ! identity ! fakesink sync=false", nullptr);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  GstBus* const bus = gst_element_get_bus(pipeline);
  GstMessage* const message = gst_bus_timed_pop_filtered(
      bus, 60 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  ASSERT_NE(message, nullptr);
  EXPECT_EQ(GST_MESSAGE_TYPE(message), GST_MESSAGE_EOS);
  gst_message_unref(message);
  gst_object_unref(bus);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);

  std::size_t of_source = 0;
  for (const std::string& line : capture.GetLines()) {
    ASSERT_NE(line.find(" mox.gstreamer.session: "), std::string::npos) << line;
    of_source += line.find("GObject Type: GstFakeSrc: ") != std::string::npos ? 1U : 0U;
  }
  EXPECT_GT(of_source, 10U);
}

}  // namespace
}  // namespace mox::gstreamer
