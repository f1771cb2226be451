#pragma once
// Brim::HashMix fed from a value type's description: its stored fields in declaration order, each
// by its width (bool and 8-bit fields 1 octet, 32-bit fields 4, ...; an enumeration by its storage
// type; an unset MaybeU63 as its canonical word; a nested value type by its own fields). A type
// that hashes its own way provides `hashMixInto(Brim::HashMix&, const T&)`, found by argument-
// dependent lookup.
//
// A type hashed this way states its identity once: the fields that its equality compares are the
// ones hashed, so the two cannot drift apart. Always inlined: interning a key hashes it on every
// lookup, and the fields must fold into straight code in the caller.
//
//   std::uint32_t Ipv4RouteKeyContent::hash(std::uint32_t seed) const { return Brim::fieldHash(*this, seed); }

#include <cstdint>
#include <type_traits>

#include "platform/Brim/HashMix.h"
#include "platform/Kelp/MaybeU63.h"
#include "platform/Kelp/ValueType.h"

namespace Brim {

template <typename T>
concept MixesItself = requires(HashMix& h, const T& v) { hashMixInto(h, v); };

template <typename T>
[[gnu::always_inline]] inline void mixField(HashMix& h, const T& v);

template <Kelp::Described T>
[[gnu::always_inline]] inline void mixFields(HashMix& h, const T& v) {
  Kelp::forEachField(Kelp::typeDescOf<T>, [&](const auto& f) __attribute__((always_inline)) { mixField(h, v.*(f.member)); });
}

template <typename T>
[[gnu::always_inline]] inline void mixField(HashMix& h, const T& v) {
  if constexpr (MixesItself<T>) {
    hashMixInto(h, v);
  } else if constexpr (std::is_same_v<T, bool>) {
    h.mixBytes1(v ? 1 : 0);
  } else if constexpr (std::is_enum_v<T>) {
    mixField(h, static_cast<std::make_unsigned_t<std::underlying_type_t<T>>>(v));
  } else if constexpr (std::is_unsigned_v<T>) {
    if constexpr (sizeof(T) == 1) {
      h.mixBytes1(v);
    } else if constexpr (sizeof(T) == 2) {
      h.mixBytes2(v);
    } else if constexpr (sizeof(T) == 4) {
      h.mixBytes4(v);
    } else {
      static_assert(sizeof(T) == 8);
      h.mixBytes8(v);
    }
  } else if constexpr (std::is_same_v<T, Kelp::MaybeU63>) {
    h.mixBytes8(v.canonical());  // unset values are equal whatever their low bits
  } else {
    static_assert(Kelp::Described<T>, "a hashed field is a number, an enumeration or a described value type");
    mixFields(h, v);
  }
}

// The hash of a described value: its fields mixed in order, `seed` starting the accumulator.
template <Kelp::Described T>
[[gnu::always_inline]] inline std::uint32_t fieldHash(const T& v, std::uint32_t seed = 0) {
  HashMix h(seed);
  mixFields(h, v);
  return h.value();
}

}  // namespace Brim
