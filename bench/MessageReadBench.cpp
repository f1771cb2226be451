// The path-attribute reader over every attribute set of the RouteViews dumps that python3-pyasn
// ships, found by the MRT reader (558,874 sets: TABLE_DUMP two-octet, TABLE_DUMP_V2 four-octet, IPv6 with MP_REACH_NLRI),
// beside a floor: a hand-written loop over the same octets that does only what any decoder must
// (walk the attribute headers and the AS_PATH segments with their bounds checks, load every
// number once) and stores nothing.
//
// BM_ReadAttributeSets: ours reads each set into one PathAttributes reused from set to set, as a
// session reading UPDATEs would. Its counters also say how many heap allocations a set costs,
// counted by this program's global operator new: allocs_per_set with the reused object, and
// fresh_allocs_per_set / fresh_spill_share with a new object per set (a list longer than its
// inline room spills to the heap once; the reused object keeps that room).
// BM_WriteAttributeSets: writing the sets back (Serialize per set) beside memcpy of the octets.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "BgpCommon/BgpMrt.h"
#include "BgpCommon/BgpPathAttributes.h"
#include "bench/PairedBench.h"

namespace {
std::atomic<std::size_t> gAllocations{0};
}  // namespace

void* operator new(std::size_t n) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(n == 0 ? 1 : n)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t n) { return operator new(n); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

using namespace Routing::Bgp;

struct AttributeSet {
  std::span<const U8> octets;
  SessionOptions options;
};

struct Corpus {
  std::vector<U8> octets;  // every set, one after the other
  std::vector<AttributeSet> sets;
};

const Corpus& corpus() {
  static const Corpus c = [] {
    struct Collect : MrtVisitor {
      Corpus& c;
      std::vector<std::pair<std::size_t, std::size_t>> where;
      explicit Collect(Corpus& into) : c(into) {}
      void route(const MrtRoute& r) override {
        where.emplace_back(c.octets.size(), r.attributeOctets.size());
        c.octets.insert(c.octets.end(), r.attributeOctets.begin(), r.attributeOctets.end());
        c.sets.push_back({{}, *r.options});
      }
    };
    Corpus c;
    Collect collect(c);
    for (const char* name : {"rib.20080501.0644_firstMB.bz2", "rib.20140523.0600_firstMB.bz2",
                             "rib6.20151101.0600_firstMB.bz2"}) {
      try {
        MrtFile file(std::string("/usr/lib/python3/dist-packages/data/") + name);
        MrtDecoder decoder;
        readMrt(file, decoder, collect);
      } catch (const MrtOpenError&) {
      }
    }
    for (std::size_t i = 0; i < c.sets.size(); ++i) {
      c.sets[i].octets = std::span<const U8>(c.octets).subspan(collect.where[i].first, collect.where[i].second);
    }
    return c;
  }();
  return c;
}

// The floor: every attribute header and AS_PATH segment walked with its bounds checked, every
// number loaded (summed so that the loads stay), nothing stored.
U64 floorRead(std::span<const U8> a, bool fourOctetAs) {
  U64 sum = 0;
  std::size_t i = 0;
  const std::size_t n = a.size();
  auto load32 = [&](std::size_t at) {
    U32 v;
    std::memcpy(&v, a.data() + at, 4);
    return v;
  };
  while (i + 3 <= n) {
    const U8 flags = a[i], type = a[i + 1];
    std::size_t length = a[i + 2], at = i + 3;
    if (flags & attrFlagExtendedLength) {
      if (i + 4 > n) return ~U64{0};
      length = std::size_t{a[i + 2]} << 8 | a[i + 3];
      at = i + 4;
    }
    if (at + length > n) return ~U64{0};
    const std::size_t end = at + length;
    if (type == 2) {
      const std::size_t width = fourOctetAs ? 4 : 2;
      for (std::size_t p = at; p < end;) {
        if (p + 2 > end) return ~U64{0};
        const std::size_t count = a[p + 1];
        p += 2;
        if (p + count * width > end) return ~U64{0};
        for (std::size_t k = 0; k < count; ++k, p += width) sum += width == 4 ? load32(p) : (a[p] << 8 | a[p + 1]);
      }
    } else {
      for (std::size_t p = at; p + 4 <= end; p += 4) sum += load32(p);
    }
    sum += type;
    i = end;
  }
  return i == n ? sum : ~U64{0};
}

void BM_ReadAttributeSets(benchmark::State& state) {
  const auto& sets = corpus().sets;
  if (sets.empty()) {
    state.SkipWithError("no MRT dumps (scripts/setup installs python3-pyasn)");
    return;
  }
  PathAttributes attrs;
  // Allocations per set: reused object (after one warm-up pass), then a fresh object per set.
  auto readAll = [&](PathAttributes& into) {
    for (const auto& s : sets) {
      Deserialize in(s.octets);
      benchmark::DoNotOptimize(readPathAttributes(in, s.options, into));
    }
  };
  readAll(attrs);
  std::size_t before = gAllocations.load();
  readAll(attrs);
  const double reused = static_cast<double>(gAllocations.load() - before) / sets.size();
  std::size_t spilled = 0;
  before = gAllocations.load();
  for (const auto& s : sets) {
    const std::size_t start = gAllocations.load();
    PathAttributes fresh;
    Deserialize in(s.octets);
    benchmark::DoNotOptimize(readPathAttributes(in, s.options, fresh));
    spilled += gAllocations.load() != start;
  }
  const double fresh = static_cast<double>(gAllocations.load() - before) / sets.size();

  std::size_t i = 0, j = 0;
  bench_support::pairedRun(
      state, 4096, 0,
      [&] {
        const auto& s = sets[i++ % sets.size()];
        Deserialize in(s.octets);
        benchmark::DoNotOptimize(readPathAttributes(in, s.options, attrs));
      },
      [&] {
        const auto& s = sets[j++ % sets.size()];
        benchmark::DoNotOptimize(floorRead(s.octets, s.options.fourOctetAs));
      });
  state.counters["sets"] = static_cast<double>(sets.size());
  state.counters["allocs_per_set"] = reused;
  state.counters["fresh_allocs_per_set"] = fresh;
  state.counters["fresh_spill_share"] = static_cast<double>(spilled) / sets.size();
}
BENCHMARK(BM_ReadAttributeSets)->Apply(bench_support::repeatedDuel);

void BM_WriteAttributeSets(benchmark::State& state) {
  const auto& sets = corpus().sets;
  if (sets.empty()) {
    state.SkipWithError("no MRT dumps (scripts/setup installs python3-pyasn)");
    return;
  }
  std::vector<PathAttributes> read(4096);
  std::vector<U8> copy(65536);
  std::size_t i = 0, j = 0;
  for (std::size_t k = 0; k < read.size(); ++k) {
    Deserialize in(sets[k].octets);
    (void)readPathAttributes(in, sets[k].options, read[k]);
  }
  bench_support::pairedRun(
      state, 4096, 0,
      [&] {
        const std::size_t k = i++ % read.size();
        Serialize out;
        writePathAttributes(out, read[k], sets[k].options);
        benchmark::DoNotOptimize(out.writeOffset());
      },
      [&] {
        const auto& s = sets[j++ % read.size()].octets;
        std::memcpy(copy.data(), s.data(), s.size());
        benchmark::DoNotOptimize(copy.data());
      });
}
BENCHMARK(BM_WriteAttributeSets)->Apply(bench_support::repeatedDuel);

}  // namespace

BENCHMARK_MAIN();
