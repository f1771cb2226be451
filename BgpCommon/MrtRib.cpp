#include "BgpCommon/MrtRib.h"

#include <absl/container/flat_hash_set.h>

namespace Routing::Bgp {

static_assert(sizeof(RibPath) == 8, "a path is its set's number and its peer");

MrtRib::MrtRib(bool multiThreaded)
    : ipv4_(IpPlugin::ipv4RouteKeyDedupTableFactory(multiThreaded)),
      ipv6_(IpPlugin::ipv6RouteKeyDedupTableFactory(multiThreaded)) {}

MrtRib::~MrtRib() = default;

std::size_t MrtRib::load(MrtFile& file) {
  MrtDecoder decoder;
  return readMrt(file, decoder, *this);
}

void MrtRib::peerIndexTable(const MrtPeerIndexTable& table) {
  peers_.assign(table.peers.begin(), table.peers.end());
  peerIndexed_ = true;
}

U16 MrtRib::peerOf(const MrtRoute& r) {
  if (r.record->type == U16(MrtType::tableDumpV2)) return r.peerIndex;
  // TABLE_DUMP names the peer in every entry: number the peers as they come. A dump has a few
  // dozen, and one peer's entries mostly follow each other.
  if (peerIndexed_) peers_.clear(), peerIndexed_ = false;
  for (std::size_t i = peers_.size(); i-- > 0;) {
    if (peers_[i].address == r.peer->address && peers_[i].asn == r.peer->asn) return static_cast<U16>(i);
  }
  peers_.push_back(*r.peer);
  return static_cast<U16>(peers_.size() - 1);
}

void MrtRib::route(const MrtRoute& r) {
  if (r.kind != MrtRoute::Kind::ribEntry) {
    ++ignored_;
    return;
  }
  if (runs_.empty() || !(r.prefix == runPrefix_)) {
    runPrefix_ = r.prefix;
    Kelp::Ptr<const IpPlugin::IpRouteKeyBase> key = r.prefix.address().isIpv4() ? ipv4_->dedupFromIpGenPrefix(r.prefix)
                                                                                : ipv6_->dedupFromIpGenPrefix(r.prefix);
    runs_.push_back({std::move(key), static_cast<U32>(paths_.size()), 0});
  }
  paths_.push_back({sets_.internRibEntry(r.attributeOctets, *r.options, scratch_), peerOf(r)});
  ++runs_.back().count;
  // Identifiers are rare outside add-path dumps: kept from the first that is not 0 on, the paths
  // before it having had none.
  if (!pathIds_.empty()) {
    pathIds_.push_back(r.pathId);
  } else if (r.pathId != 0) {
    pathIds_.resize(paths_.size() - 1);
    pathIds_.push_back(r.pathId);
  }
}

void MrtRib::damage(const MrtDamage& d) {
  if (onDamage) onDamage(d);
}

std::vector<Netzo::IpGenPrefix> MrtRib::distinctPrefixes() const {
  std::vector<Netzo::IpGenPrefix> out;
  out.reserve(prefixes());
  absl::flat_hash_set<const IpPlugin::IpRouteKeyBase*> seen;
  for (const RibRun& run : runs_) {
    if (seen.insert(run.key.get()).second) out.push_back(run.key->prefix());
  }
  return out;
}

void MrtRib::clear() {
  std::vector<RibPath>().swap(paths_);
  std::vector<U32>().swap(pathIds_);
  std::vector<RibRun>().swap(runs_);
  sets_.clear();
  runPrefix_ = {};
}

}  // namespace Routing::Bgp
