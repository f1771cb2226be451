#pragma once
// Prefix tables for the benchmarks: the RouteViews tables that Debian's python3-pyasn ships
// (read by piping them through gzip), and generated tables of today's size with the real tables'
// prefix-length mix, canonical (host bits zero), in a seeded random order.

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

namespace bench {

struct V4Prefix {
  std::uint32_t addressNbo;  // network byte order, as stored in a route key
  std::uint8_t length;
};

struct V6Prefix {
  std::array<std::uint32_t, 4> words;  // the 16 octets in network order
  std::uint8_t length;
};

struct PrefixTable {
  std::string name;
  std::vector<V4Prefix> v4;
  std::vector<V6Prefix> v6;
};

inline const char* kPyasnData = "/usr/lib/python3/dist-packages/data/";

// Reads "prefix/len<TAB>asn" lines of a pyasn .dat.gz file; ';' lines are comments.
inline PrefixTable readPyasn(const std::string& file) {
  PrefixTable t;
  t.name = file;
  std::string cmd = "gzip -dc '" + std::string(kPyasnData) + file + "'";
  FILE* f = popen(cmd.c_str(), "r");
  if (f == nullptr) throw std::runtime_error("cannot run " + cmd);
  char line[256];
  while (fgets(line, sizeof line, f) != nullptr) {
    if (line[0] == ';' || line[0] == '\n') continue;
    char* slash = std::strchr(line, '/');
    if (slash == nullptr) continue;
    *slash = '\0';
    unsigned len = static_cast<unsigned>(std::strtoul(slash + 1, nullptr, 10));
    if (std::strchr(line, ':') != nullptr) {
      V6Prefix p{};
      if (inet_pton(AF_INET6, line, p.words.data()) == 1) {
        p.length = static_cast<std::uint8_t>(len);
        t.v6.push_back(p);
      }
    } else {
      V4Prefix p{};
      if (inet_pton(AF_INET, line, &p.addressNbo) == 1) {
        p.length = static_cast<std::uint8_t>(len);
        t.v4.push_back(p);
      }
    }
  }
  pclose(f);
  if (t.v4.empty() && t.v6.empty()) throw std::runtime_error("no prefixes in " + file + " (is python3-pyasn installed?)");
  return t;
}

inline std::uint32_t v4Mask(unsigned len) { return len == 0 ? 0 : ~0u << (32 - len); }

// n distinct canonical prefixes whose lengths follow the histogram of `sample`.
template <typename P, typename MakeFn>
std::vector<P> generateLike(const std::vector<P>& sample, std::size_t n, std::uint64_t seed, MakeFn make) {
  std::mt19937_64 rng(seed);
  std::vector<P> out;
  out.reserve(n);
  std::unordered_set<std::string> seen;
  while (out.size() < n) {
    unsigned len = sample[rng() % sample.size()].length;
    P p = make(rng, len);
    std::string k(reinterpret_cast<const char*>(&p), sizeof p);
    if (seen.insert(k).second) out.push_back(p);
  }
  return out;
}

inline PrefixTable generatedTable(const PrefixTable& v4Sample, const PrefixTable& v6Sample, std::size_t n4,
                                  std::size_t n6) {
  PrefixTable t;
  t.name = "generated";
  t.v4 = generateLike(v4Sample.v4, n4, 4, [](std::mt19937_64& rng, unsigned len) {
    V4Prefix p{};
    p.addressNbo = htonl(static_cast<std::uint32_t>(rng()) & v4Mask(len));
    p.length = static_cast<std::uint8_t>(len);
    return p;
  });
  t.v6 = generateLike(v6Sample.v6, n6, 6, [](std::mt19937_64& rng, unsigned len) {
    V6Prefix p{};
    // Global unicast space 2000::/3, host bits zero.
    std::array<std::uint32_t, 4> host{};
    for (auto& w : host) w = static_cast<std::uint32_t>(rng());
    host[0] = (host[0] & 0x1FFFFFFFu) | 0x20000000u;
    for (unsigned i = 0; i < 4; ++i) {
      unsigned bits = len > 32 * i ? std::min(32u, len - 32 * i) : 0;
      host[i] &= v4Mask(bits);
      p.words[i] = htonl(host[i]);
    }
    p.length = static_cast<std::uint8_t>(len);
    return p;
  });
  return t;
}

// The tables named in the benchmarks, loaded once.
struct Tables {
  PrefixTable real2014;  // 512,621 IPv4
  PrefixTable real2015;  // 606,138 IPv4 and 27,693 IPv6
  PrefixTable generated; // 1,000,000 IPv4 and 250,000 IPv6

  static const Tables& get() {
    static const Tables t = [] {
      Tables x;
      x.real2014 = readPyasn("ipasn_20140513.dat.gz");
      x.real2015 = readPyasn("ipasn6_20151101.dat.gz");
      x.generated = generatedTable(x.real2014, x.real2015, 1000000, 250000);
      return x;
    }();
    return t;
  }
};

template <typename T>
std::vector<T> shuffled(std::vector<T> v, std::uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::shuffle(v.begin(), v.end(), rng);
  return v;
}

}  // namespace bench
