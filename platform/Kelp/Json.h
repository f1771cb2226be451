#pragma once
// JSON of a value, from the same description that gives its text form, so that a value type
// states its fields once for text, bytes and JSON alike:
//   bool                true or false
//   integer             a JSON number; beyond 2^53 in size a JSON string of the decimal number,
//                       since readers that hold numbers as doubles (JavaScript, jq) would round it
//   enumeration         its name (or number) as a JSON string, as the text form spells it
//   text                a JSON string (see jsonString for bytes that are not UTF-8)
//   value type          an object of its fields by name; a type of one field (an identifier, a
//                       preference) is that field's JSON; a type described by functions only (an
//                       address, a prefix, an AFI/SAFI pair) is its text form as a JSON string
//   anything else       its text form as a JSON string
// A type that wants another JSON form (a number for an AS number, null for an unset number) declares
// a function `void kelpJson(Kelp::String& out, const T& v)` that argument-dependent lookup finds.
// Only a type with neither fields nor a text form prints as {}.
//
//   Kelp::String j = Kelp::valueToJson(maxRoutes);   // {"routes":1000,"warningThreshold":800,...}
//   Kelp::valueToJson(Netzo::IpGenPrefix::fromString("10.0.0.0/8"));   // "10.0.0.0/8"

#include <cstdint>
#include <string_view>
#include <type_traits>

#include "platform/Kelp/ValueType.h"

namespace Kelp {

// Appends `s` as a JSON string, quotes, backslashes and control characters escaped. A text field
// holds bytes: where they are valid UTF-8 they stand as they are (so "p\xc3\xa4" reads back as
// "pä"); each byte that is not part of a valid UTF-8 sequence is written \udcXX, XX its value, a
// lone low surrogate no valid text contains (Python's "surrogateescape" reads it back to the byte).
void jsonString(String& out, std::string_view s);
// The largest integer a double holds exactly, and every integer below it: 2^53.
inline constexpr std::uint64_t jsonExactLimit = std::uint64_t{1} << 53;
// A JSON number, or the decimal number as a JSON string beyond jsonExactLimit in size.
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
    if constexpr (fieldCountOf<T>() == 0 && HasTextForm<T>) {
      jsonString(out, valueToStrep(v));
    } else if constexpr (fieldCountOf<T>() == 1) {
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
