#pragma once
// BGP address families: Afi, Safi, the AfiSafi pair and the NLRI kinds.
//
// AFI and SAFI numbers are the IANA registry values that multiprotocol BGP carries (RFC 4760):
// IPv4 unicast is AFI 1 / SAFI 1, IPv6 unicast AFI 2 / SAFI 1, VPN-IPv4 AFI 1 / SAFI 128.
// AfiSafi packs the pair into one 32-bit word, the AFI in the low 16 bits and the SAFI in the high
// 16 bits, so it is passed by value and hashed and compared as a number:
//
//   Routing::Bgp::AfiSafi ipv6Unicast(Routing::Bgp::afiIpv6, Routing::Bgp::safiUnicast);
//   ipv6Unicast.value();   // 0x00010002
//   ipv6Unicast.afi();     // afiIpv6
//
// Its long text form is the pair of enumerator names, "(afiIpv6, safiUnicast)"; a number without a
// name prints in decimal, "(afiIpv4, 300)", and both read back.
//
// Afi and Safi are plain (unscoped) enumerations so that a value read off the wire compares with a
// number directly (safi() <= 0xFF).

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <utility>

#include "platform/Kelp/EnumType.h"
#include "platform/Kelp/ValueType.h"

namespace Routing::Bgp {

// Address family and subsequent address family codes. A peer may announce any code; those without
// a name here are carried and printed as numbers, and read back from their numbers.
KELP_ENUM(enum, Afi, std::uint16_t, "Routing::Bgp::Afi", any,
          afiUnknown = 0,
          afiIpv4 = 1,
          afiIpv6 = 2,
          afiL2vpn = 25,
          afiBgpLs = 16388)

KELP_ENUM(enum, Safi, std::uint16_t, "Routing::Bgp::Safi", any,
          safiUnknown = 0,
          safiUnicast = 1,
          safiMulticast = 2,
          safiMplsLabel = 4,  // labelled unicast, RFC 8277
          safiMcastVpn = 5,
          safiVpls = 65,
          safiEvpn = 70,
          safiBgpLs = 71,
          safiMplsVpn = 128,  // RFC 4364
          safiRtMembership = 132,
          safiFlowspec = 133,
          safiFlowspecVpn = 134)

// The kind of NLRI a route key names.
KELP_ENUM(enum class, NlriType, std::uint8_t, "Routing::Bgp::NlriType", named,
          unknown = 0,
          ipv4Unicast = 1,
          ipv6Unicast = 2,
          ipv4Multicast = 3,
          ipv6Multicast = 4,
          ipv4LabeledUnicast = 5,
          ipv6LabeledUnicast = 6,
          ipv4MplsVpn = 7,
          ipv6MplsVpn = 8,
          l2vpnEvpn = 9,
          ipv4Flowspec = 10,
          ipv6Flowspec = 11)

class AfiSafi {
 public:
  constexpr AfiSafi() = default;
  constexpr AfiSafi(Afi afi, Safi safi) : word_(std::uint32_t{safi} << 16 | afi) {}
  static constexpr AfiSafi fromValue(std::uint32_t word) {
    AfiSafi a;
    a.word_ = word;
    return a;
  }

  // The word: SAFI << 16 | AFI.
  constexpr std::uint32_t value() const { return word_; }
  constexpr Afi afi() const { return static_cast<Afi>(word_ & 0xFFFF); }
  constexpr Safi safi() const { return static_cast<Safi>(word_ >> 16); }

  std::uint32_t hash(std::uint32_t seed) const;

  friend constexpr bool operator==(AfiSafi a, AfiSafi b) { return a.word_ == b.word_; }
  // Order of the words: by SAFI, then AFI.
  friend constexpr std::strong_ordering operator<=>(AfiSafi a, AfiSafi b) { return a.word_ <=> b.word_; }
  friend std::ostream& operator<<(std::ostream& os, AfiSafi a);
  template <typename H>
  friend H AbslHashValue(H h, AfiSafi a) {
    return H::combine(std::move(h), a.word_);
  }

  friend constexpr auto kelpType(Kelp::Tag<AfiSafi>) {
    return Kelp::valueType<AfiSafi>("Routing::Bgp::AfiSafi", Kelp::function("afi", &AfiSafi::afi),
                                    Kelp::function("safi", &AfiSafi::safi));
  }

 private:
  std::uint32_t word_ = 0;
};

inline constexpr AfiSafi ipv4UnicastAfiSafi{afiIpv4, safiUnicast};
inline constexpr AfiSafi ipv6UnicastAfiSafi{afiIpv6, safiUnicast};

}  // namespace Routing::Bgp

template <>
struct Kelp::TextForm<Routing::Bgp::AfiSafi> {
  static void print(String& out, Routing::Bgp::AfiSafi v);
  static void parse(CharRange& r, Routing::Bgp::AfiSafi& v);
};

template <>
struct std::hash<Routing::Bgp::AfiSafi> {
  std::size_t operator()(Routing::Bgp::AfiSafi a) const noexcept { return a.hash(0); }
};
