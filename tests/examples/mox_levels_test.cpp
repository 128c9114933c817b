#include "mox/gstreamer/session.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include <gst/check/gstharness.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

constexpr int kWidth = 37;  // gives rows with padding
constexpr int kHeight = 5;

/** Changes every light and colour level of the frame by the formula; alpha stays. */
void ChangeLevels(const GstVideoInfo& info, guint8* frame) {
  const int components = GST_VIDEO_INFO_IS_RGB(&info) ? 3 : 1;
  for (int component = 0; component < components; ++component) {
    guint8* const first = frame + GST_VIDEO_INFO_COMP_OFFSET(&info, component);
    for (int pixel = 0; pixel < kWidth * kHeight; ++pixel) {
      guint8& level = first[GST_VIDEO_INFO_COMP_STRIDE(&info, component) * (pixel / kWidth) +
                            GST_VIDEO_INFO_COMP_PSTRIDE(&info, component) * (pixel % kWidth)];
      const double light = std::clamp((1.5 * level - 20) / 255, 0.0, 1.0);
      level = static_cast<guint8>(std::floor(255 * std::pow(light, 1 / 2.2) + 0.5));
    }
  }
}

TEST(Levels, FollowsTheFormulaInEveryFormat) {
  const mox::gstreamer::Session session;  // finds the element, with nothing set in the environment
  auto* const harness = gst_harness_new_parse("moxlevels lift=-20 gain=1.5 gamma=2.2 ! moxlevels gain=9 enabled=false");
  for (const char* const format : {"I420", "YV12", "NV12", "NV21", "Y42B", "Y444", "GRAY8", "RGB", "BGR", "RGBx",
                                   "BGRx", "xRGB", "xBGR", "RGBA", "BGRA", "ARGB", "ABGR"}) {
    GstVideoInfo info{};
    gst_video_info_set_format(&info, gst_video_format_from_string(format), kWidth, kHeight);
    gst_harness_set_src_caps(harness, gst_video_info_to_caps(&info));
    std::vector<guint8> frame(GST_VIDEO_INFO_SIZE(&info));
    std::iota(frame.begin(), frame.end(), guint8{0});
    GstBuffer* const out = gst_harness_push_and_pull(harness, gst_buffer_new_memdup(frame.data(), frame.size()));
    ChangeLevels(info, frame.data());
    EXPECT_EQ(gst_buffer_memcmp(out, 0, frame.data(), frame.size()), 0) << format;
    gst_buffer_unref(out);
  }
  gst_harness_teardown(harness);
}
