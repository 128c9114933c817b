#include "mox/type/binding.h"

#include <stdexcept>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mox::type {
namespace {

using testing::ElementsAre;

static_assert(!std::is_copy_constructible_v<Binding> && !std::is_copy_assignable_v<Binding>);

TEST(Binding, ReleasesOnce) {
  std::vector<unsigned> released;
  Binding first;
  first.Release();
  // The function reaches the binding itself, and fails.
  const auto release = [&](unsigned index) {
    released.push_back(index);
    first.Release();
    throw std::runtime_error("release");
  };
  first = Binding(release, 1);
  EXPECT_THROW(first.Release(), std::runtime_error);
  first.Release();
  EXPECT_THAT(released, ElementsAre(1));
  {
    Binding second(release, 2);
    Binding third(release, 3);
    third = std::move(second);
    EXPECT_THAT(released, ElementsAre(1, 3));
    second.Release();
    Binding& self = third;
    third = std::move(self);
    const Binding moved(std::move(third));
    EXPECT_THAT(released, ElementsAre(1, 3));
  }
  EXPECT_THAT(released, ElementsAre(1, 3, 2));
  Binding(nullptr, 4).Release();
}

}  // namespace
}  // namespace mox::type
