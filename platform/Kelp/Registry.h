#pragma once
// Type modules and the type registry.
//
// Each source file of the library owns one TypeModule naming the types it defines; the module
// registers them when the library is loaded and withdraws them when it is unloaded. Generic code
// (the command-line tool, tests, configuration mounting) then finds a type by its qualified name
// and prints, parses, hashes or reflects on values of it without knowing the C++ type:
//
//   // in BgpTypesImpl.cpp
//   static Kelp::TypeModule module("BgpTypesImpl",
//       {Kelp::typeInfo<MaxRoutes>(), Kelp::typeInfo<OutDelay>()});
//
//   // anywhere
//   const Kelp::TypeInfo* t = Kelp::findType("Routing::Bgp::MaxRoutes");
//   std::any v = t->strepToValue(text);
//   Kelp::String back = t->valueToStrep(v);

#include <any>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "platform/Kelp/ValueType.h"

namespace Kelp {

enum class TypeKind { value, enumeration, entity };

struct TypeInfo {
  std::string_view name;
  TypeKind kind = TypeKind::value;
  const std::type_info* cppType = nullptr;
  std::vector<AttrInfo> attributes;
  // Parses a whole text; trailing characters are an error. Null for entities and for value types
  // that cannot be built from text (kelpNoStringConstructor).
  std::any (*strepToValue)(std::string_view text) = nullptr;
  // A default-constructed value (for an enumeration, its value 0). Null for entities and for types
  // without a default constructor.
  std::any (*construct)() = nullptr;
  // The long text form of a value held in `v` (which must hold this type).
  String (*valueToStrep)(const std::any& v) = nullptr;
  // The generic hash entry (throws UnhashableException for unhashable types).
  std::uint32_t (*hash)(const std::any& v) = nullptr;
  // The reflective attribute operation on a value held in `obj`.
  int (*attributeOp)(std::any* result, std::any& obj, const KelpAttrBase* attr, int op,
                     const std::any* other, std::span<const std::any> args) = nullptr;

  // The attribute with that name, or null.
  const AttrInfo* attribute(std::string_view attrName) const;
};

// What `v` holds, as a type error names it: the registered name of a registered type, otherwise the
// C++ name; "empty" for an empty holder.
String heldTypeName(const std::any& v);

namespace detail {
template <typename T>
const T& held(const std::any& v, std::string_view typeName) {
  const T* p = std::any_cast<T>(&v);
  if (p == nullptr) GenericIfImpl::throwTypeException(typeName, heldTypeName(v));
  return *p;
}
}  // namespace detail

// Whether values of T can be built from text: not when T, or a value nested in it, holds a
// collection (kelpNoStringConstructor), whose range constructor would assert on any text.
template <typename T>
constexpr bool textConstructible();

namespace detail {
template <typename Item>
constexpr bool itemTextConstructible() {
  if constexpr (Item::kind == AttrKind::field) {
    using M = typename Item::Member;
    if constexpr (Described<M>) {
      return textConstructible<M>();
    } else {
      return !requires { M::kelpNoStringConstructor; };
    }
  } else {
    return true;
  }
}
template <typename Items, std::size_t... I>
constexpr bool itemsTextConstructible(std::index_sequence<I...>) {
  return (itemTextConstructible<std::tuple_element_t<I, Items>>() && ...);
}
}  // namespace detail

template <typename T>
constexpr bool textConstructible() {
  if constexpr (requires { T::kelpNoStringConstructor; }) {
    return false;
  } else if constexpr (Described<T>) {
    using Items = decltype(typeDescOf<T>.items);
    return detail::itemsTextConstructible<Items>(std::make_index_sequence<std::tuple_size_v<Items>>{});
  } else {
    return true;
  }
}

// The registry entry of a described value type or enumeration, built once.
template <typename T>
const TypeInfo* typeInfo() {
  static const TypeInfo info = [] {
    TypeInfo t;
    t.cppType = &typeid(T);
    if constexpr (DescribedEnum<T>) {
      t.name = enumDescOf<T>.typeName;
      t.kind = TypeKind::enumeration;
    } else {
      t.name = typeNameOf<T>();
      t.kind = TypeKind::value;
      t.attributes = attributesOf<T>();
      t.hash = [](const std::any& v) -> std::uint32_t {
        return genericHash(detail::held<T>(v, typeNameOf<T>()));
      };
      t.attributeOp = [](std::any* result, std::any& obj, const KelpAttrBase* attr, int op,
                         const std::any* other, std::span<const std::any> args) -> int {
        T* self = std::any_cast<T>(&obj);
        if (self == nullptr) GenericIfImpl::throwTypeException(typeNameOf<T>(), heldTypeName(obj));
        const T* o = other != nullptr ? &detail::held<T>(*other, typeNameOf<T>()) : nullptr;
        return genericIfAttributeOp(result, self, attr, op, o, args);
      };
    }
    // A type that holds a collection declares kelpNoStringConstructor: building it from text is a
    // programming error (its range constructor asserts), so generic code is not offered the entry,
    // for it nor for a type that holds one.
    if constexpr (DescribedEnum<T> || textConstructible<T>()) {
      t.strepToValue = [](std::string_view text) -> std::any { return strepToValue<T>(text); };
    }
    if constexpr (std::is_default_constructible_v<T>) t.construct = []() -> std::any { return T{}; };
    t.valueToStrep = [](const std::any& v) -> String {
      return Kelp::valueToStrep(detail::held<T>(v, typeInfo<T>()->name));
    };
    return t;
  }();
  return &info;
}

// A reference-counted framework object known to the registry by name and attribute names only.
TypeInfo entityType(std::string_view name, std::span<const std::string_view> attributeNames);
inline TypeInfo entityType(std::string_view name, std::initializer_list<std::string_view> attributeNames) {
  return entityType(name, std::span<const std::string_view>(attributeNames.begin(), attributeNames.size()));
}

class TypeModule {
 public:
  TypeModule(std::string_view moduleName, std::initializer_list<const TypeInfo*> types);
  ~TypeModule();
  TypeModule(const TypeModule&) = delete;
  TypeModule& operator=(const TypeModule&) = delete;

  std::string_view name() const { return name_; }
  std::span<const TypeInfo* const> types() const { return types_; }

 private:
  std::string_view name_;
  std::vector<const TypeInfo*> types_;
};

// Registers a module's types (done by TypeModule's constructor).
void kelpModuleIs(const TypeModule* module);
void kelpModuleDel(const TypeModule* module);

const TypeInfo* findType(std::string_view qualifiedName);
// The registered type of that C++ type, or null.
const TypeInfo* findType(const std::type_info& cppType);
// Every registered type, sorted by name.
std::vector<const TypeInfo*> registeredTypes();
// Every registered module, sorted by name.
std::vector<const TypeModule*> registeredModules();

}  // namespace Kelp
