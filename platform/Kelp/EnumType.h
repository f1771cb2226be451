#pragma once
// Enumerations known to the framework.
//
// An enumeration is declared and described in one list, so that an enumerator cannot be added
// without its name:
//
//   KELP_ENUM(enum class, OutDelayApplyType, std::uint8_t, "Routing::OutDelayApplyType", named,
//             applyAll = 0,  // every advertisement
//             applyNew = 1)
//
// declares `enum class OutDelayApplyType : std::uint8_t { applyAll = 0, applyNew = 1 };`, its
// description (each enumerator named by its identifier) and the functions of KELP_ENUM_FUNCTIONS.
// The first argument is `enum class` or `enum`; `named` or `any` chooses the EnumNumbers below.
// KELP_MEMBER_ENUM does the same inside a class. What the framework reads is the hook
// `kelpEnum(Kelp::Tag<E>)`, found through argument-dependent lookup, that returns an EnumDesc: an
// enumeration declared elsewhere, or one whose text differs from its identifiers, would write it
// by hand, next to KELP_ENUM_FUNCTIONS(E).
//
// Its long text form is the enumerator's name; a value without a name (read off the wire, say)
// prints as its decimal number so that nothing is hidden. The parser takes a name, or the number
// of a named enumerator, and refuses anything else: code acting on an enumeration (a switch over
// its kinds, an assertion on the default branch) may rely on a value that came from text being
// one it knows. An enumeration of codes that arrive from peers and are carried on whatever their
// number (the AFI and SAFI of a capability, say) is declared with EnumNumbers::any and also reads
// numbers that name no enumerator. The runtime descriptor Kelp::EnumType<U> (U the storage type) answers name and number
// lookups for generic code and the type registry.

#include <array>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/Kelp/TextForm.h"

namespace Kelp {

// One enumerator: the descriptor entry that the ...Instance lookups return.
struct EnumEntryInfo {
  std::uint64_t value;
  std::string_view name;
};

// Which numbers the text of an enumeration may give: those of its enumerators, or any that fits.
enum class EnumNumbers : std::uint8_t { named, any };

template <typename E, std::size_t N>
struct EnumDesc {
  std::string_view typeName;
  std::array<EnumEntryInfo, N> entries;
  EnumNumbers numbers = EnumNumbers::named;
};

// An enumeration whose texts are not its identifiers (a protocol's own names: "OPEN",
// "AS_PATH") is described by hand, each enumerator with its text; KELP_ENUM below serves the rest.
template <typename E>
struct EnumEntry {
  E value;
  const char* name;
};

template <typename E, std::size_t N>
constexpr EnumDesc<E, N> enumType(std::string_view typeName, const EnumEntry<E> (&entries)[N],
                                  EnumNumbers numbers = EnumNumbers::named) {
  EnumDesc<E, N> d{typeName, {}, numbers};
  for (std::size_t i = 0; i < N; ++i) {
    d.entries[i] = EnumEntryInfo{static_cast<std::uint64_t>(entries[i].value), entries[i].name};
  }
  return d;
}

template <typename E>
concept DescribedEnum = std::is_enum_v<E> && requires { kelpEnum(Tag<E>{}); };

template <DescribedEnum E>
inline constexpr auto enumDescOf = kelpEnum(Tag<E>{});

// The runtime descriptor of an enumeration stored in U.
template <typename U>
class EnumType {
 public:
  EnumType(std::string_view typeName, const EnumEntryInfo* entries, std::size_t count,
           EnumNumbers numbers = EnumNumbers::named)
      : typeName_(typeName), entries_(entries, entries + count), numbers_(numbers) {}

  std::string_view typeName() const { return typeName_; }
  const std::vector<EnumEntryInfo>& entries() const { return entries_; }

  const EnumEntryInfo* instance(U value) const {
    for (const auto& e : entries_) {
      if (e.value == static_cast<std::uint64_t>(value)) return &e;
    }
    return nullptr;
  }
  const EnumEntryInfo* instance(std::string_view name) const {
    for (const auto& e : entries_) {
      if (e.name == name) return &e;
    }
    return nullptr;
  }
  // The enumerator's name; for a value without one, its decimal number.
  String stringValue(U value) const {
    const EnumEntryInfo* e = instance(value);
    return e != nullptr ? String(e->name) : std::to_string(static_cast<std::uint64_t>(value));
  }
  String valueToStrep(U value) const { return stringValue(value); }
  // Reads an enumerator name, or the decimal number of an enumerator (of any value that fits U for
  // EnumNumbers::any); anything else throws RangeException at the offset where the word starts.
  U sequenceToValue(CharRange& r) const;

 private:
  std::string_view typeName_;
  std::vector<EnumEntryInfo> entries_;
  EnumNumbers numbers_;
};

constexpr bool isIdentifierChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// Reads a run of identifier characters [A-Za-z0-9_].
std::string_view readIdentifier(CharRange& r);

template <typename U>
U EnumType<U>::sequenceToValue(CharRange& r) const {
  const std::size_t start = r.position();
  if (r.peek() >= '0' && r.peek() <= '9') {
    // Read in place, so that an error reports its offset in the whole text.
    const std::uint64_t n = parseUnsigned(r, static_cast<std::uint64_t>(U(~U(0))));
    if (readIdentifier(r).empty()) {
      if (numbers_ == EnumNumbers::any || instance(static_cast<U>(n)) != nullptr) return static_cast<U>(n);
      r.failAt(start, std::string("no ") + String(typeName_) + " enumerator numbered " + std::to_string(n));
    }
  } else if (const EnumEntryInfo* e = instance(readIdentifier(r))) {
    return static_cast<U>(e->value);
  }
  r.failAt(start, std::string("expected a ") + String(typeName_) + " enumerator");
}

template <DescribedEnum E>
const EnumType<std::underlying_type_t<E>>& enumTypeOf() {
  static const EnumType<std::underlying_type_t<E>> t(enumDescOf<E>.typeName, enumDescOf<E>.entries.data(),
                                                     enumDescOf<E>.entries.size(), enumDescOf<E>.numbers);
  return t;
}

template <DescribedEnum E>
struct TextForm<E> {
  using U = std::underlying_type_t<E>;
  static void print(String& out, E v) { out += enumTypeOf<E>().stringValue(static_cast<U>(v)); }
  static void parse(CharRange& r, E& v) { v = static_cast<E>(enumTypeOf<E>().sequenceToValue(r)); }
};

namespace detail {

// One item of KELP_ENUM's list, `a = 1` or `a`, becomes `((EnumeratorValue<E>)E::a = 1)`: the cast
// binds before the assignment, and the assignment keeps E::a and drops the initializer (which the
// declaration has used already), so each item gives its enumerator's value.
template <typename E>
struct EnumeratorValue {
  E value;
  constexpr explicit EnumeratorValue(E v) : value(v) {}
  template <typename T>
  constexpr EnumeratorValue operator=(const T&) {  // NOLINT: keeps the enumerator
    return *this;
  }
  constexpr operator E() const { return value; }  // NOLINT
};

// Not constexpr: reached during constant evaluation, it stops the build.
void enumeratorNamesDoNotMatchTheValues();

// The names of a stringified enumerator list ("a = 1, b, c = (2 | 4)"): each item's leading
// identifier. Items end at the commas outside parentheses, as the preprocessor split the list for
// the values (a comma or parenthesis in a character literal would split it otherwise); a list
// giving other than N names does not compile.
template <std::size_t N>
constexpr std::array<std::string_view, N> enumeratorNames(std::string_view list) {
  std::array<std::string_view, N> names{};
  std::size_t count = 0;
  for (std::size_t i = 0; i < list.size(); ++i) {  // i at the start of an item, or its comma
    while (i < list.size() && list[i] == ' ') ++i;
    const std::size_t start = i;
    while (i < list.size() && isIdentifierChar(list[i])) ++i;
    if (i == list.size() && i == start) break;  // after a trailing comma
    if (i == start || count == N) enumeratorNamesDoNotMatchTheValues();
    names[count++] = list.substr(start, i - start);
    for (int depth = 0; i < list.size() && (list[i] != ',' || depth > 0); ++i) {
      depth += list[i] == '(' ? 1 : list[i] == ')' ? -1 : 0;
    }
  }
  if (count != N) enumeratorNamesDoNotMatchTheValues();
  return names;
}

template <typename E, std::size_t N>
consteval EnumDesc<E, N> enumFromList(std::string_view typeName, std::string_view list, const E (&values)[N],
                                      EnumNumbers numbers) {
  const std::array<std::string_view, N> names = enumeratorNames<N>(list);
  EnumDesc<E, N> d{typeName, {}, numbers};
  for (std::size_t i = 0; i < N; ++i) d.entries[i] = EnumEntryInfo{static_cast<std::uint64_t>(values[i]), names[i]};
  return d;
}

}  // namespace detail
}  // namespace Kelp

// KELP_PP_FOR_EACH(m, a, x, y, ...) gives m(a, x) m(a, y) ...: each rescan in KELP_PP_EXPAND takes
// one item, enough for 86; a longer list does not compile.
#define KELP_PP_PARENS ()
#define KELP_PP_EXPAND(...) KELP_PP_EXPAND3(KELP_PP_EXPAND3(KELP_PP_EXPAND3(KELP_PP_EXPAND3(__VA_ARGS__))))
#define KELP_PP_EXPAND3(...) KELP_PP_EXPAND2(KELP_PP_EXPAND2(KELP_PP_EXPAND2(KELP_PP_EXPAND2(__VA_ARGS__))))
#define KELP_PP_EXPAND2(...) KELP_PP_EXPAND1(KELP_PP_EXPAND1(KELP_PP_EXPAND1(KELP_PP_EXPAND1(__VA_ARGS__))))
#define KELP_PP_EXPAND1(...) __VA_ARGS__
#define KELP_PP_FOR_EACH(m, a, ...) __VA_OPT__(KELP_PP_EXPAND(KELP_PP_FOR_EACH_STEP(m, a, __VA_ARGS__)))
#define KELP_PP_FOR_EACH_STEP(m, a, x, ...) m(a, x) __VA_OPT__(KELP_PP_FOR_EACH_AGAIN KELP_PP_PARENS(m, a, __VA_ARGS__))
#define KELP_PP_FOR_EACH_AGAIN() KELP_PP_FOR_EACH_STEP

#define KELP_ENUM_VALUE_(E, item) ((::Kelp::detail::EnumeratorValue<E>)E::item),
#define KELP_ENUM_DESC_(E, typeName, numbers, ...)                                                   \
  ::Kelp::detail::enumFromList<E>(typeName, #__VA_ARGS__,                                            \
                                  {KELP_PP_FOR_EACH(KELP_ENUM_VALUE_, E, __VA_ARGS__)},              \
                                  ::Kelp::EnumNumbers::numbers)

// Declares the enumeration `kind E : U { ... }` (kind `enum class` or `enum`) at namespace scope,
// its description named `typeName` with EnumNumbers::`numbers`, and KELP_ENUM_FUNCTIONS(E). An
// initializer naming another enumerator of a scoped enumeration qualifies it (`b = E::a`).
#define KELP_ENUM(kind, E, U, typeName, numbers, ...)                                                \
  kind E : U { __VA_ARGS__ };                                                                        \
  constexpr auto kelpEnum(::Kelp::Tag<E>) {                                                          \
    return KELP_ENUM_DESC_(E, typeName, numbers, __VA_ARGS__);                                       \
  }                                                                                                  \
  KELP_ENUM_FUNCTIONS(E)

// The same inside a class: the description a hidden friend, and KELP_ENUM_MEMBER_FUNCTIONS(E).
#define KELP_MEMBER_ENUM(kind, E, U, typeName, numbers, ...)                                         \
  kind E : U { __VA_ARGS__ };                                                                        \
  friend constexpr auto kelpEnum(::Kelp::Tag<E>) {                                                   \
    return KELP_ENUM_DESC_(E, typeName, numbers, __VA_ARGS__);                                       \
  }                                                                                                  \
  KELP_ENUM_MEMBER_FUNCTIONS(E)

// Declares the framework's per-enumeration functions at namespace scope, next to the enumeration:
// E##Instance (by number and by name), stringValue, valueToStrep, operator<< and sequenceToValue.
#define KELP_ENUM_FUNCTIONS(E)                                                                  \
  inline const ::Kelp::EnumEntryInfo* E##Instance(unsigned int v) {                             \
    return ::Kelp::enumTypeOf<E>().instance(static_cast<std::underlying_type_t<E>>(v));          \
  }                                                                                             \
  inline const ::Kelp::EnumEntryInfo* E##Instance(const ::Kelp::String& name) {                 \
    return ::Kelp::enumTypeOf<E>().instance(std::string_view(name));                            \
  }                                                                                             \
  inline ::Kelp::String stringValue(E v) {                                                      \
    return ::Kelp::enumTypeOf<E>().stringValue(static_cast<std::underlying_type_t<E>>(v));       \
  }                                                                                             \
  inline ::Kelp::String valueToStrep(E v) { return ::Kelp::valueToStrep(v); }                   \
  inline std::ostream& operator<<(std::ostream& os, E v) { return os << stringValue(v); }       \
  inline void sequenceToValue(::Kelp::CharRange& r, E* v) { ::Kelp::TextForm<E>::parse(r, *v); }

// The same for an enumeration declared inside a class: E##Instance become static members, the
// others hidden friends.
#define KELP_ENUM_MEMBER_FUNCTIONS(E)                                                           \
  static const ::Kelp::EnumEntryInfo* E##Instance(unsigned int v) {                             \
    return ::Kelp::enumTypeOf<E>().instance(static_cast<std::underlying_type_t<E>>(v));          \
  }                                                                                             \
  static const ::Kelp::EnumEntryInfo* E##Instance(const ::Kelp::String& name) {                 \
    return ::Kelp::enumTypeOf<E>().instance(std::string_view(name));                            \
  }                                                                                             \
  friend ::Kelp::String stringValue(E v) {                                                      \
    return ::Kelp::enumTypeOf<E>().stringValue(static_cast<std::underlying_type_t<E>>(v));       \
  }                                                                                             \
  friend ::Kelp::String valueToStrep(E v) { return ::Kelp::valueToStrep(v); }                   \
  friend std::ostream& operator<<(std::ostream& os, E v) {                                      \
    return os << ::Kelp::enumTypeOf<E>().stringValue(static_cast<std::underlying_type_t<E>>(v)); \
  }                                                                                             \
  friend void sequenceToValue(::Kelp::CharRange& r, E* v) { ::Kelp::TextForm<E>::parse(r, *v); }
