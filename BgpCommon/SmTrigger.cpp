#include "BgpCommon/SmTrigger.h"

#include "platform/Kelp/Registry.h"

namespace Routing::Bgp {

void SmTrigger::triggerIs(U32 value) {
  if (value == trigger_) return;
  trigger_ = value;
  notifiees_.notify("trigger");
}

U32 SmTrigger::triggerInc(U32 by) {
  // The value this call set: an observer told of it may kick the trigger again before we return.
  const U32 value = static_cast<U32>(trigger_ + by);
  triggerIs(value);
  return value;
}

Kelp::Ptr<SmTrigger> smTriggerFactory() { return Kelp::makePtr<SmTrigger>(); }

Kelp::Ptr<SmTrigger> SmTriggerIs() { return smTriggerFactory(); }

namespace {
const Kelp::TypeInfo smTriggerType = Kelp::entityType("Routing::Bgp::SmTrigger", {"trigger"});
const Kelp::TypeModule module("SmTrigger", {&smTriggerType});
}  // namespace

}  // namespace Routing::Bgp
