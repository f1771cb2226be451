#pragma once
// Tristate configuration values: a setting's value paired with whether it was configured here.
//
// A BGP setting can be configured at several levels (neighbour, peer group, address family,
// instance). A reader walks from the most specific level outwards and stops at the first level
// where the setting is set, so "not configured here, inherit" must stay apart from "configured to
// the default". A tristate holds:
//   value  the configured value; meaningless (zero) while isSet is false
//   isSet  true when the setting was configured at this level
// and names two values of its type:
//   valueDefault    the value to use when no level configures the setting (a constant; it is not
//                   what a default-constructed tristate holds)
//   valueInvalid()  the unset tristate with a zero value, which is also the default-constructed one
//
//   TristateMaxRoutes t = TristateMaxRoutes::valueSet(MaxRoutes(1000, 800, false));
//   MaxRoutes limit = t.isSet ? t.value : TristateMaxRoutes::valueDefault;
//
// All sixteen tristates are instances of one class template, Tristate<V, name, defaultFn>. The long
// text form nests the wrapped value's own long text form (an enumeration: its enumerator name):
//   Value('Routing::Bgp::TristateLocalAs', ** {'value': Value('Routing::Bgp::LocalAs', ** {'asn':
//   65001, 'noPrepend': False, 'replaceAs': False}), 'isSet': True})
// (one line); a parse error names the field at fault, "value: asn: ..." or "isSet: ...".
// Reflective attributes: 2 value, 3 isSet (get only: a tristate changes by assigning a whole new
// one), 4 valueSet (call, one argument), 5 valueDefault (get), 6 valueInvalid (call). Tristates are
// not hashable. The truth test is true when the value differs from the wrapped type's
// default-constructed value or isSet is true.

#include <cstddef>

#include "BgpCommon/BgpTypesImpl.h"
#include "platform/Kelp/ValueType.h"
#include "platform/Routing/BgpConfigTypes.h"

namespace Routing::Bgp {

namespace tristateDefaults {
// The wrapped type's default-constructed value: the default of most settings.
template <typename V>
V zero() {
  return V{};
}
}  // namespace tristateDefaults

// A setting's value V and whether it is configured at this level. `Name` is the qualified type
// name used in the text form; `defaultFn` returns valueDefault.
template <typename V, TypeNameLiteral Name, V (*defaultFn)() = &tristateDefaults::zero<V>>
class Tristate : public Kelp::ValueBase<Tristate<V, Name, defaultFn>> {
 public:
  using ValueType = V;

  V value{};
  bool isSet = false;

  // The value to use when no level configures the setting.
  static inline const V valueDefault = defaultFn();

  Tristate() = default;
  Tristate(V v, bool set) : value(std::move(v)), isSet(set) {}
  explicit Tristate(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  // The tristate configured to `v`.
  static Tristate valueSet(const V& v) { return Tristate(v, true); }
  // The tristate configured nowhere: zero value, isSet false.
  static Tristate valueInvalid() { return Tristate(); }

  // Both fields are read with the framework's field reader: a nested value through its range
  // constructor, an enumeration through its sequenceToValue; errors name "value" or "isSet".
  friend constexpr auto kelpType(Kelp::Tag<Tristate>) {
    return Kelp::valueType<Tristate>(Name.chars,
                                     Kelp::field("value", &Tristate::value),                // 2
                                     Kelp::field("isSet", &Tristate::isSet),                // 3
                                     Kelp::function("valueSet", &Tristate::valueSet),       // 4
                                     Kelp::constant("valueDefault", &Tristate::valueDefault),  // 5
                                     Kelp::function("valueInvalid", &Tristate::valueInvalid));  // 6
  }
};

// The valueDefaults that are not simply the wrapped type's default-constructed value.
namespace tristateDefaults {

// A neighbour may send 256000 routes by default, with a warning from 204800 on.
inline MaxRoutes neighborMaxRoutes() { return MaxRoutes(256000, 204800, false); }
// Without TTL security configured, any TTL from 1 up is accepted.
inline TtlSecurityMaxHopValue ttlSecurityMaxHop() { return TtlSecurityMaxHopValue(254); }
// The remote AS is a plain AS number unless a peer filter is configured.
inline AsnOrPeerFilter asnOrPeerFilter() { return AsnOrPeerFilter(AsnOrPeerFilter::Type::asn, 0, {}); }

}  // namespace tristateDefaults

// The per-neighbour limit defaults to 256000 routes; the per-address-family one to none (0).
using TristateMaxRoutes =
    Tristate<MaxRoutes, "Routing::Bgp::TristateMaxRoutes", &tristateDefaults::neighborMaxRoutes>;
using TristateAfiSafiMaxRoutes = Tristate<MaxRoutes, "Routing::Bgp::TristateAfiSafiMaxRoutes">;
using TristateMaxAcceptedRoutes = Tristate<MaxAcceptedRoutes, "Routing::Bgp::TristateMaxAcceptedRoutes">;
using TristateMaxAdvRoutes = Tristate<MaxAdvRoutes, "Routing::Bgp::TristateMaxAdvRoutes">;
using TristateOutDelay = Tristate<OutDelay, "Routing::Bgp::TristateOutDelay">;
using TristateBgpTtlSecMaxHop = Tristate<TtlSecurityMaxHopValue, "Routing::Bgp::TristateBgpTtlSecMaxHop",
                                         &tristateDefaults::ttlSecurityMaxHop>;
using TristateExtendedNextHopCapability =
    Tristate<ExtendedNextHopCapability, "Routing::Bgp::TristateExtendedNextHopCapability">;
using TristateReflectorClient = Tristate<ReflectorClient, "Routing::Bgp::TristateReflectorClient">;
using TristateSoftReconfigInbound = Tristate<SoftReconfigInboundState, "Routing::Bgp::TristateSoftReconfigInbound">;
using TristatePolicyActionType = Tristate<PolicyActionType, "Routing::Bgp::TristatePolicyActionType">;
using TristateRemovePrivateAs = Tristate<RemovePrivateAs, "Routing::Bgp::TristateRemovePrivateAs">;
using TristateLocalAs = Tristate<LocalAs, "Routing::Bgp::TristateLocalAs">;
using TristateAsnOrPeerFilter =
    Tristate<AsnOrPeerFilter, "Routing::Bgp::TristateAsnOrPeerFilter", &tristateDefaults::asnOrPeerFilter>;
using TristateBgpTcpAuthKey = Tristate<BgpTcpAuthKey, "Routing::Bgp::TristateBgpTcpAuthKey">;
using TristateAddPathSendConfig = Tristate<AddPathSendConfig, "Routing::Bgp::TristateAddPathSendConfig">;
using TristateRfdPolicyAttachment = Tristate<RfdPolicyAttachment, "Routing::Bgp::TristateRfdPolicyAttachment">;

}  // namespace Routing::Bgp
