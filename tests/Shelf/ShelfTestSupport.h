#pragma once
// Helpers shared by the shared-memory table tests: a private root directory that is removed
// afterwards, and records whose fields all derive from one number, so that a reader can tell a
// whole record from a torn or mixed one.

#include <cstdint>
#include <string>

#include "BgpCommon/IgpPolicyTypes.h"
#include "tools/Support.h"

namespace testing_support {

// A fresh directory under /dev/shm (or /tmp), removed with everything in it when it goes.
struct TempRoot : tools::TempDir { TempRoot() : TempDir({}, "bgpcommon-test") {} };

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
