#include "mox/property/property.h"

#include "mox/property/primitive.h"

#include <cmath>
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

// Whether the property takes the value, and holds it then; if not, it keeps its own.
template <typename T, typename Value>
bool Takes(const Value& value, Limits<T> limits = {}) {
  auto property = Make<T>(T(), limits);
  try {
    property = value;
  } catch (const std::runtime_error&) {
    return property.GetValue() != T();
  }
  EXPECT_EQ(property.GetValue(), static_cast<T>(value));
  return true;
}

TEST(Property, TakesWhatKeepsTheValue) {
  EXPECT_TRUE(Takes<signed char>(-128) && !Takes<signed char>(128) && !Takes<signed char>(-129L));
  EXPECT_TRUE(Takes<int>(-3.0F) && !Takes<int>(2.5) && !Takes<int>(NAN) && !Takes<int>(-INFINITY));
  EXPECT_TRUE(Takes<long>(-0x1p63) && !Takes<long>(0x1p63) && !Takes<long>(1UL << 63) && !Takes<unsigned long>(-1L));
  EXPECT_TRUE(Takes<double>(1L << 53) && !Takes<double>((1L << 53) + 1) && Takes<double>(0.1F) && !Takes<double>(NAN));
  EXPECT_TRUE(Takes<float>(0.1) && !Takes<float>(1e39, {0, INFINITY}) && Takes<float>(INFINITY, {0, INFINITY}));
  EXPECT_TRUE(Takes<bool>(1) && Takes<int>(true) && !Takes<bool>(2) && !Takes<bool>(0.5) && int{Make<float>(4)} == 4);
  EXPECT_TRUE(Takes<int>(10, {0, 10}) && !Takes<int>(11, {0, 10}) && !Takes<int>(-1L, {0, 10}));
}

TEST(Property, TellsWhatItIsAndTakes) {
  auto text = Make<std::string>("\xff\\\xc3\xa9");
  auto number = Make<float>(NAN, {-INFINITY, INFINITY});
  const std::string names = R"({"name":"n","nice_name":"\"N\"","description":"1\n2","type":"mox.property.)";
  EXPECT_EQ(PrintToString(text), names + "String\",\"value\":\"\xef\xbf\xbd\\\\\xc3\xa9\"}");
  EXPECT_EQ(PrintToString(number), names + R"(Float","value":"NaN","minimum":"-Infinity","maximum":"Infinity"})");

  const auto fails = [](auto call, auto* error) { EXPECT_THAT(call, ThrowsMessage<std::runtime_error>(error)); };
  fails([&] { number = ""; }, R"(The 'n' property takes a mox.property.Float from "-Infinity" to "Infinity", not "")");
  fails([&] { text = 4; }, "The 'n' property takes a mox.property.String, not 4");
  fails([] { return static_cast<const char*>(Make(0.1F)); },
        "The value 0.1 of the 'n' property cannot be read as mox.property.String");
  EXPECT_THAT([&] { number.As<Primitive<int>>(); },
              ThrowsMessage<object::BadCast>("The 'n' property is of type mox.property.Float, not mox.property.Int32"));
  object::Object::RegisterType("mox.test.119793");
  object::Object::RegisterType("mox.test.119793");
  EXPECT_THROW(object::Object::RegisterType("mox.test.128775"), std::logic_error) << "Another name with this hash";
}

}  // namespace mox::property
