#pragma once
// The text form of a single-field value type that prints as its field alone: an identifier is
// "7", not "Value('Ns::Id', ** {'value': 7})". Reading it back names the field in errors
// ("value: expected an unsigned number at offset 0, ...").
//
//   struct Id : Kelp::ValueBase<Id> { std::uint32_t value = 0; ... kelpType with one field ... };
//   template <> struct Kelp::TextForm<Id> : Kelp::BareTextForm<Id> {};

#include <type_traits>

#include "platform/Kelp/ValueType.h"

namespace Kelp {

template <typename T>
struct BareTextForm {
  static void print(String& out, const T& v) {
    static_assert(typeDescOf<T>.size == 1, "a bare text form needs exactly one field");
    forEachField(typeDescOf<T>, [&](const auto& f) {
      TextForm<typename std::decay_t<decltype(f)>::Member>::print(out, v.*(f.member));
    });
  }
  static void parse(CharRange& r, T& v) {
    forEachField(typeDescOf<T>, [&](const auto& f) {
      v.*(f.member) = deserializeAttr<typename std::decay_t<decltype(f)>::Member>(r, f.name);
    });
  }
};

}  // namespace Kelp
