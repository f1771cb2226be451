#include "BgpCommon/BgpIpv6Plugin.h"

#include "platform/Kelp/Registry.h"
#include "platform/Pico/Assert.h"
#include "platform/Pico/Format.h"

namespace Routing::Bgp::IpPlugin {

Netzo::IpGenPrefix Ipv6RouteKey::prefix() const { return Netzo::IpGenPrefix(address(), prefixLength()); }

NlriType Ipv6RouteKey::nlriType() const {
  PICO_ASSERT(0 && "Not implemented");
  return NlriType::unknown;
}

void Ipv6RouteKey::formatWithoutVrf(std::ostream&) const { PICO_ASSERT(0 && "Not implemented"); }

void Ipv6RouteKey::qtPut(Trackle::RingBuf* ring) const {
  ring->putRaw(addressBuf().words);
  ring->put8(prefixLength());
}

bool Ipv6RouteKey::lessThan(const Kelp::Ptr<const RouteKeyBase>& arg) const {
  PICO_ASSERT(dedupTable() == arg->dedupTable());
  auto* o = static_cast<const Ipv6RouteKey*>(arg.get());
  if (addressBuf() != o->addressBuf()) return address() < o->address();
  if (prefixLength() != o->prefixLength()) return prefixLength() < o->prefixLength();
  // Equal values are one interned object: only a key compared with itself gets here.
  return true;
}

Kelp::Ptr<const Ipv6RouteKey> Ipv6RouteKey::dedupContent(const IpRouteKeyDedupTableBase& table,
                                                         const Ipv6RouteKeyContent& content) {
  return table.hashTable()->findOrDedupAs<const Ipv6RouteKey>(content, content.hash(), &allocIpv6RouteKey);
}

Brim::DedupHandleBase* allocIpv6RouteKey(const Brim::DedupContentHandle& content) {
  auto& c = static_cast<const Ipv6RouteKeyContent&>(content);
  return new Ipv6RouteKey(c.address, c.prefixLength);
}

Kelp::Ptr<Ipv6RouteKey> ipv6RouteKeyFactory(const Ipv6AddressBuf& address, std::uint8_t prefixLength) {
  return Kelp::makePtr<Ipv6RouteKey>(address, prefixLength);
}
Kelp::Ptr<Ipv6RouteKey> Ipv6RouteKeyIs(const Ipv6AddressBuf& address, std::uint8_t prefixLength) {
  return ipv6RouteKeyFactory(address, prefixLength);
}

Kelp::Ptr<const IpRouteKeyBase> Ipv6RouteKeyDedupTable::dedupFromIpGenPrefix(const Netzo::IpGenPrefix& prefix) const {
  if (!prefix.address().isIpv6()) {
    Pico::fmthrow<Kelp::RangeException>("dedupFromIpGenPrefix: {} is not an IPv6 prefix", prefix.stringValue());
  }
  PICO_FMTRACE(Pico::kTraceLevelOperational, "dedup {}", prefix.stringValue());
  return Ipv6RouteKey::dedupContent(*this, Ipv6RouteKeyContent(prefix.address().ipv6(), prefix.length()));
}

Kelp::Ptr<Ipv6RouteKeyDedupTable> ipv6RouteKeyDedupTableFactory(bool multiThreaded) {
  return Kelp::makePtr<Ipv6RouteKeyDedupTable>(multiThreaded);
}
Kelp::Ptr<Ipv6RouteKeyDedupTable> Ipv6RouteKeyDedupTableIs(bool multiThreaded) {
  return ipv6RouteKeyDedupTableFactory(multiThreaded);
}

static_assert(sizeof(Ipv6RouteKey) == 40, "an interned IPv6 key is the dedup header and 24 octets");

namespace {
const Kelp::TypeInfo keyType = Kelp::entityType(
    "Routing::Bgp::IpPlugin::Ipv6RouteKey", {"address", "addressBuf", "prefixLength", "routeKeyContent", "dedupContent",
                                             "dedupHandle", "fromIpv6DedupHandle", "ipv6RouteKeyDedupTable", "multiThreaded"});
const Kelp::TypeInfo tableType = Kelp::entityType("Routing::Bgp::IpPlugin::Ipv6RouteKeyDedupTable",
                                                  {"afiSafi", "multiThreaded", "dedupFromIpGenPrefix", "prefix"});
const Kelp::TypeModule module("BgpIpv6Plugin", {&keyType, &tableType});
}  // namespace

}  // namespace Routing::Bgp::IpPlugin
