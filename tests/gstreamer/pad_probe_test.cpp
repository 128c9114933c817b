#include "mox/gstreamer/pad_probe.h"

#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/live.h"

#include <atomic>
#include <future>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <utility>

#include <gst/gst.h>
#include <gtest/gtest.h>

namespace mox::gstreamer {
namespace {

using elements::ErrorOf;
using elements::References;
using PadProbeTest = live::Test;

/** A source pad that frames are pushed from by hand, linked to a sink pad that counts them. */
struct Link {
  Link() {
    const auto count = [](GstPad* pad, GstObject*, GstBuffer* buffer) {
      ++*static_cast<std::atomic<int>*>(pad->chaindata);
      gst_buffer_unref(buffer);
      return GST_FLOW_OK;
    };
    gst_pad_set_chain_function_full(sink.Get(), count, &frames, nullptr);
    gst_pad_link(source.Get(), sink.Get());
    gst_pad_set_active(sink.Get(), TRUE);
    gst_pad_set_active(source.Get(), TRUE);
    gst_pad_push_event(source.Get(), gst_event_new_stream_start("stream"));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_push_event(source.Get(), gst_event_new_segment(&segment));
  }

  ~Link() { ExpectReleased(); }

  void ExpectReleased() const {
    EXPECT_EQ(References(source), 1);
    EXPECT_EQ(token.use_count(), 1);
  }

  void Push() const { EXPECT_EQ(gst_pad_push(source.Get(), gst_buffer_new()), GST_FLOW_OK); }

  PadProbe Probe(GstPadProbeReturn answer, GstPadProbeType type = GST_PAD_PROBE_TYPE_BUFFER) {
    return {*source, type, [this, answer, token = token](GstPad&, GstPadProbeInfo&) {
              ++calls;
              return answer;
            }};
  }

  std::shared_ptr<int> token = std::make_shared<int>();
  std::atomic<int> calls = 0;
  std::atomic<int> frames = 0;
  Ptr<GstPad> source{gst_pad_new("src", GST_PAD_SRC)};
  Ptr<GstPad> sink{gst_pad_new("sink", GST_PAD_SINK)};
};

TEST_F(PadProbeTest, AnswersOnceThenLetsPass) {
  for (const auto& [answer, frames, users] : {std::tuple(GST_PAD_PROBE_OK, 2, 2), std::tuple(GST_PAD_PROBE_DROP, 1, 2),
                                              std::tuple(GST_PAD_PROBE_REMOVE, 2, 1)}) {
    Link link;
    PadProbe probe = link.Probe(answer);
    auto future = probe.GetFuture();
    link.Push();
    link.Push();
    EXPECT_EQ(future.get(), answer);
    EXPECT_EQ(link.frames, frames);
    EXPECT_EQ(link.calls, 1);
    EXPECT_EQ(link.token.use_count(), users);
    EXPECT_THROW(probe.GetFuture(), std::future_error);
  }
}

TEST_F(PadProbeTest, ErrorsRefusalsAndIdlePads) {
  Link link;
  const auto fail = [](GstPad&, GstPadProbeInfo&) -> GstPadProbeReturn { throw std::runtime_error("too far"); };
  EXPECT_EQ(ErrorOf([&] { PadProbe(*link.source, GST_PAD_PROBE_TYPE_IDLE, fail).GetFuture().get(); }), "too far");
  std::ostringstream message;
  message << "Failed to add probe to pad (" << static_cast<void*>(link.source.Get()) << ")";
  g_test_expect_message("GStreamer", G_LOG_LEVEL_CRITICAL, "gst_pad_add_probe: assertion*");
  EXPECT_EQ(ErrorOf([&] { link.Probe(GST_PAD_PROBE_OK, GST_PAD_PROBE_TYPE_INVALID); }), message.str());
  g_test_assert_expected_messages();
  link.ExpectReleased();
  EXPECT_EQ(ErrorOf([&] { link.Probe(GST_PAD_PROBE_REMOVE, GST_PAD_PROBE_TYPE_IDLE); }), message.str());
  link.ExpectReleased();
  EXPECT_EQ(link.Probe(GST_PAD_PROBE_OK, GST_PAD_PROBE_TYPE_IDLE).GetFuture().get(), GST_PAD_PROBE_OK);
  link.Push();
  EXPECT_EQ(link.frames, 1);
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
  auto probe = std::make_unique<PadProbe>(*link.source, GST_PAD_PROBE_TYPE_BUFFER, wait);
  auto future = probe->GetFuture();
  std::thread pusher([&] { link.Push(); });
  entered.get_future().wait();
  link.Push();  // returns although the callback is still running
  probe.reset();
  EXPECT_EQ(link.token.use_count(), 3);
  gate.set_value();
  EXPECT_EQ(future.get(), GST_PAD_PROBE_DROP);
  pusher.join();
  EXPECT_EQ(link.frames, 1);
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
  EXPECT_EQ(&made.GetPad(), left.source.Get());
  EXPECT_EQ(&std::as_const(made).GetPad(), left.source.Get());
}

}  // namespace
}  // namespace mox::gstreamer
