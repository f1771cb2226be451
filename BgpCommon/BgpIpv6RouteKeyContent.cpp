#include "BgpCommon/BgpIpv6RouteKeyContent.h"

#include <cctype>

#include "platform/Brim/HashMix.h"
#include "platform/Kelp/Registry.h"

namespace Routing::Bgp::IpPlugin {

std::uint32_t Ipv6RouteKeyContent::hashImpl(const Ipv6AddressBuf& a, std::uint8_t length, std::uint32_t seed) {
  Brim::HashMix h(seed);
  for (std::uint32_t w : a.words) h.mixBytes4(w);
  h.mixBytes1(length);
  return h.value();
}

namespace {
const Kelp::TypeModule module("BgpIpv6RouteKeyContent", {Kelp::typeInfo<Ipv6RouteKeyContent>()});
}

}  // namespace Routing::Bgp::IpPlugin

void Kelp::TextForm<Routing::Bgp::IpPlugin::Ipv6AddressBuf>::print(String& out,
                                                                    const Routing::Bgp::IpPlugin::Ipv6AddressBuf& v) {
  out += v.ip6Addr().stringValue();
}

void Kelp::TextForm<Routing::Bgp::IpPlugin::Ipv6AddressBuf>::parse(CharRange& r,
                                                                    Routing::Bgp::IpPlugin::Ipv6AddressBuf& v) {
  // The address text runs over hex digits, colons and the dots of an embedded IPv4 tail.
  std::size_t n = 0;
  std::string_view rest = r.rest();
  while (n < rest.size() && (std::isxdigit(static_cast<unsigned char>(rest[n])) || rest[n] == ':' || rest[n] == '.')) ++n;
  Netzo::Ip6Addr a;
  try {
    a.stringValueIs(rest.substr(0, n));
  } catch (const RangeException&) {
    r.fail("expected an IPv6 address");
  }
  v = Routing::Bgp::IpPlugin::Ipv6AddressBuf(a);
  r.advance(n);
}
