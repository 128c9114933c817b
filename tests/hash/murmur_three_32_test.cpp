#include "mox/hash/murmur_three_32.h"

#include <string_view>

#include <gtest/gtest.h>

namespace mox::hash {
namespace {

using namespace std::string_view_literals;

// Computed with Guava 31.1 (Hashing.murmur3_32_fixed(seed).hashBytes), and the ASCII ones again with Perl's
// Digest::MurmurHash3::PurePerl 0.3 (murmur32), both as Debian packages them.
TEST(MurmurThree32, AgreesWithOtherImplementations) {
  EXPECT_EQ(MurmurThree32("", 1).Get(), 0x514e28b7U);
  EXPECT_EQ(MurmurThree32("abc", 0).Get(), 0xb3dd93faU);
  EXPECT_EQ(MurmurThree32("abcd", 1).Get(), 0x9bf54592U);
  EXPECT_EQ(MurmurThree32("\xff\x80\xfe\0\x81\xc3\xa9"sv, 0x0AEF6901).Get(), 0x32cde153U);
  static_assert(sizeof(MurmurThree32) == 4);
}

}  // namespace
}  // namespace mox::hash
