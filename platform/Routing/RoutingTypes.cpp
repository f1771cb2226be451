// Type module of the routing types that neighbouring libraries define.
#include "platform/Kelp/Registry.h"
#include "platform/Routing/OutDelayApplyType.h"

namespace Routing {
namespace {
const Kelp::TypeModule module("RoutingTypes", {Kelp::typeInfo<OutDelayApplyType>()});
}
}  // namespace Routing
