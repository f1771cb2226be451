#pragma once
// Equality, the field-wise hash, the truth test and stream output of a described value type, from
// its description.

#include <cstdint>
#include <ostream>
#include <string_view>
#include <type_traits>

#include "platform/Kelp/Exception.h"
#include "platform/Kelp/FieldText.h"
#include "platform/Kelp/Hash.h"
#include "platform/Kelp/ValueDesc.h"

namespace Kelp {

// Always inlined: a dedup table compares a key with a record on every hit, and through the
// description's lambdas the compiler's estimate of this function is far above the few compares it
// folds to (an interned route key's test was left as an out-of-line call).
template <Described T>
[[gnu::always_inline]] inline bool fieldsEqual(const T& a, const T& b) {
  bool equal = true;
  forEachField(typeDescOf<T>,
               [&](const auto& f) __attribute__((always_inline)) { equal = equal && a.*(f.member) == b.*(f.member); });
  return equal;
}

template <typename M>
void hashMixField(Hash& h, const M& v);

template <typename T>
concept Hashable = requires(const T& v) {
  { v.hash(std::uint32_t{0}) } -> std::convertible_to<std::uint32_t>;
};

template <Described T>
void hashMixFields(Hash& h, const T& v) {
  forEachField(typeDescOf<T>, [&](const auto& f) { hashMixField(h, v.*(f.member)); });
}

// Mixes one field by its width: bool and 8-bit fields as 1 byte, 16-bit as 2, and so on; an
// enumeration by its storage type; a text by its bytes; a nested value by its own hash where it
// has one (a type that hashes only some of its fields, or hashes them its own way, keeps that
// meaning inside another), else by its fields.
template <typename M>
void hashMixField(Hash& h, const M& v) {
  if constexpr (std::is_same_v<M, bool>) {
    h.hashMix(v);
  } else if constexpr (std::is_enum_v<M>) {
    h.hashMix(static_cast<std::make_unsigned_t<std::underlying_type_t<M>>>(v));
  } else if constexpr (std::is_unsigned_v<M>) {
    h.hashMix(v);
  } else if constexpr (std::is_same_v<M, String>) {
    h.hashMix(std::string_view(v));
  } else if constexpr (Hashable<M>) {
    h.hashMix(v.hash(0));
  } else {
    static_assert(Described<M>, "a field must be a number, an enumeration, a text or a value type");
    hashMixFields(h, v);
  }
}

// The field-wise hash a hashable value type returns from its hash(seed) member.
template <Described T>
std::uint32_t hashFields(const T& v, std::uint32_t seed) {
  Hash h(seed);
  hashMixFields(h, v);
  return h.result();
}

// The generic hash entry: the type's own hash with seed 0, or the unhashable-type error.
template <Described T>
std::uint32_t genericHash(const T& v) {
  if constexpr (Hashable<T>) {
    return v.hash(0);
  } else {
    GenericIfImpl::throwUnhashableException(typeNameOf<T>());
  }
}

// The truth test: the type's own operator bool (ValueBase gives one: "differs from a default-
// constructed value"), or, for a described type with its own equality and no such operator (the
// route target), the same test spelled out.
template <Described T>
bool truthOf(const T& v) {
  if constexpr (std::is_constructible_v<bool, const T&>) {
    return static_cast<bool>(v);
  } else {
    return !(v == T{});
  }
}

// Equality, stream output and the truth test for a described type, from its description.
template <typename T>
struct ValueBase {
  friend bool operator==(const T& a, const T& b) { return fieldsEqual(a, b); }
  friend std::ostream& operator<<(std::ostream& os, const T& v) { return os << valueToStrep(v); }
  explicit operator bool() const { return !fieldsEqual(static_cast<const T&>(*this), T{}); }
};

}  // namespace Kelp
