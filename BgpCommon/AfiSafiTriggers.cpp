#include "BgpCommon/AfiSafiTriggers.h"

#include "platform/Kelp/Registry.h"

namespace Routing::Bgp {

AfiSafiTriggers::AfiSafiTriggers() : trigger_(Kelp::processHashSeed() ^ kSeedMix) {}

Kelp::Ptr<SmTrigger> AfiSafiTriggers::trigger(AfiSafi key) const {
  const Kelp::Ptr<SmTrigger>* t = trigger_.find(key);
  return t != nullptr ? *t : nullptr;
}

void AfiSafiTriggers::triggerIs(AfiSafi key, const Kelp::Ptr<SmTrigger>& t) {
  if (t == nullptr) {
    trigger_.erase(key);
    return;
  }
  auto [held, added] = trigger_.tryEmplace(key, t);
  if (!added && *held != t) *held = t;
}

Kelp::Ptr<SmTrigger> AfiSafiTriggers::triggerDel(AfiSafi key) {
  std::optional<Kelp::Ptr<SmTrigger>> t = trigger_.take(key);
  return t ? std::move(*t) : nullptr;
}

Kelp::Ptr<AfiSafiTriggers> afiSafiTriggersFactory() { return Kelp::makePtr<AfiSafiTriggers>(); }

Kelp::Ptr<AfiSafiTriggers> AfiSafiTriggersIs() { return afiSafiTriggersFactory(); }

namespace {
const Kelp::TypeInfo triggersType = Kelp::entityType("Routing::Bgp::AfiSafiTriggers", {"trigger"});
const Kelp::TypeModule module("AfiSafiTriggers", {&triggersType});
}  // namespace

}  // namespace Routing::Bgp
