#pragma once
// Byte order helpers and NetU32, a 32-bit word kept in network byte order.
//
// Protocol fields travel most significant octet first. A NetU32 holds such a word exactly as it
// lies in a packet, so it can be copied to and from wire buffers unchanged, and converts to the
// host's order only when a number is wanted:
//
//   Netzo::NetU32 w = Netzo::NetU32::fromHost(0x0a000001);   // octets 0a 00 00 01 in memory
//   w.hostValue();                                            // 0x0a000001 on any host

#include <bit>
#include <compare>
#include <cstdint>

namespace Netzo {

constexpr std::uint16_t byteSwap16(std::uint16_t v) { return static_cast<std::uint16_t>((v >> 8) | (v << 8)); }
constexpr std::uint32_t byteSwap32(std::uint32_t v) { return __builtin_bswap32(v); }
constexpr std::uint64_t byteSwap64(std::uint64_t v) { return __builtin_bswap64(v); }

// Host to network order and back (the same operation in both directions).
constexpr std::uint16_t hton16(std::uint16_t v) {
  return std::endian::native == std::endian::big ? v : byteSwap16(v);
}
constexpr std::uint32_t hton32(std::uint32_t v) {
  return std::endian::native == std::endian::big ? v : byteSwap32(v);
}
constexpr std::uint64_t hton64(std::uint64_t v) {
  return std::endian::native == std::endian::big ? v : byteSwap64(v);
}
constexpr std::uint16_t ntoh16(std::uint16_t v) { return hton16(v); }
constexpr std::uint32_t ntoh32(std::uint32_t v) { return hton32(v); }
constexpr std::uint64_t ntoh64(std::uint64_t v) { return hton64(v); }

class NetU32 {
 public:
  constexpr NetU32() = default;
  static constexpr NetU32 fromHost(std::uint32_t host) { return NetU32(hton32(host)); }
  static constexpr NetU32 fromNetwork(std::uint32_t network) { return NetU32(network); }

  // The word as it lies in memory, network order.
  constexpr std::uint32_t value() const { return nbo_; }
  constexpr std::uint32_t hostValue() const { return ntoh32(nbo_); }

  friend constexpr bool operator==(NetU32 a, NetU32 b) { return a.nbo_ == b.nbo_; }
  // Numeric order of the host values.
  friend constexpr auto operator<=>(NetU32 a, NetU32 b) { return a.hostValue() <=> b.hostValue(); }

 private:
  constexpr explicit NetU32(std::uint32_t network) : nbo_(network) {}
  std::uint32_t nbo_ = 0;  // network byte order
};

}  // namespace Netzo
