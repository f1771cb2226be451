#pragma once
// JSON of a value, from the same description that gives its text form, so that a value type
// states its fields once for text, bytes and JSON alike:
//   number, bool        a JSON number, true or false
//   enumeration         its name (or number) as a JSON string, as the text form spells it
//   text                a JSON string
//   value type          an object of its fields by name; a type of one field (an identifier, a
//                       preference) is that field's JSON
//   anything else       its text form as a JSON string (an address, a route target, ...)
// A type that wants another JSON form (null for an unset number, say) declares a function
// `void kelpJson(Kelp::String& out, const T& v)` that argument-dependent lookup finds.
//
//   Kelp::String j = Kelp::valueToJson(maxRoutes);   // {"routes":1000,"warningThreshold":800,...}

#include <cstdint>
#include <string_view>
#include <type_traits>

#include "platform/Kelp/ValueType.h"

namespace Kelp {

// Appends `s` as a JSON string: quoted, with quotes, backslashes and control bytes escaped, and
// bytes above 0x7F as \u00XX (a text field holds bytes, not UTF-8).
void jsonString(String& out, std::string_view s);
void jsonNumber(String& out, std::uint64_t v);
void jsonNumber(String& out, std::int64_t v);

template <typename T>
concept HasJsonHook = requires(String& out, const T& v) { kelpJson(out, v); };

template <typename T>
void jsonOf(String& out, const T& v);

template <typename T>
void jsonOf(String& out, const T& v) {
  if constexpr (HasJsonHook<T>) {
    kelpJson(out, v);
  } else if constexpr (std::is_same_v<T, bool>) {
    out += v ? "true" : "false";
  } else if constexpr (std::is_enum_v<T>) {
    jsonString(out, valueToStrep(v));
  } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
    jsonNumber(out, static_cast<std::int64_t>(v));
  } else if constexpr (std::is_integral_v<T>) {
    jsonNumber(out, static_cast<std::uint64_t>(v));
  } else if constexpr (std::is_same_v<T, String>) {
    jsonString(out, v);
  } else if constexpr (Described<T>) {
    if constexpr (fieldCountOf<T>() == 1) {
      forEachField(typeDescOf<T>, [&](const auto& f) { jsonOf(out, v.*(f.member)); });
    } else {
      out += '{';
      bool first = true;
      forEachField(typeDescOf<T>, [&](const auto& f) {
        if (!first) out += ',';
        first = false;
        jsonString(out, f.name);
        out += ':';
        jsonOf(out, v.*(f.member));
      });
      out += '}';
    }
  } else {
    static_assert(HasTextForm<T>, "a value in JSON needs a description, a text form or a kelpJson");
    jsonString(out, valueToStrep(v));
  }
}

template <typename T>
String valueToJson(const T& v) {
  String out;
  jsonOf(out, v);
  return out;
}

}  // namespace Kelp
