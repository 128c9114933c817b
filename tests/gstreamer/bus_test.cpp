#include "mox/gstreamer/bus.h"

#include "tests/gstreamer/live.h"

namespace mox::gstreamer {
namespace {

struct BusTest : live::Test {
  Ptr<GstBus> raw{gst_bus_new()};
  Bus bus{Ptr<GstBus>(raw)};
};

TEST_F(BusTest, CallsWhatIsBoundToATypeInTheOrderOfTheSlots) {
  std::string calls;
  std::promise<void> end;
  const auto bind = [&](int types, const char* name) {
    return bus.Bind(static_cast<GstMessageType>(types), [&calls, name](const GstMessage&) { calls += name; });
  };
  auto first = bind(GST_MESSAGE_EOS, "first,");
  const auto second = bind(GST_MESSAGE_EOS, "second,");
  const auto error = bind(GST_MESSAGE_ERROR, "error,");
  first.Release();
  const auto third = bind(GST_MESSAGE_EOS, "third,");
  const auto mark = bus.Bind(GST_MESSAGE_APPLICATION, [&](const GstMessage&) { end.set_value(); });
  bind(GST_MESSAGE_EOS | GST_MESSAGE_ERROR, "combined,").Release();  // what shares its bits stays bound
  const auto post = [&](auto type) { gst_bus_post(raw.Get(), gst_message_new_custom(type, nullptr, nullptr)); };
  // The first is read whatever the reader waits for yet. Then it follows what is bound by now.
  post(GST_MESSAGE_EOS);
  for (int i = 0; i < 100000; ++i) {
    post(GST_MESSAGE_TAG);
  }
  post(GST_MESSAGE_ERROR);
  post(GST_MESSAGE_APPLICATION);
  end.get_future().wait();
  EXPECT_EQ(calls, "third,second,error,");
}

TEST_F(BusTest, RefusesAndWaitsForTheCallbackThatRuns) {
  EXPECT_EQ(live::ErrorOf<std::invalid_argument>([] { Bus{Ptr<GstBus>()}; }), "Cannot read a bus that is null");
  EXPECT_EQ(live::ErrorOf<std::logic_error>([&] { bus.Bind(GST_MESSAGE_EXTENDED, nullptr); }),
            "Cannot register types exceeding GST_MESSAGE_EXTENDED");
  EXPECT_EQ(live::ErrorOf<std::invalid_argument>([&] { bus.Bind(GST_MESSAGE_EOS, nullptr); }),
            "Cannot insert invalid functions into the Callbacks");
  std::promise<void> running;
  std::promise<void> go;
  auto binding = bus.Bind(GST_MESSAGE_EOS, [&](const GstMessage&) {
    running.set_value();
    go.get_future().wait();
  });
  auto inner = std::make_shared<type::Binding>(bus.Bind(GST_MESSAGE_EOS, [](const GstMessage&) {}));
  bus.Bind(GST_MESSAGE_EOS, [owned = std::move(inner)](const GstMessage&) {}).Release();
  const auto outliving = bus.Bind(GST_MESSAGE_EOS, [](const GstMessage&) {});
  Bus moved{Ptr<GstBus>(raw)};
  moved = std::move(bus);
  EXPECT_EQ(&std::as_const(moved).Get(), &moved.Get());
  gst_bus_post(raw.Get(), gst_message_new_eos(nullptr));
  running.get_future().wait();
  {
    const auto releasing = std::async(std::launch::async, [&] { binding.Release(); });
    EXPECT_EQ(releasing.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    const auto destroying = std::async(std::launch::async, [&] { const Bus gone(std::move(moved)); });
    EXPECT_EQ(destroying.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    go.set_value();
  }
  type::Binding([](unsigned) { throw std::runtime_error("nobody hears of it"); }, 0);
  EXPECT_EQ(live::References(raw), 1);
  EXPECT_EQ(live::ErrorOf<std::logic_error>([&] { bus.Get(); }), "Pimpl is null");
}

}  // namespace
}  // namespace mox::gstreamer
