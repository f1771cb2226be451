#pragma once
// IPv4 unicast route keys (AFI 1, SAFI 1) and their dedup table: the IP plugin (BgpIpPlugin.h)
// over the IPv4 family.
//
// An Ipv4RouteKey holds the address as a network-order word and the prefix length, 24 octets in
// the stash heap:
//
//   auto table = ipv4RouteKeyDedupTableFactory(/*multiThreaded=*/false);
//   auto a = Ipv4RouteKey::dedupContent(*table, Ipv4RouteKeyContent(Netzo::IpAddr(10, 0, 0, 0), 8));
//   auto b = table->dedupFromIpGenPrefix(Netzo::IpGenPrefix::fromString("10.0.0.0/8"));
//   a.get() == b.get();   // true
//
// The trace record is the address as a host-order integer in host byte order, then the length.

#include <arpa/inet.h>

#include <cstdint>

#include "BgpCommon/BgpIpPlugin.h"
#include "BgpCommon/BgpIpv4RouteKeyContent.h"

namespace Routing::Bgp::IpPlugin {

struct Ipv4Family {
  using Content = Ipv4RouteKeyContent;
  using Stored = std::uint32_t;  // network byte order
  static constexpr AfiSafi kAfiSafi = ipv4UnicastAfiSafi;
  static constexpr const char* kName = "IPv4";
  static constexpr const char* kSourceName = "BgpCommon/BgpIpv4Plugin";  // of its assertions
  static Stored stored(const Content& c) { return c.addressNbo; }
  static bool holds(const Netzo::IpGenAddr& a) { return a.isIpv4(); }
  static Content contentOf(const Netzo::IpGenPrefix& p) { return Content(p.address().ipv4(), p.length()); }
  static void qtPut(Trackle::RingBuf* ring, const Content& c) { ring->putRaw(ntohl(c.addressNbo)); }
};

extern template class IpRouteKey<Ipv4Family>;
extern template class IpRouteKeyDedupTable<Ipv4Family>;

using Ipv4RouteKey = IpRouteKey<Ipv4Family>;
using Ipv4RouteKeyDedupTable = IpRouteKeyDedupTable<Ipv4Family>;

inline Brim::DedupHandleBase* allocIpv4RouteKey(const Brim::DedupContentHandle& c) { return Ipv4RouteKey::alloc(c); }
inline const Ipv4RouteKey* fromIpv4DedupHandle(const Brim::DedupHandleBase* h) { return Ipv4RouteKey::fromDedupHandle(h); }
inline Kelp::Ptr<Ipv4RouteKey> ipv4RouteKeyFactory(std::uint32_t addressNbo, std::uint8_t prefixLength) {
  return Ipv4RouteKey::factory(addressNbo, prefixLength);
}
inline Kelp::Ptr<Ipv4RouteKey> Ipv4RouteKeyIs(std::uint32_t addressNbo, std::uint8_t prefixLength) {
  return Ipv4RouteKey::factory(addressNbo, prefixLength);
}
inline Kelp::Ptr<Ipv4RouteKeyDedupTable> ipv4RouteKeyDedupTableFactory(bool multiThreaded) {
  return Ipv4RouteKeyDedupTable::factory(multiThreaded);
}
inline Kelp::Ptr<Ipv4RouteKeyDedupTable> Ipv4RouteKeyDedupTableIs(bool multiThreaded) {
  return Ipv4RouteKeyDedupTable::factory(multiThreaded);
}

}  // namespace Routing::Bgp::IpPlugin
