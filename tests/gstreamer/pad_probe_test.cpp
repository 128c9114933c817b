#include "mox/gstreamer/pad_probe.h"

#include "tests/gstreamer/live.h"

#include <gst/check/gstharness.h>

namespace mox::gstreamer {
namespace {

using testing::PrintToString;
using testing::ThrowsMessage;

constexpr auto kBlock = static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_BUFFER);

/** A source pad that buffers are pushed from by hand. */
struct PadProbeTest : live::Test {
  PadProbeTest() { gst_harness_set_src_caps_str(harness, "test/frames"); }
  ~PadProbeTest() override {
    EXPECT_EQ(token.use_count(), 1) << "a callback was not released";
    gst_harness_teardown(harness);
  }

  /** Pushes a buffer and returns how many have arrived. */
  unsigned Push() const {
    gst_harness_push(harness, gst_buffer_new());
    return gst_harness_buffers_received(harness);
  }

  PadProbe Probe(GstPadProbeReturn answer, GstPadProbeType type = GST_PAD_PROBE_TYPE_BUFFER) const {
    return {*harness->srcpad, type, [answer, token = token](auto&...) { return answer; }};
  }

  /** Expects that a buffer is blocked until the probe is gone, and how many have arrived then. */
  void ExpectBlocked(PadProbe probe, unsigned arrived) const {
    const auto pushing = live::StartToWait([&] { EXPECT_EQ(Push(), arrived); });
    { const PadProbe removed = std::move(probe); }
    pushing.wait();
  }

  std::shared_ptr<int> token = std::make_shared<int>();
  GstHarness* const harness = gst_harness_new("identity");
};

TEST_F(PadProbeTest, AnswersTheFirstBufferAndBlocksLaterOnes) {
  PadProbe drop = Probe(GST_PAD_PROBE_DROP, kBlock);
  EXPECT_EQ(Push(), 0U);
  EXPECT_EQ(drop.GetFuture().get(), GST_PAD_PROBE_DROP);
  ExpectBlocked(std::move(drop), 1);
}

TEST_F(PadProbeTest, RemoveRemovesOnce) {
  const PadProbe remove = Probe(GST_PAD_PROBE_REMOVE);
  EXPECT_EQ(Push(), 1U);
}

TEST_F(PadProbeTest, ExceptionGoesIntoTheFutureAndTheBufferStaysBlocked) {
  PadProbe probe(*harness->srcpad, kBlock, [](auto&...) -> GstPadProbeReturn { throw std::runtime_error("thrown"); });
  auto future = probe.GetFuture();
  ExpectBlocked(std::move(probe), 1);
  EXPECT_THAT([&] { future.get(); }, ThrowsMessage<std::runtime_error>("thrown"));
}

TEST_F(PadProbeTest, FutureIsBrokenIfNothingCame) {
  auto future = Probe(GST_PAD_PROBE_OK).GetFuture();
  EXPECT_THROW(future.get(), std::future_error);
}

TEST_F(PadProbeTest, MovedFromProbeThrows) {
  PadProbe source = Probe(GST_PAD_PROBE_OK);
  PadProbe probe(std::move(source));
  EXPECT_EQ(&probe.GetPad(), harness->srcpad);
  EXPECT_EQ(&std::as_const(probe).GetPad(), harness->srcpad);
  EXPECT_THROW(source.GetPad(), std::logic_error);  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
  EXPECT_THROW(std::as_const(source).GetPad(), std::logic_error);
  EXPECT_THROW(source.GetFuture(), std::logic_error);
}

// An idle probe may remove itself before it has been added. GStreamer refuses a probe of no type.
TEST_F(PadProbeTest, ProbeThatIsNotAddedThrowsAndReleasesItsCallback) {
  const std::string pad = PrintToString(static_cast<void*>(harness->srcpad));
  const auto fails = ThrowsMessage<std::runtime_error>("Failed to add probe to pad (" + pad + ")");
  EXPECT_THAT([&] { Probe(GST_PAD_PROBE_REMOVE, GST_PAD_PROBE_TYPE_IDLE); }, fails);
  g_test_expect_message("GStreamer", G_LOG_LEVEL_CRITICAL, "gst_pad_add_probe: assertion*");
  EXPECT_THAT([&] { Probe(GST_PAD_PROBE_OK, GST_PAD_PROBE_TYPE_INVALID); }, fails);
  g_test_assert_expected_messages();
}

TEST_F(PadProbeTest, MayBeDestroyedWhileItsCallbackRuns) {
  std::promise<void> entered, end;
  auto probe = std::make_unique<PadProbe>(*harness->srcpad, GST_PAD_PROBE_TYPE_BUFFER, [&](auto&...) {
    entered.set_value();
    end.get_future().wait();
    return GST_PAD_PROBE_DROP;
  });
  auto future = probe->GetFuture();
  auto pushing = std::async(std::launch::async, [&] { return Push(); });
  entered.get_future().wait();
  EXPECT_EQ(Push(), 1U) << "a later buffer waited for the callback";
  probe.reset();
  end.set_value();
  EXPECT_EQ(future.get(), GST_PAD_PROBE_DROP);
  EXPECT_EQ(pushing.get(), 1U);
}

}  // namespace
}  // namespace mox::gstreamer
