#pragma once
// RouteTarget: the route-target extended community (RFC 4360 section 4, RFC 5668) as a 64-bit value.
//
// `value` holds the eight octets of the community in host order, so that its big-endian octets are
// the community as it travels:
//
//   bits 63..56  type: 0 two-octet AS, 1 IPv4 address, 2 four-octet AS
//   bits 55..48  subtype: 2 for a route target
//   bits 47..0   global and local administrator, laid out by type:
//                  type 0: AS in 47..32,   local administrator (32 bits) in 31..0
//                  type 1: IPv4 address in 47..16, local administrator (16 bits) in 15..0
//                  type 2: AS in 47..16,   local administrator (16 bits) in 15..0
//
// Operators write route targets as text, which stringValueIs() reads and toStrep() writes:
//
//   100:5          AS below 65536 with a 32-bit number            -> type 0
//   70000:5        AS of 65536 or more with a 16-bit number       -> type 2
//   1.4464:5       the same AS in asdot notation (RFC 5396)       -> type 2
//   100L:5         "L" asks for the four-octet form of a small AS -> type 2
//   10.0.0.1:7     IPv4 address with a 16-bit number              -> type 1
//   0x0003020000000001   "0x" and 16 hex digits, stored as is (any type and subtype)
//
// A value that is not a route target (type above 2 or subtype other than 2) prints in the hex
// form. Every text that toStrep() prints parses back to the same value.
//
//   Routing::Bgp::RouteTarget rt;
//   rt.stringValueIs("70000:5");   // throws Kelp::RangeException "RouteTarget: ..." on bad text
//   rt.toStrep(true);              // "1.4464:5"
//   rt.value;                      // 0x0202000111700005
//
// In JSON a RouteTarget is the hex form as a string, "0x0202000111700005".
//
// As a framework value type a RouteTarget is its bare number: valueToStrep gives the decimal
// value, operator<< streams the number with the stream's own formatting, and the text constructor
// reads an unsigned 64-bit number. The route-target notation is only toStrep()/stringValue() and
// stringValueIs().

#include <cstdint>
#include <ostream>
#include <string_view>

#include "platform/Kelp/EnumType.h"
#include "platform/Kelp/Json.h"
#include "platform/Kelp/TextForm.h"
#include "platform/Kelp/ValueType.h"
#include "platform/Netzo/AutonomousSystem.h"
#include "platform/Netzo/IpAddr.h"

namespace Routing::Bgp {

class RouteTarget {
 public:
  // The type octet. invalidType lies outside an octet so it can never be read off the wire.
  KELP_MEMBER_ENUM(enum class, ExtCommType, std::uint32_t, "Routing::Bgp::RouteTarget::ExtCommType", named,
                   twoOctetAs = 0,
                   ipv4Address = 1,
                   fourOctetAs = 2,
                   invalidType = 256)
  // The subtype octet; route targets are subtype 2 of each type.
  KELP_MEMBER_ENUM(enum class, ExtCommSubtype, std::uint32_t, "Routing::Bgp::RouteTarget::ExtCommSubtype", named,
                   routeTarget = 2,
                   invalidSubtype = 256)

  // The whole community, host order. 0 by default: type 0, subtype 0, not a route target.
  std::uint64_t value = 0;

  constexpr RouteTarget() = default;
  constexpr explicit RouteTarget(std::uint64_t v) : value(v) {}
  // Reads the framework form: the attribute "value" as an unsigned 64-bit number.
  explicit RouteTarget(Kelp::CharRange& r) : value(Kelp::deserializeAttr<std::uint64_t>(r, "value")) {}

  // These three build the words older configuration code stored, and differ from what the text
  // parser builds: none writes the type octet, and each writes its own constant into the subtype
  // octet (0, 2 and 1). fromTwoOctetAs needs an AS below 65536.
  static RouteTarget fromTwoOctetAs(Netzo::AutonomousSystem asn, std::uint32_t localAdmin);
  static RouteTarget fromFourOctetAs(Netzo::AutonomousSystem asn, std::uint16_t localAdmin);
  static RouteTarget fromIpaddress(Netzo::IpAddr addr, std::uint16_t localAdmin);

  // Read from the type octet alone (the subtype is not required to be 2).
  ExtCommType extCommType() const;
  ExtCommSubtype extCommSubtype() const;
  // Type octet at most 2 and subtype octet 2.
  bool extCommValueIsValidRouteTarget() const;
  // Type 0: bits 47..32; types 1 and 2: bits 47..16; otherwise 0.
  std::uint32_t globalAdmin() const;
  // Type 0: bits 31..0; types 1 and 2: bits 15..0; otherwise 0.
  std::uint32_t localAdmin() const;
  // Type 0: bits 47..32; type 2: bits 47..16; otherwise AS 0.
  Netzo::AutonomousSystem asn() const;
  // Type 1: bits 47..16 as an address; otherwise 0.0.0.0.
  Netzo::IpAddr ipv4Addr() const;

  // Replaces `value` with the route target `text` names. Bad text throws Kelp::RangeException with
  // a "RouteTarget: " message (or the decimal reader's or address reader's own), or, for the hex
  // form, std::invalid_argument / std::out_of_range "stoull"; `value` is then unchanged.
  void stringValueIs(const Kelp::String& text);
  // The strict reading for text an operator typed (a command line, a configuration file): the
  // text must be exactly one of the forms above, every number in decimal without sign or leading
  // zero and within what its form holds, so that it names the value it reads and prints back to
  // it in the same notation. Where stringValueIs() would quietly drop bits or stop early
  // (100:4294967296, 65536.0:1, 0x02020001117000zz, a leading blank) this throws
  // Kelp::RangeException "RouteTarget: "<text>": <what is wrong>", the text escaped and cut to 64
  // bytes. What it accepts it reads exactly as stringValueIs() does.
  static RouteTarget fromOperatorText(std::string_view text);
  // The operator's text; AS numbers of 65536 and more in asdot notation when `asDot`.
  Kelp::String toStrep(bool asDot) const;
  Kelp::String stringValue() const { return toStrep(false); }
  const RouteTarget& constMe() const { return *this; }

  // The hash of `value`.
  std::uint32_t hash(std::uint32_t seed) const;

  friend bool operator==(const RouteTarget& a, const RouteTarget& b) { return a.value == b.value; }
  friend std::ostream& operator<<(std::ostream& os, const RouteTarget& rt) { return os << rt.value; }

  friend constexpr auto kelpType(Kelp::Tag<RouteTarget>) {
    return Kelp::valueType<RouteTarget>(
        "Routing::Bgp::RouteTarget", Kelp::field("value", &RouteTarget::value),
        Kelp::function("extCommType", &RouteTarget::extCommType),
        Kelp::function("extCommSubtype", &RouteTarget::extCommSubtype),
        Kelp::function("extCommValueIsValidRouteTarget", &RouteTarget::extCommValueIsValidRouteTarget),
        Kelp::function("globalAdmin", &RouteTarget::globalAdmin),
        Kelp::function("localAdmin", &RouteTarget::localAdmin), Kelp::function("asn", &RouteTarget::asn),
        Kelp::function("ipv4Addr", &RouteTarget::ipv4Addr), Kelp::function("toStrep", &RouteTarget::toStrep),
        Kelp::function("stringValue", &RouteTarget::stringValue),
        Kelp::function("stringValueIs", &RouteTarget::stringValueIs));
  }
};

// In JSON (Kelp/Json.h): the whole community as "0x" and 16 hex digits, a string whatever its size
// so that readers holding numbers as doubles lose nothing and every value has one form.
void kelpJson(Kelp::String& out, const RouteTarget& rt);

}  // namespace Routing::Bgp

// The framework text of a RouteTarget is its bare number, not the Value(...) form.
template <>
struct Kelp::TextForm<Routing::Bgp::RouteTarget> {
  static void print(String& out, const Routing::Bgp::RouteTarget& v) { printUnsigned(out, v.value); }
  static void parse(CharRange& r, Routing::Bgp::RouteTarget& v) { v = Routing::Bgp::RouteTarget(r); }
};
