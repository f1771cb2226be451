// Decompressing the RouteViews dumps python3-pyasn ships (bzip2, about 1 MB each, 10 to 15 MB of
// MRT) with Bzip2Reader, its blocks on every core, beside libbz2 reading the file as one stream on
// one thread (Bzip2Reader with one thread: BZ2_bzDecompress into a buffer, nothing else). This is
// the floor under `bgpcommon mrt` on a bzip2 file: bench/mrt_vs_bgpdump.py runs it beside the tool.
//
// BM_Bzip2Read/N (file N): wall time of one whole file, ours and the peer alternating; no goal
// (the parallel gain is bounded by the cores and by the file's last blocks, cut short).
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "BgpCommon/Bzip2Reader.h"
#include "bench/PairedBench.h"

namespace {

using Routing::Bgp::Bzip2Reader;

const std::vector<std::string> kFiles = {
    "/usr/lib/python3/dist-packages/data/rib.20080501.0644_firstMB.bz2",
    "/usr/lib/python3/dist-packages/data/rib.20140523.0600_firstMB.bz2",
    "/usr/lib/python3/dist-packages/data/rib6.20151101.0600_firstMB.bz2",
};

// The decompressed octets of `path`.
U64 decompress(const std::string& path, unsigned threads) {
  static std::vector<U8> buffer(1 << 20);
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  U64 total = 0;
  {
    Bzip2Reader in(fd, {.threads = threads});
    while (const std::size_t n = in.read(buffer.data(), buffer.size())) total += n;
  }
  ::close(fd);
  return total;
}

void BM_Bzip2Read(benchmark::State& state) {
  const std::string& path = kFiles[static_cast<std::size_t>(state.range(0))];
  const U64 octets = decompress(path, 1);
  if (octets == 0) {
    state.SkipWithError(("cannot read " + path).c_str());
    return;
  }
  bench_support::pairedRun(
      state, 1, 0, [&] { benchmark::DoNotOptimize(decompress(path, 0)); },
      [&] { benchmark::DoNotOptimize(decompress(path, 1)); });
  state.counters["MB"] = static_cast<double>(octets) / 1e6;
  state.SetLabel(path.substr(path.rfind('/') + 1));
}
BENCHMARK(BM_Bzip2Read)->DenseRange(0, 2)->Unit(benchmark::kMillisecond)->Apply(bench_support::repeatedDuel);

}  // namespace

BENCHMARK_MAIN();
