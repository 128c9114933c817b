#include "mox/hash/murmur_three_32.h"

#include <string_view>

#include <gtest/gtest.h>

namespace mox::hash {
namespace {

using namespace std::string_view_literals;

// The reference values were computed with Guava 31.1 (Hashing.murmur3_32_fixed(seed).hashBytes), and those of plain
// ASCII again with Perl's Digest::MurmurHash3::PurePerl 0.3 (murmur32), both as Debian packages them.
TEST(MurmurThree32, AgreesWithOtherImplementations) {
  EXPECT_EQ(MurmurThree32("", 0).Get(), 0U);
  EXPECT_EQ(MurmurThree32("", 1).Get(), 0x514e28b7U);
  EXPECT_EQ(MurmurThree32("a", 0x0AEF6901).Get(), 0xa29184a7U);
  EXPECT_EQ(MurmurThree32("abc", 0).Get(), 0xb3dd93faU);
  EXPECT_EQ(MurmurThree32("abcd", 1).Get(), 0x9bf54592U);
  EXPECT_EQ(MurmurThree32("hello, world", 0x9747b28c).Get(), 0x9a933e00U);
  EXPECT_EQ(MurmurThree32("The quick brown fox jumps over the lazy dog", 0x9747b28c).Get(), 0x2fa826cdU);
  EXPECT_EQ(MurmurThree32("\xff\x80\xfe\0\x81\xc3\xa9"sv, 0x0AEF6901).Get(), 0x32cde153U);
  static_assert(sizeof(MurmurThree32) == 4);
}

}  // namespace
}  // namespace mox::hash
