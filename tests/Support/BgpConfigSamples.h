#pragma once
// Sample values of the configuration types that tristates wrap, for round-trip and conformance
// tests. Each list starts with a non-default value and includes extremes; the texts are chosen to
// trip a naive printer or parser: quotes, backslashes, braces, the tristate's own "', 'isSet':"
// separator, control and non-ASCII bytes.

#include <vector>

#include "BgpCommon/BgpTypesImpl.h"
#include "platform/Routing/BgpConfigTypes.h"

namespace testing_support {

// Texts that look like pieces of the long text form, or are not printable at all.
inline std::vector<Kelp::String> awkwardTexts() {
  Kelp::String allBytes;
  for (int b = 255; b >= 0; --b) allBytes.push_back(static_cast<char>(b));
  return {"PL-'quoted'", "back\\slash\\", "{braces}, commas", "x'}), 'isSet': True})", "caf\xc3\xa9\t\n\r",
          allBytes, ""};
}

inline std::vector<Routing::Bgp::MaxRoutes> sampleValues(Kelp::Tag<Routing::Bgp::MaxRoutes>) {
  return {{1000, 800, true}, {0, 0, true}, {4294967295u, 0, false}};
}
inline std::vector<Routing::Bgp::MaxAcceptedRoutes> sampleValues(Kelp::Tag<Routing::Bgp::MaxAcceptedRoutes>) {
  return {{5, 4}, {4294967295u, 4294967295u}};
}
inline std::vector<Routing::Bgp::MaxAdvRoutes> sampleValues(Kelp::Tag<Routing::Bgp::MaxAdvRoutes>) {
  return {{20000, 18000}, {0, 1}};
}
inline std::vector<Routing::Bgp::OutDelay> sampleValues(Kelp::Tag<Routing::Bgp::OutDelay>) {
  using Routing::OutDelayApplyType;
  return {{30, OutDelayApplyType::applyNew}, {0, OutDelayApplyType::applyChanged}, {7, OutDelayApplyType::applyAll}};
}
inline std::vector<Routing::Bgp::TtlSecurityMaxHopValue> sampleValues(
    Kelp::Tag<Routing::Bgp::TtlSecurityMaxHopValue>) {
  using V = Routing::Bgp::TtlSecurityMaxHopValue;
  return {V(1), V(254), V(255)};
}
inline std::vector<Routing::Bgp::ExtendedNextHopCapability> sampleValues(
    Kelp::Tag<Routing::Bgp::ExtendedNextHopCapability>) {
  using E = Routing::Bgp::ExtendedNextHopCapability;
  return {E::extendedNextHopEnabled, E::extendedNextHopDisabled};
}
inline std::vector<Routing::Bgp::ReflectorClient> sampleValues(Kelp::Tag<Routing::Bgp::ReflectorClient>) {
  using E = Routing::Bgp::ReflectorClient;
  return {E::meshedClient, E::client, E::notClient};
}
inline std::vector<Routing::Bgp::SoftReconfigInboundState> sampleValues(
    Kelp::Tag<Routing::Bgp::SoftReconfigInboundState>) {
  using E = Routing::Bgp::SoftReconfigInboundState;
  return {E::softReconfigKeepAll, E::softReconfigKeepNone, E::softReconfigKeepAccepted};
}
inline std::vector<Routing::Bgp::PolicyActionType> sampleValues(Kelp::Tag<Routing::Bgp::PolicyActionType>) {
  using E = Routing::Bgp::PolicyActionType;
  return {E::policyActionDeny, E::policyActionPermit};
}
inline std::vector<Routing::Bgp::RemovePrivateAs> sampleValues(Kelp::Tag<Routing::Bgp::RemovePrivateAs>) {
  return {{true, true, true}, {false, false, true}, {true, false, false}};
}
inline std::vector<Routing::Bgp::LocalAs> sampleValues(Kelp::Tag<Routing::Bgp::LocalAs>) {
  return {{65001, true, false}, {4294967295u, false, true}, {0, true, true}};
}
inline std::vector<Routing::Bgp::AsnOrPeerFilter> sampleValues(Kelp::Tag<Routing::Bgp::AsnOrPeerFilter>) {
  using V = Routing::Bgp::AsnOrPeerFilter;
  std::vector<V> out = {V(V::Type::asn, 65001, ""), V(V::Type::unknown, 0, ""), V(V::Type::peerFilter, 4294967295u, "x")};
  for (const Kelp::String& t : awkwardTexts()) out.emplace_back(V::Type::peerFilter, 0, t);
  return out;
}
inline std::vector<Routing::Bgp::BgpTcpAuthKey> sampleValues(Kelp::Tag<Routing::Bgp::BgpTcpAuthKey>) {
  using V = Routing::Bgp::BgpTcpAuthKey;
  std::vector<V> out = {V(V::Type::tcpAo, "", "chain-1", 255)};
  for (const Kelp::String& t : awkwardTexts()) {
    out.emplace_back(V::Type::md5, t, "", 0);
    out.emplace_back(V::Type::tcpAo, "s", t, 3);
  }
  return out;
}
inline std::vector<Routing::Bgp::AddPathSendConfig> sampleValues(Kelp::Tag<Routing::Bgp::AddPathSendConfig>) {
  using V = Routing::Bgp::AddPathSendConfig;
  std::vector<V> out = {V(V::Kind::sendEcmp, 4), V(V::Kind::sendLimited, 70000), V(V::Kind::sendDisabled, 0),
                        V(V::Kind::sendBackup, 4294967295u)};
  for (const Kelp::String& t : awkwardTexts()) out.emplace_back(V::Kind::sendAny, 0, t);
  return out;
}
inline std::vector<Routing::Bgp::RfdPolicyAttachment> sampleValues(Kelp::Tag<Routing::Bgp::RfdPolicyAttachment>) {
  using V = Routing::Bgp::RfdPolicyAttachment;
  std::vector<V> out = {V("", true)};
  for (const Kelp::String& t : awkwardTexts()) out.emplace_back(t, false);
  return out;
}

template <typename V>
std::vector<V> sampleValuesOf() {
  return sampleValues(Kelp::Tag<V>{});
}

}  // namespace testing_support
