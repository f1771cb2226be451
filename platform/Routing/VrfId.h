#pragma once
// The numeric identifier of a VRF, as the VRF library hands it out (the default VRF is 0).

#include <cstdint>

namespace Vrf::VrfIdMap {

using VrfId = std::uint32_t;

}  // namespace Vrf::VrfIdMap
