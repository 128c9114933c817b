#include "mox/gstreamer/bus.h"

#include "tests/gstreamer/live.h"

#include <ctime>

namespace mox::gstreamer {
namespace {

using testing::ThrowsMessage;
using namespace std::chrono_literals;

/** A bus with a callback that marks what has been read. */
struct BusTest : live::Test {
  void Post(GstMessageType type) { gst_bus_post(raw.Get(), gst_message_new_custom(type, nullptr, nullptr)); }

  /** Binds a callback that notes its name. */
  type::Binding Bind(GstMessageType type, const char* name) {
    return bus.Bind(type, [this, name](const GstMessage&) { calls += name; });
  }

  /** Waits until the reader has read what was posted and knows what is bound. */
  void AwaitReader() {
    const int before = marks;
    Post(GST_MESSAGE_APPLICATION);
    live::Await([&] { return marks > before; });
  }

  /** Posts an EOS and returns the names of the callbacks that it calls. */
  std::string CallsAtEos() {
    calls.clear();
    AwaitReader();
    Post(GST_MESSAGE_EOS);
    AwaitReader();
    return calls;
  }

  /** Returns the CPU time that the process takes in 300 ms in which nothing is posted. */
  static std::chrono::microseconds TakeCpuTime() {
    const std::clock_t before = std::clock();
    std::promise<void>().get_future().wait_for(300ms);
    return std::chrono::microseconds(std::clock() - before);
  }

  std::string calls;
  std::atomic<int> marks = 0;
  Ptr<GstBus> raw{gst_bus_new()};
  Bus bus{Ptr<GstBus>(raw)};
  type::Binding mark = bus.Bind(GST_MESSAGE_APPLICATION, [this](const GstMessage&) { ++marks; });
};

TEST_F(BusTest, CallbacksOfTheExactTypeRunUntilTheirRelease) {
  const auto eos = Bind(GST_MESSAGE_EOS, "eos ");
  auto same = Bind(GST_MESSAGE_EOS, "same ");
  auto shares_bits = Bind(static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR), "shares bits ");
  EXPECT_EQ(CallsAtEos(), "eos same ");
  same.Release();
  shares_bits.Release();
  EXPECT_EQ(CallsAtEos(), "eos ");
}

TEST_F(BusTest, FirstFreeSlotIsUsedFirst) {
  auto first = Bind(GST_MESSAGE_EOS, "first ");
  const auto second = Bind(GST_MESSAGE_EOS, "second ");
  auto third = Bind(GST_MESSAGE_EOS, "third ");
  first.Release();
  third.Release();
  const auto next = Bind(GST_MESSAGE_EOS, "next ");
  EXPECT_EQ(CallsAtEos(), "next second ");
}

TEST_F(BusTest, UnboundBusIsLeftAlone) {
  mark.Release();
  Post(GST_MESSAGE_APPLICATION);  // a wait that began before may still read it
  Post(GST_MESSAGE_APPLICATION);
  EXPECT_LT(TakeCpuTime(), 10ms);
  EXPECT_TRUE(gst_bus_have_pending(raw.Get()));
}

TEST_F(BusTest, ReaderSleepsWhileNothingIsPosted) {
  AwaitReader();
  EXPECT_LT(TakeCpuTime(), 10ms);
}

TEST_F(BusTest, RefusesExtendedTypesEmptyCallbacksAndNoBus) {
  for (const auto type : {GST_MESSAGE_EXTENDED, GST_MESSAGE_DEVICE_ADDED, GST_MESSAGE_ANY}) {
    EXPECT_THAT([&] { Bind(type, ""); },
                ThrowsMessage<std::logic_error>("Cannot register types exceeding GST_MESSAGE_EXTENDED"));
  }
  EXPECT_THAT([&] { bus.Bind(GST_MESSAGE_EOS, nullptr); },
              ThrowsMessage<std::invalid_argument>("Cannot insert invalid functions into the Callbacks"));
  EXPECT_THAT([] { Bus{Ptr<GstBus>()}; }, ThrowsMessage<std::invalid_argument>("Cannot read a bus that is null"));
}

TEST_F(BusTest, ReleaseAndDestructionWaitForTheCallback) {
  std::promise<void> running, end;
  auto binding = bus.Bind(GST_MESSAGE_EOS, [&](const GstMessage&) {
    running.set_value();
    end.get_future().wait();
  });
  AwaitReader();
  Post(GST_MESSAGE_EOS);
  running.get_future().wait();
  const auto releasing = live::StartToWait([&] { binding.Release(); });
  const auto destroying = live::StartToWait([&] { bus = Bus(Ptr<GstBus>(gst_bus_new())); });
  end.set_value();
  releasing.wait();
  destroying.wait();
  EXPECT_EQ(live::References(raw), 1);
}

TEST_F(BusTest, CallbackMayOwnABinding) {
  auto inner = std::make_shared<type::Binding>(Bind(GST_MESSAGE_EOS, "inner "));
  bus.Bind(GST_MESSAGE_EOS, [owned = std::move(inner)](const GstMessage&) {}).Release();
  EXPECT_EQ(CallsAtEos(), "");
}

TEST_F(BusTest, MovedFromBusThrows) {
  Bus moved(std::move(bus));
  EXPECT_EQ(&moved.Get(), raw.Get());
  EXPECT_EQ(&std::as_const(moved).Get(), raw.Get());
  EXPECT_THROW(bus.Get(), std::logic_error);  // NOLINT(bugprone-use-after-move)
  EXPECT_THROW(std::as_const(bus).Get(), std::logic_error);
  EXPECT_THROW(Bind(GST_MESSAGE_EOS, ""), std::logic_error);
}

TEST_F(BusTest, CallbackMayReplaceTheInputAtEos) {
  live::Stream stream;
  const auto on_end =
      stream.pipeline.GetBus().Bind(GST_MESSAGE_EOS, [&](auto&) { stream.pipeline.SetInput(live::MakeSource()); });
  stream.pipeline.SetInput(live::Parse("videotestsrc num-buffers=5"));
  stream.watch.AwaitFrames(10);
}

}  // namespace
}  // namespace mox::gstreamer
