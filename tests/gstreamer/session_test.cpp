#include "mox/gstreamer/session.h"

#include "tests/logging/capture.h"

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

namespace mox::gstreamer {
namespace {

using logging::Capture;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kPlugin = "info mox.gstreamer.session: NVIDIA plugin loaded, attempting to use GPU decoding";

void RegisterPlugin(const char* name) {
  ASSERT_TRUE(gst_plugin_register_static(
      GST_VERSION_MAJOR, GST_VERSION_MINOR, name, "Stand-in", [](GstPlugin*) -> gboolean { return TRUE; }, "1", "LGPL",
      "mox", "mox", "mox"));
}

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
  EXPECT_THAT(without_plugins.GetLines(),
              ElementsAre("info mox.gstreamer.session: NVIDIA plugin not loaded, using CPU decoding"));

  setenv("GST_DEBUG", "", 1);
  gst_debug_set_default_threshold(GST_LEVEL_ERROR);
  gst_debug_set_active(FALSE);
  RegisterPlugin("nvcodec");
  RegisterPlugin("vaapi");
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

  gst_debug_set_default_threshold(GST_LEVEL_INFO);  // with which GStreamer tells that it goes down
  const Capture logged;
  GST_WARNING("careful");
  EXPECT_THAT(logged.GetLines(), AllOf(SizeIs(3), Each(EndsWith(": careful")))) << "Each session logs";
  const Capture end;
  MoxGstreamerSessionRelease(third);
  EXPECT_THAT(end.GetLines(), IsEmpty());
}

}  // namespace
}  // namespace mox::gstreamer
