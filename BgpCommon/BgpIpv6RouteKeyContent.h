#pragma once
// Ipv6AddressBuf and Ipv6RouteKeyContent: the IPv6 address as route keys store it, and the plain
// record an IPv6 unicast route key is looked up by.
//
// Ipv6AddressBuf holds the 16 address octets in network order as four 32-bit words, exactly as
// Netzo::Ip6Addr holds them; as a field it prints and parses as the address text. Its order
// compares the words in turn as this host reads them (not address order on a little-endian host).
//
// Ipv6RouteKeyContent hashes exactly as Ipv6RouteKey does, so a record on the stack finds its
// interned key without allocating. Long text form:
//   Value('Routing::Bgp::IpPlugin::Ipv6RouteKeyContent', ** {'address': 2001:db8::, 'prefixLength': 32})
// Its order (operator<) is prefix length first, then the address words, for sorted collections of
// records only.

#include <array>
#include <cstdint>
#include <cstring>

#include "platform/Brim/Dedup.h"
#include "platform/Brim/FieldHash.h"
#include "platform/Kelp/ValueType.h"
#include "platform/Netzo/IpAddr.h"

namespace Routing::Bgp::IpPlugin {

struct Ipv6AddressBuf {
  std::array<std::uint32_t, 4> words{};  // the 16 octets, network order, 4 per word

  Ipv6AddressBuf() = default;
  explicit Ipv6AddressBuf(const Netzo::Ip6Addr& a) : words(a.networkWords()) {}
  Netzo::Ip6Addr ip6Addr() const { return Netzo::Ip6Addr::fromNetworkWords(words.data()); }

  // As two 8-octet halves, without a branch between them: std::array's == compares through memcmp,
  // which here is a call into the C library on every lookup of a key.
  friend bool operator==(const Ipv6AddressBuf& a, const Ipv6AddressBuf& b) {
    std::uint64_t a0, a1, b0, b1;
    std::memcpy(&a0, a.words.data(), 8);
    std::memcpy(&a1, a.words.data() + 2, 8);
    std::memcpy(&b0, b.words.data(), 8);
    std::memcpy(&b1, b.words.data() + 2, 8);
    return ((a0 ^ b0) | (a1 ^ b1)) == 0;
  }
  friend bool operator!=(const Ipv6AddressBuf& a, const Ipv6AddressBuf& b) { return !(a == b); }
  friend bool operator<(const Ipv6AddressBuf& a, const Ipv6AddressBuf& b) { return a.words < b.words; }
  // In a hash (Brim/FieldHash.h): the four words in order.
  [[gnu::always_inline]] friend void hashMixInto(Brim::HashMix& h, const Ipv6AddressBuf& a) {
    h.mixBytes4Each(a.words);
  }
};

struct Ipv6RouteKeyContent : Brim::DedupContentHandle, Kelp::ValueBase<Ipv6RouteKeyContent> {
  Ipv6AddressBuf address;
  std::uint8_t prefixLength = 0;

  Ipv6RouteKeyContent() = default;
  Ipv6RouteKeyContent(const Ipv6AddressBuf& a, std::uint8_t length) : address(a), prefixLength(length) {}
  Ipv6RouteKeyContent(const Netzo::Ip6Addr& a, std::uint8_t length) : address(a), prefixLength(length) {}
  explicit Ipv6RouteKeyContent(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  Netzo::Ip6Addr addr() const { return address.ip6Addr(); }
  void addressIs(const Netzo::Ip6Addr& a) { address = Ipv6AddressBuf(a); }

  // The key's identity, shared with Ipv6RouteKey, which holds one of these: equality (from
  // Kelp::ValueBase) compares the described fields, and the hash mixes the same fields with
  // Brim::HashMix, the four address words in order and then the length. Always inlined: every
  // lookup, growth and removal of a key hashes it, and folded it is three multiplications.
  [[gnu::always_inline]] std::uint32_t hash(std::uint32_t seed = 0) const;
  static std::uint32_t hashImpl(const Ipv6AddressBuf& a, std::uint8_t length, std::uint32_t seed = 0) {
    return Ipv6RouteKeyContent(a, length).hash(seed);
  }

  friend bool operator<(const Ipv6RouteKeyContent& a, const Ipv6RouteKeyContent& b) {
    if (a.prefixLength != b.prefixLength) return a.prefixLength < b.prefixLength;
    return a.address < b.address;
  }

  friend constexpr auto kelpType(Kelp::Tag<Ipv6RouteKeyContent>) {
    using C = Ipv6RouteKeyContent;
    return Kelp::valueType<C>("Routing::Bgp::IpPlugin::Ipv6RouteKeyContent", Kelp::field("address", &C::address),
                              Kelp::field("prefixLength", &C::prefixLength), Kelp::function("addr", &C::addr),
                              Kelp::function("addressIs", &C::addressIs), Kelp::function("hash", &C::hash));
  }
};

// After the class: its description is found only once the class is complete.
inline std::uint32_t Ipv6RouteKeyContent::hash(std::uint32_t seed) const { return Brim::fieldHash(*this, seed); }

}  // namespace Routing::Bgp::IpPlugin

// As a field, the address buffer reads and writes the IPv6 address text.
template <>
struct Kelp::TextForm<Routing::Bgp::IpPlugin::Ipv6AddressBuf> {
  static void print(String& out, const Routing::Bgp::IpPlugin::Ipv6AddressBuf& v);
  static void parse(CharRange& r, Routing::Bgp::IpPlugin::Ipv6AddressBuf& v);
};
