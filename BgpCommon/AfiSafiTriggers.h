#pragma once
// AfiSafiTriggers: one state-machine trigger per address family.
//
// The agent runs some of its state machines per address family (IPv4 unicast, IPv6 unicast,
// VPN-IPv4, ...), and each family's machine must be kickable on its own: a change that only
// concerns IPv6 unicast must not rerun the IPv4 machine. The collection maps each AfiSafi to the
// SmTrigger its machine watches; a family without an entry has no machine to kick.
//
//   Kelp::Ptr<AfiSafiTriggers> triggers = afiSafiTriggersFactory();
//   triggers->triggerIs(ipv6UnicastAfiSafi, smTriggerFactory());
//   if (auto t = triggers->trigger(ipv6UnicastAfiSafi)) t->triggerInc(1);
//
// An entry never holds a null trigger: setting null removes the entry.

#include "BgpCommon/SmTrigger.h"
#include "platform/Kelp/HashMap2018.h"
#include "platform/Kelp/Ptr.h"
#include "platform/Pico/Integers.h"
#include "platform/Routing/AfiSafi.h"

namespace Routing::Bgp {

class AfiSafiTriggers : public Kelp::PtrInterface {
 public:
  // The collection hashes an AfiSafi's word with the framework's hash.
  struct AfiSafiHash {
    U32 operator()(AfiSafi key, U32 seed) const {
      Kelp::Hash h(seed);
      h.hashMix(key.value());
      return h.result();
    }
  };
  using TriggerMap = Kelp::HashMap2018<AfiSafi, Kelp::Ptr<SmTrigger>, AfiSafiHash>;
  // Mixed into the process hash seed for this collection.
  static constexpr U32 kSeedMix = 0x3b19841;

  AfiSafiTriggers();

  // The family's trigger, or null.
  Kelp::Ptr<SmTrigger> trigger(AfiSafi key) const;
  // Makes the family's entry hold `t`; a null `t` removes the entry.
  void triggerIs(AfiSafi key, const Kelp::Ptr<SmTrigger>& t);
  // Removes the family's entry and returns the trigger it held (null when there was none).
  Kelp::Ptr<SmTrigger> triggerDel(AfiSafi key);
  void triggerDelAll() { trigger_.clear(); }

  // Every family's entry, in the collection's order.
  const TriggerMap& triggers() const { return trigger_; }

 private:
  TriggerMap trigger_;
};

Kelp::Ptr<AfiSafiTriggers> afiSafiTriggersFactory();
Kelp::Ptr<AfiSafiTriggers> AfiSafiTriggersIs();

}  // namespace Routing::Bgp
