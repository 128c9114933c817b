#include "mox/gstreamer/pad_probe.h"

#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/live.h"

#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

namespace mox::gstreamer {
namespace {

using elements::ErrorOf;
using PadProbeTest = live::Test;

/** A source pad that frames are pushed from by hand, and what became of them. */
struct Link {
  Link() { gst_harness_set_src_caps_str(harness, "test/frames"); }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;
  ~Link() {
    ExpectReleased();
    gst_harness_teardown(harness);
  }

  void ExpectReleased() const {
    EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(&source), 1);
    EXPECT_EQ(token.use_count(), 1);
  }

  void Push() const { EXPECT_EQ(gst_harness_push(harness, gst_buffer_new()), GST_FLOW_OK); }
  unsigned Frames() const { return gst_harness_buffers_received(harness); }

  PadProbe Probe(GstPadProbeReturn answer, GstPadProbeType type = GST_PAD_PROBE_TYPE_BUFFER) {
    return {source, type, [this, answer, token = token](GstPad&, GstPadProbeInfo&) {
              ++calls;
              return answer;
            }};
  }

  std::shared_ptr<int> token = std::make_shared<int>();
  std::atomic<int> calls = 0;
  GstHarness* const harness = gst_harness_new("identity");
  GstPad& source = *harness->srcpad;
};

TEST_F(PadProbeTest, AnswersOnceThenLetsPass) {
  for (const auto& [answer, frames, users] :
       {std::tuple(GST_PAD_PROBE_OK, 2U, 2), std::tuple(GST_PAD_PROBE_DROP, 1U, 2),
        std::tuple(GST_PAD_PROBE_REMOVE, 2U, 1)}) {
    Link link;
    PadProbe probe = link.Probe(answer);
    auto future = probe.GetFuture();
    link.Push();
    link.Push();
    EXPECT_EQ(future.get(), answer);
    EXPECT_EQ(link.Frames(), frames);
    EXPECT_EQ(link.calls, 1);
    EXPECT_EQ(link.token.use_count(), users);
    EXPECT_THROW(probe.GetFuture(), std::future_error);
  }
}

TEST_F(PadProbeTest, ErrorsRefusalsAndIdlePads) {
  Link link;
  const auto fail = [](GstPad&, GstPadProbeInfo&) -> GstPadProbeReturn { throw std::runtime_error("too far"); };
  EXPECT_EQ(ErrorOf([&] { PadProbe(link.source, GST_PAD_PROBE_TYPE_IDLE, fail).GetFuture().get(); }), "too far");
  const std::string refused = "Failed to add probe to pad (" + testing::PrintToString<void*>(&link.source) + ")";
  g_test_expect_message("GStreamer", G_LOG_LEVEL_CRITICAL, "gst_pad_add_probe: assertion*");
  EXPECT_EQ(ErrorOf([&] { link.Probe(GST_PAD_PROBE_OK, GST_PAD_PROBE_TYPE_INVALID); }), refused);
  g_test_assert_expected_messages();
  link.ExpectReleased();
  EXPECT_EQ(ErrorOf([&] { link.Probe(GST_PAD_PROBE_REMOVE, GST_PAD_PROBE_TYPE_IDLE); }), refused);
  link.ExpectReleased();
  EXPECT_EQ(link.Probe(GST_PAD_PROBE_OK, GST_PAD_PROBE_TYPE_IDLE).GetFuture().get(), GST_PAD_PROBE_OK);
  link.Push();
  EXPECT_EQ(link.Frames(), 1U);
}

TEST_F(PadProbeTest, DestroyedWhileItsCallbackRuns) {
  const Link link;
  std::promise<void> entered;
  std::promise<void> gate;
  const auto wait = [&, token = link.token](GstPad&, GstPadProbeInfo&) {
    entered.set_value();
    gate.get_future().wait();
    return GST_PAD_PROBE_DROP;
  };
  auto probe = std::make_unique<PadProbe>(link.source, GST_PAD_PROBE_TYPE_BUFFER, wait);
  auto future = probe->GetFuture();
  std::thread pusher([&] { link.Push(); });
  entered.get_future().wait();
  link.Push();  // returns although the callback is still running
  probe.reset();
  EXPECT_EQ(link.token.use_count(), 3);
  gate.set_value();
  EXPECT_EQ(future.get(), GST_PAD_PROBE_DROP);
  pusher.join();
  EXPECT_EQ(link.Frames(), 1U);
}

TEST_F(PadProbeTest, Moves) {
  Link left;
  Link right;
  PadProbe source = left.Probe(GST_PAD_PROBE_OK);
  PadProbe target = right.Probe(GST_PAD_PROBE_DROP);
  auto future = target.GetFuture();
  target = std::move(source);
  right.ExpectReleased();
  EXPECT_THROW(future.get(), std::future_error);
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { source.GetFuture(); }), "Pimpl is null");
  PadProbe made(std::move(target));
  EXPECT_EQ(&made.GetPad(), &left.source);
  EXPECT_EQ(&std::as_const(made).GetPad(), &left.source);
}

}  // namespace
}  // namespace mox::gstreamer
