// A RIB dump loaded into the library's structures (MrtRib: every prefix an interned route key,
// every attribute set stored once in PackedAttributeSets, each path 8 octets) beside a peer doing the
// same job with the containers a C++ programmer reaches for: an absl::flat_hash_map from prefix to
// the prefix's paths, each path a std::shared_ptr of its attribute set (the octets in a
// std::vector) with its peer and path identifier, equal sets shared through an
// absl::flat_hash_map keyed by their octets. Both intern the same canonical octets
// (ribEntryAttributes) and read the same records through the same MRT decoder, from memory (each
// dump is decompressed once beforehand), so what differs is the structures.
//
// RibMemory/<dump>: resident memory per route, each load in a new process of its own (RSS before
// and after, /proc/self/statm); goal: ours at most half the peer's. The floor beside it: the
// octets of the distinct sets alone, which any structure that keeps the sets must hold, per route
// (floor_ns, in bytes here; floor_ratio is ours over it, floor_vs_peer it over the peer's).
// RibLoad/<dump>: the load, ours and the peer's back to back, alternating which goes first;
// goal: ours no slower. The release of everything is timed as well (release_ns_per_route).
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <absl/hash/hash.h>
#include <fmt/format.h>

#include "BgpCommon/MrtRib.h"
#include "bench/PairedBench.h"

namespace {

using namespace Routing::Bgp;

const char* const kDumps[] = {"rib.20080501.0644_firstMB.bz2", "rib.20140523.0600_firstMB.bz2",
                              "rib6.20151101.0600_firstMB.bz2"};

// The records of a dump, decompressed, as a plain MRT file in memory.
const std::vector<U8>& plainDump(int which) {
  static std::vector<U8> dumps[std::size(kDumps)];
  std::vector<U8>& out = dumps[which];
  if (!out.empty()) return out;
  // Room for any of the dumps at once, so that no smaller buffer is left behind in the heap for a
  // measured load to reuse (pages never written stay out of the resident set).
  out.reserve(64 << 20);
  try {
    MrtFile file(std::string("/usr/lib/python3/dist-packages/data/") + kDumps[which]);
    MrtRecord r;
    while (file.next(r)) {
      const U8 head[12] = {U8(r.timestamp >> 24), U8(r.timestamp >> 16), U8(r.timestamp >> 8), U8(r.timestamp),
                           U8(r.type >> 8),       U8(r.type),            U8(r.subtype >> 8),   U8(r.subtype),
                           U8(r.length >> 24),    U8(r.length >> 16),    U8(r.length >> 8),    U8(r.length)};
      out.insert(out.end(), head, head + 12);
      out.insert(out.end(), r.body.begin(), r.body.end());
    }
  } catch (const MrtOpenError&) {
  }
  return out;
}

// ---- The peer ------------------------------------------------------------------------------

struct PeerSet {
  std::vector<U8> octets;
  U32 mpReachWord = 0;
  bool fourOctetAs = true;
};
struct PeerSetKey {
  std::span<const U8> octets;
  U32 mpReachWord;
  bool fourOctetAs;
  friend bool operator==(const PeerSetKey& a, const PeerSetKey& b) {
    return a.mpReachWord == b.mpReachWord && a.fourOctetAs == b.fourOctetAs && a.octets.size() == b.octets.size() &&
           std::memcmp(a.octets.data(), b.octets.data(), a.octets.size()) == 0;
  }
  template <typename H>
  friend H AbslHashValue(H h, const PeerSetKey& k) {
    return H::combine(H::combine_contiguous(std::move(h), k.octets.data(), k.octets.size()), k.mpReachWord,
                      k.fourOctetAs);
  }
};
struct PeerPath {
  std::shared_ptr<const PeerSet> attributes;
  U32 pathId = 0;
  U16 peer = 0;
};

class PeerRib : public MrtVisitor {
 public:
  absl::flat_hash_map<Netzo::IpGenPrefix, std::vector<PeerPath>> routes;
  absl::flat_hash_map<PeerSetKey, std::shared_ptr<const PeerSet>> sets;  // the key views the set's octets
  std::vector<MrtPeer> peers;
  std::size_t paths = 0;

  void peerIndexTable(const MrtPeerIndexTable& t) override { peers.assign(t.peers.begin(), t.peers.end()); }
  void route(const MrtRoute& r) override {
    if (r.kind != MrtRoute::Kind::ribEntry) return;
    const std::span<const U8> octets = ribEntryAttributes(r.attributeOctets, *r.options, scratch_);
    const PeerSetKey key{octets, r.options->mrtAbbreviatedMpReach.value(), r.options->fourOctetAs};
    auto it = sets.find(key);
    if (it == sets.end()) {
      auto set = std::make_shared<const PeerSet>(
          PeerSet{{octets.begin(), octets.end()}, key.mpReachWord, key.fourOctetAs});
      it = sets.emplace(PeerSetKey{set->octets, key.mpReachWord, key.fourOctetAs}, std::move(set)).first;
    }
    routes[r.prefix].push_back({it->second, r.pathId, peerOf(r)});
    ++paths;
  }
  // Sets no route holds any more leave the intern map, as ours leave their table.
  void clear() {
    routes = {};
    sets = {};
    paths = 0;
  }

 private:
  U16 peerOf(const MrtRoute& r) {
    if (r.record->type == U16(MrtType::tableDumpV2)) return r.peerIndex;
    for (std::size_t i = 0; i < peers.size(); ++i)
      if (peers[i].address == r.peer->address && peers[i].asn == r.peer->asn) return static_cast<U16>(i);
    peers.push_back(*r.peer);
    return static_cast<U16>(peers.size() - 1);
  }
  std::vector<U8> scratch_;
};

// ---- The runs ------------------------------------------------------------------------------

std::int64_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::int64_t size = 0, resident = 0;
  statm >> size >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}

template <typename Rib>
std::size_t loadInto(Rib& rib, const std::vector<U8>& dump) {
  MrtFile file{std::span<const U8>(dump)};
  MrtDecoder decoder;
  readMrt(file, decoder, rib);
  if constexpr (std::is_same_v<Rib, MrtRib>) {
    return rib.routes();
  } else {
    return rib.paths;
  }
}

// Resident octets per route of a load, measured in a new process of this program that reads the
// dump, then loads it and does nothing else (a forked child would start with its parent's freed
// memory to reuse). The child is told its job by RIB_BENCH_CHILD=<ours|peer>:<dump>.
template <typename Rib>
double childLoad(int which) {
  // A fixed threshold for mapping large blocks: reading the dump frees its decompression buffers,
  // which would otherwise raise malloc's threshold above them, and the growing vectors of either
  // load would leave their outgrown blocks resident in the heap.
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  const std::vector<U8>& dump = plainDump(which);
  const std::int64_t before = residentBytes();
  auto* rib = new Rib();  // kept: only the load is measured
  const std::size_t routes = loadInto(*rib, dump);
  return static_cast<double>(residentBytes() - before) / static_cast<double>(routes);
}
const bool isChild = [] {
  const char* job = std::getenv("RIB_BENCH_CHILD");
  if (job == nullptr) return false;
  const std::string j(job);
  const int which = std::atoi(j.c_str() + j.find(':') + 1);
  std::printf("%.3f\n", j.rfind("ours", 0) == 0 ? childLoad<MrtRib>(which) : childLoad<PeerRib>(which));
  std::fflush(stdout);
  _exit(0);
}();

double bytesPerRouteInChild(const char* who, int which) {
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return 0;
  self[n] = 0;
  FILE* p = popen(fmt::format("RIB_BENCH_CHILD={}:{} '{}'", who, which, self).c_str(), "r");
  double perRoute = 0;
  if (p != nullptr && std::fscanf(p, "%lf", &perRoute) != 1) perRoute = 0;
  if (p != nullptr) pclose(p);
  return perRoute;
}

void BM_RibMemory(benchmark::State& state, int which) {
  const std::vector<U8>& dump = plainDump(which);
  if (dump.empty()) return state.SkipWithError("no MRT dumps (scripts/setup installs python3-pyasn)");
  double ours = 0, peer = 0;
  for (auto _ : state) {
    ours = bytesPerRouteInChild("ours", which);
    peer = bytesPerRouteInChild("peer", which);
  }
  MrtRib rib;
  loadInto(rib, dump);
  double setOctets = 0;
  absl::flat_hash_set<PackedAttributeSets::Number> seen;
  for (const RibPath& p : rib.paths()) {
    if (seen.insert(p.set).second) setOctets += static_cast<double>(rib.attributesOf(p).octets.size());
  }
  const double floor = setOctets / static_cast<double>(rib.routes());
  bench_support::duelCounters(state, ours, peer, 0.5);
  bench_support::floorCounters(state, ours, floor, 0);
  state.counters["floor_vs_peer"] = peer > 0 ? floor / peer : 0;
  state.counters["routes"] = static_cast<double>(rib.routes());
  state.counters["prefixes"] = static_cast<double>(rib.prefixes());
  state.counters["attribute_sets"] = static_cast<double>(rib.attributeSets());
  state.SetLabel("unit: bytes per route");
}

void BM_RibLoad(benchmark::State& state, int which) {
  const std::vector<U8>& dump = plainDump(which);
  if (dump.empty()) return state.SkipWithError("no MRT dumps (scripts/setup installs python3-pyasn)");
  double oursNs = 0, peerNs = 0, oursReleaseNs = 0, peerReleaseNs = 0;
  std::size_t routes = 0;
  bool oursFirst = true;
  auto ours = [&] {
    const double t0 = bench_support::steadyNs();
    auto rib = std::make_unique<MrtRib>();
    routes += loadInto(*rib, dump);
    const double t1 = bench_support::steadyNs();
    rib.reset();
    oursNs += t1 - t0;
    oursReleaseNs += bench_support::steadyNs() - t1;
  };
  auto peer = [&] {
    const double t0 = bench_support::steadyNs();
    auto rib = std::make_unique<PeerRib>();
    loadInto(*rib, dump);
    const double t1 = bench_support::steadyNs();
    rib.reset();
    peerNs += t1 - t0;
    peerReleaseNs += bench_support::steadyNs() - t1;
  };
  for (auto _ : state) {
    if (oursFirst) {
      ours(), peer();
    } else {
      peer(), ours();
    }
    oursFirst = !oursFirst;
  }
  const double n = static_cast<double>(routes);
  bench_support::duelCounters(state, oursNs / n, peerNs / n, 1.0);
  state.counters["release_ns_per_route"] = oursReleaseNs / n;
  state.counters["peer_release_ns_per_route"] = peerReleaseNs / n;
  state.counters["routes_per_s"] = 1e9 * n / oursNs;
  state.counters["peer_routes_per_s"] = 1e9 * n / peerNs;
  state.SetLabel("peer: flat_hash_map<prefix, paths of shared_ptr<set>>");
}

const bool registered = [] {
  for (int which = 0; which < static_cast<int>(std::size(kDumps)); ++which) {
    const std::string dump = std::string(kDumps[which]).substr(0, std::string(kDumps[which]).find("_firstMB"));
    bench_support::repeated(benchmark::RegisterBenchmark(("RibMemory/" + dump).c_str(), BM_RibMemory, which)
                                ->Iterations(1));
  }
  for (int which = 0; which < static_cast<int>(std::size(kDumps)); ++which) {
    const std::string dump = std::string(kDumps[which]).substr(0, std::string(kDumps[which]).find("_firstMB"));
    bench_support::repeated(benchmark::RegisterBenchmark(("RibLoad/" + dump).c_str(), BM_RibLoad, which)
                                ->Iterations(4));
  }
  return true;
}();

}  // namespace
BENCHMARK_MAIN();
