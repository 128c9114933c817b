#ifndef MOX_HASH_MURMUR_THREE_32_H
#define MOX_HASH_MURMUR_THREE_32_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace mox::hash {

/** The hash MurmurHash3_x86_32 of some bytes. */
class MurmurThree32 {
 public:
  /** Hashes the bytes with the seed. */
  constexpr MurmurThree32(std::string_view bytes, std::uint32_t seed) noexcept : value_(Hash(bytes, seed)) {}

  /** Returns the hash as a number. */
  constexpr std::uint32_t Get() const noexcept { return value_; }

  /** Compares the numbers. */
  ///@{
  friend constexpr bool operator==(MurmurThree32 left, MurmurThree32 right) noexcept {
    return left.value_ == right.value_;
  }
  friend constexpr bool operator!=(MurmurThree32 left, MurmurThree32 right) noexcept { return !(left == right); }
  ///@}

 private:
  static constexpr std::uint32_t RotateLeft(std::uint32_t value, unsigned bits) noexcept {
    return (value << bits) | (value >> (32 - bits));
  }

  // Mixes up to four bytes, the lowest first.
  static constexpr std::uint32_t Mix(std::string_view bytes) noexcept {
    std::uint32_t block = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      block |= std::uint32_t{static_cast<unsigned char>(bytes[i])} << (8 * i);
    }
    return RotateLeft(block * 0xcc9e2d51U, 15) * 0x1b873593U;
  }

  static constexpr std::uint32_t Hash(std::string_view bytes, std::uint32_t seed) noexcept {
    std::uint32_t hash = seed;
    std::string_view rest = bytes;
    for (; rest.size() >= 4; rest.remove_prefix(4)) {
      hash = RotateLeft(hash ^ Mix(rest.substr(0, 4)), 13) * 5 + 0xe6546b64U;
    }
    hash ^= Mix(rest);
    hash ^= static_cast<std::uint32_t>(bytes.size());
    hash = (hash ^ (hash >> 16)) * 0x85ebca6bU;
    hash = (hash ^ (hash >> 13)) * 0xc2b2ae35U;
    return hash ^ (hash >> 16);
  }

  std::uint32_t value_;
};

}  // namespace mox::hash

#endif
