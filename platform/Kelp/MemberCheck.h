#pragma once
// Is every data member of a described type in its description?
//
// A member left out of a value type's description is left out of everything generic code derives
// from it: the text form, equality, the hash, the byte form and JSON. Two copies that differ only in
// it compare equal and hash alike, and a record written to a shared table loses it. C++ cannot list
// a class's members, so the check reads the layout instead: the described fields, laid out by their
// offsets, may leave no gap wider than the alignment padding the next field needs, and the type may
// be no larger than its last field rounded up to its alignment. A member that sits between or after
// the described fields is found this way.
//
// What it cannot find is a member small enough to fit in padding the layout has anyway (a bool
// after three others before an 8-octet field). Telling such a member from padding would need the
// constructor's writes, and compilers write padding too (adjacent constant initializers merge into
// one wide store), so that test would refuse sound types.

#include <algorithm>
#include <cstddef>
#include <new>
#include <type_traits>
#include <vector>

#include "platform/Kelp/ValueType.h"
#include "platform/Pico/Format.h"

namespace Kelp {

namespace detail {

struct FieldExtent {
  std::size_t offset;
  std::size_t size;
  std::size_t align;
  const char* name;
};

// Builds a T in `where`: by its default constructor, or from a default value of its first field.
template <Described T>
T* buildFresh(void* where) {
  if constexpr (std::is_default_constructible_v<T>) {
    return new (where) T;
  } else {
    using First = std::remove_cvref_t<decltype(std::declval<T&>().*(std::get<0>(typeDescOf<T>.items).member))>;
    return new (where) T(First{});
  }
}

}  // namespace detail

// What of T's storage its description does not account for, in words; empty when all is accounted.
// A type that describes no stored field (an address, a label) keeps its own text form, equality and
// hash, and nothing generic reads its members: it is not checked.
template <Described T>
String undescribedStorage() {
  if constexpr (fieldCountOf<T>() == 0) return {};
  alignas(T) unsigned char storage[sizeof(T)];
  T* v = detail::buildFresh<T>(storage);
  const auto* base = reinterpret_cast<const unsigned char*>(v);
  std::vector<detail::FieldExtent> fields;
  forEachField(typeDescOf<T>, [&](const auto& f) {
    using M = std::remove_cvref_t<decltype(v->*(f.member))>;
    const auto* at = reinterpret_cast<const unsigned char*>(&(v->*(f.member)));
    fields.push_back({static_cast<std::size_t>(at - base), sizeof(M), alignof(M), f.name});
  });
  v->~T();
  std::sort(fields.begin(), fields.end(), [](const auto& a, const auto& b) { return a.offset < b.offset; });

  // A polymorphic type starts with its table pointer.
  const std::size_t start = std::is_polymorphic_v<T> ? sizeof(void*) : 0;
  std::size_t cursor = start;
  for (const auto& f : fields) {
    const std::size_t padded = (cursor + f.align - 1) / f.align * f.align;
    if (f.offset > padded) {
      return fmt::format("{}: bytes {} to {} before field '{}' belong to no described field", typeNameOf<T>(),
                         cursor, f.offset - 1, f.name);
    }
    cursor = std::max(cursor, f.offset + f.size);
  }
  const std::size_t end = (cursor + alignof(T) - 1) / alignof(T) * alignof(T);
  if (sizeof(T) > end) {
    return fmt::format("{}: bytes {} to {} after the last described field belong to no described field",
                       typeNameOf<T>(), cursor, sizeof(T) - 1);
  }
  return {};
}

}  // namespace Kelp
