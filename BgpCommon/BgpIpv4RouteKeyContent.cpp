#include "BgpCommon/BgpIpv4RouteKeyContent.h"

#include "platform/Kelp/Registry.h"

namespace Routing::Bgp::IpPlugin {

namespace {
const Kelp::TypeModule module("BgpIpv4RouteKeyContent", {Kelp::typeInfo<Ipv4RouteKeyContent>()});
}

}  // namespace Routing::Bgp::IpPlugin
