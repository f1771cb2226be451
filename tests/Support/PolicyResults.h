#pragma once
// A policy result that sets every field, and changes of one field each: what equality, hashing
// and deduplication of policy results must tell apart. Records whose fields all derive from one
// number, so that a reader of a shared table can tell a whole record from a torn or mixed one.

#include <cstdint>
#include <vector>

#include "BgpCommon/IgpPolicyTypes.h"

namespace testing_support {

inline Routing::Bgp::IgpResult_ fullPolicyResult() {
  using Routing::BgpRedistribute::CommunityIndex;
  Routing::Bgp::IgpResult_ r;
  r.preferenceIs(110);
  r.tagIs(4200);
  r.metric.valueIs(77);
  r.isisLevel = Routing::Isis::Level::level2;
  r.ospfMetricType = Routing::Ospf::OspfExtMetricType::type1;
  r.ospfBitDn = r.ospfv3BitDn = true;
  r.ospfDomainId = 0x1122334455667788ull;
  r.ospfRouteType = 5;
  r.communityIs(CommunityIndex(0), 100);
  r.communityIs(CommunityIndex(1), 200);
  return r;
}

// `hashed` is false for the fields the hash leaves out on purpose.
struct PolicyResultChange { const char* what; void (*apply)(Routing::Bgp::IgpResult_&); bool hashed; };

inline std::vector<PolicyResultChange> policyResultChanges() {
  using Routing::Bgp::IgpResult_;
  using Routing::BgpRedistribute::CommunityIndex;
  return {
      {"preference", [](IgpResult_& r) { r.preferenceIs(111); }, true},
      {"tag", [](IgpResult_& r) { r.tagIs(4201); }, true},
      {"metric", [](IgpResult_& r) { r.metric.unset(); }, true},
      {"isisLevel", [](IgpResult_& r) { r.isisLevel = Routing::Isis::Level::level1; }, true},
      {"ospfMetricType", [](IgpResult_& r) { r.ospfMetricType = Routing::Ospf::OspfExtMetricType::type2; }, true},
      {"ospfBitDn", [](IgpResult_& r) { r.ospfBitDn = false; }, true},
      {"ospfv3BitDn", [](IgpResult_& r) { r.ospfv3BitDn = false; }, true},
      {"ospfDomainId", [](IgpResult_& r) { r.ospfDomainId = 1; }, false},
      {"ospfRouteType", [](IgpResult_& r) { r.ospfRouteType = 6; }, false},
      {"fewer communities", [](IgpResult_& r) { r.communityDel(CommunityIndex(1)); }, true},
      {"a community's value", [](IgpResult_& r) { r.communityIs(CommunityIndex(1), 201); }, true},
      {"the count alone", [](IgpResult_& r) { r.communityIs(CommunityIndex(2), 0); }, true},
  };
}

// Record `key` at `version`: every field is a function of both, and the community count varies,
// so records of different versions differ in length as well as in content.
inline Routing::BgpRedistribute::IgpResult versionedRecord(std::uint32_t key, std::uint64_t version) {
  using namespace Routing::BgpRedistribute;
  IgpResult r{IgpResultId(key)};
  r.preference = static_cast<std::uint8_t>(version * 7 + key);
  r.ospfBitDn = (version & 1) != 0;
  r.ospfv3BitDn = (version & 2) != 0;
  r.metric.valueIs(version);
  r.isisLevel = static_cast<Routing::Isis::Level>(1 + version % 4);
  r.ospfMetricType = static_cast<Routing::Ospf::OspfExtMetricType>(1 + version % 3);
  r.ospfDomainId = version * 0x9E3779B97F4A7C15ull;
  r.ospfRouteType = ~version;
  r.tag = static_cast<std::uint32_t>(version ^ key);
  for (std::uint32_t i = 0; i < version % 5; ++i) {
    r.communityIs(CommunityIndex(i), static_cast<std::uint32_t>(version + i + 1));
  }
  return r;
}

// True when `r` is exactly versionedRecord(r.key, v) for the version its metric names.
inline bool isWholeRecord(const Routing::BgpRedistribute::IgpResult& r) {
  return r.metric.isSet() && r == versionedRecord(r.key.value, r.metric.value());
}

}  // namespace testing_support
