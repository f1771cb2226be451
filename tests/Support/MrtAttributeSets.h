#pragma once
// The path-attribute sets of an MRT RIB dump (RFC 6396), found with the least reading that
// finds them, for the reader's round-trip test and benchmark. Not an MRT reader.
//
// TABLE_DUMP (type 12) entries carry two-octet AS numbers; TABLE_DUMP_V2 (type 13) RIB entries
// carry four-octet ones and MP_REACH_NLRI in its abbreviated form (next-hop length and next hop,
// RFC 6396 section 4.3.4), which SessionOptions::mrtAbbreviatedMpReach reads and writes as such.
// The files are bzip2-compressed and may stop mid-stream (the dumps Debian ships are the first
// megabyte of larger files): whatever decompresses is used, and a record cut short is dropped.
#include <bzlib.h>

#include <cstdio>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "BgpCommon/BgpPathAttributes.h"

namespace bgpcommon_test {

// Where Debian's python3-pyasn puts its RouteViews samples.
inline const char* const kMrtDumpDir = "/usr/lib/python3/dist-packages/data";
inline const char* const kMrtDumps[] = {"rib.20080501.0644_firstMB.bz2", "rib.20140523.0600_firstMB.bz2",
                                        "rib6.20151101.0600_firstMB.bz2", "bview.20140112.1600_3samples.bz2"};

// Everything that decompresses from `path` (empty when it cannot be opened).
inline std::vector<std::uint8_t> bunzip(const std::string& path) {
  std::vector<std::uint8_t> out;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return out;
  std::vector<char> in;
  char chunk[65536];
  for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, f)) > 0;) in.insert(in.end(), chunk, chunk + n);
  std::fclose(f);
  bz_stream s{};
  if (BZ2_bzDecompressInit(&s, 0, 0) != BZ_OK) return out;
  s.next_in = in.data();
  s.avail_in = static_cast<unsigned>(in.size());
  for (;;) {
    const std::size_t had = out.size();
    out.resize(had + (1 << 20));
    s.next_out = reinterpret_cast<char*>(out.data() + had);
    s.avail_out = 1 << 20;
    const int rc = BZ2_bzDecompress(&s);
    out.resize(had + (1 << 20) - s.avail_out);
    if (rc != BZ_OK || (s.avail_in == 0 && out.size() == had)) break;  // end, damage or cut short
  }
  BZ2_bzDecompressEnd(&s);
  return out;
}

struct AttributeSet {
  std::span<const std::uint8_t> octets;
  Routing::Bgp::SessionOptions options;
};

// Calls f(AttributeSet) for every RIB entry's attribute set in `dump`; returns the number of
// records that were not RIB entries this knows (peer index tables, other types).
template <typename F>
std::size_t forEachAttributeSet(std::span<const std::uint8_t> dump, F&& f) {
  using namespace Routing::Bgp;
  auto u16 = [](const std::uint8_t* p) { return unsigned(p[0] << 8 | p[1]); };
  auto u32 = [](const std::uint8_t* p) { return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | p[2] << 8 | p[3]; };
  std::size_t skipped = 0;
  for (std::size_t at = 0; at + 12 <= dump.size();) {
    const unsigned type = u16(&dump[at + 4]), subtype = u16(&dump[at + 6]);
    const std::size_t length = u32(&dump[at + 8]);
    if (at + 12 + length > dump.size()) break;  // cut short
    const std::span<const std::uint8_t> body = dump.subspan(at + 12, length);
    at += 12 + length;
    if (type == 12 && (subtype == 1 || subtype == 2)) {
      // TABLE_DUMP: view, sequence, prefix, length, status, time, peer address, peer AS, attributes.
      const std::size_t address = subtype == 1 ? 4 : 16;
      const std::size_t head = 2 + 2 + address + 1 + 1 + 4 + address + 2;
      if (body.size() < head + 2) continue;
      const std::size_t n = u16(&body[head]);
      if (head + 2 + n > body.size()) continue;
      SessionOptions o;
      o.fourOctetAs = false;
      f(AttributeSet{body.subspan(head + 2, n), o});
    } else if (type == 13 && (subtype == 2 || subtype == 4)) {
      // TABLE_DUMP_V2 RIB_IPV4_UNICAST / RIB_IPV6_UNICAST: sequence, prefix, entry count, entries
      // of peer index, time, attributes.
      if (body.size() < 5) continue;
      std::size_t p = 4 + 1 + (body[4] + 7) / 8;
      if (p + 2 > body.size()) continue;
      unsigned entries = u16(&body[p]);
      p += 2;
      SessionOptions o;
      o.fourOctetAs = true;
      o.mrtAbbreviatedMpReach = subtype == 2 ? ipv4UnicastAfiSafi : ipv6UnicastAfiSafi;
      for (; entries > 0 && p + 8 <= body.size(); --entries) {
        const std::size_t n = u16(&body[p + 6]);
        if (p + 8 + n > body.size()) break;
        f(AttributeSet{body.subspan(p + 8, n), o});
        p += 8 + n;
      }
    } else {
      ++skipped;
    }
  }
  return skipped;
}

}  // namespace bgpcommon_test
