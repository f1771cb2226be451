#pragma once
// Kelp::MaybeU63: an optional 63-bit unsigned number in one 64-bit word.
//
// The top bit set means "not set" and the low 63 bits hold the value, so the word can be copied
// into shared memory and onto the wire as it is. A default MaybeU63 is unset (0x8000000000000000).
// Two unset values compare equal whatever their low bits: only set values carry a number, and
// hash() agrees with that.
//
// Text form: the decimal value, or None when unset.

#include <cstdint>
#include <string>
#include <cstring>

#include "platform/Kelp/ByteForm.h"
#include "platform/Kelp/Hash.h"
#include "platform/Kelp/Json.h"
#include "platform/Kelp/TextForm.h"

namespace Kelp {

class MaybeU63 {
 public:
  static constexpr std::uint64_t kUnsetBit = std::uint64_t{1} << 63;
  static constexpr std::uint64_t kMaxValue = kUnsetBit - 1;

  constexpr MaybeU63() = default;
  // A set value; numbers above kMaxValue throw Kelp::RangeException.
  explicit MaybeU63(std::uint64_t value) : raw_(checked(value)) {}
  // Adopts a stored word as it is (top bit set: unset, whatever the low bits).
  static constexpr MaybeU63 fromRaw(std::uint64_t raw) {
    MaybeU63 m;
    m.raw_ = raw;
    return m;
  }

  constexpr bool isSet() const { return (raw_ & kUnsetBit) == 0; }
  // The value; 0 when unset.
  constexpr std::uint64_t value() const { return isSet() ? raw_ : 0; }
  constexpr std::uint64_t raw() const { return raw_; }
  // The word with an unset value's low bits cleared: equal values have equal canonical words.
  constexpr std::uint64_t canonical() const { return isSet() ? raw_ : kUnsetBit; }

  void valueIs(std::uint64_t value) { raw_ = checked(value); }
  void unset() { raw_ = kUnsetBit; }

  friend constexpr bool operator==(MaybeU63 a, MaybeU63 b) { return a.canonical() == b.canonical(); }
  std::uint32_t hash(std::uint32_t seed) const {
    Kelp::Hash h(seed);
    h.hashMix(canonical());
    return h.result();
  }

 private:
  static std::uint64_t checked(std::uint64_t value) {
    if (value > kMaxValue) throw Kelp::RangeException("MaybeU63 value above 9223372036854775807");
    return value;
  }

  std::uint64_t raw_ = kUnsetBit;
};

// In JSON (Kelp/Json.h): the number (a string beyond 2^53, as for every integer), or null when unset.
inline void kelpJson(std::string& out, const MaybeU63& m) {
  if (m.isSet()) {
    Kelp::jsonNumber(out, m.value());
  } else {
    out += "null";
  }
}

}  // namespace Kelp

template <>
struct Kelp::TextForm<Kelp::MaybeU63> {
  static void print(String& out, Kelp::MaybeU63 v) {
    if (v.isSet()) {
      printUnsigned(out, v.value());
    } else {
      out += "None";
    }
  }
  static void parse(CharRange& r, Kelp::MaybeU63& v) {
    if (r.skipIf("None")) {
      v = Kelp::MaybeU63();
    } else {
      v = Kelp::MaybeU63::fromRaw(parseUnsigned(r, Kelp::MaybeU63::kMaxValue));
    }
  }
};

// Stored as its word, unset values with whatever low bits they carry.
template <>
struct Kelp::ByteCodec<Kelp::MaybeU63> : Kelp::FixedByteCodec<8> {
  static void put(std::uint8_t* out, Kelp::MaybeU63 v) {
    const std::uint64_t raw = v.raw();
    std::memcpy(out, &raw, 8);
  }
  static void get(const std::uint8_t* in, Kelp::MaybeU63& v) {
    std::uint64_t raw;
    std::memcpy(&raw, in, 8);
    v = Kelp::MaybeU63::fromRaw(raw);
  }
};
