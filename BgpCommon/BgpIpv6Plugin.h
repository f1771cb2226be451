#pragma once
// IPv6 unicast route keys (AFI 2, SAFI 1) and their dedup table.
//
// An Ipv6RouteKey is the interned object for one prefix: the 16 address octets as an
// Ipv6AddressBuf and the prefix length, 40 octets in the stash heap. Keys are only obtained
// through a table, so each prefix exists once per table:
//
//   auto table = ipv6RouteKeyDedupTableFactory(/*multiThreaded=*/true);
//   auto k = table->dedupFromIpGenPrefix(Netzo::IpGenPrefix::fromString("2001:db8::/32"));
//   k->toStrep();   // "2001:db8::/32"
//
// The address is kept as given (not masked). Keys order by address, then shorter prefix first;
// the trace record is the 16 octets as stored (network order), then the length.

#include <cstdint>

#include "BgpCommon/BgpIpPluginBase.h"
#include "BgpCommon/BgpIpv6RouteKeyContent.h"

namespace Routing::Bgp::IpPlugin {

class Ipv6RouteKey final : public IpRouteKeyBase {
 public:
  Ipv6RouteKey(const Ipv6AddressBuf& address, std::uint8_t prefixLength)
      : content_(address, prefixLength) {}

  const Ipv6AddressBuf& addressBuf() const { return content_.address; }
  std::uint8_t prefixLength() const { return content_.prefixLength; }
  Netzo::Ip6Addr address() const { return content_.addr(); }
  Netzo::IpGenPrefix prefix() const override;
  Ipv6RouteKeyContent routeKeyContent() const { return content_; }

  Afi afi() const override { return afiIpv6; }
  // Not provided for this family: "0 && \"Not implemented\"".
  NlriType nlriType() const override;
  void formatWithoutVrf(std::ostream& os) const override;

  // The identity is the content record's: its hash, and its equality against another key or a
  // record on the stack.
  std::uint32_t hash() const override { return content_.hash(); }
  bool compare(const Brim::DedupHandleBase* other) const override {
    return static_cast<const Ipv6RouteKey*>(other)->content_ == content_;
  }
  bool compareByContent(const Brim::DedupContentHandle& content) const override {
    return static_cast<const Ipv6RouteKeyContent&>(content) == content_;
  }

  // 16 octets as stored (network order), then 1 octet of length.
  void qtPut(Trackle::RingBuf* ring) const override;
  // Assert "dedupTable() == arg->dedupTable()"; then by address, then shorter first; a key
  // against itself answers true.
  bool lessThan(const Kelp::Ptr<const RouteKeyBase>& arg) const override;

  static Kelp::Ptr<const Ipv6RouteKey> dedupContent(const IpRouteKeyDedupTableBase& table,
                                                    const Ipv6RouteKeyContent& content);
  static Kelp::Ptr<const Ipv6RouteKey> dedupContent(const Kelp::Ptr<const IpRouteKeyDedupTableBase>& table,
                                                    const Ipv6RouteKeyContent& content) {
    return dedupContent(*table, content);
  }

 private:
  Ipv6RouteKeyContent content_;  // the length (0..128) is not checked against the address
};

Brim::DedupHandleBase* allocIpv6RouteKey(const Brim::DedupContentHandle& content);
inline const Ipv6RouteKey* fromIpv6DedupHandle(const Brim::DedupHandleBase* handle) {
  return static_cast<const Ipv6RouteKey*>(handle);
}
Kelp::Ptr<Ipv6RouteKey> ipv6RouteKeyFactory(const Ipv6AddressBuf& address, std::uint8_t prefixLength);
Kelp::Ptr<Ipv6RouteKey> Ipv6RouteKeyIs(const Ipv6AddressBuf& address, std::uint8_t prefixLength);

class Ipv6RouteKeyDedupTable final : public IpRouteKeyDedupTableBase {
 public:
  explicit Ipv6RouteKeyDedupTable(bool multiThreaded) : IpRouteKeyDedupTableBase(ipv6UnicastAfiSafi, multiThreaded) {}
  Kelp::Ptr<const IpRouteKeyBase> dedupFromIpGenPrefix(const Netzo::IpGenPrefix& prefix) const override;
};

Kelp::Ptr<Ipv6RouteKeyDedupTable> ipv6RouteKeyDedupTableFactory(bool multiThreaded);
Kelp::Ptr<Ipv6RouteKeyDedupTable> Ipv6RouteKeyDedupTableIs(bool multiThreaded);

}  // namespace Routing::Bgp::IpPlugin
