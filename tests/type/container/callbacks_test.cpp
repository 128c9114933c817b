#include "mox/type/container/callbacks.h"

#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mox::type::container {
namespace {

TEST(Callbacks, SlotsKeepTheirIndexAndAreUsedAgain) {
  Callbacks<void(const std::string&)> callbacks;
  std::string calls;
  const auto held = std::make_shared<int>();
  const auto insert = [&, held](const char* name) {
    return callbacks.Insert([&calls, name, held](const std::string& text) { calls += name + text; });
  };
  callbacks.Erase(0);
  EXPECT_EQ(insert("a"), 0U);
  EXPECT_EQ(insert("b"), 1U);
  EXPECT_EQ(insert("c"), 2U);
  callbacks.Erase(0);
  EXPECT_EQ(held.use_count(), 4) << "Erasing keeps the function";
  callbacks("1 ");
  callbacks.Erase(1);
  EXPECT_THAT([&] { callbacks.Insert(nullptr); },
              testing::ThrowsMessage<std::invalid_argument>("Cannot insert invalid functions into the Callbacks"));
  EXPECT_EQ(insert("d"), 0U);
  callbacks("2 ");
  EXPECT_EQ(insert("e"), 1U);
  EXPECT_EQ(insert("f"), 3U);
  callbacks("3 ");
  EXPECT_EQ(calls, "b1 c1 d2 c2 d3 e3 c3 f3 ");
}

}  // namespace
}  // namespace mox::type::container
