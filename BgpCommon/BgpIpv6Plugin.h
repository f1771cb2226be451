#pragma once
// IPv6 unicast route keys (AFI 2, SAFI 1) and their dedup table: the IP plugin (BgpIpPlugin.h)
// over the IPv6 family.
//
// An Ipv6RouteKey holds the 16 address octets as an Ipv6AddressBuf and the prefix length, 40
// octets in the stash heap:
//
//   auto table = ipv6RouteKeyDedupTableFactory(/*multiThreaded=*/true);
//   auto k = table->dedupFromIpGenPrefix(Netzo::IpGenPrefix::fromString("2001:db8::/32"));
//   k->toStrep();   // "2001:db8::/32"
//
// The trace record is the 16 octets as stored (network order), then the length.

#include <cstdint>

#include "BgpCommon/BgpIpPlugin.h"
#include "BgpCommon/BgpIpv6RouteKeyContent.h"

namespace Routing::Bgp::IpPlugin {

struct Ipv6Family {
  using Content = Ipv6RouteKeyContent;
  using Stored = Ipv6AddressBuf;
  static constexpr AfiSafi kAfiSafi = ipv6UnicastAfiSafi;
  static constexpr const char* kName = "IPv6";
  static constexpr const char* kSourceName = "BgpCommon/BgpIpv6Plugin";  // of its assertions
  static const Stored& stored(const Content& c) { return c.address; }
  static bool holds(const Netzo::IpGenAddr& a) { return a.isIpv6(); }
  static Content contentOf(const Netzo::IpGenPrefix& p) { return Content(p.address().ipv6(), p.length()); }
  static void qtPut(Trackle::RingBuf* ring, const Content& c) { ring->putRaw(c.address.words); }
};

extern template class IpRouteKey<Ipv6Family>;
extern template class IpRouteKeyDedupTable<Ipv6Family>;

using Ipv6RouteKey = IpRouteKey<Ipv6Family>;
using Ipv6RouteKeyDedupTable = IpRouteKeyDedupTable<Ipv6Family>;

inline Brim::DedupHandleBase* allocIpv6RouteKey(const Brim::DedupContentHandle& c) { return Ipv6RouteKey::alloc(c); }
inline const Ipv6RouteKey* fromIpv6DedupHandle(const Brim::DedupHandleBase* h) { return Ipv6RouteKey::fromDedupHandle(h); }
inline Kelp::Ptr<Ipv6RouteKey> ipv6RouteKeyFactory(const Ipv6AddressBuf& address, std::uint8_t prefixLength) {
  return Ipv6RouteKey::factory(address, prefixLength);
}
inline Kelp::Ptr<Ipv6RouteKey> Ipv6RouteKeyIs(const Ipv6AddressBuf& address, std::uint8_t prefixLength) {
  return Ipv6RouteKey::factory(address, prefixLength);
}
inline Kelp::Ptr<Ipv6RouteKeyDedupTable> ipv6RouteKeyDedupTableFactory(bool multiThreaded) {
  return Ipv6RouteKeyDedupTable::factory(multiThreaded);
}
inline Kelp::Ptr<Ipv6RouteKeyDedupTable> Ipv6RouteKeyDedupTableIs(bool multiThreaded) {
  return Ipv6RouteKeyDedupTable::factory(multiThreaded);
}

}  // namespace Routing::Bgp::IpPlugin
