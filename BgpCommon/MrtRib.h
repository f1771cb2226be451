#pragma once
// A RIB dump (MRT TABLE_DUMP or TABLE_DUMP_V2) loaded into compact structures: every prefix an
// IPv4 or IPv6 route key of the family's dedup table, every attribute set stored once in the
// table's PackedAttributeSets, so that a table of a million routes holds each prefix and each
// distinct set once.
//
// Routes are kept as the dump lists them: runs of paths of one prefix (a TABLE_DUMP_V2 record is
// one run; consecutive TABLE_DUMP records of one prefix are one run), each path 8 octets (the
// number of its attribute set and its peer). Add-path identifiers (RFC 8050 records) are kept
// beside the paths, and only once the dump has given one that is not 0.
//
//   Routing::Bgp::MrtFile file("rib.20140523.0600.bz2");
//   Routing::Bgp::MrtRib rib;
//   std::size_t damaged = rib.load(file);
//   rib.routes(); rib.prefixes(); rib.attributeSets();
//   for (const RibRun& run : rib.runs())
//     for (const RibPath& p : rib.pathsOf(run))
//       use(run.key->prefix(), rib.peers()[p.peer], rib.attributesOf(p).octets, rib.pathIdOf(p));
//   rib.clear();   // every route let go: the keys leave their tables, the sets go
//
// Routes of update dumps (announcements, withdrawals) are not RIB entries: they are counted in
// ignored() and not kept.

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "BgpCommon/BgpIpv4Plugin.h"
#include "BgpCommon/BgpIpv6Plugin.h"
#include "BgpCommon/BgpMrt.h"
#include "BgpCommon/PathAttributeSet.h"

namespace Routing::Bgp {

// One path of a prefix.
struct RibPath {
  PackedAttributeSets::Number set = 0;  // its attribute set (MrtRib::attributesOf)
  U16 peer = 0;                         // index in MrtRib::peers()
};

// The paths of one prefix that the dump lists together.
struct RibRun {
  Kelp::Ptr<const IpPlugin::IpRouteKeyBase> key;
  U32 first = 0;  // index of its first path in MrtRib::paths()
  U32 count = 0;
};

class MrtRib : public MrtVisitor {
 public:
  explicit MrtRib(bool multiThreaded = false);
  ~MrtRib() override;

  // Reads every record of `file` into this table; returns the number of damages (each also handed
  // to onDamage, when set).
  std::size_t load(MrtFile& file);
  std::function<void(const MrtDamage&)> onDamage;

  std::size_t routes() const { return paths_.size(); }
  std::size_t ipv4Prefixes() const { return ipv4_->size(); }
  std::size_t ipv6Prefixes() const { return ipv6_->size(); }
  std::size_t prefixes() const { return ipv4Prefixes() + ipv6Prefixes(); }
  std::size_t attributeSets() const { return sets_.size(); }
  // Routes that were not RIB entries (announcements and withdrawals of update dumps).
  std::size_t ignored() const { return ignored_; }

  std::span<const RibRun> runs() const { return runs_; }
  std::span<const RibPath> paths() const { return paths_; }
  std::span<const RibPath> pathsOf(const RibRun& run) const { return std::span(paths_).subspan(run.first, run.count); }
  // The attribute set of a path of this table, as stored (its octets and options).
  AttributeSetView attributesOf(const RibPath& p) const { return sets_[p.set]; }
  // The add-path identifier of a path of this table (one of paths()), 0 when the dump gave none.
  U32 pathIdOf(const RibPath& p) const {
    return pathIds_.empty() ? 0 : pathIds_[static_cast<std::size_t>(&p - paths_.data())];
  }
  // The peers the paths name: the last peer index table's, or for TABLE_DUMP the peers as they came.
  std::span<const MrtPeer> peers() const { return peers_; }
  // Each distinct prefix once, in the order of its first run.
  std::vector<Netzo::IpGenPrefix> distinctPrefixes() const;

  // Lets go of every route and set (and their memory); keys that only routes held leave their tables.
  void clear();

  const IpPlugin::Ipv4RouteKeyDedupTable& ipv4Keys() const { return *ipv4_; }
  const IpPlugin::Ipv6RouteKeyDedupTable& ipv6Keys() const { return *ipv6_; }
  const PackedAttributeSets& attributeSetStore() const { return sets_; }

  // MrtVisitor.
  void peerIndexTable(const MrtPeerIndexTable& table) override;
  void route(const MrtRoute& r) override;
  void damage(const MrtDamage& d) override;

 private:
  U16 peerOf(const MrtRoute& r);

  Kelp::Ptr<IpPlugin::Ipv4RouteKeyDedupTable> ipv4_;
  Kelp::Ptr<IpPlugin::Ipv6RouteKeyDedupTable> ipv6_;
  PackedAttributeSets sets_;
  std::vector<RibRun> runs_;
  std::vector<RibPath> paths_;
  std::vector<U32> pathIds_;  // one per path once an identifier other than 0 came (0 before it); else empty
  std::vector<MrtPeer> peers_;
  bool peerIndexed_ = false;   // peers_ is a peer index table (TABLE_DUMP_V2)
  Netzo::IpGenPrefix runPrefix_;  // the prefix of runs_.back()
  std::size_t ignored_ = 0;
  std::vector<U8> scratch_;  // a set's canonical octets, when they differ from the entry's
};

}  // namespace Routing::Bgp
