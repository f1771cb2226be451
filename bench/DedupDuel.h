#pragma once
// The dedup benchmarks, written once for any interned key type (a "subject"), each putting ours
// beside its peer in the same run and reporting both and their ratio as counters:
//   hit      interning a prefix already present and releasing it, beside the interning peer
//            (absl::flat_hash_set of pointers to counted objects, found by content) and beside the
//            floor, a bare absl::flat_hash_set<content>::find;
//   churn    interning every prefix into an empty table, then releasing every key, beside the
//            hand-rolled std::unordered_set of std::shared_ptr keys, and (churn_interning_peer)
//            beside the interning peer, whose objects are made with new and freed with delete;
//   memory   octets per interned key, the table's share included, beside a limit; and how much of
//            the resident memory interning took is still held once every key is released;
//   hit_probe  the hit in our table beside the same hit on our keys held in an absl set: where the
//            probing alone differs;
//   hash, equal  the compute of a hit without its memory: hashing the content record alone, beside
//            absl::Hash of the peer's record (the same octets); the key's test against a record
//            alone, beside the peer's operator== on its object's content;
//   threads  two threads interning and releasing overlapping thirds of the prefixes on one locked
//            table, beside the shared_ptr set under a mutex (on the wall clock; the others time
//            the thread's CPU).
// The duels are repeated (bench_support::repeated): each row is a median with its range.
//
// A subject S provides:
//   using Prefix; using Held (a Kelp::Ptr to the key);
//   static Kelp::Ptr<Brim::DedupHashTable> makeTable(bool multiThreaded);
//   static Held intern(Brim::DedupHashTable&, const Prefix&);
//   using Peer (a plain content struct with == and AbslHashValue); static Peer peer(const Prefix&);
//   static void dropTable() (lets go of anything that keeps the last table made alive);
//   static std::uint32_t hash(const Prefix&) (the hash the table is searched by);
//   static bool matches(const Held&, const Prefix&) (the key's test against the prefix's record).

#include <malloc.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <unordered_set>
#include <utility>
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

// Page faults taken by the calling thread so far (minor and major): a first touch of a page costs
// a fault, which the thread's CPU clock counts as the faulting side's time.
inline double threadFaults() {
  rusage u{};
  getrusage(RUSAGE_THREAD, &u);
  return static_cast<double>(u.ru_minflt + u.ru_majflt);
}

// What one fault of a small page costs the calling thread, measured now: pages of a fresh mapping
// that may not use huge pages, each touched once, on the thread's CPU clock.
inline double smallPageFaultNs() {
  constexpr std::size_t kPages = 512;
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void* m = ::mmap(nullptr, kPages * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (m == MAP_FAILED) return 0;
  ::madvise(m, kPages * page, MADV_NOHUGEPAGE);
  const double f0 = threadFaults();
  const double t0 = bench_support::threadCpuNs();
  for (std::size_t i = 0; i < kPages; ++i) static_cast<volatile char*>(m)[i * page] = 1;
  const double ns = bench_support::threadCpuNs() - t0;
  const double faults = threadFaults() - f0;
  ::munmap(m, kPages * page);
  return faults > 0 ? ns / faults : 0;
}

// The process's resident memory, in octets.
inline double residentBytes() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
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

// The interning peer: each object holds its content and a count of references, and the set holds
// pointers to the objects, found by content (a heterogeneous find). Interning takes a reference,
// releasing drops one; the set holds one itself.
template <typename Peer>
struct CountedObject {
  mutable std::atomic<std::uint32_t> refs{1};
  Peer content;
};

template <typename Peer>
struct PointerSet {
  using Object = CountedObject<Peer>;
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(const Peer& p) const { return absl::Hash<Peer>()(p); }
    std::size_t operator()(const Object* o) const { return absl::Hash<Peer>()(o->content); }
  };
  struct Eq {
    using is_transparent = void;
    bool operator()(const Object* a, const Object* b) const { return a == b; }
    bool operator()(const Peer& a, const Object* b) const { return a == b->content; }
    bool operator()(const Object* a, const Peer& b) const { return a->content == b; }
  };
  absl::flat_hash_set<Object*, Hash, Eq> set;

  PointerSet() = default;
  PointerSet(const PointerSet&) = delete;
  PointerSet& operator=(const PointerSet&) = delete;
  ~PointerSet() {
    for (Object* o : set) delete o;
  }
  const Object* intern(const Peer& p) {
    auto it = set.find(p);
    Object* o;
    if (it != set.end()) [[likely]] {
      o = *it;
    } else {
      o = new Object{{1}, p};
      set.insert(o);
    }
    o->refs.fetch_add(1, std::memory_order_relaxed);
    return o;
  }
  // Drops a holder's reference; the object leaves the set when only the set still has it.
  void release(const Object* o) {
    if (o->refs.fetch_sub(1, std::memory_order_acq_rel) == 2) {
      set.erase(const_cast<Object*>(o));
      delete o;
    }
  }
};

// Every prefix interned in a fresh table of ours and in the interning peer, the holders kept in
// the prefixes' order; all released when it goes.
template <typename S>
struct InternedBoth {
  Kelp::Ptr<Brim::DedupHashTable> table = S::makeTable(false);
  std::vector<typename S::Held> held;
  PointerSet<typename S::Peer> pointerSet;
  std::vector<const CountedObject<typename S::Peer>*> peerHeld;

  explicit InternedBoth(const std::vector<typename S::Prefix>& prefixes) {
    held.reserve(prefixes.size());
    peerHeld.reserve(prefixes.size());
    for (const auto& p : prefixes) {
      held.push_back(S::intern(*table, p));
      peerHeld.push_back(pointerSet.intern(S::peer(p)));
    }
  }
  InternedBoth(const InternedBoth&) = delete;
  InternedBoth& operator=(const InternedBoth&) = delete;
  ~InternedBoth() {
    for (const auto* o : peerHeld) pointerSet.release(o);
    held.clear();
    table = nullptr;
    S::dropTable();
  }
};

// The goal of a hit over the bare find. A hit does what the find does, then reads the key and counts
// a reference in it with a locked instruction (and drops it again): a cost of its own on top of the
// find's. Beside an IPv4 find (5 octets hashed and compared in a small set) that cost weighs more
// than beside an IPv6 find (17 octets, a set more than twice the size per key).
template <typename Prefix>
inline constexpr double kHitFloorGoal = std::is_same_v<Prefix, V6Prefix> ? 2.5 : 3.0;

// A hit: interning a prefix already present and releasing the answer, beside the interning peer
// doing the same (find, count, release), and beside the floor: a bare find of the content in an
// absl::flat_hash_set, which touches no object and counts nothing. The lookup without its release
// is reported apart (lookup_only_ns).
template <typename S>
void hitDuel(benchmark::State& state, const std::vector<typename S::Prefix>& prefixes) {
  using Peer = typename S::Peer;
  InternedBoth<S> both(prefixes);
  auto& table = both.table;
  auto& pointerSet = both.pointerSet;
  absl::flat_hash_set<Peer> bareSet;
  for (const auto& p : prefixes) bareSet.insert(S::peer(p));
  const auto order = shuffled(prefixes, 99);
  std::vector<typename S::Held> answers;
  answers.reserve(order.size());
  double ours = 0, lookupOnly = 0, peer = 0, floor = 0;
  std::uint64_t ops = 0;
  std::uintptr_t sink = 0;
  auto timeOurs = [&] {
    const double t0 = bench_support::threadCpuNs();
    for (const auto& p : order) sink += reinterpret_cast<std::uintptr_t>(S::intern(*table, p).get());
    ours += cpuSecondsSince(t0);
  };
  auto timePeer = [&] {
    const double t0 = bench_support::threadCpuNs();
    for (const auto& p : order) {
      const auto* o = pointerSet.intern(S::peer(p));
      sink += reinterpret_cast<std::uintptr_t>(o);
      pointerSet.release(o);
    }
    peer += cpuSecondsSince(t0);
  };
  auto timeFloor = [&] {
    const double t0 = bench_support::threadCpuNs();
    for (const auto& p : order) sink += bareSet.find(S::peer(p)) != bareSet.end();
    floor += cpuSecondsSince(t0);
  };
  // Counted on across repetitions and runs of the duel, so the orders keep taking turns.
  static unsigned turn = 0;
  for (auto _ : state) {
    // The three sides take turns at going first, so none always follows the same one.
    switch (turn++ % 3) {
      case 0: timeOurs(), timePeer(), timeFloor(); break;
      case 1: timePeer(), timeFloor(), timeOurs(); break;
      default: timeFloor(), timeOurs(), timePeer(); break;
    }
    // The lookup alone: the answers are kept and released after the clock stops.
    const double t0 = bench_support::threadCpuNs();
    for (const auto& p : order) answers.push_back(S::intern(*table, p));
    lookupOnly += cpuSecondsSince(t0);
    answers.clear();
    ops += order.size();
  }
  benchmark::DoNotOptimize(sink);
  // A lookup that missed would have inserted a second key for its prefix.
  if (table->size() != prefixes.size()) state.SkipWithError("a hit missed its key");
  state.counters["prefixes"] = static_cast<double>(prefixes.size());
  state.counters["lookup_only_ns"] = lookupOnly * 1e9 / ops;
  reportDuel(state, ours * 1e9 / ops, peer * 1e9 / ops, 1.0, "peer: absl::flat_hash_set<T*> + count; floor: bare find");
  bench_support::floorCounters(state, ours * 1e9 / ops, floor * 1e9 / ops, kHitFloorGoal<typename S::Prefix>);
}

// Runs the two sides of a duel once per iteration, `turn` choosing which goes first and counting
// on; answers the number of iterations.
template <typename Ours, typename Peer>
std::uint64_t alternately(benchmark::State& state, unsigned& turn, Ours&& ours, Peer&& peer) {
  std::uint64_t runs = 0;
  for (auto _ : state) {
    if (turn++ % 2 == 0) {
      ours(), peer();
    } else {
      peer(), ours();
    }
    ++runs;
  }
  return runs;
}

// The interning peer's kind of set holding our keys: an absl::flat_hash_set of the keys' holders,
// found by the prefix with our hash and our equality test.
template <typename S>
struct HeldSet {
  using Held = typename S::Held;
  using Prefix = typename S::Prefix;
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(const Held& k) const { return k->hash(); }
    std::size_t operator()(const Prefix& p) const { return S::hash(p); }
  };
  struct Eq {
    using is_transparent = void;
    bool operator()(const Held& a, const Held& b) const { return a == b; }
    bool operator()(const Prefix& p, const Held& k) const { return S::matches(k, p); }
    bool operator()(const Held& k, const Prefix& p) const { return S::matches(k, p); }
  };
  absl::flat_hash_set<Held, Hash, Eq> set;
};

// A hit in our table beside the same hit on the same keys held in the peer's kind of set: the
// same hash, equality, count and release, only the probing differs (absl's control octets and
// groups against our slots). Apart from the hit duel, which it would disturb by the cache it takes.
template <typename S>
void probeDuel(benchmark::State& state, const std::vector<typename S::Prefix>& prefixes) {
  InternedBoth<S> both(prefixes);
  HeldSet<S> held;
  for (const auto& k : both.held) held.set.insert(k);
  const auto order = shuffled(prefixes, 99);
  double ours = 0, peer = 0;
  std::uintptr_t sink = 0;
  auto timeOurs = [&] {
    const double t0 = bench_support::threadCpuNs();
    for (const auto& p : order) sink += reinterpret_cast<std::uintptr_t>(S::intern(*both.table, p).get());
    ours += cpuSecondsSince(t0);
  };
  auto timePeer = [&] {
    const double t0 = bench_support::threadCpuNs();
    for (const auto& p : order) {
      const typename S::Held k = *held.set.find(p);
      sink += reinterpret_cast<std::uintptr_t>(k.get());
    }
    peer += cpuSecondsSince(t0);
  };
  unsigned turn = 0;
  const std::uint64_t ops = alternately(state, turn, timeOurs, timePeer) * order.size();
  benchmark::DoNotOptimize(sink);
  if (both.table->size() != prefixes.size()) state.SkipWithError("a hit missed its key");
  state.counters["prefixes"] = static_cast<double>(prefixes.size());
  reportDuel(state, ours * 1e9 / ops, peer * 1e9 / ops, 0, "peer: our keys in absl::flat_hash_set<Held>");
}

// The churn goal against the shared_ptr set holds for tables of full-table size; a smaller table's
// ratio is shown without one.
inline constexpr std::size_t kChurnGoalMinKeys = 100000;

// Intern all, then release all: a fresh table interns every prefix and the keys are released in
// the same order, beside a peer (SharedPtrSet or PointerSet) doing the same on a fresh set. Each
// side's time includes making and destroying its table. The holders' vectors are allocated
// outside the clock. Which side goes first alternates from one run of the duel to the next (a
// repetition runs one iteration).
template <typename S, typename PeerSet>
void churnDuel(benchmark::State& state, const std::vector<typename S::Prefix>& prefixes, double goal,
               const char* label) {
  using PeerHeld = decltype(std::declval<PeerSet&>().intern(std::declval<const typename S::Peer&>()));
  std::vector<typename S::Held> held;
  held.reserve(prefixes.size());
  std::vector<PeerHeld> peerHeld;
  peerHeld.reserve(prefixes.size());
  double ours = 0, peer = 0, oursFaults = 0, peerFaults = 0;
  auto timeOurs = [&] {
    const double f0 = threadFaults();
    const double t0 = bench_support::threadCpuNs();
    auto table = S::makeTable(false);
    for (const auto& p : prefixes) held.push_back(S::intern(*table, p));
    held.clear();
    table = nullptr;
    ours += cpuSecondsSince(t0);
    oursFaults += threadFaults() - f0;
  };
  auto timePeer = [&] {
    const double f0 = threadFaults();
    const double t0 = bench_support::threadCpuNs();
    {
      PeerSet set;
      for (const auto& p : prefixes) peerHeld.push_back(set.intern(S::peer(p)));
      for (auto& h : peerHeld) set.release(h);
    }
    peer += cpuSecondsSince(t0);
    peerFaults += threadFaults() - f0;
    peerHeld.clear();
  };
  static unsigned turn = 0;
  const std::uint64_t ops = alternately(state, turn, timeOurs, timePeer) * prefixes.size();
  state.counters["prefixes"] = static_cast<double>(prefixes.size());
  // Page faults per thousand keys, each side.
  state.counters["faults_per_1k_keys"] = oursFaults * 1e3 / ops;
  state.counters["peer_faults_per_1k_keys"] = peerFaults * 1e3 / ops;
  // The faults' share, at what a small page's fault costs in this run: each side's time without it.
  const double faultNs = smallPageFaultNs();
  state.counters["fault_ns"] = faultNs;
  state.counters["ours_ns_without_faults"] = (ours * 1e9 - oursFaults * faultNs) / ops;
  state.counters["peer_ns_without_faults"] = (peer * 1e9 - peerFaults * faultNs) / ops;
  reportDuel(state, ours * 1e9 / ops, peer * 1e9 / ops, goal, label);
}

// The hash alone: the content record of each prefix hashed, beside absl::Hash of the peer's record.
// The prefixes are read in order, so the loads stream and what is timed is the arithmetic.
template <typename S>
void hashDuel(benchmark::State& state, const std::vector<typename S::Prefix>& prefixes) {
  using Peer = typename S::Peer;
  double ours = 0, peer = 0;
  std::uint64_t sink = 0;
  auto timeOurs = [&] {
    const double t0 = bench_support::threadCpuNs();
    for (const auto& p : prefixes) sink += S::hash(p);
    ours += cpuSecondsSince(t0);
  };
  auto timePeer = [&] {
    const double t0 = bench_support::threadCpuNs();
    for (const auto& p : prefixes) sink += absl::Hash<Peer>()(S::peer(p));
    peer += cpuSecondsSince(t0);
  };
  unsigned turn = 0;
  const std::uint64_t ops = alternately(state, turn, timeOurs, timePeer) * prefixes.size();
  benchmark::DoNotOptimize(sink);
  state.counters["prefixes"] = static_cast<double>(prefixes.size());
  reportDuel(state, ours * 1e9 / ops, peer * 1e9 / ops, 0, "peer: absl::Hash");
}

// The equality test alone: each key against its own prefix's record (equal, so every octet is
// compared), beside the peer's object against its record. Both walk their objects in the order
// they were made, which lays them side by side in memory, so the loads stream.
template <typename S>
void equalDuel(benchmark::State& state, const std::vector<typename S::Prefix>& prefixes) {
  InternedBoth<S> both(prefixes);
  const auto& held = both.held;
  const auto& peerHeld = both.peerHeld;
  double ours = 0, peer = 0;
  std::uint64_t sink = 0;
  auto timeOurs = [&] {
    const double t0 = bench_support::threadCpuNs();
    for (std::size_t i = 0; i < prefixes.size(); ++i) sink += S::matches(held[i], prefixes[i]);
    ours += cpuSecondsSince(t0);
  };
  auto timePeer = [&] {
    const double t0 = bench_support::threadCpuNs();
    for (std::size_t i = 0; i < prefixes.size(); ++i) sink += peerHeld[i]->content == S::peer(prefixes[i]);
    peer += cpuSecondsSince(t0);
  };
  unsigned turn = 0;
  const std::uint64_t ops = alternately(state, turn, timeOurs, timePeer) * prefixes.size();
  benchmark::DoNotOptimize(sink);
  if (sink != 2 * ops) state.SkipWithError("a key does not match its own prefix");
  state.counters["prefixes"] = static_cast<double>(prefixes.size());
  reportDuel(state, ours * 1e9 / ops, peer * 1e9 / ops, 0, "peer: operator== of the peer's record");
}

template <typename S>
void memoryDuel(benchmark::State& state, const std::vector<typename S::Prefix>& prefixes) {
  using Peer = typename S::Peer;
  double oursPerKey = 0, slabPerKey = 0, flatPerKey = 0, sharedPerKey = 0;
  double rssStart = 0, rssFull = 0, rssReleased = 0;
  for (auto _ : state) {
    {
      // The holders' vector is touched before the first reading, so that its pages are not
      // counted as the table's; it stays allocated until the last reading.
      std::vector<typename S::Held> held(prefixes.size());
      held.clear();
      // Made before the first reading, so that a table it replaces is freed outside the window
      // (its slot array is allocated at the first insert, inside it).
      auto table = S::makeTable(false);
      malloc_trim(0);
      rssStart = residentBytes();
      const auto stash0 = KelpStash::heapStats();
      const std::int64_t m0 = mallocInUse();
      for (const auto& p : prefixes) held.push_back(S::intern(*table, p));
      const auto stash1 = KelpStash::heapStats();
      const std::int64_t m1 = mallocInUse();
      // What the table took from malloc, plus its slot array (mapped apart from malloc when
      // large, so counted by its size), plus the octets the keys (and the table object) occupy
      // in the stash; the stash's slabs are reported apart.
      const auto& set = static_cast<const Brim::DedupHashTableUnorderedSet&>(*table);
      const std::int64_t slotBytes = static_cast<std::int64_t>(set.capacity() * sizeof(std::uint64_t));
      const std::int64_t mallocSlots =
          slotBytes < static_cast<std::int64_t>(Brim::HandleSet<Brim::DedupHandleBase>::kMappedBytes) ? slotBytes : 0;
      const std::int64_t slabs = stash1.bytesReserved - stash0.bytesReserved;
      const std::int64_t inStash = stash1.bytesInUse - stash0.bytesInUse;
      oursPerKey = static_cast<double>(m1 - m0 - mallocSlots + slotBytes + inStash) / prefixes.size();
      slabPerKey = static_cast<double>(slabs) / prefixes.size();
      rssFull = residentBytes();
      held.clear();
      table = nullptr;
      S::dropTable();
      // Every key released and the table gone: what interning took should have gone back.
      rssReleased = residentBytes();
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
  state.counters["rss_taken_MB"] = (rssFull - rssStart) / 1e6;
  // Resident memory once all is released, over where it started: at most 1.1.
  state.counters["rss_released_vs_start"] = rssStart > 0 ? rssReleased / rssStart : 0;
  // The share of what interning took that is still resident after the release.
  state.counters["rss_kept_share"] = rssFull > rssStart ? (rssReleased - rssStart) / (rssFull - rssStart) : 0;
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

// Registers the eight duels of a subject over its prefix tables.
template <typename S>
void registerDuels(const char* subject, const char* tableName, const std::vector<typename S::Prefix>& (*prefixes)()) {
  std::string base = std::string(subject) + "/" + tableName;
  benchmark::RegisterBenchmark((base + "/memory").c_str(), [=](benchmark::State& s) { memoryDuel<S>(s, prefixes()); })
      ->Iterations(1)->Unit(benchmark::kMillisecond);
  // Six iterations: every repetition runs each of the hit duel's three orders twice, so no
  // repetition leans on the orders it happened to get (with two it ran two of the three), and the
  // smallest table's repetition lasts long enough to ride out a neighbour's burst on a shared host.
  bench_support::repeated(
      benchmark::RegisterBenchmark((base + "/hit").c_str(), [=](benchmark::State& s) { hitDuel<S>(s, prefixes()); }))
      ->Iterations(6)->Unit(benchmark::kMillisecond);
  bench_support::repeated(
      benchmark::RegisterBenchmark((base + "/hit_probe").c_str(), [=](benchmark::State& s) { probeDuel<S>(s, prefixes()); }))
      ->Iterations(2)->Unit(benchmark::kMillisecond);
  bench_support::repeated(
      benchmark::RegisterBenchmark((base + "/churn").c_str(), [=](benchmark::State& s) {
        const auto& p = prefixes();
        churnDuel<S, SharedPtrSet<typename S::Peer>>(s, p, p.size() >= kChurnGoalMinKeys ? 1.0 / 3 : 0,
                                                     "peer: unordered_set<shared_ptr>");
      }))
      ->Iterations(1)->Unit(benchmark::kMillisecond);
  bench_support::repeated(
      benchmark::RegisterBenchmark((base + "/churn_interning_peer").c_str(), [=](benchmark::State& s) {
        churnDuel<S, PointerSet<typename S::Peer>>(s, prefixes(), 1.0, "peer: absl::flat_hash_set<T*> + count, new/delete");
      }))
      ->Iterations(1)->Unit(benchmark::kMillisecond);
  bench_support::repeated(
      benchmark::RegisterBenchmark((base + "/hash").c_str(), [=](benchmark::State& s) { hashDuel<S>(s, prefixes()); }))
      ->Iterations(4)->Unit(benchmark::kMillisecond);
  bench_support::repeated(
      benchmark::RegisterBenchmark((base + "/equal").c_str(), [=](benchmark::State& s) { equalDuel<S>(s, prefixes()); }))
      ->Iterations(4)->Unit(benchmark::kMillisecond);
  bench_support::repeated(
      benchmark::RegisterBenchmark((base + "/threads").c_str(), [=](benchmark::State& s) { threadsDuel<S>(s, prefixes()); }))
      ->Iterations(1)->Unit(benchmark::kMillisecond);
}

}  // namespace bench
