#include "BgpCommon/BgpIpv4Plugin.h"

#include <arpa/inet.h>

#include "platform/Kelp/Registry.h"
#include "platform/Pico/Assert.h"
#include "platform/Pico/Format.h"

namespace Routing::Bgp::IpPlugin {

Netzo::IpGenPrefix Ipv4RouteKey::prefix() const { return Netzo::IpGenPrefix(address(), prefixLength()); }

NlriType Ipv4RouteKey::nlriType() const {
  PICO_ASSERT(0 && "Not implemented");
  return NlriType::unknown;
}

void Ipv4RouteKey::formatWithoutVrf(std::ostream&) const { PICO_ASSERT(0 && "Not implemented"); }

void Ipv4RouteKey::qtPut(Trackle::RingBuf* ring) const {
  ring->putRaw(ntohl(addressNbo()));
  ring->put8(prefixLength());
}

bool Ipv4RouteKey::lessThan(const Kelp::Ptr<const RouteKeyBase>& arg) const {
  PICO_ASSERT(dedupTable() == arg->dedupTable());
  auto* o = static_cast<const Ipv4RouteKey*>(arg.get());
  if (addressNbo() != o->addressNbo()) return address() < o->address();
  if (prefixLength() != o->prefixLength()) return prefixLength() < o->prefixLength();
  // Equal values are one interned object: only a key compared with itself gets here.
  return true;
}

Kelp::Ptr<const Ipv4RouteKey> Ipv4RouteKey::dedupContent(const IpRouteKeyDedupTableBase& table,
                                                         const Ipv4RouteKeyContent& content) {
  return table.hashTable()->findOrDedupAs<const Ipv4RouteKey>(content, content.hash(), &allocIpv4RouteKey);
}

Brim::DedupHandleBase* allocIpv4RouteKey(const Brim::DedupContentHandle& content) {
  auto& c = static_cast<const Ipv4RouteKeyContent&>(content);
  return new Ipv4RouteKey(c.addressNbo, c.prefixLength);
}

Kelp::Ptr<Ipv4RouteKey> ipv4RouteKeyFactory(std::uint32_t addressNbo, std::uint8_t prefixLength) {
  return Kelp::makePtr<Ipv4RouteKey>(addressNbo, prefixLength);
}
Kelp::Ptr<Ipv4RouteKey> Ipv4RouteKeyIs(std::uint32_t addressNbo, std::uint8_t prefixLength) {
  return ipv4RouteKeyFactory(addressNbo, prefixLength);
}

Kelp::Ptr<const IpRouteKeyBase> Ipv4RouteKeyDedupTable::dedupFromIpGenPrefix(const Netzo::IpGenPrefix& prefix) const {
  if (!prefix.address().isIpv4()) {
    Pico::fmthrow<Kelp::RangeException>("dedupFromIpGenPrefix: {} is not an IPv4 prefix", prefix.stringValue());
  }
  PICO_FMTRACE(Pico::kTraceLevelOperational, "dedup {}", prefix.stringValue());
  return Ipv4RouteKey::dedupContent(*this, Ipv4RouteKeyContent(prefix.address().ipv4(), prefix.length()));
}

Kelp::Ptr<Ipv4RouteKeyDedupTable> ipv4RouteKeyDedupTableFactory(bool multiThreaded) {
  return Kelp::makePtr<Ipv4RouteKeyDedupTable>(multiThreaded);
}
Kelp::Ptr<Ipv4RouteKeyDedupTable> Ipv4RouteKeyDedupTableIs(bool multiThreaded) {
  return ipv4RouteKeyDedupTableFactory(multiThreaded);
}

static_assert(sizeof(Ipv4RouteKey) == 24, "an interned IPv4 key is the dedup header and 8 octets");

namespace {
const Kelp::TypeInfo keyType =
    Kelp::entityType("Routing::Bgp::IpPlugin::Ipv4RouteKey", {"addressNbo", "prefixLength", "dedupContent", "dedupHandle",
                                                              "fromIpv4DedupHandle", "ipv4RouteKeyDedupTable"});
const Kelp::TypeInfo tableType = Kelp::entityType("Routing::Bgp::IpPlugin::Ipv4RouteKeyDedupTable",
                                                  {"afiSafi", "multiThreaded", "dedupFromIpGenPrefix", "prefix"});
const Kelp::TypeModule module("BgpIpv4Plugin", {&keyType, &tableType});
}  // namespace

}  // namespace Routing::Bgp::IpPlugin
