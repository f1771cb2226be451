#pragma once
// Ipv4RouteKeyContent: the plain record an IPv4 unicast route key is looked up by.
//
// It holds what the key holds, the address as a network-order word and the prefix length, and
// hashes exactly as the key does, so a record on the stack finds its interned key without
// allocating. It is a framework value type; its long text form shows the stored word in decimal
// (1.0.0.0/8 is 'addressNbo': 1 on a little-endian host):
//   Value('Routing::Bgp::IpPlugin::Ipv4RouteKeyContent', ** {'addressNbo': 1, 'prefixLength': 8})
//
// Its order (operator<) is for sorted collections of records only: prefix length first, then the
// stored words as this host reads them, which on a little-endian host is not address order.
// Route keys order by address (Ipv4RouteKey::lessThan).

#include <cstdint>

#include "platform/Brim/Dedup.h"
#include "platform/Brim/FieldHash.h"
#include "platform/Kelp/ValueType.h"
#include "platform/Netzo/IpAddr.h"

namespace Routing::Bgp::IpPlugin {

struct Ipv4RouteKeyContent : Brim::DedupContentHandle, Kelp::ValueBase<Ipv4RouteKeyContent> {
  std::uint32_t addressNbo = 0;  // the address, network byte order (first octet first in memory)
  std::uint8_t prefixLength = 0;

  Ipv4RouteKeyContent() = default;
  Ipv4RouteKeyContent(std::uint32_t nbo, std::uint8_t length) : addressNbo(nbo), prefixLength(length) {}
  Ipv4RouteKeyContent(Netzo::IpAddr address, std::uint8_t length) : addressNbo(address.value()), prefixLength(length) {}
  explicit Ipv4RouteKeyContent(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  // The address the stored word names, and back.
  static Netzo::IpAddr addressImpl(std::uint32_t nbo) { return Netzo::IpAddr::fromNetworkOrder(nbo); }
  Netzo::IpAddr address() const { return addressImpl(addressNbo); }
  Netzo::IpAddr addr() const { return address(); }
  std::uint32_t addrNbo() const { return addressNbo; }
  std::uint8_t prefixLen() const { return prefixLength; }
  void addressIs(Netzo::IpAddr a) { addressNbo = a.value(); }

  // The key's identity, shared with Ipv4RouteKey, which holds one of these: equality (from
  // Kelp::ValueBase) compares the described fields, and the hash mixes the same fields with
  // Brim::HashMix, the 4 stored address octets and then the length. `seed` starts the accumulator
  // (0 for the key's hash). Always inlined: every lookup, growth and removal of a key hashes it,
  // and folded it is a few multiplications.
  [[gnu::always_inline]] std::uint32_t hash(std::uint32_t seed = 0) const;
  static std::uint32_t hashImpl(std::uint32_t nbo, std::uint8_t length, std::uint32_t seed = 0) {
    return Ipv4RouteKeyContent(nbo, length).hash(seed);
  }

  friend bool operator<(const Ipv4RouteKeyContent& a, const Ipv4RouteKeyContent& b) {
    if (a.prefixLength != b.prefixLength) return a.prefixLength < b.prefixLength;
    return a.addressNbo < b.addressNbo;
  }

  friend constexpr auto kelpType(Kelp::Tag<Ipv4RouteKeyContent>) {
    using C = Ipv4RouteKeyContent;
    return Kelp::valueType<C>(
        "Routing::Bgp::IpPlugin::Ipv4RouteKeyContent", Kelp::field("addressNbo", &C::addressNbo),
        Kelp::field("prefixLength", &C::prefixLength), Kelp::function("addr", &C::addr),
        Kelp::function("addrNbo", &C::addrNbo), Kelp::function("address", &C::address),
        Kelp::function("addressImpl", &C::addressImpl), Kelp::function("addressIs", &C::addressIs),
        Kelp::function("hash", &C::hash), Kelp::function("hashImpl", &C::hashImpl),
        Kelp::function("prefixLen", &C::prefixLen));
  }
};

// After the class: its description is found only once the class is complete.
inline std::uint32_t Ipv4RouteKeyContent::hash(std::uint32_t seed) const { return Brim::fieldHash(*this, seed); }

}  // namespace Routing::Bgp::IpPlugin
