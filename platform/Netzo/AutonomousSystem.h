#pragma once
// AutonomousSystem: a BGP AS number, two or four octets wide (RFC 6793), with the text notations
// of RFC 5396.
//
//   asplain   the number in decimal: 65000, 70000, 4294967295
//   asdot     AS numbers below 65536 in decimal, larger ones as high.low of their two 16-bit
//             halves: 65000, 1.4464, 65535.65535
//
// Both are read back; the reader also takes asdot+ (high.low for any number, 0.65000). Each half
// of a dotted number is at most 65535, the plain form at most 4294967295, and no part may have a
// leading zero or be empty.
//
//   Netzo::AutonomousSystem as(70000);
//   as.displayString(false);   // "70000"
//   as.displayString(true);    // "1.4464"
//   as.stringValueIs("1.4464");   // throws Kelp::RangeException on bad text

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <utility>
#include <string_view>

#include "platform/Kelp/Json.h"
#include "platform/Kelp/TextForm.h"
#include "platform/Kelp/ValueType.h"

namespace Netzo {

class AutonomousSystem {
 public:
  // RFC 6793: the two-octet stand-in for a four-octet AS number.
  static constexpr std::uint32_t asTrans = 23456;

  constexpr AutonomousSystem() = default;
  constexpr AutonomousSystem(std::uint32_t asn) : value_(asn) {}  // NOLINT: a number is an AS
  // Parses asplain, asdot or asdot+; throws Kelp::RangeException naming the text.
  static AutonomousSystem fromString(std::string_view text);

  constexpr std::uint32_t value() const { return value_; }

  // asplain, or asdot when `asDot` is true.
  Kelp::String displayString(bool asDot) const;
  // Replaces the number with the one `text` names. Bad text throws Kelp::RangeException
  // "invalid AS number "<text>"" and leaves the number unchanged.
  void stringValueIs(std::string_view text);
  // asplain.
  Kelp::String stringValue() const { return displayString(false); }

  std::uint32_t hash(std::uint32_t seed) const;

  friend constexpr bool operator==(AutonomousSystem a, AutonomousSystem b) { return a.value_ == b.value_; }
  friend constexpr std::strong_ordering operator<=>(AutonomousSystem a, AutonomousSystem b) {
    return a.value_ <=> b.value_;
  }
  friend std::ostream& operator<<(std::ostream& os, AutonomousSystem a) { return os << a.stringValue(); }
  template <typename H>
  friend H AbslHashValue(H h, AutonomousSystem a) {
    return H::combine(std::move(h), a.value_);
  }

  friend constexpr auto kelpType(Kelp::Tag<AutonomousSystem>) {
    return Kelp::valueType<AutonomousSystem>("Netzo::AutonomousSystem",
                                             Kelp::function("value", &AutonomousSystem::value),
                                             Kelp::function("displayString", &AutonomousSystem::displayString));
  }

 private:
  std::uint32_t value_ = 0;
};

// In JSON (Kelp/Json.h): the number, as the long text form has it.
inline void kelpJson(Kelp::String& out, AutonomousSystem a) { Kelp::jsonNumber(out, std::uint64_t{a.value()}); }

}  // namespace Netzo

// Long text form: asplain; the parser also reads asdot and asdot+.
template <>
struct Kelp::TextForm<Netzo::AutonomousSystem> {
  static void print(String& out, Netzo::AutonomousSystem v) { printUnsigned(out, v.value()); }
  static void parse(CharRange& r, Netzo::AutonomousSystem& v);
};

template <>
struct std::hash<Netzo::AutonomousSystem> {
  std::size_t operator()(Netzo::AutonomousSystem a) const noexcept { return a.hash(0); }
};
