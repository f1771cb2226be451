#pragma once
// IpGenPrefix: an IPv4 or IPv6 prefix, an address and a length, with the text "address/length".
//
// The address is kept as given: bits beyond the length are not cleared (masked() does that), so
// 10.0.0.1/8 and 10.0.0.0/8 are different values. Prefixes order by family, then address, then
// length, which puts a covering prefix right before the more specific ones that share its address.
//
//   auto p = Netzo::IpGenPrefix::fromString("10.0.0.0/8");   // throws Kelp::RangeException
//   p.family();             // AddressFamily::ipv4
//   p.address().ipv4();     // 10.0.0.0
//   p.length();             // 8
//   Netzo::IpGenPrefix(Netzo::IpAddr(192, 0, 2, 0), 24).stringValue();   // "192.0.2.0/24"
//
// A default prefix has family ipUnknown, length 0 and the text "None". As a field of a described
// value type it prints as its bare text: 'key': 10.0.0.0/8.

#include <compare>
#include <cstdint>
#include <cstring>
#include <functional>
#include <ostream>
#include <utility>
#include <string_view>

#include "platform/Kelp/ByteForm.h"
#include "platform/Netzo/IpAddr.h"

namespace Netzo {

class IpGenPrefix {
 public:
  constexpr IpGenPrefix() = default;
  // `length` must not exceed the family's maximum (32 or 128; 0 for ipUnknown).
  IpGenPrefix(const IpGenAddr& address, unsigned length);
  // Parses "address/length"; throws Kelp::RangeException naming the text.
  static IpGenPrefix fromString(std::string_view text);

  constexpr const IpGenAddr& address() const { return address_; }
  constexpr std::uint8_t length() const { return length_; }
  constexpr AddressFamily family() const { return address_.family(); }
  // The same prefix with the address bits beyond the length cleared.
  IpGenPrefix masked() const;
  // True when `a` is of the prefix's family and its first length() bits equal the prefix's.
  bool contains(const IpGenAddr& a) const;

  // Replaces the prefix with the one `text` names: an IPv4 or IPv6 address, "/", and a decimal
  // length without leading zeros of at most 32 or 128; or "None". Bad text throws
  // Kelp::RangeException "invalid prefix "<text>"" and leaves the prefix unchanged.
  void stringValueIs(std::string_view text);
  Kelp::String stringValue() const;

  std::uint32_t hash(std::uint32_t seed) const;

  friend constexpr bool operator==(const IpGenPrefix& a, const IpGenPrefix& b) {
    return a.address_ == b.address_ && a.length_ == b.length_;
  }
  friend constexpr std::strong_ordering operator<=>(const IpGenPrefix& a, const IpGenPrefix& b) {
    if (auto c = a.address_ <=> b.address_; c != 0) return c;
    return a.length_ <=> b.length_;
  }
  friend std::ostream& operator<<(std::ostream& os, const IpGenPrefix& p) { return os << p.stringValue(); }
  template <typename H>
  friend H AbslHashValue(H h, const IpGenPrefix& p) {
    return H::combine(std::move(h), p.address_, p.length_);
  }

  friend constexpr auto kelpType(Kelp::Tag<IpGenPrefix>) {
    return Kelp::valueType<IpGenPrefix>("Netzo::IpGenPrefix", Kelp::function("address", &IpGenPrefix::address),
                                        Kelp::function("length", &IpGenPrefix::length),
                                        Kelp::function("family", &IpGenPrefix::family),
                                        Kelp::function("stringValue", &IpGenPrefix::stringValue));
  }

 private:
  IpGenAddr address_;
  std::uint8_t length_ = 0;  // at most maxPrefixLength(address_.family())
};

}  // namespace Netzo

template <>
struct Kelp::TextForm<Netzo::IpGenPrefix> {
  static void print(String& out, const Netzo::IpGenPrefix& v) { out += v.stringValue(); }
  static void parse(CharRange& r, Netzo::IpGenPrefix& v);
};

// A prefix is stored as its family, its length and its address octets: 6 bytes for IPv4, 18 for
// IPv6, 2 for the default (family unknown, length 0). Bytes that do not make a prefix are the
// error "bytes do not hold a prefix".
template <>
struct Kelp::ByteCodec<Netzo::IpGenPrefix> {
  static constexpr std::uint32_t kAlign = 1;
  static constexpr std::uint32_t kMin = 2;
  static constexpr std::uint32_t kMax = 18;
  static std::uint32_t size(const Netzo::IpGenPrefix& p) { return static_cast<std::uint32_t>(2 + p.address().octetCount()); }
  static void put(std::uint8_t* out, const Netzo::IpGenPrefix& p) {
    out[0] = static_cast<std::uint8_t>(p.family());
    out[1] = p.length();
    std::memcpy(out + 2, p.address().octets(), p.address().octetCount());
  }
  static void validate(const std::uint8_t* in);
  static std::uint64_t storedSize(const std::uint8_t* in) {
    const auto family = static_cast<Netzo::AddressFamily>(in[0]);
    return family == Netzo::AddressFamily::ipv4 ? 6 : family == Netzo::AddressFamily::ipv6 ? 18 : 2;
  }
  static void get(const std::uint8_t* in, Netzo::IpGenPrefix& p);
  static bool canonical(const std::uint8_t* in);
};

template <>
struct std::hash<Netzo::IpGenPrefix> {
  std::size_t operator()(const Netzo::IpGenPrefix& p) const noexcept { return p.hash(0); }
};
