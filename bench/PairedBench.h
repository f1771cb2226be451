#pragma once
// Ours beside a peer (or a limit) in the same benchmark: each iteration times a batch of ours and a
// batch of the peer back to back, alternating which goes first, so that both see the same cache,
// frequency and neighbours. The results are counters:
//   ours_ns, peer_ns   mean time of one call
//   ratio              ours_ns / peer_ns
//   goal               the ratio we aim to stay within
//
//   static void BM_AddData(benchmark::State& state) {
//     pairedRun(state, 16, 1.2, [&] { ...ours... }, [&] { ...peer... });
//   }

#include <benchmark/benchmark.h>

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <vector>

namespace bench_support {

// The counters of a comparison, named here once: bench/table.py reads these names from this file.
inline constexpr const char* kOursNs = "ours_ns";    // mean time of one call of ours
inline constexpr const char* kPeerNs = "peer_ns";    // the same of the peer, or the limit
inline constexpr const char* kRatio = "ratio";       // ours_ns / peer_ns: below 1 is faster
inline constexpr const char* kGoal = "goal";         // the ratio to stay within
// A second yardstick in the same run, where a duel has both a peer and a physical floor.
inline constexpr const char* kFloorNs = "floor_ns";        // mean time of one call of the floor
inline constexpr const char* kFloorRatio = "floor_ratio";  // ours_ns / floor_ns
inline constexpr const char* kFloorGoal = "floor_goal";    // the ratio to the floor to stay within
// The spread of a repeated duel: the statistics computed beside Google Benchmark's median.
inline constexpr const char* kMinStat = "min";
inline constexpr const char* kMaxStat = "max";
inline constexpr int kRepetitions = 5;

// Repeats a duel kRepetitions times and reports only the median, mean, min and max of each
// counter, so that a ratio that swings between runs shows as a range.
template <typename B>
B* repeated(B* b) {
  return b->Repetitions(kRepetitions)
      ->ComputeStatistics(kMinStat, [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); })
      ->ComputeStatistics(kMaxStat, [](const std::vector<double>& v) { return *std::max_element(v.begin(), v.end()); })
      ->ReportAggregatesOnly(true);
}
// The same, for a BENCHMARK() chain: BENCHMARK(BM_X)->Arg(1)->Apply(bench_support::repeatedDuel).
inline void repeatedDuel(benchmark::internal::Benchmark* b) { repeated(b); }

// Sets the counters of a comparison from the two mean times (goal 0: none), each counter with
// `flags` (kAvgThreads where every thread of a threaded benchmark reports).
inline void duelCounters(benchmark::State& state, double oursNs, double peerNs, double goal,
                         benchmark::Counter::Flags flags = benchmark::Counter::kDefaults) {
  state.counters[kOursNs] = benchmark::Counter(oursNs, flags);
  state.counters[kPeerNs] = benchmark::Counter(peerNs, flags);
  state.counters[kRatio] = benchmark::Counter(peerNs > 0 ? oursNs / peerNs : 0, flags);
  if (goal > 0) state.counters[kGoal] = benchmark::Counter(goal, flags);
}

// The floor beside a duel's peer: its mean time, ours over it, and the goal for that ratio.
inline void floorCounters(benchmark::State& state, double oursNs, double floorNs, double goal) {
  state.counters[kFloorNs] = floorNs;
  state.counters[kFloorRatio] = floorNs > 0 ? oursNs / floorNs : 0;
  if (goal > 0) state.counters[kFloorGoal] = goal;
}

// Nanoseconds on the wall clock; a benchmark may pass another clock (thread CPU time, say).
inline double steadyNs() {
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Nanoseconds of CPU time used by the calling thread. On a shared machine a batch that is
// descheduled would otherwise charge the wait to whichever side was running.
inline double threadCpuNs() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

// Times batches of ours and the peer back to back, alternating which goes first, and sets the
// ours_ns and peer_ns counters (mean time of one call).
template <typename Ours, typename Peer, typename ClockNs = double (*)()>
void pairedTimes(benchmark::State& state, int batch, Ours&& ours, Peer&& peer, ClockNs clockNs = steadyNs) {
  double oursNs = 0;
  double peerNs = 0;
  std::int64_t calls = 0;
  bool oursFirst = true;
  auto timeBatch = [batch, &clockNs](auto& f) {
    const double t0 = clockNs();
    for (int i = 0; i < batch; ++i) f();
    return clockNs() - t0;
  };
  for (auto _ : state) {
    if (oursFirst) {
      oursNs += timeBatch(ours);
      peerNs += timeBatch(peer);
    } else {
      peerNs += timeBatch(peer);
      oursNs += timeBatch(ours);
    }
    oursFirst = !oursFirst;
    calls += batch;
  }
  state.counters[kOursNs] = oursNs / static_cast<double>(calls);
  state.counters[kPeerNs] = peerNs / static_cast<double>(calls);
}

// pairedTimes, plus the ratio ours/peer and the goal it should stay within.
template <typename Ours, typename Peer>
void pairedRun(benchmark::State& state, int batch, double goal, Ours&& ours, Peer&& peer) {
  pairedTimes(state, batch, ours, peer);
  duelCounters(state, state.counters[kOursNs], state.counters[kPeerNs], goal);
}

}  // namespace bench_support
