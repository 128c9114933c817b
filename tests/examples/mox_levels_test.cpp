#include "mox/gstreamer/session.h"

#include <cmath>
#include <numeric>
#include <vector>

#include <gst/check/gstharness.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

using Bytes = std::vector<guint8>;

constexpr int kWidth = 37;  // gives rows with padding
constexpr int kHeight = 5;

/** Returns the frame with every light and colour level changed by the formula; alpha stays. */
Bytes ChangeLevels(const GstVideoInfo& info, Bytes frame) {
  const int components = GST_VIDEO_INFO_IS_RGB(&info) ? 3 : 1;
  for (int component = 0; component < components; ++component) {
    guint8* const first = frame.data() + GST_VIDEO_INFO_COMP_OFFSET(&info, component);
    for (int pixel = 0; pixel < kWidth * kHeight; ++pixel) {
      guint8& level = first[GST_VIDEO_INFO_COMP_STRIDE(&info, component) * (pixel / kWidth) +
                            GST_VIDEO_INFO_COMP_PSTRIDE(&info, component) * (pixel % kWidth)];
      const double light = std::fmin(std::fmax((1.5 * level - 20) / 255, 0), 1);
      level = static_cast<guint8>(std::floor(255 * std::pow(light, 1 / 2.2) + 0.5));
    }
  }
  return frame;
}

TEST(Levels, FollowsTheFormulaInEveryFormat) {
  const mox::gstreamer::Session session;  // finds the element, with nothing set in the environment
  GstHarness* const harness = gst_harness_new("moxlevels");
  g_object_set(harness->element, "lift", -20, "gain", 1.5F, "gamma", 2.2, nullptr);
  const auto expect = [&](gboolean enabled, const Bytes& frame, const Bytes& expected, const char* format) {
    g_object_set(harness->element, "enabled", enabled, nullptr);
    GstBuffer* const out = gst_harness_push_and_pull(harness, gst_buffer_new_memdup(frame.data(), frame.size()));
    EXPECT_EQ(gst_buffer_memcmp(out, 0, expected.data(), expected.size()), 0) << format << ", enabled: " << enabled;
    gst_buffer_unref(out);
  };
  for (const char* const format : {"I420", "YV12", "NV12", "NV21", "Y42B", "Y444", "GRAY8", "RGB", "BGR", "RGBx",
                                   "BGRx", "xRGB", "xBGR", "RGBA", "BGRA", "ARGB", "ABGR"}) {
    GstVideoInfo info{};
    gst_video_info_set_format(&info, gst_video_format_from_string(format), kWidth, kHeight);
    gst_harness_set_src_caps(harness, gst_video_info_to_caps(&info));
    Bytes frame(GST_VIDEO_INFO_SIZE(&info));
    std::iota(frame.begin(), frame.end(), guint8{0});
    expect(FALSE, frame, frame, format);
    expect(TRUE, frame, ChangeLevels(info, frame), format);
  }
  gst_harness_teardown(harness);
}
