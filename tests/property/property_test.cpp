#include "mox/property/property.h"

#include "mox/property/primitive.h"

#include <limits>
#include <stdexcept>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mox::property {
namespace {

using testing::PrintToString;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr float kFloatInfinity = std::numeric_limits<float>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

template <typename T>
Primitive<T> Make(T value, Limits<T> limits = {}) {
  return {"gain", "\"Gain\"", "1\n2", value, limits};
}

// Whether the property takes the value, and holds it then; if not, it keeps its own.
template <typename T, typename Value>
bool Takes(const Value& value, Limits<T> limits = {}) {
  auto property = Make<T>(T(), limits);
  try {
    property = value;
    return property.GetValue() == static_cast<T>(value);
  } catch (const std::runtime_error&) {
    EXPECT_EQ(property.GetValue(), T());
    return false;
  }
}

template <typename Error = std::runtime_error, typename Function>
void ExpectError(const Function& function, const char* text) {
  EXPECT_THAT(function, testing::ThrowsMessage<Error>(text));
}

// The hashes were computed with Guava 31.1 (Hashing.murmur3_32_fixed(seed).hashBytes), and those of text, to the same
// result, with Perl's Digest::MurmurHash3::PurePerl 1.01 (murmur32), both as Debian packages them.
static_assert(hash::MurmurThree32("", 1).Get() == 0x514e28b7U);
static_assert(hash::MurmurThree32("abcd", 1).Get() == 0x9bf54592U);
static_assert(hash::MurmurThree32({"\xff\x80\xfe\0\x81\xc3\xa9", 7}, 0x0AEF6901).Get() == 0x32cde153U);
static_assert(object::Object::HashTypeName("mox.property.Bool").Get() == 0x65ba4d35U);
static_assert(object::Object::HashTypeName("mox.property.UInt8").Get() == 0xce56d2e2U);

TEST(Property, IsOfANamedType) {
  // Two names with one hash.
  const auto hash = object::Object::HashTypeName("mox.test.119793");
  EXPECT_EQ(object::Object::TypeName(hash), nullptr);
  for (int i = 0; i < 2; ++i) {
    object::Object::RegisterType("mox.test.119793");
    EXPECT_THROW(object::Object::RegisterType("mox.test.128775"), std::logic_error);
    EXPECT_STREQ(object::Object::TypeName(hash), "mox.test.119793");
  }

  const auto number = Make<int>(5);
  EXPECT_EQ(&number.As<Primitive<int>>(), &number);
  ExpectError<object::BadCast>([&] { number.As<Primitive<float>>(); },
                               "The 'gain' property is of type mox.property.Int32, not mox.property.Float");
}

TEST(Property, TakesWhatKeepsTheValue) {
  constexpr long kLong = std::numeric_limits<long>::max();
  constexpr long kExact = 1L << 53;
  EXPECT_TRUE(Takes<signed char>(-128) && !Takes<signed char>(128) && !Takes<signed char>(-129L));
  EXPECT_TRUE(Takes<unsigned char>(255.0) && !Takes<unsigned char>(-1) && !Takes<unsigned char>(256U));
  EXPECT_TRUE(Takes<int>(-3.0F) && !Takes<int>(2.5) && !Takes<int>(kNan) && !Takes<int>(-kInfinity));
  EXPECT_TRUE(Takes<unsigned long>(kLong) && !Takes<unsigned long>(-1L) && !Takes<unsigned long>(0x1p64));
  EXPECT_TRUE(Takes<long>(-0x1p63) && !Takes<long>(0x1p63) && !Takes<long>(kLong + 1UL));
  EXPECT_TRUE(Takes<double>(kExact) && !Takes<double>(kExact + 1) && Takes<double>(0.1F));
  EXPECT_TRUE(Takes<float>(0.1) && !Takes<float>(1e39, {0, kFloatInfinity}) && !Takes<float>(kInfinity));
  EXPECT_TRUE(Takes<float>(kInfinity, {0, kFloatInfinity}) && !Takes<double>(kNan));
  EXPECT_TRUE(Takes<bool>(1) && Takes<int>(true) && !Takes<bool>(2) && !Takes<bool>(0.5));
  EXPECT_TRUE(Takes<int>(10, {0, 10}) && !Takes<int>(11, {0, 10}) && !Takes<int>(-1L, {0, 10}));

  EXPECT_EQ(double{Make<int>(-3)}, -3.0);
  EXPECT_EQ(int{Make<float>(4)}, 4);
  auto text = Make<std::string>("5");
  auto number = Make<float>(0.5F, {0, 4});
  ExpectError([&] { number = 4.1; }, "The 'gain' property takes a mox.property.Float from 0.0 to 4.0, not 4.1");
  ExpectError([&] { number = "4"; }, "The 'gain' property takes a mox.property.Float from 0.0 to 4.0, not \"4\"");
  ExpectError([&] { text = 4; }, "The 'gain' property takes a mox.property.String, not 4");
  ExpectError([&] { static_cast<void>(int{number}); },
              "The value 0.5 of the 'gain' property cannot be read as mox.property.Int32");
  ExpectError([&] { static_cast<void>(static_cast<const char*>(number)); },
              "The value 0.5 of the 'gain' property cannot be read as mox.property.String");
  const Property& property = text = "\xc3\xa9";
  EXPECT_STREQ(property, "\xc3\xa9");
}

void ExpectJson(const Property& property, const std::string& type, const std::string& rest) {
  const std::string names = R"({"name":"gain","nice_name":"\"Gain\"","description":"1\n2","type":")";
  EXPECT_EQ(PrintToString(property), names + type + R"(","value":)" + rest + "}");
  EXPECT_STREQ(object::Object::TypeName(property.GetTypeHash()), type.c_str());
}

TEST(Property, DescribesItselfInJson) {
  ExpectJson(Make(true), "mox.property.Bool", "true");
  ExpectJson(Make(0.1F, {-kFloatInfinity, 4}), "mox.property.Float", R"(0.1,"minimum":"-Infinity","maximum":4.0)");
  ExpectJson(Make(kNan, {-0.0, kInfinity}), "mox.property.Double", R"("NaN","minimum":-0.0,"maximum":"Infinity")");
  ExpectJson(Make<signed char>(-7), "mox.property.Int8", R"(-7,"minimum":-128,"maximum":127)");
  ExpectJson(Make<unsigned char>(7), "mox.property.UInt8", R"(7,"minimum":0,"maximum":255)");
  ExpectJson(Make(-7, {-8, 9}), "mox.property.Int32", R"(-7,"minimum":-8,"maximum":9)");
  ExpectJson(Make(7U, {0, 9}), "mox.property.UInt32", R"(7,"minimum":0,"maximum":9)");
  ExpectJson(Make(-7L, {-8, 9}), "mox.property.Int64", R"(-7,"minimum":-8,"maximum":9)");
  ExpectJson(Make(~0UL), "mox.property.UInt64", R"(18446744073709551615,"minimum":0,"maximum":18446744073709551615)");
  ExpectJson(Make<std::string>("\xff\\\xc3\xa9"), "mox.property.String", "\"\xef\xbf\xbd\\\\\xc3\xa9\"");
}

TEST(Property, IsUsedByThreadsAtOnce) {
  auto text = Make<std::string>("mine");
  const char* const mine = text;
  const auto use = [&](char letter) {
    for (int i = 0; i < 1000; ++i) {
      text = std::string(1000, letter).c_str();
      const std::string now = static_cast<const char*>(text);
      EXPECT_EQ(now, std::string(1000, now[0]));
      PrintToString(text);
    }
  };
  std::thread other(use, 'x');
  std::thread(use, 'y').join();
  other.join();
  EXPECT_STREQ(mine, "mine") << "Until this thread reads again";
}

}  // namespace
}  // namespace mox::property
