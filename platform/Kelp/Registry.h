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

#include "platform/Kelp/Json.h"
#include "platform/Kelp/MemberCheck.h"
#include "platform/Kelp/ValueType.h"

namespace Kelp {

enum class TypeKind { value, enumeration, entity };

struct TypeInfo;

// A stored field of a value type as generic code sees it: its C++ type and its text form alone,
// so that a value can be taken apart and built again from text pieces (the Python module does so).
struct FieldInfo {
  std::string_view name;
  const std::type_info* cppType = nullptr;
  // The field's value read from its whole text form; null where the field type has no parser.
  std::any (*strepToValue)(std::string_view text) = nullptr;
  // The text form of a field value held in `v`.
  String (*valueToStrep)(const std::any& v) = nullptr;
};

struct TypeInfo {
  std::string_view name;
  TypeKind kind = TypeKind::value;
  const std::type_info* cppType = nullptr;
  std::vector<AttrInfo> attributes;
  // The stored fields in declaration order (value types only).
  std::vector<FieldInfo> fields;
  // The named values of an enumeration, in declaration order.
  std::vector<EnumEntryInfo> enumerators;
  // Parses a whole text; trailing characters are an error. Null for entities and for value types
  // that cannot be read from text (not ReadableFromText).
  std::any (*strepToValue)(std::string_view text) = nullptr;
  // The long text form of a value held in `v` (which must hold this type).
  String (*valueToStrep)(const std::any& v) = nullptr;
  // Its JSON (Kelp/Json.h).
  String (*valueToJson)(const std::any& v) = nullptr;
  // The generic hash entry (throws UnhashableException for unhashable types).
  std::uint32_t (*hash)(const std::any& v) = nullptr;
  // The reflective attribute operation on a value held in `obj`.
  int (*attributeOp)(std::any* result, std::any& obj, const KelpAttrBase* attr, int op,
                     const std::any* other, std::span<const std::any> args) = nullptr;
  // A default-constructed value; null for types without a default constructor.
  std::any (*defaultValue)() = nullptr;
  // A value built from its stored fields, args[i] holding field i's C++ type; an argument of the
  // wrong number or type throws TypeException. Null for enumerations and entities.
  std::any (*construct)(std::span<const std::any> args) = nullptr;
  // `p` itself when `requested` is this type, TypeException otherwise: the checked conversion of
  // an untyped pointer to a value of this type.
  const void* (*pointerAs)(const void* p, const TypeInfo* requested) = nullptr;
  // What of a value type's storage its description leaves out (MemberCheck.h); empty when nothing.
  // Null for enumerations and entities.
  String (*undescribedStorage)() = nullptr;

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

template <typename Item>
struct FieldMemberOf;
template <typename C, typename M>
struct FieldMemberOf<FieldDesc<C, M>> {
  using type = M;
};

template <Described T>
constexpr bool fieldsComeFirst() {
  bool first = true;
  forEachAttr(typeDescOf<T>, [&](const auto& item, std::size_t i) {
    if (std::decay_t<decltype(item)>::kind == AttrKind::field && i >= fieldCountOf<T>()) first = false;
  });
  return first;
}

template <Described T, std::size_t I>
using FieldType = typename FieldMemberOf<std::tuple_element_t<I, std::decay_t<decltype(typeDescOf<T>.items)>>>::type;

}  // namespace detail

namespace detail {

template <typename M>
FieldInfo fieldInfo(std::string_view name) {
  FieldInfo f{name, &typeid(M)};
  if constexpr (ReadableFromText<M>) {
    f.strepToValue = [](std::string_view text) -> std::any { return strepToValue<M>(text); };
  }
  if constexpr (HasTextForm<M>) {
    f.valueToStrep = [](const std::any& v) -> String { return Kelp::valueToStrep(held<M>(v, "field")); };
  }
  return f;
}

template <Described T, std::size_t... I>
std::vector<FieldInfo> fieldsOf(std::index_sequence<I...>) {
  return {fieldInfo<FieldType<T, I>>(std::get<I>(typeDescOf<T>.items).name)...};
}

// Builds T from its fields: through the constructor that takes them all in order where T has one;
// otherwise a value made from the first field alone, or a default value, gets the rest assigned.
template <Described T, std::size_t... I>
T buildFromFields(std::span<const std::any> args, std::index_sequence<I...>) {
  constexpr std::size_t n = sizeof...(I);
  if (args.size() != n) throwArgumentCount(typeNameOf<T>(), n, args.size());
  auto arg = [&]<std::size_t J>(std::integral_constant<std::size_t, J>) -> const FieldType<T, J>& {
    return argumentAt<FieldType<T, J>>(typeNameOf<T>(), args, J);
  };
  auto assignFrom = [&]<std::size_t J>(T& v, std::integral_constant<std::size_t, J> j) {
    v.*(std::get<J>(typeDescOf<T>.items).member) = arg(j);
  };
  if constexpr (std::is_constructible_v<T, const FieldType<T, I>&...>) {
    return T(arg(std::integral_constant<std::size_t, I>{})...);
  } else if constexpr (n > 0 && std::is_constructible_v<T, const FieldType<T, 0>&>) {
    T v(arg(std::integral_constant<std::size_t, 0>{}));
    (assignFrom(v, std::integral_constant<std::size_t, I>{}), ...);
    return v;
  } else {
    static_assert(std::is_default_constructible_v<T>, "a value type must be buildable from its fields");
    T v{};
    (assignFrom(v, std::integral_constant<std::size_t, I>{}), ...);
    return v;
  }
}

}  // namespace detail

// The registry entry of a described value type or enumeration, built once.
template <typename T>
const TypeInfo* typeInfo() {
  static const TypeInfo info = [] {
    TypeInfo t;
    t.cppType = &typeid(T);
    if constexpr (DescribedEnum<T>) {
      t.name = enumDescOf<T>.typeName;
      t.kind = TypeKind::enumeration;
      t.enumerators.assign(enumDescOf<T>.entries.begin(), enumDescOf<T>.entries.end());
    } else {
      t.name = typeNameOf<T>();
      t.kind = TypeKind::value;
      t.attributes = attributesOf<T>();
      static_assert(detail::fieldsComeFirst<T>(), "stored fields come first in a type's description");
      t.fields = detail::fieldsOf<T>(std::make_index_sequence<fieldCountOf<T>()>{});
      t.construct = [](std::span<const std::any> args) -> std::any {
        return detail::buildFromFields<T>(args, std::make_index_sequence<fieldCountOf<T>()>{});
      };
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
      t.undescribedStorage = &Kelp::undescribedStorage<T>;
    }
    // A type that holds a collection declares kelpNoStringConstructor: building it, or a value that
    // holds one, from text is a programming error (its range constructor asserts), so generic code
    // is not offered the entry.
    if constexpr (ReadableFromText<T>) {
      t.strepToValue = [](std::string_view text) -> std::any { return strepToValue<T>(text); };
    }
    if constexpr (std::is_default_constructible_v<T>) {
      t.defaultValue = []() -> std::any { return T{}; };
    }
    t.pointerAs = [](const void* p, const TypeInfo* requested) -> const void* {
      if (requested == nullptr || requested->cppType == nullptr || *requested->cppType != typeid(T)) {
        GenericIfImpl::throwTypeException(requested != nullptr ? requested->name : "null", typeInfo<T>()->name);
      }
      return p;
    };
    t.valueToStrep = [](const std::any& v) -> String {
      return Kelp::valueToStrep(detail::held<T>(v, typeInfo<T>()->name));
    };
    t.valueToJson = [](const std::any& v) -> String {
      return Kelp::valueToJson(detail::held<T>(v, typeInfo<T>()->name));
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
