#pragma once
// A policy result that sets every field, and changes of one field each: what equality, hashing
// and deduplication of policy results must tell apart.

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

}  // namespace testing_support
