#include "BgpCommon/BgpIpv6RouteKeyContent.h"

#include <cctype>

#include "platform/Kelp/Registry.h"

namespace Routing::Bgp::IpPlugin {

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
