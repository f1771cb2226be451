#include "BgpCommon/BgpIpv4RouteKeyContent.h"

#include "platform/Brim/HashMix.h"
#include "platform/Kelp/Registry.h"

namespace Routing::Bgp::IpPlugin {

std::uint32_t Ipv4RouteKeyContent::hashImpl(std::uint32_t nbo, std::uint8_t length, std::uint32_t seed) {
  Brim::HashMix h(seed);
  h.mixBytes4(nbo);
  h.mixBytes1(length);
  return h.value();
}

namespace {
const Kelp::TypeModule module("BgpIpv4RouteKeyContent", {Kelp::typeInfo<Ipv4RouteKeyContent>()});
}

}  // namespace Routing::Bgp::IpPlugin
