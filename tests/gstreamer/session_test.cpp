#include "mox/gstreamer/session.h"

#include "mox/gstreamer/check/ptr.h"
#include "tests/logging/capture.h"

#include <map>

#include <gmock/gmock.h>
#include <gst/gst.h>

using namespace mox::gstreamer;

/** A test in a process of its own, because GStreamer goes up and down once in a process. */
struct SessionTest : testing::Test {
  SessionTest() {
    setenv("GST_REGISTRY_DISABLE", "yes", 1);  // keeps the plugins that a test registers
    setenv("GST_DEBUG", "", 1);
    setenv("MOX_LOG_LEVEL", "all", 1);
  }

  /** Logs a number from a line of a file, and returns what is written. */
  std::string Log(int level, gpointer object, const char* format) const {
    gst_debug_log(GST_CAT_DEFAULT, static_cast<GstDebugLevel>(level), "file.c", "run", -7, G_OBJECT(object), format, 5);
    return capture.GetLines().back();
  }

  const mox::logging::Capture capture;
};

TEST_F(SessionTest, WarningsAndErrorsAreLoggedByDefault) {
  const Session session;
  EXPECT_EQ(_gst_debug_min, GST_LEVEL_WARNING) << "GStreamer looks at every line of every level";
}

TEST_F(SessionTest, GstDebugIsKept) {
  setenv("GST_DEBUG", "1", 1);
  const Session session;
  EXPECT_EQ(gst_debug_get_default_threshold(), GST_LEVEL_ERROR);
}

const std::string kLine = " mox.gstreamer.session: [file.c:-7 (run)] GObject Type: ";

TEST_F(SessionTest, LevelsAreMapped) {
  const Session session;
  gst_debug_set_default_threshold(GST_LEVEL_COUNT);
  int level = GST_LEVEL_NONE;
  for (const std::string name : {"none", "error", "warning", "none", "info", "debug", "none", "trace", "none"}) {
    EXPECT_EQ(Log(level++, gst_registry_get(), "%d%%"), name + kLine + "GstRegistry: 5%");
  }
}

TEST_F(SessionTest, TextThatCannotBeFormattedIsReported) {
  const Session session;
  EXPECT_EQ(Log(GST_LEVEL_ERROR, nullptr, "%d%"), "error" + kLine + "Unknown: gst_debug_message_get returned NULL");
}

/** Registers the plugins and decoders, and expects the ranks that the decoders get by a session. */
void ExpectRanks(std::initializer_list<const char*> plugins, const std::map<std::string, unsigned>& ranks) {
  gst_init(nullptr, nullptr);
  const auto load = [](GstPlugin*) -> gboolean { return TRUE; };
  for (const char* const plugin : plugins) {
    gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, plugin, "-", load, "1", "LGPL", "-", "-", "-");
  }
  for (const auto& [decoder, rank] : ranks) {
    gst_element_register(nullptr, decoder.c_str(), GST_RANK_SECONDARY, GST_TYPE_BIN);
  }
  const Session session;
  for (const auto& [decoder, rank] : ranks) {
    const Ptr<GstPluginFeature> feature(gst_registry_lookup_feature(gst_registry_get(), decoder.c_str()));
    EXPECT_EQ(gst_plugin_feature_get_rank(feature.Get()), rank) << decoder;
  }
}

TEST_F(SessionTest, DecodersOfLoadedPluginsRankFirst) {
  ExpectRanks({"nvcodec", "vaapi"}, {{"nvh264dec", GST_RANK_PRIMARY + 2},
                                     {"vaapih264dec", GST_RANK_PRIMARY + 1},
                                     {"vaapih265dec", GST_RANK_PRIMARY + 1},
                                     {"vaapidecodebin", GST_RANK_MARGINAL}});
  EXPECT_THAT(
      capture.GetLines(),
      testing::ElementsAre("info mox.gstreamer.session: NVIDIA plugin loaded, attempting to use GPU decoding",
                           "info mox.gstreamer.session: nvh264dec element avaliable, Bumpping gst rank to highest",
                           "warning mox.gstreamer.session: Could not find nvh265dec element despite loading nvcodec!"));
}

TEST_F(SessionTest, DecodersWithoutTheirPluginKeepTheirRank) {
  ExpectRanks({}, {{"nvh264dec", GST_RANK_SECONDARY}, {"vaapih264dec", GST_RANK_SECONDARY}});
  EXPECT_EQ(capture.GetLines().back(), "info mox.gstreamer.session: NVIDIA plugin not loaded, using CPU decoding");
}

TEST_F(SessionTest, PluginsAreScannedInThisProcess) {
  const Session session;
  EXPECT_FALSE(gst_registry_fork_is_enabled());
}

TEST_F(SessionTest, ReleaseDeinitializesWithoutLogging) {
  void* const session = MoxGstreamerSessionCreate();
  void* registry = gst_registry_get();
  g_object_add_weak_pointer(static_cast<GObject*>(registry), &registry);
  gst_debug_set_default_threshold(GST_LEVEL_TRACE);
  const auto lines = capture.GetLines();
  MoxGstreamerSessionRelease(session);
  EXPECT_EQ(registry, nullptr);
  EXPECT_EQ(capture.GetLines(), lines);
}
