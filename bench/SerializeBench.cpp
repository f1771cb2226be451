// The message serializer beside its limits: a raw unchecked pointer writer doing the same stores,
// and memcpy.
//
// BM_UpdateBody builds a realistic VPN-IPv4 UPDATE body: ORIGIN, a four-octet AS_PATH, NEXT_HOP,
// MED, LOCAL_PREF, four COMMUNITIES, four route-target extended communities, and MP_REACH_NLRI
// with eight labelled VPN prefixes (RFC 4364). Ours is a fresh Serialize per message (inline
// storage, room checked once per addFields group: an attribute with its value, an NLRI entry with
// its prefix octets); the peer writes the same octets through a bare pointer into a reused buffer
// with no checks at all. (Written with one single add per field instead, ours took 2.4x the peer:
// a check and an offset store per field.) BM_UpdateBodyFloor sets ours beside the same pointer
// writer checking each group as a safe writer must.
//
// BM_AddData appends N runs of 4 KiB to a fresh writer; the peer appends them to a fresh
// std::vector<uint8_t> with insert, so both pay for their growth (one run stays in our inline
// storage; more runs include the growths to the heap). BM_AddDataReserved appends them to a writer
// that reserved the total once, before the timing, and is emptied (truncate(0)) for each message;
// its limit is memcpy into a buffer allocated once, before the timing, at the same place modulo the
// page as ours. Neither side's allocation is timed: a writer created and reserved for each message
// paid malloc and free of the block (about 30 ns for 16 KiB) where the limit paid nothing.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "BgpCommon/BgpSerialize.h"
#include "BgpCommon/RouteTarget.h"
#include "bench/PairedBench.h"

namespace {

using namespace Routing::Bgp;

// The limit: the same operations as Serialize, through a pointer kept in a register. It stores
// through char8_t like Serialize does, so neither is slowed by reloading its inputs after each
// octet stored (an unsigned char store may alias anything). Unchecked, it is the peer; Checked, it
// is the floor of any safe writer: one compare per group against an end pointer held in a
// register, throwing on overflow before writing.
template <bool Checked>
class RawWriter {
 public:
  RawWriter(U8* p, U8* end) : p_(reinterpret_cast<char8_t*>(p)), end_(reinterpret_cast<char8_t*>(end)) {}
  const U8* position() const { return reinterpret_cast<const U8*>(p_); }

  template <typename... F>
  void addFields(const F&... f) {
    if constexpr (Checked) {
      if (static_cast<U64>(end_ - p_) < (U64{0} + ... + Serialize::fieldOctets(f))) [[unlikely]] {
        overflow();
      }
    }
    (put(f), ...);
  }

 private:
  [[noreturn, gnu::noinline, gnu::cold]] static void overflow() { throw std::length_error("message too long"); }
  // The octets of `v` as they lie in memory, one char8_t store each (merged by the compiler).
  template <typename T>
  void putMemory(T v) {
    unsigned char octets[sizeof v];
    std::memcpy(octets, &v, sizeof v);
    for (unsigned char o : octets) *p_++ = static_cast<char8_t>(o);
  }
  void put(U8 v) { *p_++ = static_cast<char8_t>(v); }
  void put(U16 v) { putMemory(Netzo::hton16(v)); }
  void put(U32 v) { putMemory(Netzo::hton32(v)); }
  void put(U64 v) { putMemory(Netzo::hton64(v)); }
  void put(Netzo::IpAddr a) { putMemory(a.value()); }
  void put(Netzo::AutonomousSystem as) { put(as.value()); }
  void put(AfiSafi a) {
    put(a.afi());
    put(static_cast<U8>(a.safi()));
  }
  void put(Serialize::U24 f) {
    p_[0] = static_cast<char8_t>(f.value >> 16);
    p_[1] = static_cast<char8_t>(f.value >> 8);
    p_[2] = static_cast<char8_t>(f.value);
    p_ += 3;
  }
  void put(Serialize::Octets run) {
    std::memcpy(p_, run.data, run.size);
    p_ += run.size;
  }
  template <typename T, std::size_t N>
  void put(std::span<T, N> items) {
    for (const T& item : items) put(item);
  }
  char8_t* p_;
  char8_t* end_;
};

struct VpnNlri {
  Netzo::MplsLabel label;
  U16 rdAs;
  U32 rdNumber;
  std::array<U8, 4> prefix;
  U8 length;
};

struct UpdateInputs {
  U16 pathAttributesLength = 0;
  std::array<Netzo::AutonomousSystem, 4> asPath;
  Netzo::IpAddr nextHop;
  U32 med;
  U32 localPref;
  std::array<U32, 4> communities;
  std::array<U64, 4> routeTargetValues;  // RouteTarget::value of each
  AfiSafi afiSafi{afiIpv4, safiMplsVpn};
  std::array<VpnNlri, 8> nlri;
};

// Each attribute (header and value) and each NLRI entry (header and prefix octets) is one
// addFields group: one room check each.
template <typename W>
void buildUpdate(W& w, const UpdateInputs& in) {
  w.addFields(U16{0}, in.pathAttributesLength);  // withdrawn routes length, path attributes length
  w.addFields(U8{0x40}, U8{1}, U8{1}, U8{0});    // ORIGIN: IGP
  // AS_PATH: one AS_SEQUENCE of four-octet AS numbers, extended length
  w.addFields(U8{0x50}, U8{2}, static_cast<U16>(2 + 4 * in.asPath.size()), U8{2}, static_cast<U8>(in.asPath.size()),
              std::span(in.asPath));
  w.addFields(U8{0x40}, U8{3}, U8{4}, in.nextHop);      // NEXT_HOP
  w.addFields(U8{0x80}, U8{4}, U8{4}, in.med);          // MULTI_EXIT_DISC
  w.addFields(U8{0x40}, U8{5}, U8{4}, in.localPref);    // LOCAL_PREF
  w.addFields(U8{0xC0}, U8{8}, static_cast<U8>(4 * in.communities.size()), std::span(in.communities));  // COMMUNITIES
  w.addFields(U8{0xC0}, U8{16}, static_cast<U8>(8 * in.routeTargetValues.size()),  // EXTENDED_COMMUNITIES
              std::span(in.routeTargetValues));
  // MP_REACH_NLRI: VPN-IPv4 next hop (zero RD + address), labelled VPN prefixes
  U16 nlriOctets = 0;
  for (const VpnNlri& n : in.nlri) nlriOctets = static_cast<U16>(nlriOctets + 1 + 3 + 8 + (n.length + 7) / 8);
  w.addFields(U8{0x90}, U8{14}, static_cast<U16>(3 + 1 + 12 + 1 + nlriOctets), in.afiSafi, U8{12}, U64{0}, in.nextHop,
              U8{0});
  for (const VpnNlri& n : in.nlri) {
    // length in bits, label, RD type 0 (two-octet AS, 32-bit number), then the prefix octets
    w.addFields(static_cast<U8>(24 + 64 + n.length), Serialize::mplsLabelField(n.label, true), U16{0}, n.rdAs,
                n.rdNumber, Serialize::Octets{n.prefix.data(), static_cast<U32>((n.length + 7) / 8)});
  }
}

UpdateInputs makeInputs() {
  std::mt19937 rng(8654);
  UpdateInputs in;
  for (auto& as : in.asPath) as = 64512 + rng() % 100000;
  in.nextHop = Netzo::IpAddr(192, 0, 2, 1);
  in.med = rng();
  in.localPref = 100;
  for (auto& c : in.communities) c = rng();
  for (U64& v : in.routeTargetValues) {
    RouteTarget rt;
    rt.stringValueIs(std::to_string(65000 + rng() % 500) + ":" + std::to_string(rng() % 1000));
    v = rt.value;
  }
  for (auto& n : in.nlri) {
    n.label = Netzo::MplsLabel(16 + rng() % 1000000);
    n.rdAs = 65000;
    n.rdNumber = rng() % 100;
    n.prefix = {10, static_cast<U8>(rng()), static_cast<U8>(rng()), 0};
    n.length = 24;
  }
  Serialize probe;
  buildUpdate(probe, in);
  in.pathAttributesLength = static_cast<U16>(probe.writeOffset() - 4);
  return in;
}

// Ours beside the raw writer: unchecked, the peer; checked, the floor of a safe writer.
template <bool Checked>
void updateBodyDuel(benchmark::State& state, double goal) {
  UpdateInputs in = makeInputs();
  std::vector<U8> raw(Serialize::inlineCapacity);
  {  // Both writers must produce the same octets.
    Serialize s;
    buildUpdate(s, in);
    RawWriter<Checked> w(raw.data(), raw.data() + raw.size());
    buildUpdate(w, in);
    if (static_cast<U32>(w.position() - raw.data()) != s.writeOffset() ||
        std::memcmp(raw.data(), s.data(), s.writeOffset()) != 0) {
      std::fprintf(stderr, "writers disagree\n");
      std::abort();
    }
    state.counters["octets"] = s.writeOffset();
  }
  bench_support::pairedRun(
      state, 64, goal,
      [&] {
        benchmark::DoNotOptimize(&in);
        Serialize s;
        buildUpdate(s, in);
        benchmark::DoNotOptimize(s.data());
        benchmark::ClobberMemory();
      },
      [&] {
        benchmark::DoNotOptimize(&in);
        RawWriter<Checked> w(raw.data(), raw.data() + raw.size());
        buildUpdate(w, in);
        benchmark::DoNotOptimize(w.position());
        benchmark::ClobberMemory();
      });
}

void BM_UpdateBody(benchmark::State& state) { updateBodyDuel<false>(state, 1.1); }
BENCHMARK(BM_UpdateBody)->Apply(bench_support::repeatedDuel);

// The same message beside the floor of a safe writer: the raw writer with one room check per group
// against an end pointer in a register, which must also hold its position in memory wherever it
// may throw (the caller sees the writer after catching).
void BM_UpdateBodyFloor(benchmark::State& state) {
  updateBodyDuel<true>(state, 0);
  state.SetLabel("floor: raw writer with a room check per group");
}
BENCHMARK(BM_UpdateBodyFloor)->Apply(bench_support::repeatedDuel);

constexpr U32 kRun = 4096;

void BM_AddData(benchmark::State& state) {
  const U32 runs = static_cast<U32>(state.range(0));
  const std::vector<U8> src(kRun * runs, 0x5A);
  bench_support::pairedRun(
      state, 64, 1.0,
      [&] {
        Serialize s;
        for (U32 r = 0; r < runs; ++r) s.addData(src.data() + r * kRun, kRun);
        benchmark::DoNotOptimize(s.data());
        benchmark::ClobberMemory();
      },
      [&] {
        std::vector<U8> v;
        for (U32 r = 0; r < runs; ++r) v.insert(v.end(), src.data() + r * kRun, src.data() + (r + 1) * kRun);
        benchmark::DoNotOptimize(v.data());
        benchmark::ClobberMemory();
      });
  state.SetLabel("peer: std::vector insert");
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 64 * 2 * kRun * runs);
}
BENCHMARK(BM_AddData)->Arg(1)->Arg(4)->Arg(15)->Apply(bench_support::repeatedDuel);

void BM_AddDataReserved(benchmark::State& state) {
  const U32 runs = static_cast<U32>(state.range(0));
  const std::vector<U8> src(kRun * runs, 0x5A);
  // The limit copies to the same place modulo the page as ours did on its last call: where a
  // destination lies against its source decides how fast memcpy is (one just past its source
  // modulo 4 KiB stalls the string move on some processors), and malloc, the stack or the caller
  // chooses that for ours, not addData. Both sides then copy between the same page offsets.
  std::vector<U8> dstBlock(kRun * runs + 2 * 4096);
  U8* const page = reinterpret_cast<U8*>((reinterpret_cast<std::uintptr_t>(dstBlock.data()) + 4095) & ~std::uintptr_t{4095});
  const U8* ourLast = nullptr;
  Serialize s;
  s.reserve(kRun * runs);
  bench_support::pairedRun(
      state, 64, 1.2,
      [&] {
        s.truncate(0);
        for (U32 r = 0; r < runs; ++r) s.addData(src.data() + r * kRun, kRun);
        ourLast = s.data();
        benchmark::DoNotOptimize(s.data());
        benchmark::ClobberMemory();
      },
      [&] {
        U8* const dst = page + (reinterpret_cast<std::uintptr_t>(ourLast) & 4095);
        for (U32 r = 0; r < runs; ++r) std::memcpy(dst + r * kRun, src.data() + r * kRun, kRun);
        benchmark::DoNotOptimize(dst);
        benchmark::ClobberMemory();
      });
  state.SetLabel("peer: memcpy into a ready buffer");
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 64 * 2 * kRun * runs);
}
BENCHMARK(BM_AddDataReserved)->Arg(1)->Arg(4)->Arg(15)->Apply(bench_support::repeatedDuel);

// One 4 KiB run into inline storage whose address lies 16 octets past the source's modulo the
// page, beside a plain memcpy between buffers placed the same way: what addData would cost if it
// left every run to memcpy (whose string-move path stalls on such placements on some processors
// and not on others, so addData chooses its path by a one-time measurement). Goal: no slower than
// that memcpy, whichever the processor.
// A pool of source octets, from which a run is taken lying kAhead octets before a destination
// modulo the page.
struct AliasedSource {
  static constexpr U32 kRun = 4095;
  static constexpr std::uintptr_t kAhead = 16;
  std::vector<U8> pool = std::vector<U8>(3 * 4096, 0x5A);
  const U8* before(const void* dst) const {
    const auto d = reinterpret_cast<std::uintptr_t>(dst);
    return pool.data() + ((d - kAhead - reinterpret_cast<std::uintptr_t>(pool.data())) & 4095);
  }
};

void BM_AddDataAliased(benchmark::State& state) {
  const AliasedSource source;
  std::vector<U8> dstBlock(2 * 4096);
  U8* const dst = dstBlock.data() + 1088;
  const U8* const peerSrc = source.before(dst);
  bench_support::pairedRun(
      state, 64, 1.0,
      [&] {
        Serialize s;
        s.addData(source.before(s.data()), AliasedSource::kRun);
        benchmark::DoNotOptimize(s.data());
        benchmark::ClobberMemory();
      },
      [&] {
        std::memcpy(dst, peerSrc, AliasedSource::kRun);
        benchmark::DoNotOptimize(dst);
        benchmark::ClobberMemory();
      });
  // Which copy this processor's one-time measurement chose.
  state.SetLabel(std::string("copy: ") + Serialize::aliasedRunCopy());
}
BENCHMARK(BM_AddDataAliased)->Apply(bench_support::repeatedDuel);

// The floor under that row: the same writer made the same way, its inline storage filled by a
// plain memcpy past every check of addData. Ours beyond it is addData's own cost; it beyond the
// bare memcpy is the writer's making and the place of its storage on the stack (which moves within
// the page from one process to the next with the stack's random start).
void BM_AddDataAliasedFloor(benchmark::State& state) {
  const AliasedSource source;
  std::uintptr_t places[2] = {};
  bench_support::pairedRun(
      state, 64, 0,
      [&] {
        Serialize s;
        places[0] = reinterpret_cast<std::uintptr_t>(s.data()) & 4095;
        s.addData(source.before(s.data()), AliasedSource::kRun);
        benchmark::DoNotOptimize(s.data());
        benchmark::ClobberMemory();
      },
      [&] {
        Serialize s;
        places[1] = reinterpret_cast<std::uintptr_t>(s.data()) & 4095;
        U8* const storage = const_cast<U8*>(s.data());
        std::memcpy(storage, source.before(storage), AliasedSource::kRun);
        benchmark::DoNotOptimize(s.data());
        benchmark::ClobberMemory();
      });
  state.SetLabel("floor: a writer made alike, filled by memcpy" +
                 std::string(places[0] == places[1] ? "" : " (placed apart)"));
}
BENCHMARK(BM_AddDataAliasedFloor)->Apply(bench_support::repeatedDuel);

// Each copy the measurement chooses among, placed as in BM_AddDataAliased, beside memcpy placed the
// same way: the chosen one must be the fastest, and none is held to a goal (a loop may well lose
// on a processor whose string move does not stall).
void BM_AliasedRunCandidate(benchmark::State& state) {
  const auto candidates = Serialize::aliasedRunCopies();
  const auto k = static_cast<std::size_t>(state.range(0));
  if (k >= candidates.size()) {
    state.SkipWithError("not a candidate on this processor");
    return;
  }
  const AliasedSource source;
  std::vector<U8> dstBlock(2 * 4096);
  U8* const dst = dstBlock.data() + 1088;
  const U8* const src = source.before(dst);
  void (*volatile copy)(void*, const void*, std::size_t) = candidates[k].copy;
  bench_support::pairedRun(
      state, 64, 0,
      [&] {
        copy(dst, src, AliasedSource::kRun);
        benchmark::DoNotOptimize(dst);
        benchmark::ClobberMemory();
      },
      [&] {
        std::memcpy(dst, src, AliasedSource::kRun);
        benchmark::DoNotOptimize(dst);
        benchmark::ClobberMemory();
      });
  state.SetLabel(std::string("copy: ") + candidates[k].name);
}
BENCHMARK(BM_AliasedRunCandidate)->DenseRange(0, 2)->Apply(bench_support::repeatedDuel);

}  // namespace

BENCHMARK_MAIN();
