#pragma once
// IP addresses: IpAddr (IPv4), Ip6Addr (IPv6) and IpGenAddr (either family, or none).
//
// Addresses are stored in network byte order, exactly as they travel in a packet, so they move to
// and from wire buffers without conversion; host-order numbers are produced only on request. They
// order numerically (10.0.0.2 < 10.0.0.10 < 192.0.2.1), hash, and read and write the usual text
// through the C library's inet_pton/inet_ntop: dotted decimal for IPv4, RFC 5952 text for IPv6
// (lowercase hex, leading zeros dropped, the longest run of two or more zero fields written "::").
//
//   Netzo::IpAddr a;
//   a.stringValueIs("192.0.2.1");                 // throws Kelp::RangeException on bad text
//   a.value();                                    // 0x010200c0 on a little-endian host
//   a.hostValue();                                // 0xc0000201
//   Netzo::IpGenAddr g(Netzo::Ip6Addr::fromString("2001:db8::1"));
//   g.family();                                   // AddressFamily::ipv6
//
// Each type is a framework value type: its long text form is the bare address text (so an address
// field of a described value prints as 'nexthop': 192.0.2.1), and it is registered by name
// ("Netzo::IpAddr", ...). A default IpGenAddr has family ipUnknown and the text "None".

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <utility>
#include <string_view>

#include "platform/Kelp/TextForm.h"
#include "platform/Kelp/ValueType.h"
#include "platform/Netzo/AddressFamily.h"
#include "platform/Netzo/NetU32.h"

namespace Netzo {

class IpAddr {
 public:
  static constexpr std::size_t octetCount = 4;

  constexpr IpAddr() = default;
  constexpr explicit IpAddr(NetU32 address) : nbo_(address.value()) {}
  // a.b.c.d
  constexpr IpAddr(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d)
      : nbo_(hton32(std::uint32_t{a} << 24 | std::uint32_t{b} << 16 | std::uint32_t{c} << 8 | d)) {}
  static constexpr IpAddr fromNetworkOrder(std::uint32_t nbo) { return IpAddr(NetU32::fromNetwork(nbo)); }
  static constexpr IpAddr fromHostOrder(std::uint32_t host) { return IpAddr(NetU32::fromHost(host)); }
  // Parses dotted-decimal text; throws Kelp::RangeException naming the text.
  static IpAddr fromString(std::string_view text);

  // The address as a word in network order, as it lies in a packet.
  constexpr std::uint32_t value() const { return nbo_; }
  // The address as a number: 192.0.2.1 is 0xc0000201.
  constexpr std::uint32_t hostValue() const { return ntoh32(nbo_); }
  constexpr bool isZero() const { return nbo_ == 0; }
  // Writes the four octets, network order.
  void copyTo(std::uint8_t* out) const;

  // Replaces the address with the one `text` names: exactly four decimal octets, no leading zeros,
  // no blanks. Bad text throws Kelp::RangeException "invalid IPv4 address "<text>"" and leaves the
  // address unchanged.
  void stringValueIs(std::string_view text);
  Kelp::String stringValue() const;

  std::uint32_t hash(std::uint32_t seed) const;

  friend constexpr bool operator==(IpAddr a, IpAddr b) { return a.nbo_ == b.nbo_; }
  friend constexpr std::strong_ordering operator<=>(IpAddr a, IpAddr b) { return a.hostValue() <=> b.hostValue(); }
  friend std::ostream& operator<<(std::ostream& os, IpAddr a) { return os << a.stringValue(); }
  template <typename H>
  friend H AbslHashValue(H h, IpAddr a) {
    return H::combine(std::move(h), a.nbo_);
  }

  friend constexpr auto kelpType(Kelp::Tag<IpAddr>) {
    return Kelp::valueType<IpAddr>("Netzo::IpAddr", Kelp::function("stringValue", &IpAddr::stringValue),
                                   Kelp::function("hostValue", &IpAddr::hostValue));
  }

 private:
  std::uint32_t nbo_ = 0;  // network byte order
};

class Ip6Addr {
 public:
  static constexpr std::size_t octetCount = 16;
  using Octets = std::array<std::uint8_t, 16>;

  constexpr Ip6Addr() = default;
  constexpr explicit Ip6Addr(const Octets& octets) : octets_(octets) {}
  // From sixteen octets in network order.
  explicit Ip6Addr(const std::uint8_t* octets);
  // From four 32-bit words, each in network order (the first word holds octets 0..3).
  static Ip6Addr fromNetworkWords(const std::uint32_t* words);
  static Ip6Addr fromNetworkWords(std::uint32_t w0, std::uint32_t w1, std::uint32_t w2, std::uint32_t w3);
  // Parses IPv6 text; throws Kelp::RangeException naming the text.
  static Ip6Addr fromString(std::string_view text);

  constexpr const Octets& octets() const { return octets_; }
  // Writes the sixteen octets, network order.
  void copyTo(std::uint8_t* out) const;
  // The four network-order words.
  void networkWords(std::uint32_t* out) const;
  std::array<std::uint32_t, 4> networkWords() const;
  bool isZero() const { return *this == Ip6Addr(); }

  // Replaces the address with the one `text` names (any form inet_pton accepts: "::", embedded
  // dotted quad). Bad text throws Kelp::RangeException "invalid IPv6 address "<text>"" and leaves
  // the address unchanged.
  void stringValueIs(std::string_view text);
  // RFC 5952 text.
  Kelp::String stringValue() const;

  std::uint32_t hash(std::uint32_t seed) const;

  friend constexpr bool operator==(const Ip6Addr& a, const Ip6Addr& b) { return a.octets_ == b.octets_; }
  // Network-order octets compared first to last is numeric order.
  friend constexpr std::strong_ordering operator<=>(const Ip6Addr& a, const Ip6Addr& b) {
    return a.octets_ <=> b.octets_;
  }
  friend std::ostream& operator<<(std::ostream& os, const Ip6Addr& a) { return os << a.stringValue(); }
  template <typename H>
  friend H AbslHashValue(H h, const Ip6Addr& a) {
    return H::combine_contiguous(std::move(h), a.octets_.data(), a.octets_.size());
  }

  friend constexpr auto kelpType(Kelp::Tag<Ip6Addr>) {
    return Kelp::valueType<Ip6Addr>("Netzo::Ip6Addr", Kelp::function("stringValue", &Ip6Addr::stringValue));
  }

 private:
  Octets octets_{};  // network byte order
};

class IpGenAddr {
 public:
  constexpr IpGenAddr() = default;
  constexpr IpGenAddr(IpAddr a) : af_(AddressFamily::ipv4) {  // NOLINT: an IPv4 address is a generic one
    std::uint32_t h = a.hostValue();
    octets_ = {std::uint8_t(h >> 24), std::uint8_t(h >> 16), std::uint8_t(h >> 8), std::uint8_t(h)};
  }
  constexpr IpGenAddr(const Ip6Addr& a) : af_(AddressFamily::ipv6), octets_(a.octets()) {}  // NOLINT
  // Parses IPv4 or IPv6 text (IPv6 when it holds a ':') or "None"; throws Kelp::RangeException.
  static IpGenAddr fromString(std::string_view text);

  constexpr AddressFamily family() const { return af_; }
  constexpr bool isIpv4() const { return af_ == AddressFamily::ipv4; }
  constexpr bool isIpv6() const { return af_ == AddressFamily::ipv6; }
  // The address of family ipv4 / ipv6; asking for the other family is a programming error.
  IpAddr ipv4() const;
  Ip6Addr ipv6() const;
  // The address octets, network order: 4 for IPv4, 16 for IPv6, none for ipUnknown.
  constexpr const std::uint8_t* octets() const { return octets_.data(); }
  constexpr std::size_t octetCount() const {
    return af_ == AddressFamily::ipv4 ? 4 : af_ == AddressFamily::ipv6 ? 16 : 0;
  }

  // IPv6 text when `text` holds a ':', IPv4 text otherwise, or "None" for no address. Bad text
  // throws Kelp::RangeException "invalid IP address "<text>"" and leaves the address unchanged.
  void stringValueIs(std::string_view text);
  Kelp::String stringValue() const;

  std::uint32_t hash(std::uint32_t seed) const;

  friend constexpr bool operator==(const IpGenAddr& a, const IpGenAddr& b) {
    return a.af_ == b.af_ && a.octets_ == b.octets_;
  }
  // Family first (ipUnknown, ipv4, ipv6), then numeric address order.
  friend constexpr std::strong_ordering operator<=>(const IpGenAddr& a, const IpGenAddr& b) {
    if (auto c = a.af_ <=> b.af_; c != 0) return c;
    return a.octets_ <=> b.octets_;
  }
  friend std::ostream& operator<<(std::ostream& os, const IpGenAddr& a) { return os << a.stringValue(); }
  template <typename H>
  friend H AbslHashValue(H h, const IpGenAddr& a) {
    return H::combine_contiguous(H::combine(std::move(h), a.af_), a.octets_.data(), a.octetCount());
  }

  friend constexpr auto kelpType(Kelp::Tag<IpGenAddr>) {
    return Kelp::valueType<IpGenAddr>("Netzo::IpGenAddr", Kelp::function("family", &IpGenAddr::family),
                                      Kelp::function("stringValue", &IpGenAddr::stringValue));
  }

 private:
  AddressFamily af_ = AddressFamily::ipUnknown;
  // Network-order octets; IPv4 uses the first four. Unused octets are always zero, so equality and
  // order may compare the whole array.
  Ip6Addr::Octets octets_{};
};

}  // namespace Netzo

// Long text forms: the bare address text. The parsers take the longest run of characters that can
// belong to an address and stop before anything else (", " or "})" in a described value).
template <>
struct Kelp::TextForm<Netzo::IpAddr> {
  static void print(String& out, Netzo::IpAddr v) { out += v.stringValue(); }
  static void parse(CharRange& r, Netzo::IpAddr& v);
};
template <>
struct Kelp::TextForm<Netzo::Ip6Addr> {
  static void print(String& out, const Netzo::Ip6Addr& v) { out += v.stringValue(); }
  static void parse(CharRange& r, Netzo::Ip6Addr& v);
};
template <>
struct Kelp::TextForm<Netzo::IpGenAddr> {
  static void print(String& out, const Netzo::IpGenAddr& v) { out += v.stringValue(); }
  static void parse(CharRange& r, Netzo::IpGenAddr& v);
};

template <>
struct std::hash<Netzo::IpAddr> {
  std::size_t operator()(Netzo::IpAddr a) const noexcept { return a.hash(0); }
};
template <>
struct std::hash<Netzo::Ip6Addr> {
  std::size_t operator()(const Netzo::Ip6Addr& a) const noexcept { return a.hash(0); }
};
template <>
struct std::hash<Netzo::IpGenAddr> {
  std::size_t operator()(const Netzo::IpGenAddr& a) const noexcept { return a.hash(0); }
};
