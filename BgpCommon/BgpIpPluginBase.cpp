#include "BgpCommon/BgpIpPluginBase.h"

#include "platform/Kelp/Registry.h"

namespace Routing::Bgp::IpPlugin {

void IpRouteKeyBase::formatDerivedType(std::ostream& os) const { os << prefix(); }

namespace {
const Kelp::TypeInfo ipRouteKeyBaseType = Kelp::entityType("Routing::Bgp::IpPlugin::IpRouteKeyBase", {"prefix"});
const Kelp::TypeInfo ipRouteKeyDedupTableBaseType = Kelp::entityType(
    "Routing::Bgp::IpPlugin::IpRouteKeyDedupTableBase", {"afiSafi", "multiThreaded", "dedupFromIpGenPrefix", "prefix"});
const Kelp::TypeModule module("BgpIpPluginBase", {&ipRouteKeyBaseType, &ipRouteKeyDedupTableBaseType});
}  // namespace

}  // namespace Routing::Bgp::IpPlugin
