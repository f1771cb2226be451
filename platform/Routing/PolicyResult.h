#pragma once
// What the routing-policy library hands back for a route, and the small routing types it uses.
//
// RoutePreference            administrative distance (lower wins), one octet; prints as a number
// RouteTag                   the 32-bit route tag of OSPF and IS-IS; prints as a number
// Isis::Level                the IS-IS level(s) a result applies to; levelUnset when policy left
//                            it alone
// Ospf::OspfExtMetricType    OSPF external metric type 1 or 2 (RFC 2328 A.4.5, the E bit);
//                            typeUnset when policy left it alone
// Policy::Result_            the attributes every policy result carries: preference, tag, metric
//                            and the policy's own per-result state (dps), which only the policy
//                            library interprets

#include <cstdint>

#include <fmt/format.h>

#include "platform/Kelp/BareTextForm.h"
#include "platform/Kelp/EnumType.h"
#include "platform/Kelp/MaybeU63.h"
#include "platform/Kelp/Ptr.h"
#include "platform/Kelp/ValueType.h"

namespace Routing {

struct RoutePreference : Kelp::ValueBase<RoutePreference> {
  std::uint8_t value = 0;

  constexpr RoutePreference() = default;
  constexpr RoutePreference(std::uint8_t v) : value(v) {}  // NOLINT: a preference is a number

  std::uint32_t hash(std::uint32_t seed) const;
  friend constexpr auto kelpType(Kelp::Tag<RoutePreference>) {
    return Kelp::valueType<RoutePreference>("Routing::RoutePreference", Kelp::field("value", &RoutePreference::value));
  }
};

struct RouteTag : Kelp::ValueBase<RouteTag> {
  std::uint32_t value = 0;

  constexpr RouteTag() = default;
  constexpr RouteTag(std::uint32_t v) : value(v) {}  // NOLINT: a tag is a number

  std::uint32_t hash(std::uint32_t seed) const;
  friend constexpr auto kelpType(Kelp::Tag<RouteTag>) {
    return Kelp::valueType<RouteTag>("Routing::RouteTag", Kelp::field("value", &RouteTag::value));
  }
};

// Defined after the classes: the hidden kelpType friend is only found once the class is complete.
inline std::uint32_t RoutePreference::hash(std::uint32_t seed) const { return Kelp::hashFields(*this, seed); }
inline std::uint32_t RouteTag::hash(std::uint32_t seed) const { return Kelp::hashFields(*this, seed); }

namespace Isis {
KELP_ENUM(enum class, Level, std::uint32_t, "Routing::Isis::Level", named,
          level1 = 1,      // intra-area
          level2 = 2,      // backbone
          level1And2 = 3,  // both
          levelUnset = 4)  // not set by policy
}  // namespace Isis

namespace Ospf {
KELP_ENUM(enum class, OspfExtMetricType, std::uint32_t, "Routing::Ospf::OspfExtMetricType", named,
          type1 = 1,      // external cost added to the internal cost to the ASBR
          type2 = 2,      // external cost alone, larger than any internal cost
          typeUnset = 3)  // not set by policy
}  // namespace Ospf

namespace Policy {

// The policy library's per-result state; opaque here, held and released with the result.
using PolicyState = Kelp::Ptr<const Kelp::PtrInterface>;

struct Result_ {
  RoutePreference preferenceStorage;
  RouteTag tagStorage;
  Kelp::MaybeU63 metric;  // unset unless policy sets a metric
  PolicyState dps;

  RoutePreference preference() const { return preferenceStorage; }
  RouteTag tag() const { return tagStorage; }
  void preferenceIs(RoutePreference p) { preferenceStorage = p; }
  void tagIs(RouteTag t) { tagStorage = t; }

  friend bool operator==(const Result_& a, const Result_& b) {
    return a.preferenceStorage == b.preferenceStorage && a.tagStorage == b.tagStorage && a.metric == b.metric &&
           a.dps == b.dps;
  }
};

}  // namespace Policy
}  // namespace Routing

template <>
struct Kelp::TextForm<Routing::RoutePreference> : Kelp::BareTextForm<Routing::RoutePreference> {};
template <>
struct Kelp::TextForm<Routing::RouteTag> : Kelp::BareTextForm<Routing::RouteTag> {};

// Policy state prints as the framework's raw-pointer text ("0x0" when there is none). It cannot be
// read back: a pointer means nothing in another process.
template <>
struct Kelp::TextForm<Routing::Policy::PolicyState> {
  static void print(String& out, const Routing::Policy::PolicyState& p) {
    out += fmt::format("{}", static_cast<const void*>(p.get()));
  }
  static void parse(CharRange& r, Routing::Policy::PolicyState&) { r.fail("a pointer cannot be read from text"); }
};
