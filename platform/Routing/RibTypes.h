#pragma once
// Types of the routing information base (RIB) that redistribution code is handed.
//
// RoutingProtocol  the protocol a RIB route came from; one octet. Redistribution treats static
//                  routes (protocolStatic, 2) apart: their policy results are published in a
//                  shared table, while the other protocols carry the route tag directly.
// RouteKey         the RIB's key of a route: its destination prefix.

#include <cstdint>

#include "platform/Kelp/EnumType.h"
#include "platform/Kelp/ValueType.h"
#include "platform/Netzo/IpGenPrefix.h"

namespace Routing::Rib {

KELP_ENUM(enum class, RoutingProtocol, std::uint8_t, "Routing::Rib::RoutingProtocol", named,
          protocolUnknown = 0,
          protocolConnected = 1,  // an interface's own subnet
          protocolStatic = 2,     // configured by the operator
          protocolOspf = 3,
          protocolOspf3 = 4,
          protocolIsis = 5,
          protocolBgp = 6,
          protocolRip = 7)

struct RouteKey : Kelp::ValueBase<RouteKey> {
  Netzo::IpGenPrefix prefix;

  RouteKey() = default;
  explicit RouteKey(const Netzo::IpGenPrefix& p) : prefix(p) {}
  explicit RouteKey(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  std::uint32_t hash(std::uint32_t seed) const;
  friend constexpr auto kelpType(Kelp::Tag<RouteKey>) {
    return Kelp::valueType<RouteKey>("Routing::Rib::RouteKey", Kelp::field("prefix", &RouteKey::prefix));
  }
};

inline std::uint32_t RouteKey::hash(std::uint32_t seed) const { return Kelp::hashFields(*this, seed); }

}  // namespace Routing::Rib
