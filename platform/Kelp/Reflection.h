#pragma once
// Reflection over a described value type: its attributes numbered from 2 in declaration order,
// and genericIfAttributeOp, through which generic code (the type registry, the Python module)
// gets and sets fields, reads constants and calls functions by attribute.

#include <any>
#include <cstddef>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "platform/Kelp/Exception.h"
#include "platform/Kelp/FieldEquality.h"
#include "platform/Kelp/ValueDesc.h"

namespace Kelp {

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
