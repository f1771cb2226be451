// The shared-memory IGP result table beside one bare memory access (the floor), an in-process hash
// map (the limit) and, for scale, LMDB.
//
// 100,000 records. Each benchmark times batches of ours and of the other side back to back in one
// run, alternating which goes first, and reports ours_ns, peer_ns and their ratio (with its goal).
// The duels with a goal are repeated; each row is a median with its range. Batches are timed in
// thread CPU time: on a shared machine a batch that is descheduled would otherwise charge the wait
// to whichever side was running. The lookup benchmarks take dependent=0 (independent random ids) or
// dependent=1 (each id chosen by the previous record: latency rather than throughput).
#include <lmdb.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include "BgpCommon/FilteredRtStatus.h"
#include "bench/PairedBench.h"

namespace {

using Routing::BgpRedistribute::IgpResult;
using Routing::BgpRedistribute::IgpResultId;
using Routing::BgpRedistribute::IgpResultStatus;

constexpr std::uint32_t kRecords = 100000;
constexpr int kBatch = 1000;

// The tool's sample records: every field follows from the key and a version.
IgpResult record(std::uint32_t key, std::uint64_t version) { return Routing::BgpRedistribute::sampleIgpResult(key, version); }

// A scratch directory under /dev/shm holding the table and the LMDB environment.
struct Fixture {
  Fixture() {
    char pattern[] = "/dev/shm/bgpcommon-bench-XXXXXX";
    root = mkdtemp(pattern);
    writerEm = Kelp::makePtr<KelpSharedMem::EntityManager>(root);
    readerEm = Kelp::makePtr<KelpSharedMem::EntityManager>(root);
    writer = IgpResultStatus::createIgpResultStatusWriter("bench", writerEm, kRecords + 1000);
    reader = IgpResultStatus::createIgpResultStatusReader("bench", readerEm);  // its own read-only mapping
    for (std::uint32_t k = 1; k <= kRecords; ++k) {
      IgpResult r = record(k, k);
      writer->resultIs(r);
      map.emplace(k, r);
    }

    std::filesystem::create_directory(root + "/lmdb");
    mdb_env_create(&env);
    mdb_env_set_mapsize(env, std::size_t{1} << 30);
    mdb_env_open(env, (root + "/lmdb").c_str(), MDB_NOSYNC | MDB_NOMETASYNC, 0644);
    MDB_txn* txn;
    mdb_txn_begin(env, nullptr, 0, &txn);
    mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &dbi);
    for (std::uint32_t k = 1; k <= kRecords; ++k) lmdbPut(txn, record(k, k));
    mdb_txn_commit(txn);
    mdb_txn_begin(env, nullptr, MDB_RDONLY, &readTxn);

    std::mt19937 rng(1);
    for (int i = 0; i < 1 << 16; ++i) ids.push_back(1 + rng() % kRecords);
  }
  ~Fixture() {
    mdb_txn_abort(readTxn);
    mdb_env_close(env);
    reader = nullptr;
    writer = nullptr;
    std::filesystem::remove_all(root);
  }

  void lmdbPut(MDB_txn* txn, const IgpResult& r) {
    std::uint8_t bytes[IgpResult::maxSerializedLen] = {};
    r.serialize(bytes);
    std::uint32_t k = r.key.value;
    MDB_val key{sizeof k, &k}, val{r.serializeLen(), bytes};
    mdb_put(txn, dbi, &key, &val, 0);
  }
  std::optional<IgpResult> lmdbGet(std::uint32_t k) {
    MDB_val key{sizeof k, &k}, val;
    if (mdb_get(readTxn, dbi, &key, &val) != 0) return std::nullopt;
    return IgpResult::deserialize(std::span(static_cast<const std::uint8_t*>(val.mv_data), val.mv_size));
  }

  std::string root;
  Kelp::Ptr<KelpSharedMem::EntityManager> writerEm, readerEm;
  Kelp::Ptr<IgpResultStatus> writer, reader;
  absl::flat_hash_map<std::uint32_t, IgpResult> map;
  MDB_env* env = nullptr;
  MDB_dbi dbi = 0;
  MDB_txn* readTxn = nullptr;
  std::vector<std::uint32_t> ids;
};

Fixture& fixture() {
  static Fixture f;  // removed at exit
  return f;
}

// Walks the random ids: each call looks one record up. With `Dependent`, the id's position is
// offset by a byte of the record just read, so one lookup cannot start before the previous one has
// finished (the walk still moves on by one each call and so covers every id). Without, the id
// depends on nothing read: `Dependent` is a template argument so that no instantiation can tie the
// next id to the record all the same (a run-time flag let the compiler pick the id with a
// conditional move, which waits for both choices, for some lookups and not for others).
template <bool Dependent, typename Lookup>
auto lookupLoop(Lookup lookup) {
  return [lookup, i = std::size_t{0}, carry = std::uint32_t{0}]() mutable __attribute__((always_inline)) {
    const auto& ids = fixture().ids;
    ++i;
    std::optional<IgpResult> r = lookup(ids[(i + carry) & (ids.size() - 1)]);
    if constexpr (Dependent) carry = r->tag.value & 0xFF;
    benchmark::DoNotOptimize(r);
  };
}

// Ours: the reader's lookup, inlined into the loop as it is into a caller's code (result() is
// always_inline). Left to itself the compiler calls this lambda out of line, a call and a spill of
// every callee-saved register per lookup that no caller of result() pays.
auto readerLookup(Fixture& f) {
  return [&f](std::uint32_t k) __attribute__((always_inline)) { return f.reader->result(IgpResultId(k)); };
}

// The peer: absl::flat_hash_map find and a copy of the record.
auto mapLookup(Fixture& f) {
  return [&f](std::uint32_t k) -> std::optional<IgpResult> {
    auto it = f.map.find(k);
    if (it == f.map.end()) return std::nullopt;
    return it->second;
  };
}

// Runs `run` with the lookup loops of the benchmark's `dependent` argument (0 or 1).
template <typename Run, typename Ours, typename Peer>
void withLoops(benchmark::State& state, Run run, Ours ours, Peer peer) {
  if (state.range(0) != 0) {
    run(lookupLoop<true>(ours), lookupLoop<true>(peer));
  } else {
    run(lookupLoop<false>(ours), lookupLoop<false>(peer));
  }
}

// Times kBatch calls of ours and of the peer per iteration, in thread CPU time; sets ours_ns and
// peer_ns.
template <typename Ours, typename Peer>
void pairedCpuRun(benchmark::State& state, Ours&& ours, Peer&& peer) {
  bench_support::pairedTimes(state, kBatch, ours, peer, bench_support::threadCpuNs);
}

// Ours beside a limit we aim to stay within `goal` times of.
template <typename Ours, typename Peer>
void ratioRun(benchmark::State& state, double goal, Ours&& ours, Peer&& peer) {
  pairedCpuRun(state, ours, peer);
  bench_support::duelCounters(state, state.counters[bench_support::kOursNs], state.counters[bench_support::kPeerNs], goal);
}

// Reader lookup of a present id (a copy of the record) beside absl::flat_hash_map find + copy in
// the same process: the limit. Goal: within 2x.
void ReaderLookupVsFlatHashMap(benchmark::State& state) {
  Fixture& f = fixture();
  withLoops(
      state, [&](auto ours, auto peer) { ratioRun(state, 2.0, ours, peer); },
      readerLookup(f),
      mapLookup(f));
}
BENCHMARK(ReaderLookupVsFlatHashMap)->ArgName("dependent")->Arg(0)->Arg(1)->Apply(bench_support::repeatedDuel);

// The floor under any lookup that reads the record at all: one 4-byte load from a random place in
// a buffer the size of the table file (private memory in 4 KiB pages, as the table's shared memory
// is), made into a record as a lookup's answer is.
const std::vector<std::uint32_t>& oneAccessBuffer() {
  static const std::vector<std::uint32_t> buffer = [] {
    std::vector<std::uint32_t> b(fixture().reader->resultControl()->reader()->mappedBytes().size() / 4);
    std::mt19937 rng(2);
    for (std::uint32_t& w : b) w = rng();
    return b;
  }();
  return buffer;
}

std::optional<IgpResult> oneAccess(std::uint32_t k) {
  const auto& buffer = oneAccessBuffer();
  const std::size_t stride = buffer.size() / (kRecords + 1);  // one record's share, in words
  std::optional<IgpResult> r(std::in_place, IgpResultId(k));
  r->tag = buffer[k * stride];
  return r;
}

// The floor under a lookup that reads a whole record: one word from each cache line that the key's
// slot of the table's stride (104 bytes: two lines or three) falls on, in the same buffer, loaded
// side by side as the reader's are, and made into a record. Its bytes 0, 48 and 100: no line of the
// slot lies between them.
std::optional<IgpResult> recordLines(std::uint32_t k) {
  const std::uint32_t* slot = oneAccessBuffer().data() + std::size_t{k} * (104 / 4);
  std::optional<IgpResult> r(std::in_place, IgpResultId(k));
  r->tag = slot[0] + slot[12] + slot[25];
  return r;
}

// Reader lookup beside that one memory access. Goal: within 2.5x for independent lookups, where
// the reader's record spans two or three cache lines against the access's one and its checks keep
// fewer lookups in flight, and 1.1x for dependent ones (where both wait out the same miss, and the
// reader's checks overlap it).
void ReaderLookupVsOneMemoryAccess(benchmark::State& state) {
  Fixture& f = fixture();
  const double goal = state.range(0) != 0 ? 1.1 : 2.5;
  withLoops(
      state, [&](auto ours, auto peer) { ratioRun(state, goal, ours, peer); },
      readerLookup(f), &oneAccess);
}
BENCHMARK(ReaderLookupVsOneMemoryAccess)->ArgName("dependent")->Arg(0)->Arg(1)->Apply(bench_support::repeatedDuel);

// For scale, no goal: those lines beside the map (how much of the map's lead is the record's extra
// lines), and the reader lookup beside them.
void RecordLinesVsFlatHashMap(benchmark::State& state) {
  Fixture& f = fixture();
  withLoops(
      state, [&](auto ours, auto peer) { ratioRun(state, 0, ours, peer); }, &recordLines,
      mapLookup(f));
}
BENCHMARK(RecordLinesVsFlatHashMap)->ArgName("dependent")->Arg(0)->Apply(bench_support::repeatedDuel);

void ReaderLookupVsRecordLines(benchmark::State& state) {
  withLoops(
      state, [&](auto ours, auto peer) { ratioRun(state, 0, ours, peer); }, readerLookup(fixture()), &recordLines);
}
BENCHMARK(ReaderLookupVsRecordLines)->ArgName("dependent")->Arg(0)->Apply(bench_support::repeatedDuel);

// For scale, no goal: the reader lookup beside LMDB mdb_get in a reused read transaction, decoded
// to a record, and the one memory access beside the same.
void ReaderLookupVsLmdb(benchmark::State& state) {
  Fixture& f = fixture();
  withLoops(
      state, [&](auto ours, auto peer) { ratioRun(state, 0, ours, peer); },
      readerLookup(f), [&](std::uint32_t k) { return f.lmdbGet(k); });
}
BENCHMARK(ReaderLookupVsLmdb)->ArgName("dependent")->Arg(0)->Arg(1);

void OneMemoryAccessVsLmdb(benchmark::State& state) {
  Fixture& f = fixture();
  withLoops(
      state, [&](auto ours, auto peer) { ratioRun(state, 0, ours, peer); }, &oneAccess,
      [&](std::uint32_t k) { return f.lmdbGet(k); });
}
BENCHMARK(OneMemoryAccessVsLmdb)->ArgName("dependent")->Arg(0)->Arg(1);

#if defined(__x86_64__)
// Why the reader's independent lookups do not overlap as the map's do: the same one load as
// oneAccess plus `work` instructions that depend on nothing (register additions),
// beside the flat_hash_map. The processor overlaps the memory accesses of consecutive lookups only
// while its window of instructions in flight holds more than one lookup, so past a couple of
// hundred instructions per lookup, independent lookups cost as much as dependent ones.
void OneMemoryAccessAndWorkVsFlatHashMap(benchmark::State& state) {
  Fixture& f = fixture();
  static const std::vector<std::uint32_t> buffer(f.reader->resultControl()->reader()->mappedBytes().size() / 4, 1);
  const std::size_t stride = buffer.size() / (kRecords + 1);
  const int work = static_cast<int>(state.range(1));
  auto ours = [&](std::uint32_t k) {
    std::uint32_t sum = buffer[k * stride];
    std::uint32_t extra = 0;
    switch (work) {  // the count must be an immediate
      case 100: asm volatile(".rept 100\n\tadd $1, %0\n\t.endr" : "+r"(extra)); break;
      case 200: asm volatile(".rept 200\n\tadd $1, %0\n\t.endr" : "+r"(extra)); break;
      case 300: asm volatile(".rept 300\n\tadd $1, %0\n\t.endr" : "+r"(extra)); break;
      default: break;
    }
    std::optional<IgpResult> r(std::in_place, IgpResultId(k));
    r->tag = sum + extra;
    return r;
  };
  withLoops(
      state, [&](auto o, auto p) { ratioRun(state, 0, o, p); }, ours,
      mapLookup(f));
}
BENCHMARK(OneMemoryAccessAndWorkVsFlatHashMap)->ArgNames({"dependent", "work"})->ArgsProduct({{0, 1}, {0, 100, 200, 300}});
#endif

// The writer's resultIs (a new version of a random record each time) beside LMDB puts committed in
// transactions of 1000 puts (a batch of pairedRun is exactly one transaction).
void WriterStoreVsLmdb(benchmark::State& state) {
  Fixture& f = fixture();
  std::uint64_t version = kRecords;
  std::size_t i = 0, j = 0;
  int inTxn = 0;
  MDB_txn* txn = nullptr;
  ratioRun(
      state, 0, [&] { f.writer->resultIs(record(f.ids[++i & (f.ids.size() - 1)], ++version)); },
      [&] {
        if (inTxn == 0) mdb_txn_begin(f.env, nullptr, 0, &txn);
        f.lmdbPut(txn, record(f.ids[++j & (f.ids.size() - 1)], ++version));
        if (++inTxn == kBatch) {
          mdb_txn_commit(txn);
          inTxn = 0;
        }
      });
  // Later lookups of LMDB must see what was written: renew the read transaction.
  mdb_txn_reset(f.readTxn);
  mdb_txn_renew(f.readTxn);
}
BENCHMARK(WriterStoreVsLmdb)->Apply(bench_support::repeatedDuel);

}  // namespace

BENCHMARK_MAIN();
