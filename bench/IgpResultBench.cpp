// The redistribution flow's two hot paths, each beside a peer in the same run:
//
//   Dedup/steady       IgpResultTable::dedup of results whose outcome is interned already (the
//                      common case: a route's policy result equals many others'), against
//                      absl::flat_hash_map<contents, id>::try_emplace with absl's own hash of the
//                      same fields. 1,000,000 results over 1,000 outcomes, visited in random order.
//   Dedup/fresh1M      the same 1,000,000 results into a fresh table, each route keeping its
//                      handle (1,000 identifiers allocated, 1,000 records published in the shared
//                      table), then all released (1,000 records withdrawn); beside a fresh map and
//                      a vector of ids. items_per_second counts results.
//   ReaderLookup/process  IgpResultStatusReaderHelper::lookup of static routes in a separate
//                      process (forked; it attaches to the table file read-only and maps it
//                      PROT_READ), beside the bare table read it is built on
//                      (IgpResultStatus::result in the same process): the ratio is the helper's
//                      own cost. limit_ns is a copy out of an absl::flat_hash_map<id, IgpResult>
//                      in that process, for scale (the table verifies a checksum on every read).
//                      items_per_second counts the helper's lookups.
// Counters: ours_ns, peer_ns (per result / lookup), ratio = ours / peer, goal = the ratio to stay
// within.
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <absl/hash/hash.h>
#include <benchmark/benchmark.h>

#include "BgpCommon/IgpResultDedupTable.h"
#include "BgpCommon/IgpResultStatusReaderHelper.h"
#include "bench/PairedBench.h"

namespace {

using Routing::Bgp::DedupIgpResult;
using Routing::Bgp::IgpResult_;
using Routing::Bgp::IgpResultTable;
using Routing::BgpRedistribute::CommunityIndex;
using Routing::BgpRedistribute::IgpResult;
using Routing::BgpRedistribute::IgpResultId;
using Routing::BgpRedistribute::IgpResultStatus;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kOutcomes = 1000;
constexpr std::uint32_t kResults = 1000000;

IgpResult_ outcome(std::uint32_t o) {
  IgpResult_ r;
  r.preferenceIs(static_cast<std::uint8_t>(1 + o % 200));
  r.tagIs(o);
  if (o % 3 != 0) r.metric.valueIs(o * 10);
  r.ospfDomainId = o % 7;
  for (std::uint32_t j = 0; j < o % 5; ++j) r.communityIs(CommunityIndex(j), (65000u << 16) | (o + j));
  return r;
}

// The peer's key: the fields that tell outcomes apart, hashed by absl.
struct Contents {
  std::uint8_t preference;
  std::uint32_t tag;
  std::uint64_t metric;
  std::uint32_t isisLevel, ospfMetricType;
  bool ospfBitDn, ospfv3BitDn;
  std::uint64_t ospfDomainId, ospfRouteType;
  std::uint32_t count;
  std::uint32_t communities[4];

  explicit Contents(const IgpResult_& r)
      : preference(r.preference().value), tag(r.tag().value), metric(r.metric.canonical()),
        isisLevel(static_cast<std::uint32_t>(r.isisLevel)), ospfMetricType(static_cast<std::uint32_t>(r.ospfMetricType)),
        ospfBitDn(r.ospfBitDn), ospfv3BitDn(r.ospfv3BitDn), ospfDomainId(r.ospfDomainId),
        ospfRouteType(r.ospfRouteType), count(r.community.count()), communities{} {
    for (std::uint32_t i = 0; i < count; ++i) communities[i] = r.community.data()[i];
  }
  friend bool operator==(const Contents& a, const Contents& b) {
    return a.preference == b.preference && a.tag == b.tag && a.metric == b.metric && a.isisLevel == b.isisLevel &&
           a.ospfMetricType == b.ospfMetricType && a.ospfBitDn == b.ospfBitDn && a.ospfv3BitDn == b.ospfv3BitDn &&
           a.ospfDomainId == b.ospfDomainId && a.ospfRouteType == b.ospfRouteType && a.count == b.count &&
           std::equal(a.communities, a.communities + a.count, b.communities);
  }
  template <typename H>
  friend H AbslHashValue(H h, const Contents& c) {
    return H::combine(std::move(h), c.preference, c.tag, c.metric, c.isisLevel, c.ospfMetricType, c.ospfBitDn,
                      c.ospfv3BitDn, c.ospfDomainId, c.ospfRouteType,
                      absl::MakeSpan(c.communities, c.count));
  }
};

// A scratch root with the status table, and the results of a policy over a million routes.
struct Fixture {
  Fixture() {
    char pattern[] = "/dev/shm/bgpcommon-bench-XXXXXX";
    root = mkdtemp(pattern);
    em = Kelp::makePtr<KelpSharedMem::EntityManager>(root);
    status = IgpResultStatus::createIgpResultStatusWriter("bench", em, 4 * kOutcomes);
    std::mt19937 rng(1);
    results.reserve(kResults);
    for (std::uint32_t i = 0; i < kResults; ++i) results.push_back(outcome(rng() % kOutcomes));
  }
  ~Fixture() {
    status = nullptr;
    em = nullptr;
    std::filesystem::remove_all(root);
  }
  std::string root;
  Kelp::Ptr<KelpSharedMem::EntityManager> em;
  Kelp::Ptr<IgpResultStatus> status;
  std::vector<IgpResult_> results;
};

// Never destroyed (objects it holds may outlive the library's own statics at exit), but its scratch
// directory is removed at exit: the table stays mapped until the process ends.
Fixture& fixture() {
  static Fixture* f = [] {
    auto* made = new Fixture;
    static std::string root = made->root;
    std::atexit([] { std::filesystem::remove_all(root); });
    return made;
  }();
  return *f;
}

void Dedup_steady(benchmark::State& state) {
  Fixture& f = fixture();
  auto table = Routing::Bgp::igpResultTableFactory(f.status);
  std::vector<Kelp::Ptr<const DedupIgpResult>> anchors;  // every outcome stays interned
  for (std::uint32_t o = 0; o < kOutcomes; ++o) anchors.push_back(table->dedup(outcome(o)));
  absl::flat_hash_map<Contents, std::uint32_t> map;
  std::uint32_t next = 1;
  std::size_t i = 0, j = 0;
  std::uint64_t sum = 0;
  bench_support::pairedRun(
      state, 1000, 2.0,
      [&] {
        Kelp::Ptr<const DedupIgpResult> h = table->dedup(f.results[i]);
        sum += h->id();
        if (++i == kResults) i = 0;
      },
      [&] {
        auto [it, added] = map.try_emplace(Contents(f.results[j]), next);
        next += added;
        sum += it->second;
        if (++j == kResults) j = 0;
      });
  benchmark::DoNotOptimize(sum);
}
BENCHMARK(Dedup_steady)->Apply(bench_support::repeatedDuel);

void Dedup_fresh1M(benchmark::State& state) {
  Fixture& f = fixture();
  double oursNs = 0, peerNs = 0;
  std::uint64_t results = 0;
  for (auto _ : state) {
    auto t0 = Clock::now();
    {
      auto table = Routing::Bgp::igpResultTableFactory(f.status);
      std::vector<Kelp::Ptr<const DedupIgpResult>> routes;
      routes.reserve(kResults);
      for (const IgpResult_& r : f.results) routes.push_back(table->dedup(r));
      if (f.status->resultCount() != kOutcomes) state.SkipWithError("records not published");
    }  // every route lets go: the records are withdrawn
    auto t1 = Clock::now();
    {
      absl::flat_hash_map<Contents, std::uint32_t> map;
      std::vector<std::uint32_t> routes;
      routes.reserve(kResults);
      std::uint32_t next = 1;
      for (const IgpResult_& r : f.results) {
        auto [it, added] = map.try_emplace(Contents(r), next);
        next += added;
        routes.push_back(it->second);
      }
      benchmark::DoNotOptimize(routes.data());
    }
    auto t2 = Clock::now();
    oursNs += std::chrono::duration<double, std::nano>(t1 - t0).count();
    peerNs += std::chrono::duration<double, std::nano>(t2 - t1).count();
    results += kResults;
    state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
  }
  bench_support::duelCounters(state, oursNs / static_cast<double>(results), peerNs / static_cast<double>(results), 2.0);
  state.SetItemsProcessed(static_cast<std::int64_t>(results));
}
BENCHMARK(Dedup_fresh1M)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5)->Apply(bench_support::repeatedDuel);

// What the reader process measured.
struct ReaderReport {
  double oursNs = 0, peerNs = 0, limitNs = 0;
  std::uint64_t lookups = 0;
  std::uint64_t found = 0;
};

// In the reader process: attach read-only, then look routes up in batches, alternating with the
// bare table read and the in-process map.
ReaderReport readInChild(const std::string& root, const std::vector<std::uint32_t>& ids, double seconds) {
  using Routing::Rib::RouteKey;
  using Routing::Rib::RoutingProtocol;
  setenv("BGPCOMMON_TOGGLE_DIR", "/nonexistent/bgpcommon-toggles", 1);  // static-route lookups on
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root);
  auto view = IgpResultStatus::createIgpResultStatusReader("bench", em);
  auto helper = Routing::BgpRedistribute::igpResultStatusReaderHelperFactory(view);
  absl::flat_hash_map<std::uint32_t, IgpResult> map;
  view->resultForEach([&](const IgpResult& r) { map.emplace(r.key.value, r); });
  const RouteKey key;
  ReaderReport rep;
  std::uint64_t sum = 0;
  std::size_t i = 0, j = 0;
  constexpr int kBatch = 1000;
  auto ours = [&] {
    for (int n = 0; n < kBatch; ++n) {
      auto l = helper->lookup(key, RoutingProtocol::protocolStatic, ids[i++ & (ids.size() - 1)]);
      rep.found += l.returnType == Routing::BgpRedistribute::IgpResultReturnType::resultFound;
      sum += l.igpResult.tag.value;
    }
  };
  auto peer = [&] {
    for (int n = 0; n < kBatch; ++n) {
      std::optional<IgpResult> r = view->result(IgpResultId(ids[j++ & (ids.size() - 1)]));
      sum += r->tag.value;
    }
  };
  std::size_t k = 0;
  auto limit = [&] {
    for (int n = 0; n < kBatch; ++n) {
      auto it = map.find(ids[k++ & (ids.size() - 1)]);
      IgpResult r = it != map.end() ? it->second : IgpResult(IgpResultId());
      sum += r.tag.value;
    }
  };
  auto timed = [](auto& f) {
    auto t0 = Clock::now();
    f();
    return std::chrono::duration<double, std::nano>(Clock::now() - t0).count();
  };
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  for (int round = 0; Clock::now() < end; ++round) {
    // Each side goes first in turn.
    switch (round % 3) {
      case 0:
        rep.oursNs += timed(ours), rep.peerNs += timed(peer), rep.limitNs += timed(limit);
        break;
      case 1:
        rep.peerNs += timed(peer), rep.limitNs += timed(limit), rep.oursNs += timed(ours);
        break;
      default:
        rep.limitNs += timed(limit), rep.oursNs += timed(ours), rep.peerNs += timed(peer);
    }
    rep.lookups += kBatch;
  }
  benchmark::DoNotOptimize(sum);
  return rep;
}

void ReaderLookup_process(benchmark::State& state) {
  Fixture& f = fixture();
  auto table = Routing::Bgp::igpResultTableFactory(f.status);
  std::vector<Kelp::Ptr<const DedupIgpResult>> anchors;
  for (std::uint32_t o = 0; o < kOutcomes; ++o) anchors.push_back(table->dedup(outcome(o)));
  std::vector<std::uint32_t> ids(1 << 16);
  std::mt19937 rng(2);
  for (auto& id : ids) id = 1 + rng() % kOutcomes;

  ReaderReport total;
  for (auto _ : state) {
    int fds[2];
    if (pipe(fds) != 0) {
      state.SkipWithError("pipe");
      break;
    }
    pid_t pid = fork();
    if (pid == 0) {
      close(fds[0]);
      ReaderReport rep = readInChild(f.root, ids, 0.5);
      _exit(write(fds[1], &rep, sizeof rep) == sizeof rep ? 0 : 1);
    }
    close(fds[1]);
    ReaderReport rep;
    bool ok = read(fds[0], &rep, sizeof rep) == sizeof rep;
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!ok || !WIFEXITED(status) || WEXITSTATUS(status) != 0 || rep.found != rep.lookups) {
      state.SkipWithError("the reader process failed or missed records");
      break;
    }
    total.oursNs += rep.oursNs;
    total.peerNs += rep.peerNs;
    total.limitNs += rep.limitNs;
    total.lookups += rep.lookups;
    state.SetIterationTime(rep.oursNs / 1e9);
  }
  if (total.lookups == 0) return;
  bench_support::duelCounters(state, total.oursNs / static_cast<double>(total.lookups),
                               total.peerNs / static_cast<double>(total.lookups), 1.3);
  state.counters["limit_ns"] = total.limitNs / static_cast<double>(total.lookups);
  state.SetItemsProcessed(static_cast<std::int64_t>(total.lookups));
}
BENCHMARK(ReaderLookup_process)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3)->Apply(bench_support::repeatedDuel);

}  // namespace

BENCHMARK_MAIN();
