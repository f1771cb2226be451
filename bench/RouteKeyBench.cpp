// Interned IPv4 and IPv6 route keys on real and generated tables: dedupContent hits beside
// absl::flat_hash_set::find, intern-all-then-release-all beside shared_ptr keys in a
// std::unordered_set, memory per key beside the 48-octet limit, and two threads on one
// multiThreaded table. See bench/DedupDuel.h.

#include "BgpCommon/BgpIpv4Plugin.h"
#include "BgpCommon/BgpIpv6Plugin.h"
#include "bench/DedupDuel.h"

namespace {

using namespace Routing::Bgp::IpPlugin;

struct V4Peer {
  std::uint32_t address;
  std::uint8_t length;
  bool operator==(const V4Peer&) const = default;
  template <typename H>
  friend H AbslHashValue(H h, const V4Peer& p) { return H::combine(std::move(h), p.address, p.length); }
};
struct V6Peer {
  std::array<std::uint32_t, 4> words;
  std::uint8_t length;
  bool operator==(const V6Peer&) const = default;
  template <typename H>
  friend H AbslHashValue(H h, const V6Peer& p) { return H::combine(std::move(h), p.words, p.length); }
};

// The subjects hold the route key table; the duels see its interning set.
template <typename Table, typename Key, typename Content, typename Prefix, typename PeerT, typename MakeContent>
struct Subject {
  using Held = Kelp::Ptr<const Key>;
  using Peer = PeerT;
  static Kelp::Ptr<Table>& current() {
    static Kelp::Ptr<Table> t;
    return t;
  }
  static Kelp::Ptr<Brim::DedupHashTable> makeTable(bool mt) {
    current() = Kelp::makePtr<Table>(mt);
    return Kelp::Ptr<Brim::DedupHashTable>(current()->hashTable().get());
  }
  static void dropTable() { current() = nullptr; }
  static Held intern(Brim::DedupHashTable&, const Prefix& p) { return Key::dedupContent(*current(), MakeContent()(p)); }
  static std::uint32_t hash(const Prefix& p) { return MakeContent()(p).hash(); }
  static bool matches(const Held& k, const Prefix& p) { return k->compareByContent(MakeContent()(p)); }
};

struct MakeV4 {
  Ipv4RouteKeyContent operator()(const bench::V4Prefix& p) const { return {p.addressNbo, p.length}; }
};
struct MakeV6 {
  Ipv6RouteKeyContent operator()(const bench::V6Prefix& p) const {
    Ipv6AddressBuf b;
    b.words = p.words;
    return {b, p.length};
  }
};

struct V4 : Subject<Ipv4RouteKeyDedupTable, Ipv4RouteKey, Ipv4RouteKeyContent, bench::V4Prefix, V4Peer, MakeV4> {
  using Prefix = bench::V4Prefix;
  static Peer peer(const Prefix& p) { return {p.addressNbo, p.length}; }
};
struct V6 : Subject<Ipv6RouteKeyDedupTable, Ipv6RouteKey, Ipv6RouteKeyContent, bench::V6Prefix, V6Peer, MakeV6> {
  using Prefix = bench::V6Prefix;
  static Peer peer(const Prefix& p) { return {p.words, p.length}; }
};

const std::vector<bench::V4Prefix>& real2014v4() { return bench::Tables::get().real2014.v4; }
const std::vector<bench::V4Prefix>& real2015v4() { return bench::Tables::get().real2015.v4; }
const std::vector<bench::V6Prefix>& real2015v6() { return bench::Tables::get().real2015.v6; }
const std::vector<bench::V4Prefix>& generatedV4() { return bench::Tables::get().generated.v4; }
const std::vector<bench::V6Prefix>& generatedV6() { return bench::Tables::get().generated.v6; }

}  // namespace

int main(int argc, char** argv) {
  bench::registerDuels<V4>("Ipv4RouteKey", "real2014", &real2014v4);
  bench::registerDuels<V4>("Ipv4RouteKey", "real2015", &real2015v4);
  bench::registerDuels<V4>("Ipv4RouteKey", "generated1M", &generatedV4);
  bench::registerDuels<V6>("Ipv6RouteKey", "real2015", &real2015v6);
  bench::registerDuels<V6>("Ipv6RouteKey", "generated250k", &generatedV6);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
