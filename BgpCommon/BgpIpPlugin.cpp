#include "BgpCommon/BgpIpPlugin.h"

#include "BgpCommon/BgpIpv4Plugin.h"
#include "BgpCommon/BgpIpv6Plugin.h"
#include "platform/Kelp/Registry.h"

namespace Routing::Bgp::IpPlugin {

template class IpRouteKey<Ipv4Family>;
template class IpRouteKeyDedupTable<Ipv4Family>;
template class IpRouteKey<Ipv6Family>;
template class IpRouteKeyDedupTable<Ipv6Family>;

static_assert(sizeof(Ipv4RouteKey) == 24, "an interned IPv4 key is the dedup header and 8 octets");
static_assert(sizeof(Ipv6RouteKey) == 40, "an interned IPv6 key is the dedup header and 24 octets");

namespace {
const Kelp::TypeInfo ipv4KeyType =
    Kelp::entityType("Routing::Bgp::IpPlugin::Ipv4RouteKey", {"addressNbo", "prefixLength", "dedupContent", "dedupHandle",
                                                              "fromIpv4DedupHandle", "ipv4RouteKeyDedupTable"});
const Kelp::TypeInfo ipv4TableType = Kelp::entityType("Routing::Bgp::IpPlugin::Ipv4RouteKeyDedupTable",
                                                      {"afiSafi", "multiThreaded", "dedupFromIpGenPrefix", "prefix"});
const Kelp::TypeModule ipv4Module("BgpIpv4Plugin", {&ipv4KeyType, &ipv4TableType});

const Kelp::TypeInfo ipv6KeyType = Kelp::entityType(
    "Routing::Bgp::IpPlugin::Ipv6RouteKey", {"address", "addressBuf", "prefixLength", "routeKeyContent", "dedupContent",
                                             "dedupHandle", "fromIpv6DedupHandle", "ipv6RouteKeyDedupTable", "multiThreaded"});
const Kelp::TypeInfo ipv6TableType = Kelp::entityType("Routing::Bgp::IpPlugin::Ipv6RouteKeyDedupTable",
                                                      {"afiSafi", "multiThreaded", "dedupFromIpGenPrefix", "prefix"});
const Kelp::TypeModule ipv6Module("BgpIpv6Plugin", {&ipv6KeyType, &ipv6TableType});
}  // namespace

}  // namespace Routing::Bgp::IpPlugin
