#include "mox/gstreamer/session.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <numeric>
#include <set>
#include <thread>
#include <vector>

#include <gst/check/gstharness.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<guint8>;

/** The element alone, with frames of a format. A session finds it, with nothing set in the environment. */
class Levels : public testing::Test {
 protected:
  void Start(GstVideoFormat format) {
    harness_.reset(gst_harness_new("moxlevels"));
    gst_video_info_set_format(&info_, format, 37, 5);  // rows with bytes behind them
    GstCaps* const caps = gst_video_info_to_caps(&info_);
    gst_harness_set_caps(harness_.get(), gst_caps_ref(caps), caps);
  }

  GstElement* Get() { return harness_->element; }

  Bytes Push(Bytes frame) {
    GstBuffer* const in = gst_buffer_new_memdup(frame.data(), frame.size());
    GstBuffer* const out = gst_harness_push_and_pull(harness_.get(), in);
    gst_buffer_extract(out, 0, frame.data(), frame.size());
    gst_buffer_unref(out);
    return frame;
  }

  GstVideoInfo info_{};
  const mox::gstreamer::Session session_;
  std::unique_ptr<GstHarness, decltype(&gst_harness_teardown)> harness_{nullptr, gst_harness_teardown};
};

TEST_F(Levels, FollowsTheFormulaInEveryFormat) {
  for (const char* const name : {"I420", "YV12", "NV12", "NV21", "Y42B", "Y444", "GRAY8", "RGB", "BGR", "RGBx", "BGRx",
                                 "xRGB", "xBGR", "RGBA", "BGRA", "ARGB", "ABGR"}) {
    Start(gst_video_format_from_string(name));
    g_object_set(Get(), "lift", -20, "gain", 1.5F, "gamma", 2.2, nullptr);
    Bytes frame(GST_VIDEO_INFO_SIZE(&info_));
    std::iota(frame.begin(), frame.end(), guint8{0});
    Bytes expected = frame;
    for (int i = 0; i < (GST_VIDEO_INFO_IS_RGB(&info_) ? 3 : 1) * 37 * 5; ++i) {
      const int component = i / (37 * 5);
      guint8* const first = expected.data() + GST_VIDEO_INFO_COMP_OFFSET(&info_, component);
      guint8& level = first[GST_VIDEO_INFO_COMP_STRIDE(&info_, component) * (i / 37 % 5) +
                            GST_VIDEO_INFO_COMP_PSTRIDE(&info_, component) * (i % 37)];
      const double light = std::min(std::max((1.5 * level - 20) / 255, 0.0), 1.0);
      level = static_cast<guint8>(std::floor(255 * std::pow(light, 1 / 2.2) + 0.5));
    }
    for (const bool enabled : {true, false, true}) {
      g_object_set(Get(), "enabled", gboolean{enabled}, nullptr);
      EXPECT_EQ(Push(frame), enabled ? expected : frame) << name;
    }
  }
}

TEST_F(Levels, KeepsItsValueWhereItRefusesAnother) {
  Start(GST_VIDEO_FORMAT_GRAY8);
  g_object_set(Get(), "name", "grey", "gamma", 2.0, nullptr);
  GValue value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_DOUBLE);
  g_value_set_double(&value, std::nan(""));
  g_test_expect_message(
      nullptr, G_LOG_LEVEL_WARNING,
      "grey: property 'gamma': The 'gamma' property takes a mox.property.Double from 0.1 to 10.0, not \"NaN\"");
  // GObject itself would not pass such a value on.
  GObjectClass* const klass = G_OBJECT_GET_CLASS(Get());
  GParamSpec* const pspec = g_object_class_find_property(klass, "gamma");
  klass->set_property(G_OBJECT(Get()), pspec->param_id, &value, pspec);
  g_test_assert_expected_messages();
  g_object_get_property(G_OBJECT(Get()), "gamma", &value);
  EXPECT_EQ(g_value_get_double(&value), 2);
}

TEST_F(Levels, TakesOverSettingsWhileFramesPass) {
  Start(GST_VIDEO_FORMAT_GRAY8);
  g_object_set(Get(), "lift", 10, nullptr);
  std::atomic<bool> ends{false};
  std::thread setter([&] {
    for (int lift = -10; !ends; lift = -lift) {
      int now = 0;
      g_object_set(Get(), "lift", lift, "label", "a text that is too long to lie inside a string", nullptr);
      g_object_get(Get(), "lift", &now, nullptr);
      EXPECT_EQ(now, lift);
    }
  });
  std::set<guint8> seen;
  for (int i = 0; i < 1000 || (seen.size() < 2 && i < 1000000); ++i) {
    const Bytes changed = Push(Bytes(GST_VIDEO_INFO_SIZE(&info_), 100));
    EXPECT_EQ(std::set<guint8>(changed.begin(), changed.begin() + 37).size(), 1U) << "Two settings in one row";
    seen.insert(changed[0]);
  }
  ends = true;
  setter.join();
  EXPECT_EQ(seen, (std::set<guint8>{90, 110}));
}

}  // namespace
