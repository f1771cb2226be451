// The shared-memory IGP result table beside an in-process hash map (the limit) and LMDB (the peer).
//
// Each benchmark times ours and the other side in alternating batches of the same work within one
// run and reports both per-operation times and their ratio as counters:
//   ReaderLookup/limit   reader lookup of a present id vs absl::flat_hash_map find + copy
//                        (ratio = ours / limit; goal: within 2x)
//   ReaderLookup/peer    reader lookup vs LMDB mdb_get in a reused read transaction + decode
//                        (speedup = peer / ours; goal: at least 5x)
//   WriterStore/peer     resultIs vs LMDB puts committed in batches of 1000 (speedup = peer / ours)
// The lookup benchmarks take an argument: 0 looks up independent random ids, 1 makes each lookup's
// id depend on the previous result (latency rather than throughput).
#include <lmdb.h>
#include <stdlib.h>

#include <time.h>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include "BgpCommon/FilteredRtStatus.h"

namespace {

using Routing::BgpRedistribute::CommunityIndex;
using Routing::BgpRedistribute::IgpResult;
using Routing::BgpRedistribute::IgpResultId;
using Routing::BgpRedistribute::IgpResultStatus;

constexpr std::uint32_t kRecords = 100000;
constexpr int kBatch = 1000;

IgpResult record(std::uint32_t key, std::uint64_t version) {
  IgpResult r{IgpResultId(key)};
  r.preference = static_cast<std::uint8_t>(key % 200 + 1);
  r.metric.valueIs(version);
  r.tag = key * 10;
  r.ospfDomainId = version;
  for (std::uint32_t i = 0; i < key % 5; ++i) r.communityIs(CommunityIndex(i), (65000u << 16) + key + i);
  return r;
}

// Thread CPU time: the machine may be shared, and time spent descheduled is neither side's cost.
double cpuNs() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return ts.tv_sec * 1e9 + ts.tv_nsec;
}

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
  static Fixture* f = new Fixture;
  return *f;
}

// Times `batch(start, dependent)` for ours and the other side alternately; each returns a checksum
// of what it read so nothing is optimized away.
template <typename Ours, typename Other>
void compare(benchmark::State& state, Ours ours, Other other, const char* otherName, bool speedup) {
  const bool dependent = state.range(0) != 0;
  double oursNs = 0, otherNs = 0;
  std::uint64_t ops = 0;
  std::size_t start = 0;
  for (auto _ : state) {
    double t0 = cpuNs();
    benchmark::DoNotOptimize(ours(start, dependent));
    double t1 = cpuNs();
    benchmark::DoNotOptimize(other(start, dependent));
    double t2 = cpuNs();
    oursNs += t1 - t0;
    otherNs += t2 - t1;
    ops += kBatch;
    start += 7919;
  }
  state.counters["ours_ns"] = oursNs / ops;
  state.counters[std::string(otherName) + "_ns"] = otherNs / ops;
  if (speedup) {
    state.counters["speedup"] = otherNs / oursNs;
  } else {
    state.counters["ratio"] = oursNs / otherNs;
  }
}

// One batch of lookups: independent ids, or each id chosen from the previous record's tag.
template <typename Lookup>
std::uint64_t lookups(std::size_t start, bool dependent, Lookup&& lookup) {
  const auto& ids = fixture().ids;
  std::uint64_t sum = 0;
  std::uint32_t carry = 0;
  for (int i = 0; i < kBatch; ++i) {
    std::size_t slot = (start + i + (dependent ? carry : 0)) & (ids.size() - 1);
    std::optional<IgpResult> r = lookup(ids[slot]);
    carry = r->tag.value & 0xFF;
    sum += r->metric.value();
  }
  return sum;
}

void ReaderLookup_limit(benchmark::State& state) {
  Fixture& f = fixture();
  compare(
      state, [&](std::size_t s, bool d) { return lookups(s, d, [&](std::uint32_t k) { return f.reader->result(IgpResultId(k)); }); },
      [&](std::size_t s, bool d) {
        return lookups(s, d, [&](std::uint32_t k) -> std::optional<IgpResult> {
          auto it = f.map.find(k);
          if (it == f.map.end()) return std::nullopt;
          return it->second;
        });
      },
      "limit", false);
}
BENCHMARK(ReaderLookup_limit)->Arg(0)->Arg(1);

void ReaderLookup_peer(benchmark::State& state) {
  Fixture& f = fixture();
  compare(
      state, [&](std::size_t s, bool d) { return lookups(s, d, [&](std::uint32_t k) { return f.reader->result(IgpResultId(k)); }); },
      [&](std::size_t s, bool d) { return lookups(s, d, [&](std::uint32_t k) { return f.lmdbGet(k); }); }, "lmdb", true);
}
BENCHMARK(ReaderLookup_peer)->Arg(0)->Arg(1);

void WriterStore_peer(benchmark::State& state) {
  Fixture& f = fixture();
  std::uint64_t version = kRecords;
  compare(
      state,
      [&](std::size_t s, bool) {
        for (int i = 0; i < kBatch; ++i) f.writer->resultIs(record(f.ids[(s + i) & (f.ids.size() - 1)], ++version));
        return version;
      },
      [&](std::size_t s, bool) {
        MDB_txn* txn;
        mdb_txn_begin(f.env, nullptr, 0, &txn);
        for (int i = 0; i < kBatch; ++i) f.lmdbPut(txn, record(f.ids[(s + i) & (f.ids.size() - 1)], ++version));
        return mdb_txn_commit(txn);
      },
      "lmdb", true);
  // The read transaction must see the new data for later benchmarks; renew it.
  mdb_txn_reset(f.readTxn);
  mdb_txn_renew(f.readTxn);
}
BENCHMARK(WriterStore_peer)->Arg(0);

}  // namespace

BENCHMARK_MAIN();
