#include "mox/type/container/callbacks.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace mox::type::container {
namespace {

TEST(Callbacks, SlotsKeepTheirIndexAndAreUsedAgain) {
  Callbacks<void(const std::string&)> callbacks;
  std::string calls;
  const auto append = [&calls](const char* name) {
    return [&calls, name](const std::string& text) { calls += name + text; };
  };
  const auto held = std::make_shared<int>();
  EXPECT_EQ(callbacks.Insert([held](const std::string&) {}), 0U);
  EXPECT_EQ(callbacks.Insert(append("b")), 1U);
  EXPECT_EQ(callbacks.Insert(append("c")), 2U);
  callbacks.Erase(0);
  EXPECT_EQ(held.use_count(), 1) << "Erasing keeps the function";
  callbacks("1 ");
  callbacks.Erase(1);
  callbacks.Erase(3);
  EXPECT_EQ(callbacks.Insert(append("d")), 0U);
  callbacks("2 ");
  EXPECT_EQ(callbacks.Insert(append("e")), 1U);
  EXPECT_EQ(callbacks.Insert(append("f")), 3U);
  callbacks("3 ");
  EXPECT_EQ(calls, "b1 c1 d2 c2 d3 e3 c3 f3 ");
}

TEST(Callbacks, RefuseEmptyFunctions) {
  Callbacks<void(int)> callbacks;
  try {
    callbacks.Insert(nullptr);
    FAIL();
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "Cannot insert invalid functions into the Callbacks");
  }
  EXPECT_EQ(callbacks.Insert([](int) {}), 0U);
}

}  // namespace
}  // namespace mox::type::container
