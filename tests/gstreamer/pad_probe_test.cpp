#include "mox/gstreamer/pad_probe.h"

#include "tests/gstreamer/live.h"

#include <array>
#include <atomic>
#include <future>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include <gst/gst.h>
#include <gtest/gtest.h>

namespace mox::gstreamer {
namespace {

using live::Await;
using PadProbeTest = live::Test;

constexpr auto kBlockBuffer = static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_BUFFER);

/** Captured by a callback, counts the callback's copies. */
class Token {
 public:
  explicit Token(std::atomic<int>& alive) : alive_(alive) { ++alive_; }
  Token(const Token& other) : alive_(other.alive_) { ++alive_; }
  Token& operator=(const Token&) = delete;
  ~Token() { --alive_; }

 private:
  std::atomic<int>& alive_;
};

/** A source pad that frames are pushed from by hand, linked to a sink pad that counts them. */
class Link {
 public:
  Link() {
    gst_pad_set_chain_function_full(sink_.Get(), Chain, &frames_, nullptr);
    gst_pad_link(source_.Get(), sink_.Get());
    gst_pad_set_active(sink_.Get(), TRUE);
    gst_pad_set_active(source_.Get(), TRUE);
    gst_pad_push_event(source_.Get(), gst_event_new_stream_start("stream"));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_push_event(source_.Get(), gst_event_new_segment(&segment));
  }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  /** Nothing may have kept the pad, nor left a callback on it. */
  ~Link() {
    EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(source_.Get()), 1);
    EXPECT_EQ(alive, 0);
  }

  GstPad& Pad() { return *source_; }
  int Frames() const { return frames_; }
  void Push() { EXPECT_EQ(gst_pad_push(source_.Get(), gst_buffer_new()), GST_FLOW_OK); }

  /** A probe for frames that gives the answer and counts its calls. */
  PadProbe Probe(GstPadProbeReturn answer, GstPadProbeType type = GST_PAD_PROBE_TYPE_BUFFER) {
    return {Pad(), type, [this, answer, token = Token(alive)](GstPad& pad, GstPadProbeInfo&) {
              EXPECT_EQ(&pad, &Pad());
              ++calls;
              return answer;
            }};
  }

  std::atomic<int> alive = 0;
  std::atomic<int> calls = 0;

 private:
  static GstFlowReturn Chain(GstPad* pad, GstObject*, GstBuffer* buffer) {
    ++*static_cast<std::atomic<int>*>(pad->chaindata);
    gst_buffer_unref(buffer);
    return GST_FLOW_OK;
  }

  std::atomic<int> frames_ = 0;
  Ptr<GstPad> source_{gst_pad_new("src", GST_PAD_SRC)};
  Ptr<GstPad> sink_{gst_pad_new("sink", GST_PAD_SINK)};
};

template <typename Operation>
void ExpectEmpty(const Operation& operation) {
  try {
    operation();
    ADD_FAILURE() << "no error";
  } catch (const std::logic_error& error) {
    EXPECT_STREQ(error.what(), "Pimpl is null");
  }
}

TEST_F(PadProbeTest, AnswersOnceThenLetsPass) {
  for (const auto& [answer, frames, kept] : {std::tuple(GST_PAD_PROBE_OK, 3, 1), std::tuple(GST_PAD_PROBE_DROP, 2, 1),
                                             std::tuple(GST_PAD_PROBE_REMOVE, 3, 0)}) {
    Link link;
    PadProbe probe = link.Probe(answer);
    EXPECT_EQ(&probe.GetPad(), &link.Pad());
    EXPECT_EQ(&std::as_const(probe).GetPad(), &link.Pad());
    EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(&link.Pad()), 1);
    auto future = probe.GetFuture();
    EXPECT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    for (int i = 0; i < 3; ++i) {
      link.Push();
    }
    EXPECT_EQ(future.get(), answer);
    EXPECT_EQ(link.Frames(), frames);
    EXPECT_EQ(link.calls, 1);
    EXPECT_EQ(link.alive, kept);
    try {
      probe.GetFuture();
      ADD_FAILURE() << "a second future";
    } catch (const std::future_error& error) {
      EXPECT_EQ(error.code(), std::future_errc::future_already_retrieved);
    }
  }
}

TEST_F(PadProbeTest, LaterItemsAreHeldByABlockingProbe) {
  Link link;
  std::optional probe(link.Probe(GST_PAD_PROBE_PASS, kBlockBuffer));
  link.Push();
  EXPECT_EQ(link.Frames(), 1);
  std::thread pusher([&] { link.Push(); });
  Await("the block", [&] { return gst_pad_is_blocking(&link.Pad()) != FALSE; });
  EXPECT_EQ(link.Frames(), 1);
  probe.reset();
  pusher.join();
  EXPECT_EQ(link.Frames(), 2);
  EXPECT_EQ(link.calls, 1);
}

TEST_F(PadProbeTest, ErrorsReachTheFuture) {
  Link link;
  PadProbe throwing(link.Pad(), GST_PAD_PROBE_TYPE_BUFFER,
                    [](GstPad&, GstPadProbeInfo&) -> GstPadProbeReturn { throw std::out_of_range("too far"); });
  PadProbe odd(link.Pad(), GST_PAD_PROBE_TYPE_BUFFER, [](GstPad&, GstPadProbeInfo&) -> GstPadProbeReturn { throw 7; });
  PadProbe empty(link.Pad(), GST_PAD_PROBE_TYPE_BUFFER, nullptr);
  link.Push();
  link.Push();
  EXPECT_EQ(link.Frames(), 2);
  try {
    throwing.GetFuture().get();
    ADD_FAILURE() << "no error";
  } catch (const std::out_of_range& error) {
    EXPECT_STREQ(error.what(), "too far");
  }
  EXPECT_THROW(odd.GetFuture().get(), int);
  EXPECT_THROW(empty.GetFuture().get(), std::bad_function_call);
}

TEST_F(PadProbeTest, NothingIsLeftOfARefusedProbe) {
  Link link;
  std::ostringstream message;
  message << "Failed to add probe to pad (" << static_cast<void*>(&link.Pad()) << ")";
  const auto expect_refused = [&](GstPadProbeType type) {
    try {
      link.Probe(GST_PAD_PROBE_REMOVE, type);
      ADD_FAILURE() << "not refused";
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(error.what(), message.str());
    }
    EXPECT_EQ(link.alive, 0);
    EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(&link.Pad()), 1);
  };
  g_test_expect_message("GStreamer", G_LOG_LEVEL_CRITICAL, "gst_pad_add_probe: assertion*");
  expect_refused(GST_PAD_PROBE_TYPE_INVALID);
  g_test_assert_expected_messages();
  EXPECT_EQ(link.calls, 0);
  expect_refused(GST_PAD_PROBE_TYPE_IDLE);  // runs at once, and asks to be removed
  EXPECT_EQ(link.calls, 1);
  link.Push();
  EXPECT_EQ(link.Frames(), 1);
}

TEST_F(PadProbeTest, AnIdleProbeRunsAtOnce) {
  Link link;
  std::optional probe(link.Probe(GST_PAD_PROBE_OK, GST_PAD_PROBE_TYPE_IDLE));
  EXPECT_EQ(link.calls, 1);
  EXPECT_EQ(probe->GetFuture().get(), GST_PAD_PROBE_OK);
  probe.reset();
  link.Push();
  EXPECT_EQ(link.Frames(), 1);
}

TEST_F(PadProbeTest, DestroyedUnreached) {
  Link link;
  auto future = link.Probe(GST_PAD_PROBE_OK).GetFuture();
  EXPECT_EQ(link.alive, 0);
  try {
    future.get();
    ADD_FAILURE() << "no error";
  } catch (const std::future_error& error) {
    EXPECT_EQ(error.code(), std::future_errc::broken_promise);
  }
  link.Push();
  EXPECT_EQ(link.Frames(), 1);
  EXPECT_EQ(link.calls, 0);
}

TEST_F(PadProbeTest, DestroyedWhileItsCallbackRuns) {
  for (const auto type : {GST_PAD_PROBE_TYPE_BUFFER, kBlockBuffer}) {
    Link link;
    std::promise<void> entered;
    std::promise<void> gate;
    std::optional<PadProbe> probe(
        std::in_place, link.Pad(), type,
        [&, opened = gate.get_future().share(), token = Token(link.alive)](GstPad&, GstPadProbeInfo&) {
          entered.set_value();
          opened.wait();
          ++link.calls;
          return GST_PAD_PROBE_OK;
        });
    auto future = probe->GetFuture();
    std::thread pusher([&] { link.Push(); });
    entered.get_future().wait();
    probe.reset();
    EXPECT_EQ(link.alive, 1);
    EXPECT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    gate.set_value();
    EXPECT_EQ(future.get(), GST_PAD_PROBE_OK);
    pusher.join();
    EXPECT_EQ(link.alive, 0);
    link.Push();
    EXPECT_EQ(link.Frames(), 2);
    EXPECT_EQ(link.calls, 1);
  }
}

TEST_F(PadProbeTest, TwoThreadsAtOnce) {
  Link link;
  std::promise<void> entered;
  std::promise<void> gate;
  PadProbe slow(link.Pad(), GST_PAD_PROBE_TYPE_BUFFER,
                [&, opened = gate.get_future().share()](GstPad&, GstPadProbeInfo&) {
                  entered.set_value();
                  opened.wait();
                  return GST_PAD_PROBE_DROP;
                });
  std::thread first([&] { link.Push(); });
  entered.get_future().wait();
  link.Push();  // returns although the callback is still running
  EXPECT_EQ(link.Frames(), 1);
  gate.set_value();
  first.join();
  EXPECT_EQ(slow.GetFuture().get(), GST_PAD_PROBE_DROP);
  EXPECT_EQ(link.Frames(), 1);

  for (int i = 1; i <= 200; ++i) {
    PadProbe probe = link.Probe(GST_PAD_PROBE_REMOVE);
    std::atomic<int> waiting = 2;
    const auto push = [&] {
      --waiting;
      while (waiting > 0) {
      }
      link.Push();
    };
    std::array<std::thread, 2> pushers{std::thread(push), std::thread(push)};
    for (auto& pusher : pushers) {
      pusher.join();
    }
    EXPECT_EQ(probe.GetFuture().get(), GST_PAD_PROBE_REMOVE);
    ASSERT_EQ(link.calls, i);
  }
  EXPECT_EQ(link.Frames(), 401);
}

TEST_F(PadProbeTest, Moves) {
  static_assert(!std::is_copy_constructible_v<PadProbe> && !std::is_copy_assignable_v<PadProbe>);
  static_assert(std::is_nothrow_move_constructible_v<PadProbe> && std::is_nothrow_move_assignable_v<PadProbe>);
  Link left;
  Link right;
  PadProbe source = left.Probe(GST_PAD_PROBE_OK);
  PadProbe other = right.Probe(GST_PAD_PROBE_DROP);
  {
    PadProbe moved(std::move(source));
    ExpectEmpty([&] { source.GetPad(); });
    ExpectEmpty([&] { std::as_const(source).GetPad(); });
    ExpectEmpty([&] { source.GetFuture(); });
    PadProbe& self = moved;
    moved = std::move(self);
    swap(moved, other);
    EXPECT_EQ(&moved.GetPad(), &right.Pad());
    EXPECT_EQ(&other.GetPad(), &left.Pad());
    auto future = moved.GetFuture();
    moved = std::move(other);  // removes the probe that it held
    EXPECT_EQ(right.alive, 0);
    EXPECT_THROW(future.get(), std::future_error);
    EXPECT_EQ(left.alive, 1);
    left.Push();
    EXPECT_EQ(moved.GetFuture().get(), GST_PAD_PROBE_OK);
  }
  EXPECT_EQ(left.alive, 0);
  EXPECT_EQ(left.calls, 1);
}

}  // namespace
}  // namespace mox::gstreamer
