#include "mox/type/binding.h"

#include <stdexcept>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

namespace mox::type {

using testing::ElementsAre;

struct BindingTest : testing::Test {
  Binding Bind(unsigned index) {
    return {[this](unsigned released) { releases.push_back(released); }, index};
  }

  std::vector<unsigned> releases;
};

TEST_F(BindingTest, IsReleasedOnceByItsLastOwner) {
  Binding source = Bind(7);
  {
    Binding owner(std::move(source));
    owner.Release();
  }
  source.Release();  // NOLINT(bugprone-use-after-move)
  EXPECT_THAT(releases, ElementsAre(7));
}

TEST_F(BindingTest, MoveAssignmentReleasesTheOldAndDestructionTheNew) {
  {
    Binding binding = Bind(1);
    binding = Bind(2);
    EXPECT_THAT(releases, ElementsAre(1));
  }
  EXPECT_THAT(releases, ElementsAre(1, 2));
}

TEST_F(BindingTest, DestructionCatchesWhatTheReleaseThrows) {
  EXPECT_NO_THROW(Binding([](unsigned) { throw std::runtime_error("not released"); }, 7));
}

}  // namespace mox::type
