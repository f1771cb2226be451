// Type module of the policy-result types.
#include "platform/Routing/PolicyResult.h"

#include "platform/Kelp/Registry.h"

namespace Routing {
namespace {
const Kelp::TypeModule module("PolicyResult", {Kelp::typeInfo<RoutePreference>(), Kelp::typeInfo<RouteTag>(),
                                               Kelp::typeInfo<Isis::Level>(),
                                               Kelp::typeInfo<Ospf::OspfExtMetricType>()});
}
}  // namespace Routing
