#include "mox/gstreamer/session.h"

#include "tests/gstreamer/session_c.h"
#include "tests/logging/capture.h"

#include <cstdlib>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

namespace mox::gstreamer {
namespace {

using logging::Capture;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

constexpr const char* kNoPlugin = "info mox.gstreamer.session: NVIDIA plugin not loaded, using CPU decoding";
constexpr const char* kPlugin = "info mox.gstreamer.session: NVIDIA plugin loaded, attempting to use GPU decoding";

std::string Found(const std::string& name) {
  return "info mox.gstreamer.session: " + name + " element avaliable, Bumpping gst rank to highest";
}

std::string Missing(const std::string& name) {
  return "warning mox.gstreamer.session: Could not find " + name + " element despite loading nvcodec!";
}

/** Leaves GStreamer with the plugins that a test registers itself. */
void HideInstalledPlugins() {
  setenv("GST_REGISTRY_DISABLE", "yes", 1);
}

using Elements = std::vector<std::string>;

gboolean RegisterElements(GstPlugin* plugin, gpointer data) {
  for (const std::string& name : *static_cast<Elements*>(data)) {
    const GType type = g_type_register_static_simple(GST_TYPE_BIN, ("MoxTest" + name).c_str(), sizeof(GstBinClass),
                                                     nullptr, sizeof(GstBin), nullptr, GTypeFlags());
    gst_element_register(plugin, name.c_str(), GST_RANK_SECONDARY, type);
  }
  return TRUE;
}

void RegisterPlugin(const char* name, Elements elements) {
  ASSERT_TRUE(gst_plugin_register_static_full(GST_VERSION_MAJOR, GST_VERSION_MINOR, name, "Stand-in", RegisterElements,
                                              "1", "LGPL", "mox", "mox", "mox", &elements));
}

/** The rank of a feature, having checked that only the registry and this function hold it. */
unsigned GetRank(const char* name) {
  GstPluginFeature* const feature = gst_registry_lookup_feature(gst_registry_get(), name);
  const unsigned rank = gst_plugin_feature_get_rank(feature);
  EXPECT_EQ(G_OBJECT(feature)->ref_count, 2U);
  gst_object_unref(feature);
  return rank;
}

void Warn() {
  GstDebugCategory* category = nullptr;
  GST_DEBUG_CATEGORY_INIT(category, "moxtest", 0, "Test");
  GST_CAT_WARNING(category, "careful");
}

TEST(Session, BringsGstreamerUpAndDownFromC) {
  HideInstalledPlugins();
  const Capture capture;
  ReleaseSessionInC(nullptr);
  ASSERT_FALSE(gst_is_initialized());
  void* const session = CreateSessionInC();
  ASSERT_NE(session, nullptr);
  EXPECT_TRUE(gst_is_initialized());
  EXPECT_THAT(capture.GetLines(), ElementsAre(kNoPlugin));
  ReleaseSessionInC(session);
  EXPECT_THAT(capture.GetLines(), ElementsAre(kNoPlugin));
}

TEST(Session, PrefersHardwareDecoders) {
  HideInstalledPlugins();
  gst_init(nullptr, nullptr);
  RegisterPlugin("nvcodec", {"nvh264dec", "nvh265dec"});
  RegisterPlugin("vaapi", {"vaapih264dec", "vaapih265dec", "vaapidecodebin"});
  const Capture capture;
  const Session session;
  EXPECT_THAT(capture.GetLines(), ElementsAre(kPlugin, Found("nvh264dec"), Found("nvh265dec")));
  EXPECT_EQ(GetRank("nvh264dec"), 258U);
  EXPECT_EQ(GetRank("nvh265dec"), 258U);
  EXPECT_EQ(GetRank("vaapih264dec"), 257U);
  EXPECT_EQ(GetRank("vaapih265dec"), 257U);
  EXPECT_EQ(GetRank("vaapidecodebin"), 64U);
}

TEST(Session, WarnsOfMissingNvidiaDecodersOnly) {
  HideInstalledPlugins();
  gst_init(nullptr, nullptr);
  RegisterPlugin("nvcodec", {"nvh264dec"});
  RegisterPlugin("vaapi", {"vaapih265dec"});
  const Capture capture;
  const Session session;
  EXPECT_THAT(capture.GetLines(), ElementsAre(kPlugin, Found("nvh264dec"), Missing("nvh265dec")));
  EXPECT_EQ(GetRank("nvh264dec"), 258U);
  EXPECT_EQ(GetRank("vaapih265dec"), 257U);
}

TEST(Session, FindsInstalledPluginWithoutHardware) {
  const Capture capture;
  const Session session;
  const std::unique_ptr<GstPlugin, decltype(&gst_object_unref)> plugin(
      gst_registry_find_plugin(gst_registry_get(), "nvcodec"), gst_object_unref);
  const std::unique_ptr<GList, decltype(&gst_plugin_feature_list_free)> features(
      gst_registry_get_feature_list_by_plugin(gst_registry_get(), "nvcodec"), gst_plugin_feature_list_free);
  if (!plugin || features) {
    GTEST_SKIP() << "The plugin is missing, or finds its hardware";
  }
  EXPECT_THAT(capture.GetLines(), ElementsAre(kPlugin, Missing("nvh264dec"), Missing("nvh265dec")));
}

struct Debug {
  const char* variable;
  GstDebugLevel threshold;
  bool warns;

  friend void PrintTo(const Debug& debug, std::ostream* out) {
    *out << "GST_DEBUG" << (debug.variable == nullptr ? "" : std::string("=") + debug.variable);
  }
};

class DebugTest : public testing::TestWithParam<Debug> {};

TEST_P(DebugTest, DecidesWhatIsLogged) {
  HideInstalledPlugins();
  unsetenv("GST_DEBUG");
  if (GetParam().variable != nullptr) {
    setenv("GST_DEBUG", GetParam().variable, 1);
  }
  const Session session;
  EXPECT_TRUE(gst_debug_is_active());
  EXPECT_EQ(gst_debug_get_default_threshold(), GetParam().threshold);
  const Capture capture;
  Warn();
  EXPECT_EQ(capture.GetLines().size(), GetParam().warns ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(Session, DebugTest,
                         testing::Values(Debug{nullptr, GST_LEVEL_WARNING, true}, Debug{"", GST_LEVEL_WARNING, true},
                                         Debug{"1", GST_LEVEL_ERROR, false}, Debug{"3", GST_LEVEL_FIXME, true}));

TEST(Session, LogsUntilItEnds) {
  HideInstalledPlugins();
  setenv("GST_DEBUG", "4", 1);  // with which GStreamer tells that it goes down
  auto session = std::make_unique<Session>();
  const Capture capture;
  session.reset();
  EXPECT_THAT(capture.GetLines(), IsEmpty());
}

TEST(Session, EachSessionLogs) {
  HideInstalledPlugins();
  static void* first;  // never released: GStreamer goes down once only
  first = MoxGstreamerSessionCreate();
  ASSERT_NE(first, nullptr);
  const Session second;
  const Capture capture;
  Warn();
  EXPECT_THAT(capture.GetLines(), ElementsAre(EndsWith(": careful"), EndsWith(": careful")));
}

}  // namespace
}  // namespace mox::gstreamer
