#include "platform/Brim/HashMix.h"

#include <bit>
#include <cstring>
#include <random>
#include <unordered_set>
#include <vector>

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

// Flipping any one input bit flips close to half of the output bits, whatever the bit's position:
// for the shapes of an IPv4 key (4 + 1 octets), an IPv6 key (4 x 4 + 1) and a run long enough to
// be folded in parts (5 x 8 + 1).
TEST(HashMix, EveryInputBitReachesHalfTheOutputBits) {
  struct Shape {
    const char* name;
    std::vector<int> widths;
  };
  const Shape shapes[] = {{"ipv4", {4, 1}}, {"ipv6", {4, 4, 4, 4, 1}}, {"long", {8, 8, 8, 8, 8, 1}}};
  auto hashOf = [](const std::vector<int>& widths, const std::vector<std::uint64_t>& pieces) {
    HashMix h;
    for (std::size_t i = 0; i < widths.size(); ++i) {
      switch (widths[i]) {
        case 1: h.mixBytes1(static_cast<std::uint8_t>(pieces[i])); break;
        case 4: h.mixBytes4(static_cast<std::uint32_t>(pieces[i])); break;
        default: h.mixBytes8(pieces[i]);
      }
    }
    return h.value();
  };
  std::mt19937_64 rng(7);
  for (const Shape& shape : shapes) {
    double total = 0;
    int samples = 0;
    for (int i = 0; i < 300; ++i) {
      std::vector<std::uint64_t> pieces;
      for (int w : shape.widths) pieces.push_back(rng() & (w == 8 ? ~0ull : (1ull << (8 * w)) - 1));
      const std::uint32_t h = hashOf(shape.widths, pieces);
      for (std::size_t p = 0; p < pieces.size(); ++p) {
        for (int bit = 0; bit < 8 * shape.widths[p]; ++bit) {
          auto flipped = pieces;
          flipped[p] ^= 1ull << bit;
          const int changed = std::popcount(h ^ hashOf(shape.widths, flipped));
          // Not one input bit may be lost (a factor of zero, a piece overwritten).
          ASSERT_GT(changed, 0) << shape.name << " piece " << p << " bit " << bit;
          total += changed;
          ++samples;
        }
      }
    }
    EXPECT_NEAR(total / samples, 16.0, 0.3) << shape.name;
  }
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
