#pragma once
// Which advertisements the configured out-delay holds back.
//
// A neighbour's out-delay batches outbound UPDATEs for a while so that a flapping route is
// advertised once rather than on every change. Operators choose what the delay applies to:
// everything, only prefixes not yet advertised to the neighbour, or only changes (replacements and
// withdrawals) of prefixes the neighbour already has.

#include <cstdint>

#include "platform/Kelp/EnumType.h"

namespace Routing {

KELP_ENUM(enum class, OutDelayApplyType, std::uint8_t, "Routing::OutDelayApplyType", named,
          applyAll = 0,      // every advertisement and withdrawal
          applyNew = 1,      // only the first advertisement of a prefix
          applyChanged = 2)  // only replacements and withdrawals of advertised prefixes

}  // namespace Routing
