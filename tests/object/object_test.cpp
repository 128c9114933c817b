#include "mox/object/object.h"

#include <stdexcept>

#include <gtest/gtest.h>

namespace mox::object {
namespace {

TEST(Object, TellsTheNamesOfRegisteredTypes) {
  const auto hash = Object::HashTypeName("mox.test.119793");
  EXPECT_EQ(Object::TypeName(hash), nullptr);
  Object::RegisterType("mox.test.119793");
  Object::RegisterType("mox.test.other");
  Object::RegisterType("mox.test.119793");
  EXPECT_STREQ(Object::TypeName(hash), "mox.test.119793");
  // Another name with the same hash.
  EXPECT_THROW(Object::RegisterType("mox.test.128775"), std::logic_error);
  EXPECT_STREQ(Object::TypeName(hash), "mox.test.119793");
}

}  // namespace
}  // namespace mox::object
