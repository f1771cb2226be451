// BgpIdAllocator beside the plainest allocator with the same first-in first-out reuse: a std::mutex
// around a std::deque<uint32_t> and a counter.
//
// Each iteration runs a batch of allocate+free pairs on ours, then the same batch on the peer (the
// order alternates), timing each; the counters give nanoseconds per pair for both, their ratio and
// the ratio we aim to stay within (the counters bench/run tabulates).
// With two threads both share one allocator of each kind, and a barrier starts each batch on both
// threads together, so ours and the peer see the same contention. Batches are long (about a
// millisecond) so that the two threads really overlap rather than run one after the other. The
// argument is the number of identifiers already waiting in the queue (0: each freed identifier is
// the next one handed out; 10000: the queue stays that deep and reuse cycles through it).
#include <barrier>
#include <chrono>
#include <deque>
#include <mutex>

#include <benchmark/benchmark.h>

#include "bench/PairedBench.h"

#include "BgpCommon/BgpIdAllocator.h"

namespace {

using Routing::Bgp::BgpIdAllocator;

class DequeAllocator {
 public:
  std::uint32_t allocate() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (free_.empty()) return ++largest_;
    std::uint32_t id = free_.front();
    free_.pop_front();
    return id;
  }
  void free(std::uint32_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    free_.push_back(id);
  }

 private:
  std::mutex mutex_;
  std::deque<std::uint32_t> free_;
  std::uint32_t largest_ = 0;
};

constexpr int kBatch = 65536;

template <typename A>
double timeBatch(A& a) {
  auto t0 = std::chrono::steady_clock::now();
  for (int i = 0; i < kBatch; ++i) {
    std::uint32_t id = a.allocate();
    benchmark::DoNotOptimize(id);
    a.free(id);
  }
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count();
}

Kelp::Ptr<BgpIdAllocator> ours;
DequeAllocator* peer = nullptr;
std::barrier<>* sync = nullptr;

void BM_AllocateFree(benchmark::State& state) {
  if (state.thread_index() == 0) {
    ours = Routing::Bgp::bgpIdAllocatorFactory("bench");
    peer = new DequeAllocator;
    sync = new std::barrier<>(state.threads());
    for (std::int64_t i = 0; i < state.range(0); ++i) {
      ours->allocate();
      peer->allocate();
    }
    for (std::int64_t i = 1; i <= state.range(0); ++i) {
      ours->free(static_cast<std::uint32_t>(i));
      peer->free(static_cast<std::uint32_t>(i));
    }
  }
  double oursNs = 0, peerNs = 0;
  bool oursFirst = true;
  for (auto _ : state) {
    sync->arrive_and_wait();
    if (oursFirst) oursNs += timeBatch(*ours);
    else peerNs += timeBatch(*peer);
    sync->arrive_and_wait();
    if (oursFirst) peerNs += timeBatch(*peer);
    else oursNs += timeBatch(*ours);
    oursFirst = !oursFirst;
  }
  const double pairs = static_cast<double>(state.iterations()) * kBatch;
  bench_support::duelCounters(state, oursNs / pairs, peerNs / pairs, 1.5, benchmark::Counter::kAvgThreads);
  if (state.thread_index() == 0) {
    ours = nullptr;
    delete peer;
    delete sync;
  }
}
BENCHMARK(BM_AllocateFree)->Arg(0)->Arg(10000)->Threads(1)->Threads(2)->UseRealTime()->MinTime(0.5)->Apply(bench_support::repeatedDuel);

}  // namespace

BENCHMARK_MAIN();
