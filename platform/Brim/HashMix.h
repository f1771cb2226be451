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
// The pieces are gathered into two 64-bit lanes and mixed when the value is read: the lanes are
// multiplied together (a 64x64->128-bit multiplication whose halves are folded by xor), and that
// is multiplied once more with the input length. A route key is 5 or 17 octets: two or three
// multiplications in all, where mixing piece by piece chains one or two per piece. It matters
// because a dedup table hashes a key on every lookup, every growth and every removal. Longer
// inputs fold the lanes into a carry whenever the next piece would not fit in 16 octets. The
// widths of the pieces are mixed in too (the same octets fed as one 4-octet piece or two 2-octet
// pieces hash differently), and so is the length (feeding a 0 octet is not the same as feeding
// nothing).

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

namespace Brim {

class HashMix {
 public:
  HashMix() = default;
  explicit HashMix(std::uint32_t seed) : seed_(seed) {}

  [[gnu::always_inline]] void mixBytes1(std::uint8_t v) { put(v, 1, 1); }
  [[gnu::always_inline]] void mixBytes2(std::uint16_t v) { put(v, 2, 2); }
  [[gnu::always_inline]] void mixBytes4(std::uint32_t v) { put(v, 4, 3); }
  [[gnu::always_inline]] void mixBytes8(std::uint64_t v) { put(v, 8, 4); }
  // Each word of an array as a 4-octet piece, in order: what a loop of mixBytes4 feeds, expanded
  // here at compile time. The pieces fold into straight code only where their positions are
  // constants; a loop leaves that to the optimizer, which at -O2 may keep the loop, and then the
  // state lives on the stack, put() branches on every piece and the caller gets an out-of-line
  // hash (an IPv6 route key hashed that way took 8 ns, folded it takes about 2).
  template <std::size_t N>
  [[gnu::always_inline]] void mixBytes4Each(const std::array<std::uint32_t, N>& words) {
    [&]<std::size_t... I>(std::index_sequence<I...>) __attribute__((always_inline)) {
      (mixBytes4(words[I]), ...);
    }(std::make_index_sequence<N>{});
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

  [[gnu::always_inline]] std::uint32_t value() const {
    // The two inner products are independent, so the hash waits for two multiplications, not
    // three. Every factor has a constant folded in: a factor of zero would lose the other one.
    const std::uint64_t h = mix(mix(word(0) ^ kPrime1, word(1) ^ kPrime2) ^
                                    mix(word(2) ^ kPrime3, word(3) ^ seed_ ^ carry_ ^ kPrime5),
                                (len_ + shape_ * kPrime4) ^ kPrime5);
    return static_cast<std::uint32_t>(h ^ (h >> 32));
  }

 private:
  static constexpr unsigned kLanes = 32;  // octets gathered before they are folded into the carry
  static constexpr std::uint64_t kPrime1 = 0x9E3779B185EBCA87ull;
  static constexpr std::uint64_t kPrime2 = 0xC2B2AE3D27D4EB4Full;
  static constexpr std::uint64_t kPrime3 = 0x165667B19E3779F9ull;
  static constexpr std::uint64_t kPrime4 = 0x85EBCA77C2B2AE63ull;
  static constexpr std::uint64_t kPrime5 = 0x27D4EB2F165667C5ull;

  // The 128-bit product of x and y, its halves folded by xor.
  [[gnu::always_inline]] static std::uint64_t mix(std::uint64_t x, std::uint64_t y) {
    __extension__ using U128 = unsigned __int128;
    const U128 r = static_cast<U128>(x) * y;
    return static_cast<std::uint64_t>(r) ^ static_cast<std::uint64_t>(r >> 64);
  }
  std::uint64_t word(unsigned i) const { return i == 0 ? w0_ : i == 1 ? w1_ : i == 2 ? w2_ : w3_; }

  // Appends the n low-order octets of v to the words. The words are separate members chosen by a
  // switch rather than an array indexed by position, so that they stay in registers even when
  // the pieces are fed in a loop; in straight-line code (as key types feed them) the positions
  // are constants and all of this folds down to a few shifts and ors. That folding needs the
  // body inlined into the caller, which the compiler's own estimate does not always choose (a
  // content record hashed in a caller's loop got an out-of-line call and its state on the
  // stack, doubling the cost of a table hit): hence always_inline.
  [[gnu::always_inline]] void put(std::uint64_t v, unsigned n, unsigned widthCode) {
    if (fill_ + n > kLanes) [[unlikely]] fold();
    const unsigned shift = 8 * (fill_ % 8);
    const std::uint64_t low = v << shift;
    // A piece that straddles two words continues in the next.
    const std::uint64_t high = shift + 8 * n > 64 ? v >> (64 - shift) : 0;
    switch (fill_ / 8) {
      case 0: w0_ |= low; w1_ |= high; break;
      case 1: w1_ |= low; w2_ |= high; break;
      case 2: w2_ |= low; w3_ |= high; break;
      default: w3_ |= low;  // nothing straddles past the last word: fold() made room
    }
    fill_ += n;
    len_ += n;
    shape_ = shape_ * 5 + widthCode;
  }
  // Hashes the words into the carry and empties them.
  void fold() {
    carry_ = value() ^ (carry_ << 32);
    w0_ = w1_ = w2_ = w3_ = 0;
    fill_ = 0;
  }

  // The current octets, first octet lowest, zero beyond fill_.
  std::uint64_t w0_ = 0, w1_ = 0, w2_ = 0, w3_ = 0;
  unsigned fill_ = 0;
  std::uint64_t len_ = 0;    // octets fed in all
  std::uint64_t shape_ = 0;  // the widths of the pieces, one base-5 digit each
  std::uint64_t carry_ = 0;  // what the octets before the current lanes left behind
  std::uint64_t seed_ = 0;
};

}  // namespace Brim
