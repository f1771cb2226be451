#pragma once
// The dedup benchmarks, written once for any interned key type (a "subject"), each putting ours
// beside its peer in the same run and reporting both and their ratio as counters:
//   hit      interning a prefix already present, beside absl::flat_hash_set<content>::find (the
//            answer's release is timed apart, as ratio_with_release);
//   churn    interning every prefix into an empty table, then releasing every key, beside the
//            hand-rolled std::unordered_set of std::shared_ptr keys;
//   memory   resident octets per interned key, the table's share included, beside a limit;
//   threads  two threads interning and releasing overlapping thirds of the prefixes on one locked
//            table, beside the shared_ptr set under a mutex (on the wall clock; the others time
//            the thread's CPU).
//
// A subject S provides:
//   using Prefix; using Held (a Kelp::Ptr to the key);
//   static Kelp::Ptr<Brim::DedupHashTable> makeTable(bool multiThreaded);
//   static Held intern(Brim::DedupHashTable&, const Prefix&);
//   using Peer (a plain content struct with == and AbslHashValue); static Peer peer(const Prefix&);

#include <malloc.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_set>
#include <vector>

#include <absl/container/flat_hash_set.h>
#include <absl/hash/hash.h>
#include <benchmark/benchmark.h>

#include "bench/PairedBench.h"
#include "bench/PrefixTables.h"
#include "platform/Brim/Dedup.h"
#include "platform/Brim/KelpStash.h"

namespace bench {

using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

// The single-thread duels time the calling thread's CPU: each side is timed while it runs, not
// while other work on the machine has the core.
inline double cpuSecondsSince(double t0Ns) { return (bench_support::threadCpuNs() - t0Ns) * 1e-9; }

inline std::int64_t mallocInUse() {
  struct mallinfo2 m = mallinfo2();
  return static_cast<std::int64_t>(m.uordblks + m.hblkhd);
}

inline void reportDuel(benchmark::State& state, double oursNs, double peerNs, double goal, const char* goalSense) {
  bench_support::duelCounters(state, oursNs, peerNs, goal);
  state.SetLabel(goalSense);
}

// The hand-rolled peer of interning: shared_ptr keys in an unordered_set, found by content.
template <typename Peer>
struct SharedPtrSet {
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(const Peer& p) const { return absl::Hash<Peer>()(p); }
    std::size_t operator()(const std::shared_ptr<const Peer>& p) const { return absl::Hash<Peer>()(*p); }
  };
  struct Eq {
    using is_transparent = void;
    bool operator()(const std::shared_ptr<const Peer>& a, const std::shared_ptr<const Peer>& b) const { return a == b; }
    bool operator()(const Peer& a, const std::shared_ptr<const Peer>& b) const { return a == *b; }
    bool operator()(const std::shared_ptr<const Peer>& a, const Peer& b) const { return *a == b; }
  };
  std::unordered_set<std::shared_ptr<const Peer>, Hash, Eq> set;

  std::shared_ptr<const Peer> intern(const Peer& p) {
    auto it = set.find(p);
    if (it != set.end()) return *it;
    auto sp = std::make_shared<const Peer>(p);
    set.insert(sp);
    return sp;
  }
  // Drops a holder's key; the key leaves the set when only the set still has it.
  void release(std::shared_ptr<const Peer>& sp) {
    if (sp.use_count() == 2) set.erase(sp);
    sp.reset();
  }
};

template <typename S>
void hitDuel(benchmark::State& state, const std::vector<typename S::Prefix>& prefixes) {
  using Peer = typename S::Peer;
  auto table = S::makeTable(false);
  std::vector<typename S::Held> held;
  held.reserve(prefixes.size());
  absl::flat_hash_set<Peer> peerSet;
  for (const auto& p : prefixes) {
    held.push_back(S::intern(*table, p));
    peerSet.insert(S::peer(p));
  }
  const auto order = shuffled(prefixes, 99);
  std::vector<typename S::Held> answers;
  answers.reserve(order.size());
  double ours = 0, roundTrip = 0, peer = 0;
  std::uint64_t ops = 0;
  std::uintptr_t sink = 0;
  for (auto _ : state) {
    // The lookup alone: the answers are kept and released after the clock stops.
    double t0 = bench_support::threadCpuNs();
    for (const auto& p : order) answers.push_back(S::intern(*table, p));
    ours += cpuSecondsSince(t0);
    answers.clear();
    // The lookup and the release of its answer.
    t0 = bench_support::threadCpuNs();
    for (const auto& p : order) sink += reinterpret_cast<std::uintptr_t>(S::intern(*table, p).get());
    roundTrip += cpuSecondsSince(t0);
    t0 = bench_support::threadCpuNs();
    for (const auto& p : order) sink += peerSet.find(S::peer(p)) != peerSet.end();
    peer += cpuSecondsSince(t0);
    ops += order.size();
  }
  benchmark::DoNotOptimize(sink);
  state.counters["prefixes"] = static_cast<double>(prefixes.size());
  state.counters["ours_with_release_ns"] = roundTrip * 1e9 / ops;
  state.counters["ratio_with_release"] = roundTrip / peer;
  reportDuel(state, ours * 1e9 / ops, peer * 1e9 / ops, 1.3, "goal: ratio <= 1.3");
}

template <typename S>
void churnDuel(benchmark::State& state, const std::vector<typename S::Prefix>& prefixes) {
  using Peer = typename S::Peer;
  double ours = 0, peer = 0;
  std::uint64_t ops = 0;
  for (auto _ : state) {
    {
      std::vector<typename S::Held> held;
      held.reserve(prefixes.size());
      const double t0 = bench_support::threadCpuNs();
      auto table = S::makeTable(false);
      for (const auto& p : prefixes) held.push_back(S::intern(*table, p));
      held.clear();
      table = nullptr;
      ours += cpuSecondsSince(t0);
    }
    {
      std::vector<std::shared_ptr<const Peer>> held;
      held.reserve(prefixes.size());
      const double t0 = bench_support::threadCpuNs();
      {
        SharedPtrSet<Peer> set;
        for (const auto& p : prefixes) held.push_back(set.intern(S::peer(p)));
        for (auto& sp : held) set.release(sp);
      }
      peer += cpuSecondsSince(t0);
    }
    ops += prefixes.size();
  }
  state.counters["prefixes"] = static_cast<double>(prefixes.size());
  reportDuel(state, ours * 1e9 / ops, peer * 1e9 / ops, 1.0 / 3, "goal: ratio <= 0.333 (3x faster)");
}

template <typename S>
void memoryDuel(benchmark::State& state, const std::vector<typename S::Prefix>& prefixes) {
  using Peer = typename S::Peer;
  double oursPerKey = 0, slabPerKey = 0, flatPerKey = 0, sharedPerKey = 0;
  for (auto _ : state) {
    {
      std::vector<typename S::Held> held;
      held.reserve(prefixes.size());
      // Made before the first reading, so that a table it replaces is freed outside the window
      // (its slot array is allocated at the first insert, inside it).
      auto table = S::makeTable(false);
      const auto stash0 = KelpStash::heapStats();
      const std::int64_t m0 = mallocInUse();
      for (const auto& p : prefixes) held.push_back(S::intern(*table, p));
      const auto stash1 = KelpStash::heapStats();
      const std::int64_t m1 = mallocInUse();
      // What the table took from malloc (its slot array), less the stash slabs reserved meanwhile,
      // plus the octets the keys (and the table object) occupy in the stash.
      const std::int64_t slabs = stash1.bytesReserved - stash0.bytesReserved;
      const std::int64_t inStash = stash1.bytesInUse - stash0.bytesInUse;
      oursPerKey = static_cast<double>(m1 - m0 - slabs + inStash) / prefixes.size();
      slabPerKey = static_cast<double>(slabs) / prefixes.size();
    }
    {
      const std::int64_t m0 = mallocInUse();
      absl::flat_hash_set<Peer> set;
      for (const auto& p : prefixes) set.insert(S::peer(p));
      flatPerKey = static_cast<double>(mallocInUse() - m0) / prefixes.size();
    }
    {
      std::vector<std::shared_ptr<const Peer>> held;
      held.reserve(prefixes.size());
      const std::int64_t m0 = mallocInUse();
      SharedPtrSet<Peer> set;
      for (const auto& p : prefixes) held.push_back(set.intern(S::peer(p)));
      sharedPerKey = static_cast<double>(mallocInUse() - m0) / prefixes.size();
    }
  }
  state.counters["prefixes"] = static_cast<double>(prefixes.size());
  state.counters["ours_bytes_per_key"] = oursPerKey;
  state.counters["new_slabs_per_key"] = slabPerKey;
  state.counters["flat_set_bytes_per_key"] = flatPerKey;
  state.counters["shared_ptr_set_bytes_per_key"] = sharedPerKey;
}

template <typename S>
void threadsDuel(benchmark::State& state, const std::vector<typename S::Prefix>& prefixes) {
  using Peer = typename S::Peer;
  // Thread 0 takes the first two thirds, thread 1 the last two thirds: the middle third is shared.
  const std::size_t third = prefixes.size() / 3;
  auto slice = [&](int t) {
    return std::vector<typename S::Prefix>(prefixes.begin() + t * third, prefixes.begin() + t * third + 2 * third);
  };
  const std::vector<typename S::Prefix> mine[2] = {shuffled(slice(0), 1), shuffled(slice(1), 2)};
  double ours = 0, peer = 0;
  std::uint64_t ops = 0;
  for (auto _ : state) {
    {
      auto table = S::makeTable(true);
      auto t0 = Clock::now();
      auto work = [&](int t) {
        std::vector<typename S::Held> held;
        held.reserve(mine[t].size());
        for (const auto& p : mine[t]) held.push_back(S::intern(*table, p));
        held.clear();
      };
      std::thread a(work, 0), b(work, 1);
      a.join();
      b.join();
      ours += secondsSince(t0);
      if (table->size() != 0) state.SkipWithError("keys left in the table");
    }
    {
      SharedPtrSet<Peer> set;
      std::mutex mutex;
      auto t0 = Clock::now();
      auto work = [&](int t) {
        std::vector<std::shared_ptr<const Peer>> held;
        held.reserve(mine[t].size());
        for (const auto& p : mine[t]) {
          std::lock_guard<std::mutex> lock(mutex);
          held.push_back(set.intern(S::peer(p)));
        }
        for (auto& sp : held) {
          std::lock_guard<std::mutex> lock(mutex);
          set.release(sp);
        }
      };
      std::thread a(work, 0), b(work, 1);
      a.join();
      b.join();
      peer += secondsSince(t0);
    }
    ops += mine[0].size() + mine[1].size();
  }
  state.counters["prefixes"] = static_cast<double>(prefixes.size());
  reportDuel(state, ours * 1e9 / ops, peer * 1e9 / ops, 1.0, "two threads, one locked table");
}

// Registers the four duels of a subject over its prefix tables.
template <typename S>
void registerDuels(const char* subject, const char* tableName, const std::vector<typename S::Prefix>& (*prefixes)()) {
  std::string base = std::string(subject) + "/" + tableName;
  benchmark::RegisterBenchmark((base + "/memory").c_str(), [=](benchmark::State& s) { memoryDuel<S>(s, prefixes()); })
      ->Iterations(1)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark((base + "/hit").c_str(), [=](benchmark::State& s) { hitDuel<S>(s, prefixes()); })
      ->Iterations(5)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark((base + "/churn").c_str(), [=](benchmark::State& s) { churnDuel<S>(s, prefixes()); })
      ->Iterations(3)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark((base + "/threads").c_str(), [=](benchmark::State& s) { threadsDuel<S>(s, prefixes()); })
      ->Iterations(3)->Unit(benchmark::kMillisecond);
}

}  // namespace bench
