#include "BgpCommon/BgpSerialize.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#if defined(__SSE2__)
#include <immintrin.h>
#endif

#include "platform/Kelp/Exception.h"
#include "platform/Pico/Format.h"

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

namespace {

using CopyFn = void (*)(void*, const void*, std::size_t);

void plainCopy(void* to, const void* from, std::size_t n) { std::memcpy(to, from, n); }

#if defined(__SSE2__)
// A forward run of 64-octet vector moves. Unlike a string move, it overlaps its loads and stores
// freely, so a destination a few octets past the source modulo the page does not stall it.
void forwardVectorCopy(void* to, const void* from, std::size_t n) {
  auto* d = static_cast<char*>(to);
  const auto* s = static_cast<const char*>(from);
  std::size_t i = 0;
  for (; i + 64 <= n; i += 64) {
    const auto* f = reinterpret_cast<const __m128i*>(s + i);
    auto* t = reinterpret_cast<__m128i*>(d + i);
    const __m128i a = _mm_loadu_si128(f), b = _mm_loadu_si128(f + 1);
    const __m128i c = _mm_loadu_si128(f + 2), e = _mm_loadu_si128(f + 3);
    _mm_storeu_si128(t, a);
    _mm_storeu_si128(t + 1, b);
    _mm_storeu_si128(t + 2, c);
    _mm_storeu_si128(t + 3, e);
  }
  if (i < n) std::memcpy(d + i, s + i, n - i);
}

// A backward run of 128-octet moves: with the destination just past the source, each load is of
// octets below every store still in flight, so no load waits on a store whose low address bits
// it shares (which a forward copy's next load does, one page-offset apart).
[[gnu::target("avx2")]] void backwardVectorCopy(void* to, const void* from, std::size_t n) {
  auto* d = static_cast<char*>(to);
  const auto* s = static_cast<const char*>(from);
  std::size_t i = n;
  while (i >= 128) {
    i -= 128;
    const auto* f = reinterpret_cast<const __m256i*>(s + i);
    auto* t = reinterpret_cast<__m256i*>(d + i);
    const __m256i a = _mm256_loadu_si256(f), b = _mm256_loadu_si256(f + 1);
    const __m256i c = _mm256_loadu_si256(f + 2), e = _mm256_loadu_si256(f + 3);
    _mm256_storeu_si256(t, a);
    _mm256_storeu_si256(t + 1, b);
    _mm256_storeu_si256(t + 2, c);
    _mm256_storeu_si256(t + 3, e);
  }
  if (i != 0) std::memcpy(d, s, i);
}
#endif

using AliasedCopy = Serialize::RunCopy;

// The candidates this processor can run, memcpy first.
std::span<const AliasedCopy> candidateCopies() {
  static const std::vector<AliasedCopy> candidates = [] {
    std::vector<AliasedCopy> all{{&plainCopy, "memcpy"}};
#if defined(__SSE2__)
    all.push_back({&forwardVectorCopy, "forward vector loop"});
    if (__builtin_cpu_supports("avx2")) all.push_back({&backwardVectorCopy, "backward vector loop"});
#endif
    return all;
  }();
  return candidates;
}

// The copy for runs placed just past their source. Which is fastest differs between processors
// (a string move that waits on such stores, or one that does not; vector loops forward or
// backward), so the candidates are timed once, on the first such run: the best of several timed
// copies of 4 KiB each, placed as such runs are. memcpy stays unless a loop beats it by 5%.
const AliasedCopy& aliasedCopy() {
  static const AliasedCopy chosen = [] {
    const std::span<const AliasedCopy> candidates = candidateCopies();
    constexpr std::size_t kPage = 4096, kRun = kPage - 1, kAhead = 16;
    alignas(64) static char buffer[3 * kPage];
    std::memset(buffer, 0x5A, sizeof buffer);
    char* const src = buffer;
    char* const dst = buffer + kPage + kAhead;
    std::vector<std::int64_t> bestNs(candidates.size(), INT64_MAX);
    for (int round = 0; round < 3; ++round) {
      for (std::size_t k = 0; k < candidates.size(); ++k) {
        // Called through a volatile pointer, so that the compiler cannot fold or drop the copies.
        CopyFn volatile f = candidates[k].copy;
        for (int i = 0; i < 16; ++i) {
          const auto t0 = std::chrono::steady_clock::now();
          for (int j = 0; j < 4; ++j) f(dst, src, kRun);
          const auto ns =
              std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - t0).count();
          bestNs[k] = std::min<std::int64_t>(bestNs[k], ns);
        }
      }
    }
    std::size_t pick = 0;
    for (std::size_t k = 1; k < candidates.size(); ++k) {
      if (bestNs[k] * 20 < bestNs[0] * 19 && bestNs[k] < bestNs[pick]) pick = k;
    }
    return candidates[pick];
  }();
  return chosen;
}

}  // namespace

void Serialize::copyAliasedRun(Octet* p, const U8* src, U32 n) { aliasedCopy().copy(p, src, n); }

const char* Serialize::aliasedRunCopy() { return aliasedCopy().name; }

std::span<const Serialize::RunCopy> Serialize::aliasedRunCopies() { return candidateCopies(); }

void Serialize::throwLimitExceeded() {
  throw Kelp::RangeException("Serialized bytes exceed bgpMaxExtendedMessageSize");
}

void Serialize::throwLengthOctet(U64 n, const std::string& what) {
  Pico::fmthrow<Kelp::RangeException>("{}: {}, above the 255 one length octet holds", what, n);
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
  moveTo(static_cast<U32>(newCapacity));
}

void Serialize::moveTo(U32 newCapacity) {
  if (newCapacity > bgpMaxExtendedMessageSize) throwLimitExceeded();
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
  capacity_ = newCapacity;
}

void Serialize::addIpGenAddr(const Netzo::IpGenAddr& a) {
  switch (a.family()) {
    case Netzo::AddressFamily::ipv4:
      putOctets(claim(4), a.octets(), 4);
      break;
    case Netzo::AddressFamily::ipv6:
      putOctets(claim(16), a.octets(), 16);
      break;
    default:
      PICO_ASSERT(0);
  }
}

void Serialize::add3octetMplsLabelStack(const Netzo::MplsLabelStack& stack) {
  const U32 n = static_cast<U32>(stack.count());
  Octet* p = claim(U64{3} * n);
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
