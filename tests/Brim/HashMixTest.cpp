#include "platform/Brim/HashMix.h"

#include <array>
#include <bit>
#include <cstring>
#include <random>
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

// The seed, the widths of the pieces (the same octets fed as one 4-octet piece or two 2-octet
// pieces), a zero piece against none, and the order of the pieces all change the hash; a run of
// octets is taken as 8-octet words, then a 4-octet word, then single octets.
TEST(HashMix, DependsOnSeedWidthsLengthAndOrder) {
  HashMix one, none, w4, w2x2;
  one.mixBytes1(0);
  w4.mixBytes4(0x00010002);
  w2x2.mixBytes2(0x0002);
  w2x2.mixBytes2(0x0001);
  EXPECT_NE(HashMix(0).value(), HashMix(1).value());
  EXPECT_NE(one.value(), none.value());
  EXPECT_NE(w4.value(), w2x2.value());
  EXPECT_NE(hash4and1(0x0A000000, 8), hash4and1(0x0A000000, 16));
  EXPECT_NE(hash4and1(1, 0), hash4and1(0, 1));

  const unsigned char bytes[13] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
  HashMix run, pieces;
  run.mixBytes(bytes, sizeof bytes);
  std::uint64_t w8;
  std::uint32_t w4b;
  std::memcpy(&w8, bytes, 8);
  std::memcpy(&w4b, bytes + 8, 4);
  pieces.mixBytes8(w8);
  pieces.mixBytes4(w4b);
  pieces.mixBytes1(13);
  EXPECT_EQ(run.value(), pieces.value());

  // The words of an array, fed at once, are the same pieces in the same order.
  HashMix each, oneByOne;
  each.mixBytes4Each(std::array<std::uint32_t, 3>{7, 8, 9});
  for (std::uint32_t w : {7u, 8u, 9u}) oneByOne.mixBytes4(w);
  EXPECT_EQ(each.value(), oneByOne.value());
}

// Flipping any one input bit flips close to half of the output bits, whatever the bit's position:
// for the lengths of an IPv4 key (5 octets), an IPv6 key (17) and a run long enough to be folded
// in parts (41).
TEST(HashMix, EveryInputBitReachesHalfTheOutputBits) {
  auto hashOf = [](const std::vector<unsigned char>& bytes) {
    HashMix h;
    h.mixBytes(bytes.data(), bytes.size());
    return h.value();
  };
  std::mt19937_64 rng(7);
  for (std::size_t length : {5u, 17u, 41u}) {
    double total = 0;
    for (int i = 0; i < 300; ++i) {
      std::vector<unsigned char> bytes(length);
      for (unsigned char& b : bytes) b = static_cast<unsigned char>(rng());
      const std::uint32_t h = hashOf(bytes);
      for (std::size_t bit = 0; bit < 8 * length; ++bit) {
        bytes[bit / 8] ^= static_cast<unsigned char>(1u << (bit % 8));
        const int changed = std::popcount(h ^ hashOf(bytes));
        bytes[bit / 8] ^= static_cast<unsigned char>(1u << (bit % 8));
        // Not one input bit may be lost (a factor of zero, a piece overwritten).
        ASSERT_GT(changed, 0) << length << " octets, bit " << bit;
        total += changed;
      }
    }
    EXPECT_NEAR(total / (300.0 * 8 * length), 16.0, 0.3) << length << " octets";
  }
}

}  // namespace
}  // namespace Brim
