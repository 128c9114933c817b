#include "mox/gstreamer/session.h"

#include "mox/gstreamer/check/ptr.h"
#include "tests/logging/capture.h"

#include <gmock/gmock.h>
#include <gst/gst.h>

namespace mox::gstreamer {
namespace {

using testing::ElementsAre;

/** A test in a process of its own, because GStreamer goes up and down once in a process. */
struct SessionTest : testing::Test {
  SessionTest() {
    setenv("GST_REGISTRY_DISABLE", "yes", 1);  // keeps the plugins that a test registers
    setenv("GST_DEBUG", "", 1);
    setenv("MOX_LOG_LEVEL", "all", 1);
  }

  /** Logs a number from a line of a file, and returns what is written. */
  std::string Log(int level, gpointer object, const char* format) const {
    gst_debug_log(GST_CAT_DEFAULT, static_cast<GstDebugLevel>(level), "file.c", "function", -7, G_OBJECT(object),
                  format, 5);
    return capture.GetLines().back();
  }

  const logging::Capture capture;
};

TEST_F(SessionTest, WarningsAndErrorsAreLoggedByDefault) {
  const Session session;
  EXPECT_TRUE(gst_debug_is_active());
  EXPECT_EQ(gst_debug_get_default_threshold(), GST_LEVEL_WARNING);
  EXPECT_EQ(_gst_debug_min, GST_LEVEL_WARNING) << "GStreamer looks at every line of every level";
}

TEST_F(SessionTest, GstDebugIsKept) {
  setenv("GST_DEBUG", "1", 1);
  const Session session;
  EXPECT_EQ(gst_debug_get_default_threshold(), GST_LEVEL_ERROR);
}

const std::string kLine = " mox.gstreamer.session: [file.c:-7 (function)] GObject Type: ";

TEST_F(SessionTest, LevelsAreMapped) {
  const Session session;
  gst_debug_set_default_threshold(GST_LEVEL_COUNT);
  const struct {
    int level;
    const char* written;
  } rows[] = {{GST_LEVEL_NONE, "none"},   {GST_LEVEL_ERROR, "error"}, {GST_LEVEL_WARNING, "warning"},
              {GST_LEVEL_FIXME, "none"},  {GST_LEVEL_INFO, "info"},   {GST_LEVEL_DEBUG, "debug"},
              {GST_LEVEL_LOG, "none"},    {GST_LEVEL_TRACE, "trace"}, {GST_LEVEL_TRACE + 1, "none"},
              {GST_LEVEL_MEMDUMP, "none"}};
  const std::size_t before = capture.GetLines().size();
  for (const auto& row : rows) {
    EXPECT_EQ(Log(row.level, nullptr, "%d%%"), row.written + kLine + "Unknown: 5%");
  }
  EXPECT_EQ(capture.GetLines().size(), before + std::size(rows));
}

TEST_F(SessionTest, ObjectsAreNamedByTheirType) {
  const Session session;
  EXPECT_EQ(Log(GST_LEVEL_ERROR, gst_registry_get(), "%d%%"), "error" + kLine + "GstRegistry: 5%");
}

TEST_F(SessionTest, TextThatCannotBeFormattedIsReported) {
  const Session session;
  EXPECT_EQ(Log(GST_LEVEL_ERROR, nullptr, "%d%"), "error" + kLine + "Unknown: gst_debug_message_get returned NULL");
}

struct Decoder {
  const char* name;
  unsigned rank;  ///< In a session.
};

/** Registers the plugins and decoders, and expects the ranks that the decoders get by a session. */
void ExpectRanks(std::initializer_list<const char*> plugins, std::initializer_list<Decoder> decoders) {
  gst_init(nullptr, nullptr);
  const auto load = [](GstPlugin*) -> gboolean { return TRUE; };
  for (const char* const plugin : plugins) {
    gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, plugin, "-", load, "1", "LGPL", "-", "-", "-");
  }
  for (const Decoder& decoder : decoders) {
    gst_element_register(nullptr, decoder.name, GST_RANK_SECONDARY, GST_TYPE_BIN);
  }
  const Session session;
  for (const Decoder& decoder : decoders) {
    const Ptr<GstPluginFeature> feature(gst_registry_lookup_feature(gst_registry_get(), decoder.name));
    EXPECT_EQ(gst_plugin_feature_get_rank(feature.Get()), decoder.rank) << decoder.name;
    EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(feature.Get()), 2) << "one of the registry, one of this test";
  }
}

TEST_F(SessionTest, DecodersOfLoadedPluginsRankFirst) {
  ExpectRanks({"nvcodec", "vaapi"}, {{"nvh264dec", GST_RANK_PRIMARY + 2},
                                     {"vaapih264dec", GST_RANK_PRIMARY + 1},
                                     {"vaapih265dec", GST_RANK_PRIMARY + 1},
                                     {"vaapidecodebin", GST_RANK_MARGINAL}});
  EXPECT_THAT(capture.GetLines(),
              ElementsAre("info mox.gstreamer.session: NVIDIA plugin loaded, attempting to use GPU decoding",
                          "info mox.gstreamer.session: nvh264dec element avaliable, Bumpping gst rank to highest",
                          "warning mox.gstreamer.session: Could not find nvh265dec element despite loading nvcodec!"));
}

TEST_F(SessionTest, DecodersWithoutTheirPluginKeepTheirRank) {
  ExpectRanks({}, {{"nvh264dec", GST_RANK_SECONDARY}, {"vaapih264dec", GST_RANK_SECONDARY}});
  EXPECT_THAT(capture.GetLines(),
              ElementsAre("info mox.gstreamer.session: NVIDIA plugin not loaded, using CPU decoding"));
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

}  // namespace
}  // namespace mox::gstreamer
