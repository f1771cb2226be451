#pragma once
// The common ground of the IP unicast route keys: a key that names a prefix, and a dedup table
// that interns keys from prefixes. The concrete families are in BgpIpv4Plugin.h and BgpIpv6Plugin.h.

#include <ostream>

#include "BgpCommon/BgpRouteKey.h"
#include "platform/Netzo/IpGenPrefix.h"

namespace Routing::Bgp::IpPlugin {

class IpRouteKeyBase : public RouteKeyBase {
 public:
  // Always unicast.
  Safi safi() const override { return safiUnicast; }
  // The prefix's text: address, "/", length (10.1.0.0/16, 2001:db8::/32).
  void formatDerivedType(std::ostream& os) const override;
  virtual Netzo::IpGenPrefix prefix() const = 0;
};

class IpRouteKeyDedupTableBase : public RouteKeyDedupTableBase {
 public:
  using RouteKeyDedupTableBase::RouteKeyDedupTableBase;
  // The interned key of a prefix of the table's family. A prefix of another family is refused
  // with Kelp::RangeException "dedupFromIpGenPrefix: <prefix> is not an <family> prefix".
  virtual Kelp::Ptr<const IpRouteKeyBase> dedupFromIpGenPrefix(const Netzo::IpGenPrefix& prefix) const = 0;
};

}  // namespace Routing::Bgp::IpPlugin
