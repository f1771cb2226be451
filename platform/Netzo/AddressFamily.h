#pragma once
// The address family of an IP address or prefix.
//
// The numeric values are the IANA Address Family Numbers that BGP carries as AFI (RFC 4760), so a
// family can be written to the wire as is: IPv4 is 1, IPv6 is 2. ipUnknown (0) is the family of a
// default-constructed generic address, which holds no address at all.

#include <cstdint>

#include "platform/Kelp/EnumType.h"

namespace Netzo {

KELP_ENUM(enum class, AddressFamily, std::uint8_t, "Netzo::AddressFamily", named,
          ipUnknown = 0,
          ipv4 = 1,
          ipv6 = 2)

// The longest prefix length of a family: 32, 128, or 0 for ipUnknown.
constexpr unsigned maxPrefixLength(AddressFamily af) {
  return af == AddressFamily::ipv4 ? 32u : af == AddressFamily::ipv6 ? 128u : 0u;
}

}  // namespace Netzo
