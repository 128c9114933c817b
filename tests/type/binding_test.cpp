#include "mox/type/binding.h"

#include <stdexcept>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mox::type {
namespace {

using testing::ElementsAre;

static_assert(!std::is_copy_constructible_v<Binding> && !std::is_copy_assignable_v<Binding> &&
              std::is_nothrow_move_constructible_v<Binding> && std::is_nothrow_move_assignable_v<Binding>);

TEST(Binding, ReleasesOnce) {
  std::vector<unsigned> released;
  const auto release = [&released](unsigned index) { released.push_back(index); };
  {
    Binding first(release, 1);
    first.Release();
    first.Release();
    EXPECT_THAT(released, ElementsAre(1));

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
  Binding().Release();
  Binding(nullptr, 4).Release();
}

TEST(Binding, ReleaseMayReachTheBindingItself) {
  int calls = 0;
  Binding binding;
  binding = Binding(
      [&](unsigned) {
        ++calls;
        binding.Release();
      },
      0);
  binding.Release();
  EXPECT_EQ(calls, 1);
}

TEST(Binding, OnlyReleaseThrows) {
  int calls = 0;
  const auto release = [&calls](unsigned) {
    ++calls;
    throw std::runtime_error("release");
  };
  Binding binding(release, 0);
  EXPECT_THROW(binding.Release(), std::runtime_error);
  binding = Binding(release, 1);
  binding = Binding(release, 2);
  EXPECT_EQ(calls, 2);
}

}  // namespace
}  // namespace mox::type
