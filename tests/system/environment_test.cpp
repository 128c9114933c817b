#include "mox/system/environment.h"

#include <cstdlib>

#include <gtest/gtest.h>

namespace mox::system::environment {
namespace {

TEST(Environment, DefaultIsForWhatIsNotSet) {
  unsetenv("MOX_TEST");
  EXPECT_EQ(Get("MOX_TEST", "default"), "default");
  setenv("MOX_TEST", "", 1);
  EXPECT_EQ(Get("MOX_TEST", "default"), "");
  setenv("MOX_TEST", "value", 1);
  EXPECT_EQ(Get("MOX_TEST", "default"), "value");
}

}  // namespace
}  // namespace mox::system::environment
