#pragma once
// IPv4 unicast route keys (AFI 1, SAFI 1) and their dedup table.
//
// An Ipv4RouteKey is the interned object for one prefix: the address as a network-order word and
// the prefix length, 24 octets in the stash heap. Keys are only obtained through a table, so each
// prefix exists once per table:
//
//   auto table = ipv4RouteKeyDedupTableFactory(/*multiThreaded=*/false);
//   auto a = Ipv4RouteKey::dedupContent(*table, Ipv4RouteKeyContent(Netzo::IpAddr(10, 0, 0, 0), 8));
//   auto b = table->dedupFromIpGenPrefix(Netzo::IpGenPrefix::fromString("10.0.0.0/8"));
//   a.get() == b.get();   // true
//
// The address is kept as given (not masked to the length): callers pass canonical prefixes.
// Keys order by address, then shorter prefix first (lessThan); the trace record is the address as
// a host-order integer in host byte order, then the length.

#include <cstdint>

#include "BgpCommon/BgpIpPluginBase.h"
#include "BgpCommon/BgpIpv4RouteKeyContent.h"

namespace Routing::Bgp::IpPlugin {

class Ipv4RouteKeyDedupTable;

class Ipv4RouteKey final : public IpRouteKeyBase {
 public:
  Ipv4RouteKey(std::uint32_t addressNbo, std::uint8_t prefixLength)
      : content_(addressNbo, prefixLength) {}

  std::uint32_t addressNbo() const { return content_.addressNbo; }
  std::uint8_t prefixLength() const { return content_.prefixLength; }
  Netzo::IpAddr address() const { return content_.address(); }
  Netzo::IpGenPrefix prefix() const override;

  Afi afi() const override { return afiIpv4; }
  // Not provided for this family: "0 && \"Not implemented\"".
  NlriType nlriType() const override;
  void formatWithoutVrf(std::ostream& os) const override;

  // The identity is the content record's: its hash, and its equality against another key or a
  // record on the stack.
  std::uint32_t hash() const override { return content_.hash(); }
  bool compare(const Brim::DedupHandleBase* other) const override {
    return static_cast<const Ipv4RouteKey*>(other)->content_ == content_;
  }
  bool compareByContent(const Brim::DedupContentHandle& content) const override {
    return static_cast<const Ipv4RouteKeyContent&>(content) == content_;
  }

  // 4 octets: the address as a host-order integer, in host byte order; then 1 octet of length.
  void qtPut(Trackle::RingBuf* ring) const override;
  // Assert "dedupTable() == arg->dedupTable()"; then by address, then shorter first; a key
  // against itself answers true.
  bool lessThan(const Kelp::Ptr<const RouteKeyBase>& arg) const override;

  // The interned key with this content, created when absent. Hashes the record on the stack and
  // allocates only for a new prefix.
  static Kelp::Ptr<const Ipv4RouteKey> dedupContent(const IpRouteKeyDedupTableBase& table,
                                                    const Ipv4RouteKeyContent& content);
  static Kelp::Ptr<const Ipv4RouteKey> dedupContent(const Kelp::Ptr<const IpRouteKeyDedupTableBase>& table,
                                                    const Ipv4RouteKeyContent& content) {
    return dedupContent(*table, content);
  }

 private:
  Ipv4RouteKeyContent content_;  // the length (0..32) is not checked against the address
};

// The allocation callback of the table's find-or-insert: a new key from the content's fields.
Brim::DedupHandleBase* allocIpv4RouteKey(const Brim::DedupContentHandle& content);
// The same object viewed as an IPv4 key (unchecked).
inline const Ipv4RouteKey* fromIpv4DedupHandle(const Brim::DedupHandleBase* handle) {
  return static_cast<const Ipv4RouteKey*>(handle);
}
// A new key, not interned until passed to dedup().
Kelp::Ptr<Ipv4RouteKey> ipv4RouteKeyFactory(std::uint32_t addressNbo, std::uint8_t prefixLength);
Kelp::Ptr<Ipv4RouteKey> Ipv4RouteKeyIs(std::uint32_t addressNbo, std::uint8_t prefixLength);

class Ipv4RouteKeyDedupTable final : public IpRouteKeyDedupTableBase {
 public:
  explicit Ipv4RouteKeyDedupTable(bool multiThreaded) : IpRouteKeyDedupTableBase(ipv4UnicastAfiSafi, multiThreaded) {}
  Kelp::Ptr<const IpRouteKeyBase> dedupFromIpGenPrefix(const Netzo::IpGenPrefix& prefix) const override;
};

Kelp::Ptr<Ipv4RouteKeyDedupTable> ipv4RouteKeyDedupTableFactory(bool multiThreaded);
Kelp::Ptr<Ipv4RouteKeyDedupTable> Ipv4RouteKeyDedupTableIs(bool multiThreaded);

}  // namespace Routing::Bgp::IpPlugin
