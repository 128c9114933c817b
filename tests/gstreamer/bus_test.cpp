#include "mox/gstreamer/bus.h"

#include "tests/gstreamer/live.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>

namespace mox::gstreamer {
namespace {

using live::Await;
using live::Within;
using BusTest = live::Test;
using type::Binding;
using Calls = std::vector<std::string>;

constexpr auto kCombined = static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR);

void Post(GstBus& bus, GstMessageType type) {
  gst_bus_post(&bus, gst_message_new_custom(type, nullptr, nullptr));
}

int Count(GstBus& bus) {
  int count = 0;
  while (Ptr<GstMessage>(gst_bus_pop(&bus))) {
    ++count;
  }
  return count;
}

/** The time that it takes to destroy the bus. */
std::chrono::steady_clock::duration Destroy(Bus bus) {
  const auto start = std::chrono::steady_clock::now();
  { const Bus destroyed(std::move(bus)); }
  return std::chrono::steady_clock::now() - start;
}

/** A bus with a binding of its own, by which it tells when everything posted before has been handled. */
class Reader {
 public:
  Binding Bind(GstMessageType type, const std::string& name) {
    return bus.Bind(type, [this, name](const GstMessage& message) {
      const std::lock_guard<std::mutex> lock(mutex_);
      calls_.push_back(name + ":" + GST_MESSAGE_TYPE_NAME(&message));
    });
  }

  /** Posts the messages and returns what was called until they all had been handled. */
  Calls Handle(const std::vector<GstMessageType>& types = {}) {
    const int target = marks_ + 1;
    for (const auto type : types) {
      Post(*raw, type);
    }
    Post(*raw, GST_MESSAGE_APPLICATION);
    Await("the messages", [&] { return marks_ == target; });
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(calls_, {});
  }

  Ptr<GstBus> raw{gst_bus_new()};
  Bus bus{Ptr<GstBus>(raw)};

 private:
  std::mutex mutex_;
  Calls calls_;
  std::atomic<int> marks_ = 0;
  Binding mark_ = bus.Bind(GST_MESSAGE_APPLICATION, [this](const GstMessage&) { ++marks_; });
};

TEST_F(BusTest, CallsWhatIsBoundInTheOrderOfTheSlots) {
  Reader reader;
  auto first = reader.Bind(GST_MESSAGE_EOS, "first");
  auto second = reader.Bind(GST_MESSAGE_EOS, "second");
  const auto error = reader.Bind(GST_MESSAGE_ERROR, "error");
  reader.Handle();
  EXPECT_EQ(reader.Handle({GST_MESSAGE_ERROR, GST_MESSAGE_EOS, GST_MESSAGE_TAG}),
            (Calls{"error:error", "first:eos", "second:eos"}));
  EXPECT_FALSE(gst_bus_have_pending(reader.raw.Get()));

  first.Release();
  EXPECT_EQ(reader.Handle({GST_MESSAGE_EOS}), Calls{"second:eos"});
  const auto third = reader.Bind(GST_MESSAGE_EOS, "third");
  EXPECT_EQ(reader.Handle({GST_MESSAGE_EOS}), (Calls{"third:eos", "second:eos"}));
  first.Release();  // its slot is another's by now
  EXPECT_EQ(reader.Handle({GST_MESSAGE_EOS}), (Calls{"third:eos", "second:eos"}));

  second = Binding();
  EXPECT_EQ(reader.Handle({GST_MESSAGE_EOS}), Calls{"third:eos"});
  { const Binding moved = std::move(const_cast<Binding&>(third)); }
  reader.Handle();
  EXPECT_EQ(reader.Handle({GST_MESSAGE_EOS, GST_MESSAGE_ERROR}), Calls{"error:error"});
  const auto again = reader.Bind(GST_MESSAGE_EOS, "again");
  reader.Handle();
  EXPECT_EQ(reader.Handle({GST_MESSAGE_EOS}), Calls{"again:eos"});
}

TEST_F(BusTest, OverlappingTypes) {
  Reader reader;
  const auto eos = reader.Bind(GST_MESSAGE_EOS, "eos");
  auto combined = reader.Bind(kCombined, "combined");
  auto twice = reader.Bind(kCombined, "twice");
  reader.Handle();
  EXPECT_EQ(reader.Handle({GST_MESSAGE_EOS, GST_MESSAGE_ERROR}), Calls{"eos:eos"});
  combined.Release();
  reader.Handle();
  EXPECT_EQ(reader.Handle({GST_MESSAGE_EOS}), Calls{"eos:eos"});
  twice.Release();
  reader.Handle();
  EXPECT_EQ(reader.Handle({GST_MESSAGE_EOS}), Calls{"eos:eos"});
}

TEST_F(BusTest, RefusesAndThenTakesNothing) {
  EXPECT_THROW(Bus{Ptr<GstBus>()}, std::invalid_argument);
  const Ptr<GstBus> raw(gst_bus_new());
  Bus bus{Ptr<GstBus>(raw)};
  for (const auto type : {GST_MESSAGE_EXTENDED, GST_MESSAGE_DEVICE_ADDED, GST_MESSAGE_REDIRECT, GST_MESSAGE_ANY}) {
    try {
      bus.Bind(type, [](const GstMessage&) {});
      ADD_FAILURE() << type;
    } catch (const std::logic_error& error) {
      EXPECT_STREQ(error.what(), "Cannot register types exceeding GST_MESSAGE_EXTENDED");
    }
  }
  try {
    bus.Bind(GST_MESSAGE_EOS, nullptr);
    ADD_FAILURE() << "an empty callback";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "Cannot insert invalid functions into the Callbacks");
  }
  Post(*raw, GST_MESSAGE_EOS);
  Post(*raw, GST_MESSAGE_TAG);
  const auto slice = std::chrono::steady_clock::now() + std::chrono::milliseconds(600);
  while (std::chrono::steady_clock::now() < slice) {
    ASSERT_TRUE(gst_bus_have_pending(raw.Get()));
  }
  EXPECT_LT(Destroy(std::move(bus)), std::chrono::milliseconds(1500));
  EXPECT_EQ(Count(*raw), 2);
  EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(raw.Get()), 1);
}

TEST_F(BusTest, WhatWaitsOnTheBusIsHandledOnceBound) {
  const Ptr<GstBus> raw(gst_bus_new());
  Bus bus{Ptr<GstBus>(raw)};
  Post(*raw, GST_MESSAGE_EOS);
  Post(*raw, GST_MESSAGE_EOS);
  std::atomic<int> calls = 0;
  const auto binding = bus.Bind(GST_MESSAGE_EOS, [&](const GstMessage&) { ++calls; });
  Await("the messages", [&] { return calls == 2; });
  EXPECT_LT(Destroy(std::move(bus)), std::chrono::milliseconds(1500));
}

TEST_F(BusTest, BorrowsTheMessageAndReleasesIt) {
  Reader reader;
  const Ptr<GstMessage> message(gst_message_new_eos(nullptr));
  std::atomic<const GstMessage*> seen = nullptr;
  const auto binding = reader.bus.Bind(GST_MESSAGE_EOS, [&](const GstMessage& borrowed) { seen = &borrowed; });
  reader.Handle();
  gst_bus_post(reader.raw.Get(), message.Ref());
  reader.Handle();
  EXPECT_EQ(seen, message.Get());
  EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(message.Get()), 1);
}

TEST_F(BusTest, BindingsAreMoveOnlyAndOutliveTheBus) {
  static_assert(!std::is_copy_constructible_v<Binding> && !std::is_copy_assignable_v<Binding>);
  static_assert(std::is_nothrow_move_constructible_v<Binding> && std::is_nothrow_move_assignable_v<Binding>);
  const auto token = std::make_shared<int>();
  const Ptr<GstBus> raw(gst_bus_new());
  Binding left;
  {
    Bus bus{Ptr<GstBus>(raw)};
    left = bus.Bind(GST_MESSAGE_EOS, [token](const GstMessage&) {});
    auto released = bus.Bind(GST_MESSAGE_EOS, [token](const GstMessage&) {});
    EXPECT_EQ(token.use_count(), 3);
    released.Release();
    EXPECT_EQ(token.use_count(), 2);
  }
  EXPECT_EQ(token.use_count(), 1);
  EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(raw.Get()), 1);
  left.Release();
  left.Release();
}

TEST_F(BusTest, Moves) {
  static_assert(!std::is_copy_constructible_v<Bus> && !std::is_copy_assignable_v<Bus>);
  static_assert(std::is_nothrow_move_constructible_v<Bus> && std::is_nothrow_move_assignable_v<Bus>);
  Reader reader;
  const auto binding = reader.Bind(GST_MESSAGE_EOS, "eos");
  reader.Handle();
  const Ptr<GstBus> other_raw(gst_bus_new());
  Bus other{Ptr<GstBus>(other_raw)};
  swap(reader.bus, other);
  EXPECT_EQ(&reader.bus.Get(), other_raw.Get());
  EXPECT_EQ(&std::as_const(other).Get(), reader.raw.Get());
  reader.bus = std::move(other);  // stops the reader that it held
  EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(other_raw.Get()), 1);
  EXPECT_EQ(reader.Handle({GST_MESSAGE_EOS}), Calls{"eos:eos"});

  const std::vector<std::function<void()>> operations{[&] { other.Get(); }, [&] { std::as_const(other).Get(); },
                                                      [&] { other.Bind(GST_MESSAGE_ANY, nullptr); }};
  for (const auto& operation : operations) {
    try {
      operation();
      ADD_FAILURE() << "no error";
    } catch (const std::logic_error& error) {
      EXPECT_STREQ(error.what(), "Pimpl is null");
    }
  }
}

TEST_F(BusTest, Threads) {
  Reader reader;
  std::atomic<bool> stop = false;
  std::thread poster([&] {
    while (!stop) {
      Post(*reader.raw, GST_MESSAGE_EOS);
      Post(*reader.raw, GST_MESSAGE_ELEMENT);
      Await("the reader", [&] { return gst_bus_have_pending(reader.raw.Get()) == FALSE; });
    }
  });
  const auto bind = [&](GstMessageType type) {
    for (int i = 0; i < 50; ++i) {
      std::atomic<int> calls = 0;
      std::atomic<bool> running = false;
      auto binding = reader.bus.Bind(type, [&](const GstMessage& message) {
        running = true;
        EXPECT_EQ(GST_MESSAGE_TYPE(&message), type);
        ++calls;
        running = false;
      });
      Await("a message", [&] { return calls > 1; });
      binding.Release();
      EXPECT_FALSE(running);  // and what follows is gone: a later call would be seen under the sanitizers
    }
  };
  std::vector<std::thread> callers;
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back(bind, i % 2 == 0 ? GST_MESSAGE_EOS : GST_MESSAGE_ELEMENT);
  }
  for (auto& caller : callers) {
    caller.join();
  }
  stop = true;
  poster.join();
  EXPECT_EQ(reader.Handle(), Calls{});
}

}  // namespace
}  // namespace mox::gstreamer
