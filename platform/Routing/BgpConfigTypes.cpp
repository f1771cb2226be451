// Type module of the BGP configuration-library types.
#include "platform/Routing/BgpConfigTypes.h"

#include "platform/Kelp/Registry.h"

namespace Routing::Bgp {
namespace {
const Kelp::TypeModule module(
    "BgpConfigTypes",
    {Kelp::typeInfo<ExtendedNextHopCapability>(), Kelp::typeInfo<ReflectorClient>(),
     Kelp::typeInfo<SoftReconfigInboundState>(), Kelp::typeInfo<PolicyActionType>(),
     Kelp::typeInfo<TtlSecurityMaxHopValue>(), Kelp::typeInfo<RemovePrivateAs>(), Kelp::typeInfo<LocalAs>(),
     Kelp::typeInfo<AsnOrPeerFilter::Type>(), Kelp::typeInfo<AsnOrPeerFilter>(),
     Kelp::typeInfo<BgpTcpAuthKey::Type>(), Kelp::typeInfo<BgpTcpAuthKey>(),
     Kelp::typeInfo<AddPathSendConfig::Kind>(), Kelp::typeInfo<AddPathSendConfig>(),
     Kelp::typeInfo<RfdPolicyAttachment>()});
}  // namespace
}  // namespace Routing::Bgp
