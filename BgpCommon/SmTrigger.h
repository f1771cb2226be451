#pragma once
// SmTrigger: an observable counter that kicks a state machine.
//
// A state machine elsewhere in the agent registers as a notifiee of the trigger; whoever wants the
// machine to run again changes the counter, usually with triggerInc(1). The value itself carries
// no meaning beyond "it changed": the machine is told once per change and never when a setter
// stores the value already held.
//
//   Kelp::Ptr<SmTrigger> t = smTriggerFactory();
//   Kelp::FunctionNotifiee machine([&](std::string_view) { runMachine(); });
//   t->notifiees().notifieeIs(&machine);
//   t->triggerInc(1);   // runMachine() once
//   t->triggerInc(0);   // nothing
//
// Like other framework objects with notifiees, a trigger belongs to one thread at a time.

#include "platform/Kelp/Notifiee.h"
#include "platform/Kelp/Ptr.h"
#include "platform/Pico/Integers.h"

namespace Routing::Bgp {

class SmTrigger : public Kelp::PtrInterface {
 public:
  SmTrigger() = default;

  U32 trigger() const { return trigger_; }
  // Stores `value` and tells the notifiees, unless it is the value held already.
  void triggerIs(U32 value);
  // Adds `by` modulo 2^32, tells the notifiees when that changed the value (by != 0), and returns
  // the new value.
  U32 triggerInc(U32 by);

  Kelp::NotifieeList& notifiees() { return notifiees_; }

 private:
  U32 trigger_ = 0;
  Kelp::NotifieeList notifiees_;
};

Kelp::Ptr<SmTrigger> smTriggerFactory();
Kelp::Ptr<SmTrigger> SmTriggerIs();

}  // namespace Routing::Bgp
