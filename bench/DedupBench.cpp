// The dedup facility on plain content records (no routing types): IPv4- and IPv6-shaped keys in
// the stash heap, interned by a content record on the stack. See bench/DedupDuel.h for the duels.

#include <cstring>

#include "bench/DedupDuel.h"
#include "platform/Brim/HashMix.h"

namespace {

struct V4Content : Brim::DedupContentHandle {
  std::uint32_t address;
  std::uint8_t length;
  V4Content(std::uint32_t a, std::uint8_t l) : address(a), length(l) {}
  [[gnu::always_inline]] static std::uint32_t hashOf(std::uint32_t a, std::uint8_t l) {
    Brim::HashMix h;
    h.mixBytes4(a);
    h.mixBytes1(l);
    return h.value();
  }
};

struct V4Key final : KelpStash::DedupHandleWithTableInHeap {
  std::uint32_t address;
  std::uint8_t length;
  V4Key(std::uint32_t a, std::uint8_t l) : address(a), length(l) {}
  std::uint32_t hash() const override { return V4Content::hashOf(address, length); }
  bool compare(const Brim::DedupHandleBase* o) const override {
    auto* k = static_cast<const V4Key*>(o);
    return k->length == length && k->address == address;
  }
  bool compareByContent(const Brim::DedupContentHandle& c) const override {
    auto& k = static_cast<const V4Content&>(c);
    return k.length == length && k.address == address;
  }
  static Brim::DedupHandleBase* alloc(const Brim::DedupContentHandle& c) {
    auto& k = static_cast<const V4Content&>(c);
    return new V4Key(k.address, k.length);
  }
};

// The 16 address octets compared as two 8-octet halves (std::array's == calls memcmp).
inline bool sameWords(const std::array<std::uint32_t, 4>& a, const std::array<std::uint32_t, 4>& b) {
  std::uint64_t x[2], y[2];
  std::memcpy(x, a.data(), 16);
  std::memcpy(y, b.data(), 16);
  return ((x[0] ^ y[0]) | (x[1] ^ y[1])) == 0;
}

struct V6Content : Brim::DedupContentHandle {
  std::array<std::uint32_t, 4> words;
  std::uint8_t length;
  V6Content(const std::array<std::uint32_t, 4>& w, std::uint8_t l) : words(w), length(l) {}
  [[gnu::always_inline]] static std::uint32_t hashOf(const std::array<std::uint32_t, 4>& w, std::uint8_t l) {
    Brim::HashMix h;
    h.mixBytes4Each(w);
    h.mixBytes1(l);
    return h.value();
  }
};

struct V6Key final : KelpStash::DedupHandleWithTableInHeap {
  std::array<std::uint32_t, 4> words;
  std::uint8_t length;
  V6Key(const std::array<std::uint32_t, 4>& w, std::uint8_t l) : words(w), length(l) {}
  std::uint32_t hash() const override { return V6Content::hashOf(words, length); }
  bool compare(const Brim::DedupHandleBase* o) const override {
    auto* k = static_cast<const V6Key*>(o);
    return k->length == length && sameWords(k->words, words);
  }
  bool compareByContent(const Brim::DedupContentHandle& c) const override {
    auto& k = static_cast<const V6Content&>(c);
    return k.length == length && sameWords(k.words, words);
  }
  static Brim::DedupHandleBase* alloc(const Brim::DedupContentHandle& c) {
    auto& k = static_cast<const V6Content&>(c);
    return new V6Key(k.words, k.length);
  }
};

// The peers' content records: the same fields, hashed by absl.
struct V4Peer {
  std::uint32_t address;
  std::uint8_t length;
  bool operator==(const V4Peer&) const = default;
  template <typename H>
  friend H AbslHashValue(H h, const V4Peer& p) { return H::combine(std::move(h), p.address, p.length); }
};
struct V6Peer {
  std::array<std::uint32_t, 4> words;
  std::uint8_t length;
  bool operator==(const V6Peer&) const = default;
  template <typename H>
  friend H AbslHashValue(H h, const V6Peer& p) { return H::combine(std::move(h), p.words, p.length); }
};

Kelp::Ptr<Brim::DedupHashTable> stashTable(bool multiThreaded) {
  return Kelp::Ptr<Brim::DedupHashTable>(new KelpStash::DedupHashTableUnorderedSet(multiThreaded));
}

struct PlainV4 {
  using Prefix = bench::V4Prefix;
  using Held = Kelp::Ptr<const V4Key>;
  using Peer = V4Peer;
  static Kelp::Ptr<Brim::DedupHashTable> makeTable(bool mt) { return stashTable(mt); }
  static Held intern(Brim::DedupHashTable& t, const Prefix& p) {
    V4Content c(p.addressNbo, p.length);
    return static_cast<Brim::DedupHashTableUnorderedSet&>(t).findOrDedupAs<const V4Key>(
        c, V4Content::hashOf(c.address, c.length), &V4Key::alloc);
  }
  static Peer peer(const Prefix& p) { return {p.addressNbo, p.length}; }
  static void dropTable() {}
  static std::uint32_t hash(const Prefix& p) { return V4Content::hashOf(p.addressNbo, p.length); }
  static bool matches(const Held& k, const Prefix& p) { return k->compareByContent(V4Content(p.addressNbo, p.length)); }
};

struct PlainV6 {
  using Prefix = bench::V6Prefix;
  using Held = Kelp::Ptr<const V6Key>;
  using Peer = V6Peer;
  static Kelp::Ptr<Brim::DedupHashTable> makeTable(bool mt) { return stashTable(mt); }
  static Held intern(Brim::DedupHashTable& t, const Prefix& p) {
    V6Content c(p.words, p.length);
    return static_cast<Brim::DedupHashTableUnorderedSet&>(t).findOrDedupAs<const V6Key>(
        c, V6Content::hashOf(c.words, c.length), &V6Key::alloc);
  }
  static Peer peer(const Prefix& p) { return {p.words, p.length}; }
  static void dropTable() {}
  static std::uint32_t hash(const Prefix& p) { return V6Content::hashOf(p.words, p.length); }
  static bool matches(const Held& k, const Prefix& p) { return k->compareByContent(V6Content(p.words, p.length)); }
};

const std::vector<bench::V4Prefix>& real2014v4() { return bench::Tables::get().real2014.v4; }
const std::vector<bench::V6Prefix>& real2015v6() { return bench::Tables::get().real2015.v6; }
const std::vector<bench::V4Prefix>& generatedV4() { return bench::Tables::get().generated.v4; }
const std::vector<bench::V6Prefix>& generatedV6() { return bench::Tables::get().generated.v6; }

}  // namespace

int main(int argc, char** argv) {
  bench::registerDuels<PlainV4>("PlainV4", "real2014", &real2014v4);
  bench::registerDuels<PlainV4>("PlainV4", "generated1M", &generatedV4);
  bench::registerDuels<PlainV6>("PlainV6", "real2015", &real2015v6);
  bench::registerDuels<PlainV6>("PlainV6", "generated250k", &generatedV6);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
