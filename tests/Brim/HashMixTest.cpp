#include "platform/Brim/HashMix.h"

#include <bit>
#include <cstring>
#include <random>
#include <unordered_set>

#include <gtest/gtest.h>

namespace Brim {
namespace {

std::uint32_t hash4and1(std::uint32_t a, std::uint8_t b) {
  HashMix h;
  h.mixBytes4(a);
  h.mixBytes1(b);
  return h.value();
}

TEST(HashMix, StartsAtZeroAndDependsOnEveryPiece) {
  EXPECT_EQ(HashMix().value(), HashMix(0).value());
  EXPECT_NE(HashMix(0).value(), HashMix(1).value());
  // The same octets fed as different widths, or a zero piece against none, hash differently.
  HashMix one;
  one.mixBytes1(0);
  HashMix none;
  EXPECT_NE(one.value(), none.value());
  HashMix w4, w2x2;
  w4.mixBytes4(0x00010002);
  w2x2.mixBytes2(0x0002);
  w2x2.mixBytes2(0x0001);
  EXPECT_NE(w4.value(), w2x2.value());
  EXPECT_NE(hash4and1(0x0A000000, 8), hash4and1(0x0A000000, 16));
  EXPECT_NE(hash4and1(1, 0), hash4and1(0, 1));
}

TEST(HashMix, ByteRunsSplitIntoWordsThenOctets) {
  const unsigned char bytes[13] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
  HashMix run;
  run.mixBytes(bytes, sizeof bytes);
  HashMix pieces;
  std::uint64_t w8;
  std::uint32_t w4;
  std::memcpy(&w8, bytes, 8);
  std::memcpy(&w4, bytes + 8, 4);
  pieces.mixBytes8(w8);
  pieces.mixBytes4(w4);
  pieces.mixBytes1(13);
  EXPECT_EQ(run.value(), pieces.value());
}

// Flipping any one input bit of a prefix-shaped input flips close to half of the output bits.
TEST(HashMix, Avalanche) {
  std::mt19937 rng(7);
  double total = 0;
  int samples = 0;
  for (int i = 0; i < 2000; ++i) {
    std::uint32_t a = rng();
    std::uint8_t b = static_cast<std::uint8_t>(rng());
    std::uint32_t h = hash4and1(a, b);
    for (int bit = 0; bit < 40; ++bit) {
      std::uint32_t h2 = bit < 32 ? hash4and1(a ^ (1u << bit), b) : hash4and1(a, b ^ (1u << (bit - 32)));
      total += std::popcount(h ^ h2);
      ++samples;
    }
  }
  EXPECT_NEAR(total / samples, 16.0, 0.3);
}

// The 7 low bits pick a hash table's control tag and the high bits its bucket: sequential
// prefixes must spread over both.
TEST(HashMix, SequentialPrefixesSpreadOverLowAndHighBits) {
  std::unordered_set<std::uint32_t> low, high;
  for (std::uint32_t i = 0; i < 4096; ++i) {
    std::uint32_t h = hash4and1(__builtin_bswap32(0x0A000000u + (i << 8)), 24);
    low.insert(h & 0x7F);
    high.insert(h >> 20);
  }
  EXPECT_EQ(low.size(), 128u);
  EXPECT_GT(high.size(), 4096u * 6 / 10);
}

}  // namespace
}  // namespace Brim
