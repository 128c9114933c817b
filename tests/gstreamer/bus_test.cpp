#include "mox/gstreamer/bus.h"

#include "mox/type/container/callbacks.h"
#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/live.h"

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>

namespace mox::gstreamer {
namespace {

using elements::ErrorOf;
using elements::References;
using live::Await;
using type::Binding;
using Calls = std::vector<std::string>;

class BusTest : public live::Test {
 protected:
  void Post(GstMessageType type) const { gst_bus_post(raw.Get(), gst_message_new_custom(type, nullptr, nullptr)); }

  Binding Bind(GstMessageType type, const std::string& name) {
    return bus.Bind(type, [this, name](const GstMessage& message) {
      calls.push_back(name + ":" + GST_MESSAGE_TYPE_NAME(&message));
    });
  }

  /** Posts the messages and returns what was called for them. */
  Calls Handle(std::vector<GstMessageType> types) {
    // The reader follows what is bound by now only once it has handled what was posted before.
    types.insert(types.begin(), GST_MESSAGE_APPLICATION);
    types.push_back(GST_MESSAGE_APPLICATION);
    const int target = marks + 2;
    for (const auto type : types) {
      Post(type);
    }
    Await("the reader", [&] { return marks == target; });
    return std::exchange(calls, {});
  }

  Calls calls;
  std::atomic<int> marks = 0;
  Ptr<GstBus> raw{gst_bus_new()};
  Bus bus{Ptr<GstBus>(raw)};
  Binding mark = bus.Bind(GST_MESSAGE_APPLICATION, [this](const GstMessage&) { ++marks; });
};

TEST_F(BusTest, CallsWhatIsBoundInTheOrderOfTheSlots) {
  auto first = Bind(GST_MESSAGE_EOS, "first");
  auto second = Bind(GST_MESSAGE_EOS, "second");
  const auto error = Bind(GST_MESSAGE_ERROR, "error");
  EXPECT_EQ(Handle({GST_MESSAGE_ERROR, GST_MESSAGE_EOS, GST_MESSAGE_TAG}),
            (Calls{"error:error", "first:eos", "second:eos"}));
  first.Release();
  EXPECT_EQ(Handle({GST_MESSAGE_EOS}), Calls{"second:eos"});
  auto third = Bind(GST_MESSAGE_EOS, "third");
  EXPECT_EQ(Handle({GST_MESSAGE_EOS}), (Calls{"third:eos", "second:eos"}));
  second = Binding();
  auto combined = Bind(static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR), "combined");
  EXPECT_EQ(Handle({GST_MESSAGE_EOS, GST_MESSAGE_ERROR}), (Calls{"third:eos", "error:error"}));
  combined.Release();  // what shares its bits stays bound
  third.Release();
  EXPECT_EQ(Handle({GST_MESSAGE_EOS, GST_MESSAGE_ERROR}), Calls{"error:error"});
}

TEST_F(BusTest, TakesOnlyWhatIsBound) {
  EXPECT_THROW(Bus{Ptr<GstBus>()}, std::invalid_argument);
  type::container::Callbacks<void()>().Erase(0);  // there is no slot
  mark.Release();
  bus = Bus(Ptr<GstBus>(raw));
  // The reader may take that long to follow what is bound.
  const auto pass_slice = [] {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(600);
    Await("a slice", [&] { return std::chrono::steady_clock::now() > end; });
  };
  bus.Bind(GST_MESSAGE_EOS, [](const GstMessage&) {}).Release();
  pass_slice();
  for (const auto type : {GST_MESSAGE_EXTENDED, GST_MESSAGE_DEVICE_ADDED, GST_MESSAGE_ANY}) {
    EXPECT_EQ(ErrorOf<std::logic_error>([&] { Bind(type, "extended"); }),
              "Cannot register types exceeding GST_MESSAGE_EXTENDED");
  }
  EXPECT_EQ(ErrorOf<std::invalid_argument>([&] { bus.Bind(GST_MESSAGE_EOS, nullptr); }),
            "Cannot insert invalid functions into the Callbacks");
  const Ptr<GstMessage> message(gst_message_new_eos(nullptr));
  gst_bus_post(raw.Get(), message.Ref());
  pass_slice();
  EXPECT_TRUE(gst_bus_have_pending(raw.Get()));
  std::atomic<const GstMessage*> seen = nullptr;
  const auto binding = bus.Bind(GST_MESSAGE_EOS, [&](const GstMessage& borrowed) { seen = &borrowed; });
  Await("the message", [&] { return seen == message.Get() && References(message) == 1; });
}

TEST_F(BusTest, BindingsOutliveAMovedBus) {
  for (int i = 0; i < 50; ++i) {  // released while messages come
    std::atomic<int> count = 0;
    const auto binding = bus.Bind(GST_MESSAGE_EOS, [&](const GstMessage&) { ++count; });
    Await("a message", [&] { return Post(GST_MESSAGE_EOS), count > 1; });
  }
  auto inner = std::make_shared<Binding>(Bind(GST_MESSAGE_EOS, "inner"));
  const auto token = std::make_shared<int>();
  auto left = bus.Bind(GST_MESSAGE_EOS, [token](const GstMessage&) {});
  bus.Bind(GST_MESSAGE_EOS, [token, owned = std::move(inner)](const GstMessage&) {}).Release();
  EXPECT_EQ(token.use_count(), 2);
  EXPECT_EQ(&bus.Get(), raw.Get());
  {
    const Bus gone(std::move(bus));
    EXPECT_EQ(&gone.Get(), raw.Get());
  }
  EXPECT_EQ(token.use_count(), 1);
  EXPECT_EQ(References(raw), 1);
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { bus.Get(); }), "Pimpl is null");
  left.Release();
}

TEST_F(BusTest, IsGoneOnlyWhenNoCallbackRunsAnyMore) {
  std::promise<void> go;
  const auto went = go.get_future().share();
  std::atomic<bool> running = false;
  std::atomic<bool> returned = false;
  auto binding = bus.Bind(GST_MESSAGE_EOS, [&](const GstMessage&) {
    running = true;
    went.wait();
    returned = true;
  });
  Await("the callback", [&] { return Post(GST_MESSAGE_EOS), running.load(); });
  constexpr auto kWhile = std::chrono::milliseconds(100);
  const auto releasing = std::async(std::launch::async, [&] { binding.Release(); });
  EXPECT_EQ(releasing.wait_for(kWhile), std::future_status::timeout);
  const auto destroying = std::async(std::launch::async, [&] {
    { const Bus gone(std::move(bus)); }
    EXPECT_TRUE(returned);
  });
  EXPECT_EQ(destroying.wait_for(kWhile), std::future_status::timeout);
  go.set_value();
}

}  // namespace
}  // namespace mox::gstreamer
