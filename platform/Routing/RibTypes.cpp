// Type module of the RIB types.
#include "platform/Routing/RibTypes.h"

#include "platform/Kelp/Registry.h"

namespace Routing::Rib {
namespace {
const Kelp::TypeModule module("RibTypes", {Kelp::typeInfo<RoutingProtocol>(), Kelp::typeInfo<RouteKey>()});
}
}  // namespace Routing::Rib
