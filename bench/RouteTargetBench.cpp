// RouteTarget::stringValueIs beside std::from_chars reading the same digits.
//
// The texts mix the operator's forms (two-octet AS, "L", four-octet AS, asdot, IPv4, hex). The peer
// finds each run of digits in the same text and converts it with std::from_chars (base 16 for the
// hex form): the least any parser of these texts must do. BM_ParseMix cycles through all forms;
// BM_ParseForm/i parses one form only. Goals: each form within 2x the peer, the mix within 1.5x.
#include <charconv>
#include <string>
#include <vector>

#include "BgpCommon/RouteTarget.h"
#include "bench/PairedBench.h"

namespace {

using Routing::Bgp::RouteTarget;

const std::vector<Kelp::String> kForms = {
    "100:5",       "65000:4294967295", "100L:5", "70000:5", "1.4464:5", "4200000000:65535",
    "10.0.0.1:7", "192.168.100.200:65535", "0x0003020000000001",
};

// Sums every number in `text`, read with std::from_chars.
std::uint64_t fromCharsDigits(const Kelp::String& text) {
  const char* p = text.data();
  const char* end = p + text.size();
  std::uint64_t sum = 0;
  if (text.size() > 2 && p[0] == '0' && p[1] == 'x') {
    std::from_chars(p + 2, end, sum, 16);
    return sum;
  }
  while (p < end) {
    if (*p < '0' || *p > '9') {
      ++p;
      continue;
    }
    std::uint64_t v = 0;
    p = std::from_chars(p, end, v).ptr;
    sum += v;
  }
  return sum;
}

void runOn(benchmark::State& state, const std::vector<Kelp::String>& texts, double goal) {
  std::size_t i = 0, j = 0;
  RouteTarget rt;
  bench_support::pairedRun(
      state, 256, goal,
      [&] {
        rt.stringValueIs(texts[i]);
        benchmark::DoNotOptimize(rt.value);
        if (++i == texts.size()) i = 0;
      },
      [&] {
        benchmark::DoNotOptimize(fromCharsDigits(texts[j]));
        if (++j == texts.size()) j = 0;
      });
}

void BM_ParseMix(benchmark::State& state) { runOn(state, kForms, 1.5); }
BENCHMARK(BM_ParseMix)->Apply(bench_support::repeatedDuel);

void BM_ParseForm(benchmark::State& state) {
  const Kelp::String& text = kForms[static_cast<std::size_t>(state.range(0))];
  state.SetLabel(text);
  runOn(state, {text}, 2.0);
}
BENCHMARK(BM_ParseForm)->DenseRange(0, static_cast<int>(kForms.size()) - 1)->Apply(bench_support::repeatedDuel);

// Printing, for reference (no peer goal): the canonical text of each form.
void BM_ToStrep(benchmark::State& state) {
  std::vector<RouteTarget> values;
  for (const Kelp::String& t : kForms) {
    RouteTarget rt;
    rt.stringValueIs(t);
    values.push_back(rt);
  }
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(values[i].toStrep(true));
    if (++i == values.size()) i = 0;
  }
}
BENCHMARK(BM_ToStrep);

}  // namespace

BENCHMARK_MAIN();
