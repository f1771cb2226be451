#pragma once
// A value type's description: its qualified name and its attributes (stored fields, constants,
// functions) in declaration order, found through the type's kelpType hook (see ValueType.h), and
// the loops over it that the rest of the framework is built from.

#include <cstddef>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "platform/Kelp/TextForm.h"

namespace Kelp {

enum class AttrKind { field, constant, function };

template <typename C, typename M>
struct FieldDesc {
  static constexpr AttrKind kind = AttrKind::field;
  using Member = M;
  const char* name;
  M C::*member;
  bool settable;
};

template <typename G>
struct ConstantDesc {
  static constexpr AttrKind kind = AttrKind::constant;
  const char* name;
  G get;  // a pointer to the constant, or a function returning it
  auto value() const {
    if constexpr (std::is_invocable_v<G>) {
      return get();
    } else {
      return *get;
    }
  }
};

template <typename F>
struct FunctionDesc {
  static constexpr AttrKind kind = AttrKind::function;
  const char* name;
  F fn;  // a member function or a static function
};

// A read-only stored field (reflective get only).
template <typename C, typename M>
constexpr FieldDesc<C, M> field(const char* name, M C::*member) {
  return {name, member, false};
}
// A stored field that reflection may also set.
template <typename C, typename M>
constexpr FieldDesc<C, M> settableField(const char* name, M C::*member) {
  return {name, member, true};
}
template <typename G>
constexpr ConstantDesc<G> constant(const char* name, G get) {
  return {name, get};
}
template <typename F>
constexpr FunctionDesc<F> function(const char* name, F fn) {
  return {name, fn};
}

template <typename T, typename... Items>
struct ValueTypeDesc {
  static constexpr std::size_t size = sizeof...(Items);
  const char* name;
  std::tuple<Items...> items;
};

template <typename T, typename... Items>
constexpr ValueTypeDesc<T, Items...> valueType(const char* name, Items... items) {
  return {name, std::tuple<Items...>(items...)};
}

template <typename T>
concept Described = requires { kelpType(Tag<T>{}); };

template <Described T>
inline constexpr auto typeDescOf = kelpType(Tag<T>{});

template <Described T>
constexpr std::string_view typeNameOf() {
  return typeDescOf<T>.name;
}

namespace detail {
template <typename Desc, typename F, std::size_t... I>
[[gnu::always_inline]] constexpr void forEachAttrAt(const Desc& d, F& f, std::index_sequence<I...>) {
  (f(std::get<I>(d.items), I), ...);
}
}  // namespace detail

// Calls f(item, index) for every described attribute in order. Always inlined, so that a loop over
// the fields of a record compiles to straight code in its caller (the shared table's reader runs
// the byte form's checks per lookup).
template <typename Desc, typename F>
[[gnu::always_inline]] constexpr void forEachAttr(const Desc& d, F&& f) {
  detail::forEachAttrAt(d, f, std::make_index_sequence<Desc::size>{});
}

// Calls f(fieldDesc) for every stored field in order.
template <typename Desc, typename F>
[[gnu::always_inline]] constexpr void forEachField(const Desc& d, F&& f) {
  forEachAttr(d, [&](const auto& item, std::size_t) __attribute__((always_inline)) {
    if constexpr (std::decay_t<decltype(item)>::kind == AttrKind::field) f(item);
  });
}

// How many stored fields T describes.
template <Described T>
constexpr std::size_t fieldCountOf() {
  std::size_t n = 0;
  forEachField(typeDescOf<T>, [&](const auto&) { ++n; });
  return n;
}

}  // namespace Kelp
