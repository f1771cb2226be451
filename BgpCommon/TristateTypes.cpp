#include "BgpCommon/TristateTypes.h"

#include "platform/Kelp/Registry.h"

namespace Routing::Bgp {
namespace {
const Kelp::TypeModule module(
    "TristateTypes",
    {Kelp::typeInfo<TristateMaxRoutes>(), Kelp::typeInfo<TristateAfiSafiMaxRoutes>(),
     Kelp::typeInfo<TristateMaxAcceptedRoutes>(), Kelp::typeInfo<TristateMaxAdvRoutes>(),
     Kelp::typeInfo<TristateOutDelay>(), Kelp::typeInfo<TristateBgpTtlSecMaxHop>(),
     Kelp::typeInfo<TristateExtendedNextHopCapability>(), Kelp::typeInfo<TristateReflectorClient>(),
     Kelp::typeInfo<TristateSoftReconfigInbound>(), Kelp::typeInfo<TristatePolicyActionType>(),
     Kelp::typeInfo<TristateRemovePrivateAs>(), Kelp::typeInfo<TristateLocalAs>(),
     Kelp::typeInfo<TristateAsnOrPeerFilter>(), Kelp::typeInfo<TristateBgpTcpAuthKey>(),
     Kelp::typeInfo<TristateAddPathSendConfig>(), Kelp::typeInfo<TristateRfdPolicyAttachment>()});
}  // namespace
}  // namespace Routing::Bgp
