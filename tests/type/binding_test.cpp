#include "mox/type/binding.h"

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
  Binding(std::move(source)).Release();
  source.Release();  // NOLINT: must be allowed
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
  EXPECT_NO_THROW(Binding([](unsigned index) { throw index; }, 7));
}

}  // namespace mox::type
