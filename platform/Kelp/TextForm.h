#pragma once
// Text forms: how a value of any framework type is printed and parsed.
//
// TextForm<T> has two static members:
//   static void print(String& out, const T& v);   // appends the long text form
//   static void parse(CharRange& r, T& v);         // reads it back, throws RangeException
// The framework provides them for bool ("True"/"False", as in the Python-like long form), the
// unsigned integers (decimal), strings (single-quoted with backslash escapes) and, elsewhere, for
// enumerations and described value types. A type with a text form of its own specializes TextForm.
//
// Everything textual in the library goes through these:
//   Kelp::valueToStrep(v)            the long text form as a String
//   Kelp::strepToValue<T>(text)      parse a whole text; trailing characters are an error (only a
//                                    type that is ReadableFromText)
//   Kelp::deserializeAttr<T>(r, "x") parse one attribute value; errors name the attribute "x"

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/Kelp/CharRange.h"
#include "platform/Kelp/Exception.h"

namespace Kelp {

using String = std::string;
using Bytes = std::vector<std::uint8_t>;

// A type's name carried as a value, for overloads and hooks found by argument-dependent lookup.
template <typename T>
struct Tag {};

template <typename T>
struct TextForm;

template <typename T>
concept HasTextForm = requires(String& out, const T& v, CharRange& r, T& w) {
  TextForm<T>::print(out, v);
  TextForm<T>::parse(r, w);
};

// Whether a whole value of T can be read from text. A type that holds a collection declares
// kelpNoStringConstructor (its range constructor asserts), and a text form may say that it cannot
// read (kReadable false: a described type holding such a field, Kelp/ValueType.h). Reading text
// into such a type is refused where it is written: strepToValue does not compile for it.
template <typename T>
concept ReadableFromText = HasTextForm<T> && (!requires { T::kelpNoStringConstructor; }) &&
                           (!requires { TextForm<T>::kReadable; } || TextForm<T>::kReadable);

template <>
struct TextForm<bool> {
  static void print(String& out, bool v) { out += v ? "True" : "False"; }
  static void parse(CharRange& r, bool& v);
};

// Reads an unsigned decimal number of at most `maxValue`, without leading zeros; the whole run of
// digits is consumed.
std::uint64_t parseUnsigned(CharRange& r, std::uint64_t maxValue);
void printUnsigned(String& out, std::uint64_t v);

template <typename T>
  requires std::unsigned_integral<T> && (!std::same_as<T, bool>)
struct TextForm<T> {
  static void print(String& out, T v) { printUnsigned(out, v); }
  static void parse(CharRange& r, T& v) { v = static_cast<T>(parseUnsigned(r, T(~T(0)))); }
};

// Strings print single-quoted; a backslash escapes the quote, the backslash itself, \n \r \t, and
// any other byte outside printable ASCII as \xHH, so every byte string survives print then parse.
template <>
struct TextForm<String> {
  static void print(String& out, const String& v) { printQuoted(out, v); }
  static void parse(CharRange& r, String& v) { v = parseQuoted(r); }
  static void printQuoted(String& out, std::string_view v);
  static String parseQuoted(CharRange& r);
};

// Byte strings print as b'...' with the same escapes.
template <>
struct TextForm<Bytes> {
  static void print(String& out, const Bytes& v);
  static void parse(CharRange& r, Bytes& v);
};

template <HasTextForm T>
String valueToStrep(const T& v) {
  String out;
  TextForm<T>::print(out, v);
  return out;
}

// Reads one value of T from the range (a described type through its range constructor).
template <HasTextForm T>
T parseValue(CharRange& r) {
  if constexpr (std::is_constructible_v<T, CharRange&>) {
    return T(r);
  } else {
    T v{};
    TextForm<T>::parse(r, v);
    return v;
  }
}

// Reads the value of attribute `attrName`; a RangeException names the attribute.
template <HasTextForm T>
T deserializeAttr(CharRange& r, std::string_view attrName) {
  try {
    return parseValue<T>(r);
  } catch (const RangeException& e) {
    rethrowFromDeserializeAttr(e, attrName);
  }
}

// Parses the whole of `text` as a T; anything left after the value is an error.
template <ReadableFromText T>
T strepToValue(std::string_view text, Tag<T> = {}) {
  CharRange r(text);
  T v = parseValue<T>(r);
  r.checkAllDataConsumed();
  return v;
}

// Parses `text` as an unsigned decimal number of at most 64 bits. Empty text, a character other
// than a digit, or a number above 2^64-1 throws RangeException naming `typeName`:
// "RouteTarget: expected a decimal number, found "1x"".
std::uint64_t dectol(std::string_view text, std::string_view typeName);

}  // namespace Kelp
