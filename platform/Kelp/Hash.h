#pragma once
// Kelp::Hash: the framework's 32-bit hash accumulator.
//
// Seeded with a 32-bit seed, fed fields one at a time by width (hashMix of 1, 2, 4 or 8 bytes, or a
// byte run), and read with result(). Value types hash their fields in declaration order with the
// width of each field, so two equal values hash alike whatever their padding.
//
//   Kelp::Hash h(seed);
//   h.hashMix(uint8_t{enabled});
//   h.hashMix(uint16_t{limit});
//   return h.result();
//
// The mix is the 32-bit MurmurHash3 block step with its finalizer: cheap for the few bytes a value
// type has, with full avalanche in result().

#include <cstdint>
#include <cstring>
#include <string_view>

namespace Kelp {

class Hash {
 public:
  explicit constexpr Hash(std::uint32_t seed = 0) : h_(seed) {}

  constexpr void hashMix(std::uint8_t v) { mix32(v); }
  constexpr void hashMix(std::uint16_t v) { mix32(v); }
  constexpr void hashMix(std::uint32_t v) { mix32(v); }
  constexpr void hashMix(std::uint64_t v) {
    mix32(static_cast<std::uint32_t>(v));
    mix32(static_cast<std::uint32_t>(v >> 32));
  }
  constexpr void hashMix(bool v) { mix32(v ? 1u : 0u); }
  void hashMixBytes(const void* data, std::size_t len) {
    const auto* p = static_cast<const unsigned char*>(data);
    std::size_t i = 0;
    for (; i + 4 <= len; i += 4) {
      std::uint32_t w;
      std::memcpy(&w, p + i, 4);
      mix32(w);
    }
    std::uint32_t tail = 0;
    for (std::size_t k = 0; i + k < len; ++k) tail |= std::uint32_t{p[i + k]} << (8 * k);
    mix32(tail ^ static_cast<std::uint32_t>(len));
  }
  void hashMix(std::string_view s) { hashMixBytes(s.data(), s.size()); }

  constexpr std::uint32_t result() const {
    std::uint32_t h = h_ ^ n_;
    h ^= h >> 16;
    h *= 0x85ebca6bu;
    h ^= h >> 13;
    h *= 0xc2b2ae35u;
    h ^= h >> 16;
    return h;
  }

 private:
  static constexpr std::uint32_t rotl(std::uint32_t x, int r) { return (x << r) | (x >> (32 - r)); }
  constexpr void mix32(std::uint32_t k) {
    k *= 0xcc9e2d51u;
    k = rotl(k, 15);
    k *= 0x1b873593u;
    h_ ^= k;
    h_ = rotl(h_, 13);
    h_ = h_ * 5 + 0xe6546b64u;
    n_ += 4;
  }

  std::uint32_t h_;
  std::uint32_t n_ = 0;
};

}  // namespace Kelp
