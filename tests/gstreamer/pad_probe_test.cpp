#include "mox/gstreamer/pad_probe.h"

#include "tests/gstreamer/live.h"

#include <gst/check/gstharness.h>

namespace mox::gstreamer {
namespace {

/** A source pad that frames are pushed from by hand. */
struct PadProbeTest : live::Test {
  PadProbeTest() { gst_harness_set_src_caps_str(harness, "test/frames"); }
  ~PadProbeTest() override {
    EXPECT_EQ(token.use_count(), 1);
    gst_harness_teardown(harness);
  }

  /** How many frames have arrived, with the one pushed now. */
  unsigned Push() const {
    gst_harness_push(harness, gst_buffer_new());
    return gst_harness_buffers_received(harness);
  }

  PadProbe Probe(GstPadProbeReturn answer, GstPadProbeType type = GST_PAD_PROBE_TYPE_BUFFER) {
    return {*harness->srcpad, type, [answer, token = token](GstPad&, GstPadProbeInfo&) { return answer; }};
  }

  std::shared_ptr<int> token = std::make_shared<int>();
  GstHarness* const harness = gst_harness_new("identity");
};

TEST_F(PadProbeTest, AnswersOnceAndMovesAndRefuses) {
  unsigned frames = 0;
  for (const auto answer : {GST_PAD_PROBE_OK, GST_PAD_PROBE_DROP, GST_PAD_PROBE_REMOVE}) {
    PadProbe moved = Probe(answer);
    PadProbe probe = Probe(GST_PAD_PROBE_DROP);
    auto dropped = probe.GetFuture();
    probe = std::move(moved);
    EXPECT_THROW(dropped.get(), std::future_error);
    EXPECT_EQ(live::ErrorOf<std::logic_error>([&] { moved.GetFuture(); }), "Pimpl is null");
    EXPECT_EQ(Push(), frames += answer == GST_PAD_PROBE_DROP ? 0 : 1);
    EXPECT_EQ(Push(), ++frames);
    EXPECT_EQ(probe.GetFuture().get(), answer);
    EXPECT_EQ(&std::as_const(probe).GetPad(), &probe.GetPad());
    EXPECT_THROW(PadProbe(std::move(probe)).GetFuture(), std::future_error);
  }
  const auto fail = [](GstPad&, GstPadProbeInfo&) -> GstPadProbeReturn { throw std::runtime_error("too far"); };
  EXPECT_EQ(live::ErrorOf([&] { PadProbe(*harness->srcpad, GST_PAD_PROBE_TYPE_IDLE, fail).GetFuture().get(); }),
            "too far");
  g_test_expect_message("GStreamer", G_LOG_LEVEL_CRITICAL, "gst_pad_add_probe: assertion*");
  for (const auto type : {GST_PAD_PROBE_TYPE_INVALID, GST_PAD_PROBE_TYPE_IDLE}) {
    EXPECT_EQ(live::ErrorOf([&] { Probe(GST_PAD_PROBE_REMOVE, type); }),
              "Failed to add probe to pad (" + testing::PrintToString<void*>(harness->srcpad) + ")");
  }
  g_test_assert_expected_messages();
}

TEST_F(PadProbeTest, ARefusedIdleProbeReleasesItsCallback) {
  auto& no_pad = reinterpret_cast<GstPad&>(*harness->element);
  g_test_expect_message("GStreamer", G_LOG_LEVEL_CRITICAL, "gst_pad_add_probe: assertion*");
  EXPECT_THROW(PadProbe(no_pad, GST_PAD_PROBE_TYPE_IDLE, [token = token](auto&...) { return GST_PAD_PROBE_OK; }),
               std::runtime_error);
  g_test_assert_expected_messages();
}

TEST_F(PadProbeTest, DestroyedWhileItsCallbackRuns) {
  std::promise<void> entered;
  std::promise<void> gate;
  auto probe = std::make_unique<PadProbe>(*harness->srcpad, GST_PAD_PROBE_TYPE_BUFFER, [&](GstPad&, GstPadProbeInfo&) {
    entered.set_value();
    gate.get_future().wait();
    return GST_PAD_PROBE_DROP;
  });
  auto future = probe->GetFuture();
  auto pushing = std::async(std::launch::async, [&] { return Push(); });
  entered.get_future().wait();
  EXPECT_EQ(Push(), 1U);  // returns although the callback is still running
  probe.reset();
  gate.set_value();
  EXPECT_EQ(future.get(), GST_PAD_PROBE_DROP);
  EXPECT_EQ(pushing.get(), 1U);
}

}  // namespace
}  // namespace mox::gstreamer
