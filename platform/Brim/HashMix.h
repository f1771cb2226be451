#pragma once
// Brim::HashMix: the 32-bit byte-mixing hash of interned handles and their content records.
//
// An accumulator fed fixed-width pieces in order (mixBytes1/2/4/8 take the value as it is stored,
// so a network-order address word is mixed as its stored octets read by this host) and read with
// value(). A handle and the content record that looks it up must feed the same pieces in the same
// order, so that the record finds the handle by hash:
//
//   Brim::HashMix h;          // starts at 0
//   h.mixBytes4(addressNbo);  // the 4 address octets as stored
//   h.mixBytes1(prefixLength);
//   std::uint32_t bucketHash = h.value();
//
// The mixing steps are xxHash64's tail steps (the 8-, 4- and 1-byte rounds with its primes) and
// value() is xxHash64's avalanche folded to 32 bits: cheap for the handful of bytes a key has, with
// every input bit reaching every output bit. The length of the input is mixed in at the end, so
// that feeding a 0 byte is not the same as feeding nothing.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Brim {

class HashMix {
 public:
  constexpr HashMix() = default;
  explicit constexpr HashMix(std::uint32_t seed) : h_(kPrime5 + seed) {}

  constexpr void mixBytes1(std::uint8_t v) {
    h_ ^= v * kPrime5;
    h_ = rotl(h_, 11) * kPrime1;
    len_ += 1;
  }
  constexpr void mixBytes2(std::uint16_t v) {
    // Two octets go in as one 4-octet round of their own width-tagged value.
    h_ ^= (std::uint64_t{v} | (std::uint64_t{2} << 32)) * kPrime1;
    h_ = rotl(h_, 23) * kPrime2 + kPrime3;
    len_ += 2;
  }
  constexpr void mixBytes4(std::uint32_t v) {
    h_ ^= std::uint64_t{v} * kPrime1;
    h_ = rotl(h_, 23) * kPrime2 + kPrime3;
    len_ += 4;
  }
  constexpr void mixBytes8(std::uint64_t v) {
    std::uint64_t k = rotl(v * kPrime2, 31) * kPrime1;
    h_ ^= k;
    h_ = rotl(h_, 27) * kPrime1 + kPrime4;
    len_ += 8;
  }
  // A run of octets: whole 8-octet words, then a 4-octet word, then single octets.
  void mixBytes(const void* data, std::size_t n) {
    const auto* p = static_cast<const unsigned char*>(data);
    for (; n >= 8; n -= 8, p += 8) {
      std::uint64_t w;
      std::memcpy(&w, p, 8);
      mixBytes8(w);
    }
    if (n >= 4) {
      std::uint32_t w;
      std::memcpy(&w, p, 4);
      mixBytes4(w);
      n -= 4;
      p += 4;
    }
    for (; n > 0; --n, ++p) mixBytes1(*p);
  }

  constexpr std::uint32_t value() const {
    std::uint64_t h = h_ + len_;
    h ^= h >> 33;
    h *= kPrime2;
    h ^= h >> 29;
    h *= kPrime3;
    h ^= h >> 32;
    return static_cast<std::uint32_t>(h);
  }

 private:
  static constexpr std::uint64_t kPrime1 = 0x9E3779B185EBCA87ull;
  static constexpr std::uint64_t kPrime2 = 0xC2B2AE3D27D4EB4Full;
  static constexpr std::uint64_t kPrime3 = 0x165667B19E3779F9ull;
  static constexpr std::uint64_t kPrime4 = 0x85EBCA77C2B2AE63ull;
  static constexpr std::uint64_t kPrime5 = 0x27D4EB2F165667C5ull;
  static constexpr std::uint64_t rotl(std::uint64_t x, int r) { return (x << r) | (x >> (64 - r)); }

  std::uint64_t h_ = kPrime5;
  std::uint64_t len_ = 0;
};

}  // namespace Brim
