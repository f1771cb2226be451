#pragma once
// Samples of the types that tristates wrap: each list starts with a non-default value, includes
// extremes, and pairs that differ in one field only.

#include <algorithm>
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

namespace bgp = Routing::Bgp;
using Routing::OutDelayApplyType;

inline std::vector<bgp::MaxRoutes> sampleValues(Kelp::Tag<bgp::MaxRoutes>) {
  return {{1000, 800, true}, {0, 0, true}, {4294967295u, 0, false}};
}
inline std::vector<bgp::MaxAcceptedRoutes> sampleValues(Kelp::Tag<bgp::MaxAcceptedRoutes>) {
  return {{5, 4}, {4294967295u, 4294967295u}, {0, 4}};
}
inline std::vector<bgp::MaxAdvRoutes> sampleValues(Kelp::Tag<bgp::MaxAdvRoutes>) { return {{20000, 18000}, {0, 1}}; }
inline std::vector<bgp::OutDelay> sampleValues(Kelp::Tag<bgp::OutDelay>) {
  return {{30, OutDelayApplyType::applyNew}, {0, OutDelayApplyType::applyChanged}, {7, OutDelayApplyType::applyAll}};
}
inline std::vector<bgp::TtlSecurityMaxHopValue> sampleValues(Kelp::Tag<bgp::TtlSecurityMaxHopValue>) {
  return {bgp::TtlSecurityMaxHopValue(1), bgp::TtlSecurityMaxHopValue(254), bgp::TtlSecurityMaxHopValue(255)};
}
// An enumeration's samples: every enumerator, the highest number first.
template <Kelp::DescribedEnum E>
std::vector<E> sampleValues(Kelp::Tag<E>) {
  std::vector<E> out;
  for (const Kelp::EnumEntryInfo& e : Kelp::enumDescOf<E>.entries) out.push_back(static_cast<E>(e.value));
  std::sort(out.rbegin(), out.rend());
  return out;
}
inline std::vector<bgp::RemovePrivateAs> sampleValues(Kelp::Tag<bgp::RemovePrivateAs>) {
  return {{true, true, true}, {false, false, true}, {true, false, false}};
}
inline std::vector<bgp::LocalAs> sampleValues(Kelp::Tag<bgp::LocalAs>) {
  return {{65001, true, false}, {4294967295u, false, true}, {0, true, true}};
}
// The types holding text carry every awkward text.
inline std::vector<bgp::AsnOrPeerFilter> sampleValues(Kelp::Tag<bgp::AsnOrPeerFilter>) {
  using V = bgp::AsnOrPeerFilter;
  std::vector<V> out = {V(V::Type::asn, 65001, ""), V(V::Type::unknown, 0, ""), V(V::Type::peerFilter, 4294967295u, "x")};
  for (const Kelp::String& t : awkwardTexts()) out.emplace_back(V::Type::peerFilter, 0, t);
  return out;
}
inline std::vector<bgp::BgpTcpAuthKey> sampleValues(Kelp::Tag<bgp::BgpTcpAuthKey>) {
  using V = bgp::BgpTcpAuthKey;
  std::vector<V> out = {V(V::Type::tcpAo, "", "chain-1", 255)};
  for (const Kelp::String& t : awkwardTexts()) {
    out.emplace_back(V::Type::md5, t, "", 0);
    out.emplace_back(V::Type::tcpAo, "s", t, 3);
  }
  return out;
}
inline std::vector<bgp::AddPathSendConfig> sampleValues(Kelp::Tag<bgp::AddPathSendConfig>) {
  using V = bgp::AddPathSendConfig;
  std::vector<V> out = {V(V::Kind::sendEcmp, 4), V(V::Kind::sendLimited, 70000), V(V::Kind::sendDisabled, 0),
                        V(V::Kind::sendBackup, 4294967295u)};
  for (const Kelp::String& t : awkwardTexts()) out.emplace_back(V::Kind::sendAny, 0, t);
  return out;
}
inline std::vector<bgp::RfdPolicyAttachment> sampleValues(Kelp::Tag<bgp::RfdPolicyAttachment>) {
  std::vector<bgp::RfdPolicyAttachment> out = {{"", true}};
  for (const Kelp::String& t : awkwardTexts()) out.emplace_back(t, false);
  return out;
}

template <typename V>
std::vector<V> sampleValuesOf() {
  return sampleValues(Kelp::Tag<V>{});
}

}  // namespace testing_support
