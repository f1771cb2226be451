#include "BgpCommon/BgpSerialize.h"

#include <cstdlib>
#include <new>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "platform/Kelp/Exception.h"

namespace Routing::Bgp {

Serialize::Serialize(Serialize&& other) noexcept : writeOffset_(other.writeOffset_), capacity_(other.capacity_) {
  if (other.buffer_ == other.inline_) {
    copyRun(inline_, reinterpret_cast<const U8*>(other.inline_), writeOffset_);
  } else {
    buffer_ = other.buffer_;
    other.buffer_ = other.inline_;
    other.capacity_ = inlineCapacity;
  }
  other.writeOffset_ = 0;
}

void Serialize::copyAliasedRun(Octet* p, const U8* src, U32 n) {
#if defined(__SSE2__)
  U32 i = 0;
  for (; i + 64 <= n; i += 64) {
    const auto* from = reinterpret_cast<const __m128i*>(src + i);
    auto* to = reinterpret_cast<__m128i*>(p + i);
    const __m128i a = _mm_loadu_si128(from), b = _mm_loadu_si128(from + 1);
    const __m128i c = _mm_loadu_si128(from + 2), d = _mm_loadu_si128(from + 3);
    _mm_storeu_si128(to, a);
    _mm_storeu_si128(to + 1, b);
    _mm_storeu_si128(to + 2, c);
    _mm_storeu_si128(to + 3, d);
  }
  if (i < n) std::memcpy(p + i, src + i, n - i);
#else
  std::memcpy(p, src, n);
#endif
}

void Serialize::throwLimitExceeded() {
  throw Kelp::RangeException("Serialized bytes exceed bgpMaxExtendedMessageSize");
}

void Serialize::growBuffer(U32 needed) {
  const U64 required = U64{writeOffset_} + needed;
  if (required > bgpMaxExtendedMessageSize) throwLimitExceeded();
  U64 newCapacity = U64{capacity_} * 2;
  while (newCapacity < required) newCapacity *= 2;
  // Nothing beyond the limit can ever be written, so no more is allocated; with the capacity
  // capped there, the room check of every add also enforces the limit.
  if (newCapacity > bgpMaxExtendedMessageSize) newCapacity = bgpMaxExtendedMessageSize;
  if (newCapacity == capacity_) return;

  Octet* grown;
  if (buffer_ == inline_) {
    grown = static_cast<Octet*>(std::malloc(newCapacity));
    if (grown == nullptr) throw std::bad_alloc();
    copyRun(grown, reinterpret_cast<const U8*>(inline_), writeOffset_);
  } else {
    grown = static_cast<Octet*>(std::realloc(buffer_, newCapacity));
    if (grown == nullptr) throw std::bad_alloc();  // realloc left the old block in place
  }
  buffer_ = grown;
  capacity_ = static_cast<U32>(newCapacity);
}

void Serialize::addIpGenAddr(const Netzo::IpGenAddr& a) {
  switch (a.family()) {
    case Netzo::AddressFamily::ipv4:
      putOctets(reserve(4), a.octets(), 4);
      break;
    case Netzo::AddressFamily::ipv6:
      putOctets(reserve(16), a.octets(), 16);
      break;
    default:
      PICO_ASSERT(0);
  }
}

void Serialize::add3octetMplsLabelStack(const Netzo::MplsLabelStack& stack) {
  const U32 n = static_cast<U32>(stack.count());
  if (n > bgpMaxExtendedMessageSize / 3) throwLimitExceeded();  // more than any message holds
  Octet* p = reserve(3 * n);
  for (U32 i = 0; i < n; ++i) {
    // Entry: label(20) tc(3) s(1) ttl(8). NLRI label: label(20) 000 s(1).
    const U32 v = stack.hostEntry(i);
    put24(p + 3 * i, (v >> 12) << 4 | (v >> 8 & 1));
  }
}

Kelp::String Serialize::serializedString(U32 _offset) const {
  PICO_ASSERT(_offset <= writeOffset_);
  return Kelp::String(reinterpret_cast<const char*>(buffer_) + _offset, writeOffset_ - _offset);
}

Kelp::Bytes Serialize::serializedBytes(U32 _offset) const {
  PICO_ASSERT(_offset <= writeOffset_);
  const U8* begin = data() + _offset;
  return Kelp::Bytes(begin, data() + writeOffset_);
}

}  // namespace Routing::Bgp
