#pragma once
// One description per value type.
//
// A value type states its qualified name and its attributes once, in declaration order, in a hidden
// friend found by argument-dependent lookup; everything else is generic code reading that list:
// the long text form and its parser, equality, the optional hash, the truth test and the reflective
// attribute operation. Attributes are numbered from 2 in the order listed (0 and 1 belong to the
// framework): stored fields first, then the constants and functions a type exposes.
//
//   struct MaxRoutes : Kelp::ValueBase<MaxRoutes> {
//     uint32_t routes = 0;
//     uint32_t warningThreshold = 0;
//     bool warningOnly = false;
//
//     MaxRoutes() = default;
//     MaxRoutes(uint32_t r, uint32_t w, bool o) : routes(r), warningThreshold(w), warningOnly(o) {}
//     explicit MaxRoutes(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }
//     Kelp::String toStrep() const;
//
//     friend constexpr auto kelpType(Kelp::Tag<MaxRoutes>) {
//       return Kelp::valueType<MaxRoutes>("Routing::Bgp::MaxRoutes",
//           Kelp::field("routes", &MaxRoutes::routes),                   // 2
//           Kelp::field("warningThreshold", &MaxRoutes::warningThreshold), // 3
//           Kelp::field("warningOnly", &MaxRoutes::warningOnly),         // 4
//           Kelp::function("toStrep", &MaxRoutes::toStrep));             // 5
//     }
//   };
//
// The long text form reads like a Python call:
//   Value('Routing::Bgp::MaxRoutes', ** {'routes': 1000, 'warningThreshold': 800, 'warningOnly': True})
// and is parsed back byte for byte: no whitespace is skipped.

#include <any>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "platform/Kelp/EnumType.h"
#include "platform/Kelp/Hash.h"
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

// ---- Text form -----------------------------------------------------------------------------

template <typename T>
void printFields(String& out, const T& v) {
  const auto& d = typeDescOf<T>;
  out += "Value('";
  out += d.name;
  out += "', ** {";
  bool first = true;
  forEachField(d, [&](const auto& f) {
    out += first ? "'" : ", '";
    out += f.name;
    out += "': ";
    TextForm<typename std::decay_t<decltype(f)>::Member>::print(out, v.*(f.member));
    first = false;
  });
  out += "})";
}

// Reads the long text form into `v`, field by field; leaves the range after "})".
// (Unconstrained so that a type's own range constructor, defined inside the class, can call it.)
template <typename T>
void parseFields(CharRange& r, T& v) {
  const auto& d = typeDescOf<T>;
  r.needString({"Value('", d.name, "', ** {"});
  bool first = true;
  forEachField(d, [&](const auto& f) {
    using M = typename std::decay_t<decltype(f)>::Member;
    r.needString({first ? "'" : ", '", f.name, "': "});
    v.*(f.member) = deserializeAttr<M>(r, f.name);
    first = false;
  });
  r.needString("})");
}

// Whether every field of T can be read from text.
template <typename T>
constexpr bool fieldsReadableFromText() {
  bool readable = true;
  forEachField(typeDescOf<T>, [&](const auto& f) {
    readable = readable && ReadableFromText<typename std::decay_t<decltype(f)>::Member>;
  });
  return readable;
}

template <Described T>
struct TextForm<T> {
  static constexpr bool kReadable = fieldsReadableFromText<T>();
  static void print(String& out, const T& v) { printFields(out, v); }
  static void parse(CharRange& r, T& v) { parseFields(r, v); }
};

// ---- Equality, truth, hash -----------------------------------------------------------------

template <Described T>
bool fieldsEqual(const T& a, const T& b) {
  bool equal = true;
  forEachField(typeDescOf<T>, [&](const auto& f) { equal = equal && a.*(f.member) == b.*(f.member); });
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

// ---- Reflection ----------------------------------------------------------------------------

// Operation codes of genericIfAttributeOp.
enum AttrOp : int {
  attrOpGet = 0,
  attrOpSet = 1,
  attrOpCall = 10,
  attrOpTruth = 11,
  attrOpEqual = 12,
  attrOpLess = 13,
};
// Its answers.
enum AttrStatus : int {
  attrStatusDone = 0,
  attrStatusUnsupported = 1,
  attrStatusNoAttribute = 2,
};

// An attribute as generic code names it.
struct KelpAttrBase {
  int id;
  std::string_view name;
  int attributeId() const { return id; }
};

struct AttrInfo {
  int id;
  std::string_view name;
  AttrKind kind;
  // A function's parameter types in order and its result type (void for none), and whether it
  // changes the value it is called on (a non-const member function), so that generic code can
  // convert arguments before the call and tell a query from an update.
  std::vector<const std::type_info*> parameterTypes = {};
  const std::type_info* resultType = nullptr;
  bool changesValue = false;
};

// Attribute numbers start here, in declaration order: 0 and 1 belong to the framework itself.
inline constexpr int kFirstAttributeId = 2;

template <Described T>
const KelpAttrBase* attributeNamed(std::string_view name);

namespace detail {

template <typename F>
struct FnTraits;
template <typename R, typename C, typename... A>
struct FnTraits<R (C::*)(A...) const> {
  using Ret = R;
  using Args = std::tuple<std::decay_t<A>...>;
  static constexpr bool member = true;
  static constexpr bool changesObject = false;
};
template <typename R, typename C, typename... A>
struct FnTraits<R (C::*)(A...)> {
  using Ret = R;
  using Args = std::tuple<std::decay_t<A>...>;
  static constexpr bool member = true;
  static constexpr bool changesObject = true;
};
template <typename R, typename... A>
struct FnTraits<R (*)(A...)> {
  using Ret = R;
  using Args = std::tuple<std::decay_t<A>...>;
  static constexpr bool member = false;
  static constexpr bool changesObject = false;
};

template <typename Tuple, std::size_t... I>
std::vector<const std::type_info*> typeIdsOf(std::index_sequence<I...>) {
  return {&typeid(std::tuple_element_t<I, Tuple>)...};
}

[[noreturn]] void throwArgumentCount(std::string_view function, std::size_t expected, std::size_t given);
[[noreturn]] void throwArgumentType(std::string_view function, std::size_t index);

template <typename Arg>
const Arg& argumentAt(std::string_view function, std::span<const std::any> args, std::size_t i) {
  const Arg* p = std::any_cast<Arg>(&args[i]);
  if (p == nullptr) throwArgumentType(function, i);
  return *p;
}

template <typename T, typename F>
void invoke(std::any* result, T* obj, const FunctionDesc<F>& fd, std::span<const std::any> args) {
  using Traits = FnTraits<F>;
  using Args = typename Traits::Args;
  constexpr std::size_t n = std::tuple_size_v<Args>;
  if (args.size() != n) throwArgumentCount(fd.name, n, args.size());
  auto call = [&]<std::size_t... I>(std::index_sequence<I...>) -> decltype(auto) {
    if constexpr (Traits::member) {
      return (obj->*(fd.fn))(argumentAt<std::tuple_element_t<I, Args>>(fd.name, args, I)...);
    } else {
      return fd.fn(argumentAt<std::tuple_element_t<I, Args>>(fd.name, args, I)...);
    }
  };
  if constexpr (std::is_void_v<typename Traits::Ret>) {
    call(std::make_index_sequence<n>{});
    if (result != nullptr) result->reset();
  } else {
    auto r = call(std::make_index_sequence<n>{});
    if (result != nullptr) *result = std::move(r);
  }
}

}  // namespace detail

template <Described T>
std::vector<AttrInfo> attributesOf() {
  std::vector<AttrInfo> out;
  forEachAttr(typeDescOf<T>, [&](const auto& item, std::size_t i) {
    using Item = std::decay_t<decltype(item)>;
    AttrInfo a{static_cast<int>(i) + kFirstAttributeId, item.name, Item::kind};
    if constexpr (Item::kind == AttrKind::function) {
      using Traits = detail::FnTraits<decltype(item.fn)>;
      a.parameterTypes = detail::typeIdsOf<typename Traits::Args>(
          std::make_index_sequence<std::tuple_size_v<typename Traits::Args>>{});
      a.resultType = &typeid(typename Traits::Ret);
      a.changesValue = Traits::changesObject;
    }
    out.push_back(std::move(a));
  });
  return out;
}

// The reflective interface. With an attribute: op 0 gets a field or constant, op 1 sets a settable
// field from args[0], op 10 calls a function with args. Without one (attr == nullptr): op 11 is the
// truth test, op 12 equality with `other`, op 13 ordering with `other` where the type has
// operator<. Answers 0 done, 1 not supported for this attribute, 2 no such attribute. Arguments of
// the wrong number or type throw TypeException.
template <Described T>
int genericIfAttributeOp(std::any* result, T* obj, const KelpAttrBase* attr, int op,
                         const std::type_identity_t<T>* other,
                         std::span<const std::any> args = {}) {
  auto needOther = [&] {
    if (other == nullptr) GenericIfImpl::throwTypeException(typeNameOf<T>(), "null");
  };
  if (attr == nullptr) {
    switch (op) {
      case attrOpTruth:
        if (result != nullptr) *result = truthOf(*obj);
        return attrStatusDone;
      case attrOpEqual:
        needOther();
        if (result != nullptr) *result = bool(*obj == *other);
        return attrStatusDone;
      case attrOpLess:
        if constexpr (requires(const T& a, const T& b) { a < b; }) {
          needOther();
          if (result != nullptr) *result = bool(*obj < *other);
          return attrStatusDone;
        } else {
          return attrStatusUnsupported;
        }
      default:
        return attrStatusUnsupported;
    }
  }
  const auto& d = typeDescOf<T>;
  int index = attr->attributeId() - kFirstAttributeId;
  if (index < 0 || index >= static_cast<int>(d.size)) return attrStatusNoAttribute;
  int status = attrStatusUnsupported;
  forEachAttr(d, [&](const auto& item, std::size_t i) {
    if (static_cast<int>(i) != index) return;
    using Item = std::decay_t<decltype(item)>;
    if constexpr (Item::kind == AttrKind::field) {
      if (op == attrOpGet) {
        if (result != nullptr) *result = obj->*(item.member);
        status = attrStatusDone;
      } else if (op == attrOpSet && item.settable) {
        if (args.size() != 1) detail::throwArgumentCount(item.name, 1, args.size());
        obj->*(item.member) = detail::argumentAt<typename Item::Member>(item.name, args, 0);
        status = attrStatusDone;
      }
    } else if constexpr (Item::kind == AttrKind::constant) {
      if (op == attrOpGet) {
        if (result != nullptr) *result = item.value();
        status = attrStatusDone;
      }
    } else {
      if (op == attrOpCall) {
        detail::invoke(result, obj, item, args);
        status = attrStatusDone;
      }
    }
  });
  return status;
}

template <Described T>
const KelpAttrBase* attributeNamed(std::string_view name) {
  static const std::vector<KelpAttrBase> attrs = [] {
    std::vector<KelpAttrBase> v;
    for (const AttrInfo& a : attributesOf<T>()) v.push_back({a.id, a.name});
    return v;
  }();
  for (const KelpAttrBase& a : attrs) {
    if (a.name == name) return &a;
  }
  return nullptr;
}

}  // namespace Kelp
