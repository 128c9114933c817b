#include "mox/gstreamer/session.h"

#include <cmath>
#include <numeric>
#include <vector>

#include <gst/check/gstharness.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

TEST(Levels, FollowsTheFormulaInEveryFormat) {
  const mox::gstreamer::Session session;  // finds the element, with nothing set in the environment
  GstHarness* const harness = gst_harness_new("moxlevels");
  g_object_set(harness->element, "lift", -20, "gain", 1.5F, "gamma", 2.2, nullptr);
  for (const char* const name : {"I420", "YV12", "NV12", "NV21", "Y42B", "Y444", "GRAY8", "RGB", "BGR", "RGBx", "BGRx",
                                 "xRGB", "xBGR", "RGBA", "BGRA", "ARGB", "ABGR"}) {
    GstVideoInfo info{};
    gst_video_info_set_format(&info, gst_video_format_from_string(name), 37, 5);  // rows with bytes behind them
    gst_harness_set_src_caps(harness, gst_video_info_to_caps(&info));
    std::vector<guint8> frame(GST_VIDEO_INFO_SIZE(&info));
    std::iota(frame.begin(), frame.end(), guint8{0});
    std::vector<guint8> expected = frame;
    for (int i = 0; i < (GST_VIDEO_INFO_IS_RGB(&info) ? 3 : 1) * 37 * 5; ++i) {
      const int component = i / (37 * 5);
      guint8* const first = expected.data() + GST_VIDEO_INFO_COMP_OFFSET(&info, component);
      guint8& level = first[GST_VIDEO_INFO_COMP_STRIDE(&info, component) * (i / 37 % 5) +
                            GST_VIDEO_INFO_COMP_PSTRIDE(&info, component) * (i % 37)];
      const double light = std::fmin(std::fmax((1.5 * level - 20) / 255, 0), 1);
      level = static_cast<guint8>(std::floor(255 * std::pow(light, 1 / 2.2) + 0.5));
    }
    for (const bool enabled : {false, true}) {
      g_object_set(harness->element, "enabled", gboolean{enabled}, nullptr);
      GstBuffer* const out = gst_harness_push_and_pull(harness, gst_buffer_new_memdup(frame.data(), frame.size()));
      EXPECT_EQ(gst_buffer_memcmp(out, 0, (enabled ? expected : frame).data(), frame.size()), 0) << name;
      gst_buffer_unref(out);
    }
  }
  gst_harness_teardown(harness);
}
