#include "mox/property/property.h"

#include "mox/property/primitive.h"

#include <cmath>
#include <optional>
#include <stdexcept>

#include <gmock/gmock.h>

namespace mox::property {

using testing::PrintToString;
using testing::ThrowsMessage;

// Computed with Guava 31.1 (Hashing.murmur3_32_fixed), as Debian packages it.
static_assert(object::Object::HashTypeName({"\xff\x80\xfe\0\x81\xc3\xa9", 7}).Get() == 0x32cde153U);

template <typename T>
Primitive<T> Make(T value, Limits<T> limits = {}) {
  return {"n", "\"N\"", "1\n2", value, limits};
}

constexpr std::nullopt_t kRefused = std::nullopt;

/** Returns the value of a property after the assignment, or nothing if it was refused. */
template <typename T, typename From>
std::optional<T> Assign(From value, Limits<T> limits = {}) {
  auto property = Make<T>(1, limits);
  try {
    property = value;
  } catch (const std::runtime_error&) {
    EXPECT_EQ(property.GetValue(), T(1)) << "changed by what it refused";
    return kRefused;
  }
  return property.GetValue();
}

TEST(Property, TakesTheNumbersThatItsTypeHas) {
  EXPECT_EQ(Assign<signed char>(128), kRefused);
  EXPECT_EQ(Assign<unsigned long>(-1L), kRefused);
  EXPECT_EQ(Assign<long>(-0x1p63), std::numeric_limits<long>::min());
  EXPECT_EQ(Assign<long>(0x1p63), kRefused);
  EXPECT_EQ(Assign<int>(2.5), kRefused);
  EXPECT_EQ(Assign<double>((1L << 53) + 1), kRefused);
  EXPECT_EQ(Assign<int>(false), 0);
  EXPECT_EQ(Assign<bool>(2), kRefused);
}

TEST(Property, FloatsRoundDoublesInTheirRange) {
  EXPECT_EQ(Assign<float>(-0.1), -0.1F);
  EXPECT_EQ(Assign<float>(1e39, {0, INFINITY}), kRefused);
}

TEST(Property, LimitsAreInclusive) {
  EXPECT_EQ(Assign<int>(10, {0, 10}), 10);
  EXPECT_EQ(Assign<int>(11, {0, 10}), kRefused);
  EXPECT_EQ(Assign<int>(-1L, {0, 10}), kRefused);
  EXPECT_EQ(Assign<float>(INFINITY, {0, INFINITY}), INFINITY);
  EXPECT_EQ(Assign<double>(NAN), kRefused);
}

TEST(Property, IsReadAsAnotherTypeThatHoldsTheValue) {
  EXPECT_EQ(int{Make(4.0F)}, 4);
  EXPECT_THAT(
      [] { return static_cast<const char*>(Make(0.1F)); },
      ThrowsMessage<std::runtime_error>("The value 0.1 of the 'n' property cannot be read as mox.property.String"));
}

TEST(Property, IsDescribedAsJson) {
  const std::string names = R"({"name":"n","nice_name":"\"N\"","description":"1\n2","type":"mox.property.)";
  EXPECT_EQ(PrintToString(Make<std::string>("\xff\\\xc3\xa9")),
            names + "String\",\"value\":\"\xef\xbf\xbd\\\\\xc3\xa9\"}");
  EXPECT_EQ(PrintToString(Make<float>(NAN, {-INFINITY, INFINITY})),
            names + R"(Float","value":"NaN","minimum":"-Infinity","maximum":"Infinity"})");
}

TEST(Property, RefusalsNameTheTypeTheLimitsAndTheValue) {
  auto number = Make<float>(0, {-INFINITY, 1});
  EXPECT_THAT([&] { number = ""; },
              ThrowsMessage<std::runtime_error>(
                  R"(The 'n' property takes a mox.property.Float from "-Infinity" to 1.0, not "")"));
  EXPECT_THAT([&] { number.As<Primitive<int>>(); },
              ThrowsMessage<object::BadCast>("The 'n' property is of type mox.property.Float, not mox.property.Int32"));
}

TEST(Object, TypeNamesWithTheSameHashAreRefused) {
  object::Object::RegisterType("mox.test.119793");
  EXPECT_NO_THROW(object::Object::RegisterType("mox.test.119793"));
  EXPECT_THROW(object::Object::RegisterType("mox.test.128775"), std::logic_error);
}

}  // namespace mox::property
