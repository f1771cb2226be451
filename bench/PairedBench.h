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

#include <chrono>
#include <cstdint>

namespace bench_support {

template <typename Ours, typename Peer>
void pairedRun(benchmark::State& state, int batch, double goal, Ours&& ours, Peer&& peer) {
  using Clock = std::chrono::steady_clock;
  double oursNs = 0;
  double peerNs = 0;
  std::int64_t calls = 0;
  bool oursFirst = true;
  auto timeBatch = [batch](auto& f) {
    auto t0 = Clock::now();
    for (int i = 0; i < batch; ++i) f();
    return std::chrono::duration<double, std::nano>(Clock::now() - t0).count();
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
  state.counters["ours_ns"] = oursNs / static_cast<double>(calls);
  state.counters["peer_ns"] = peerNs / static_cast<double>(calls);
  state.counters["ratio"] = peerNs > 0 ? oursNs / peerNs : 0;
  state.counters["goal"] = goal;
}

}  // namespace bench_support
