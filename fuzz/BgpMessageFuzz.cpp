// readMessage on arbitrary octets, under session options chosen by the first octet. The reader
// may only return errors (anything thrown or any crash aborts); a message it reads without error
// must write back to exactly the octets it was read from, and every NLRI list it returns must
// iterate to its end.
//
// First octet: bit 0 four-octet AS, bit 1 extended messages, bit 2 add-path for IPv4 unicast,
// bit 3 for IPv6 labelled unicast, bit 4 the path attributes alone in the abbreviated MP_REACH_NLRI
// form of MRT (the rest of the input is then an attribute set, not a message).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

#include "BgpCommon/BgpMessage.h"

namespace {
using namespace Routing::Bgp;

void walk(const NlriList& list) {
  std::size_t n = 0;
  for (const NlriEntry& e : list) n += e.prefix.length() + e.labelCount();
  if (list.typed() && list.check()) std::abort();  // a list returned by a reader was checked whole
  (void)n;
}

bool same(std::span<const U8> in, const Serialize& out) {
  return in.size() == out.writeOffset() && (in.empty() || std::memcmp(in.data(), out.data(), in.size()) == 0);
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const U8 mode = data[0];
  const std::span<const U8> in(data + 1, size - 1);
  SessionOptions o;
  o.fourOctetAs = mode & 1;
  o.extendedMessage = mode & 2;
  if (mode & 4) o.addPath.add(ipv4UnicastAfiSafi);
  if (mode & 8) o.addPath.add(AfiSafi(afiIpv6, safiMplsLabel));
  if (mode & 16) {
    o.mrtAbbreviatedMpReach = ipv6UnicastAfiSafi;
    PathAttributes attrs;
    Deserialize cursor(in);
    if (readPathAttributes(cursor, o, attrs)) return 0;
    Serialize out;
    writePathAttributes(out, attrs, o);
    if (!same(in, out)) std::abort();
    return 0;
  }
  Message m;
  if (readMessage(in, o, m)) return 0;
  MessageHeader h;
  if (readHeader(in, o, h)) std::abort();
  if (const Update* u = std::get_if<Update>(&m)) {
    walk(u->withdrawn);
    walk(u->nlri);
    if (u->attributes.mpReach) walk(u->attributes.mpReach->nlri);
    if (u->attributes.mpUnreach) walk(u->attributes.mpUnreach->withdrawn);
    (void)u->attributes.fullAsPath(o);
  }
  Serialize out;
  writeMessage(out, m, o);
  if (!same(in.first(h.length), out)) std::abort();
  return 0;
}
