#pragma once
// Serialize: the append-only byte writer that BGP message bodies and attribute values are built in.
//
// It appends fixed-width integers, addresses, AFI/SAFI pairs, AS numbers, MPLS labels and raw
// byte runs at its write offset and hands back any tail of what it has written. Every multi-octet
// writer whose name ends in "hton", and every address, AFI, AS and label writer, puts the most
// significant octet first (network order). addU16n/addU32n/addU64n take values that are already
// in network order and copy their octets as they lie in memory. No writer adds a length or type
// prefix of its own.
//
// Limit: a BGP message is at most 65535 octets even with the extended message capability
// (RFC 8654), so no more than that can ever be held. An add that would go past it throws
// Kelp::RangeException "Serialized bytes exceed bgpMaxExtendedMessageSize" before writing
// anything; what was written before stays intact and usable.
//
// Storage: the first inlineCapacity octets live inside the object, so building an ordinary message
// (a classic BGP message is at most 4096 octets, RFC 4271) never touches the heap. Past that the
// buffer moves to the heap and its capacity doubles on each growth, so appends are amortised
// constant time.
//
//   Routing::Bgp::Serialize s;
//   s.addU8(0x40);                               // ORIGIN: flags, type, length, value
//   s.addU8(1);
//   s.addU8(1);
//   s.addU8(0);
//   Routing::Bgp::U32 mark = s.writeOffset();
//   s.addAfiSafi({Routing::Bgp::afiIpv4, Routing::Bgp::safiMplsVpn});
//   Kelp::Bytes afiSafiOctets = s.serializedBytes(mark);   // 00 01 80
//
// One writer owns a Serialize; it has no locking.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <span>
#include <string>
#include <type_traits>

#include "platform/Kelp/TextForm.h"
#include "platform/Netzo/AddressFamily.h"
#include "platform/Netzo/AutonomousSystem.h"
#include "platform/Netzo/IpAddr.h"
#include "platform/Netzo/MplsLabel.h"
#include "platform/Netzo/NetU32.h"
#include "platform/Pico/Assert.h"
#include "platform/Pico/Integers.h"
#include "platform/Routing/AfiSafi.h"

namespace Routing::Bgp {

// The library's global short names, also reachable as Routing::Bgp::U32 and so on.
using ::U8;
using ::U16;
using ::U32;
using ::U64;

// The largest BGP message with the extended message capability (RFC 8654).
inline constexpr U32 bgpMaxExtendedMessageSize = 0xFFFF;

class Serialize {
 public:
  // Octets held inside the object before the first growth.
  static constexpr U32 inlineCapacity = 4096;

  // User-provided so that even Serialize{} leaves the inline storage unwritten.
  Serialize() noexcept {}
  ~Serialize() {
    if (buffer_ != inline_) std::free(buffer_);
  }
  Serialize(const Serialize&) = delete;
  Serialize& operator=(const Serialize&) = delete;
  // Takes over the other's octets; the other is left empty.
  Serialize(Serialize&& other) noexcept;
  Serialize& operator=(Serialize&&) = delete;

  // Octets written so far; the next octet goes here. Note it before writing a piece to take the
  // piece out afterwards with serializedBytes(mark).
  U32 writeOffset() const { return writeOffset_; }
  // Octets available at the buffer (never above bgpMaxExtendedMessageSize).
  U32 capacity() const { return capacity_; }
  // The octets written, writeOffset() of them.
  const U8* data() const { return reinterpret_cast<const U8*>(buffer_); }

  void addU8(U8 v) { addFields(v); }
  // Already in network order: the octets as they lie in memory.
  void addU16n(U16 v) { putMemory(claim(2), v); }
  void addU32n(U32 v) { putMemory(claim(4), v); }
  void addU64n(const U64& v) { putMemory(claim(8), v); }
  // Host order in, big-endian out.
  void addU16hton(U16 v) { addFields(v); }
  void addU32hton(U32 v) { addFields(v); }
  void addU64hton(const U64& v) { addFields(v); }
  // Bits 23..0 of `v`, big-endian; higher bits are dropped.
  void addU24hton(U32 v) { addFields(U24{v}); }
  // Bits 19..0 of `v` in three octets, big-endian (the first octet's high nibble is zero).
  void addU20hton(U32 v) { addFields(U24{v & 0x0FFFFF}); }
  void addData(const U8* data, U32 len) { addFields(Octets{data, len}); }
  void addString(const Kelp::String& s) { addData(reinterpret_cast<const U8*>(s.data()), static_cast<U32>(s.size())); }
  void addBytes(const Kelp::Bytes& b) { addData(b.data(), static_cast<U32>(b.size())); }

  // AFI in two octets, then SAFI in one (the MP_REACH_NLRI / MP_UNREACH_NLRI layout of RFC 4760).
  void addAfiSafi(AfiSafi afiSafi) {
    Octet* p = claim(3);
    put16(p, afiSafi.afi());
    // Only the narrowing to one octet needs the SAFI to be small.
    PICO_ASSERT(afiSafi.safi() <= 0xFF);
    put8(p + 2, static_cast<U8>(afiSafi.safi()));
  }
  // Four octets, or two for a speaker without four-octet AS support (RFC 6793), in which case
  // the number must fit.
  void addAutonomousSystem(Netzo::AutonomousSystem asn, bool fourOctet) {
    if (fourOctet) {
      addFields(asn);
    } else {
      PICO_ASSERT(asn.value() <= 0xFFFF);
      addU16hton(static_cast<U16>(asn.value()));
    }
  }
  // The family as a two-octet AFI.
  void addAddrFamily(Netzo::AddressFamily af) { put16(claim(2), static_cast<U8>(af)); }
  void addIpv4Addr(Netzo::IpAddr a) { addFields(a); }
  void addIpv6Addr(const Netzo::Ip6Addr& a) { addFields(a); }
  // Four or sixteen address octets by family, with neither family nor length.
  void addIpGenAddr(const Netzo::IpGenAddr& a);

  // MPLS labels in NLRI (RFC 8277, RFC 4364): three octets, label in the top 20 bits, the
  // bottom-of-stack bit in the lowest.
  void add3octetMplsLabelHton(U32 v) { addFields(U24{v}); }
  // A label below 2^20 is shifted into place; a larger value is taken as an already encoded field.
  void add3octetMplsLabel(Netzo::MplsLabel label, bool bottomOfStack) {
    addFields(mplsLabelField(label, bottomOfStack));
  }
  // Each label stack entry as a three-octet NLRI label: label and S bit kept, TC and TTL dropped.
  void add3octetMplsLabelStack(const Netzo::MplsLabelStack& stack);

  // A three-octet field for addFields: bits 23..0 of `value`, big-endian.
  struct U24 {
    U32 value;
  };
  // The three-octet NLRI label field of add3octetMplsLabel, as a field for addFields.
  static U24 mplsLabelField(Netzo::MplsLabel label, bool bottomOfStack) {
    U32 field = label.value() < (1u << 20) ? label.value() << 4 : label.value();
    if (bottomOfStack) field |= 1;
    return U24{field};
  }

  // A run of octets as a field for addFields, copied as addData copies it: the octets of a prefix
  // after its NLRI header, a value after the header that gives its length.
  struct Octets {
    const U8* data;
    U32 size;
  };

  // A length that one octet carries (a capability's value, an optional parameter, a next hop, an
  // NLRI entry's label and prefix bits) as a field: `n`, or Kelp::RangeException when it exceeds
  // 255, where the octet would wrap and announce another length than what follows it. `what` is
  // called only then, to name the field in the message:
  //   lengthOctet(300, [] { return "capability 99"; })  throws
  //   "capability 99: 300, above the 255 one length octet holds"
  template <typename What>
  static U8 lengthOctet(U64 n, What&& what) {
    if (n > 0xFF) [[unlikely]] throwLengthOctet(n, std::string(what()));
    return static_cast<U8>(n);
  }

  // Appends several fields with one room check for all of them: the header of a path attribute
  // and its value, an NLRI entry and its prefix octets. Each field is written as the single add
  // for its type would write it:
  //   U8, U16, U32, U64      big-endian, like addU8 / addU16hton / addU32hton / addU64hton
  //   U24                    three octets, like addU24hton
  //   Netzo::IpAddr          like addIpv4Addr;  Netzo::Ip6Addr like addIpv6Addr
  //   Netzo::AutonomousSystem  four octets, like addAutonomousSystem(asn, true)
  //   AfiSafi                like addAfiSafi
  //   Octets                 its run, like addData
  //   std::span of any of the fixed-width types above: every element, in order
  // Only these exact types are taken, so a stray int or enum does not compile instead of silently
  // choosing a width. Like every add, it throws before writing anything when the fields would take
  // the message past bgpMaxExtendedMessageSize.
  //
  //   s.addFields(U8{0x40}, U8{3}, U8{4}, nextHop);   // NEXT_HOP: flags, type, length, address
  //   s.addFields(U8{0xC0}, U8{8}, U8(4 * communities.size()), std::span(communities));
  //   s.addFields(U8(bits), Serialize::Octets{prefix, (bits + 7) / 8});   // an IPv4 NLRI entry
  template <typename... Fields>
  void addFields(const Fields&... fields) {
    // Summed in 64 bits: no list of runs that fits in memory can wrap it.
    Octet* p = claim((U64{0} + ... + fieldOctets(fields)));
    (putField(p, fields), ...);
  }

  // Appends every element of `items` as addFields would, with one room check for them all: the AS
  // numbers of an AS_PATH segment, a list of communities.
  //
  //   s.addEach(std::span(asPath));   // std::vector<Netzo::AutonomousSystem> asPath
  template <typename T, std::size_t N>
  void addEach(std::span<T, N> items) {
    addFields(items);
  }

  // Overwrite octets written earlier at `_offset` (big-endian): fill in a length field once what
  // it counts has been written (a message's length, the total path attribute length). Assert that
  // the octets were written.
  void overwriteU8(U32 _offset, U8 v) {
    PICO_ASSERT(_offset < writeOffset_);
    put8(buffer_ + _offset, v);
  }
  void overwriteU16hton(U32 _offset, U16 v) {
    PICO_ASSERT(_offset <= writeOffset_ && writeOffset_ - _offset >= 2);
    put16(buffer_ + _offset, v);
  }

  // Drops the octets written since `_offset`, a write offset noted earlier: a writer that fails
  // part way (a message over its limit) takes back what it wrote, so the caller's earlier octets
  // stand as they were. The capacity is kept.
  void truncate(U32 _offset) {
    PICO_ASSERT(_offset <= writeOffset_);
    writeOffset_ = _offset;
  }
  // Notes the write offset and, when the scope is left by an exception, truncates back to it: a
  // writer of a whole piece (a message, a path attribute) either writes all of it or nothing.
  //
  //   void writeThing(Serialize& out, const Thing& t) {
  //     Serialize::AllOrNothing guard(out);
  //     ...   // any add may throw; what this call wrote is then taken back
  //   }
  class AllOrNothing {
   public:
    explicit AllOrNothing(Serialize& s) : s_(s), at_(s.writeOffset()), uncaught_(std::uncaught_exceptions()) {}
    ~AllOrNothing() {
      if (std::uncaught_exceptions() > uncaught_) s_.truncate(at_);
    }
    AllOrNothing(const AllOrNothing&) = delete;
    AllOrNothing& operator=(const AllOrNothing&) = delete;

   private:
    Serialize& s_;
    U32 at_;
    int uncaught_;
  };

  // The octets from `_offset` to the write offset. `_offset` is a write offset noted earlier.
  Kelp::String serializedString(U32 _offset) const;
  Kelp::Bytes serializedBytes(U32 _offset) const;

  // Makes room for `needed` more octets: throws Kelp::RangeException when the total would exceed
  // bgpMaxExtendedMessageSize, std::bad_alloc when memory runs out; otherwise at least doubles
  // the capacity. The content is unchanged either way.
  void growBuffer(U32 needed);
  // Makes the capacity at least `octets` in all, so that adds up to that total never grow the
  // buffer: a writer that knows the size of what it builds (a message of several long runs) takes
  // its memory in one allocation instead of one per doubling. Nothing is written and the capacity
  // never shrinks. Throws like growBuffer when `octets` exceeds bgpMaxExtendedMessageSize.
  void reserve(U32 octets) {
    if (octets > capacity_) moveTo(octets);
  }

 private:
  // The storage is char8_t, not unsigned char: char8_t may not alias other objects, so the
  // compiler keeps writeOffset_ and buffer_ in registers across a run of inlined adds instead of
  // reloading them after every octet stored. All writes go through Octet; reads out use memcpy.
  using Octet = char8_t;

  [[noreturn]] static void throwLimitExceeded();
  [[noreturn, gnu::cold]] static void throwLengthOctet(U64 n, const std::string& what);
  // Moves the content to a heap block of `newCapacity` octets (above the capacity): out of the
  // inline storage, or by realloc.
  void moveTo(U32 newCapacity);

  // Takes `n` octets at the write offset, growing first if they do not fit, and returns where
  // they go. Past growBuffer's range, `n` is more than any message holds. The end is summed in 64
  // bits, so it cannot wrap, and becomes the next write offset: one add serves the check and the
  // advance.
  Octet* claim(U64 n) {
    const U64 end = U64{writeOffset_} + n;
    if (end > capacity_) [[unlikely]] {
      growBuffer(n > bgpMaxExtendedMessageSize ? bgpMaxExtendedMessageSize + 1 : static_cast<U32>(n));
    }
    Octet* p = buffer_ + writeOffset_;
    writeOffset_ = static_cast<U32>(end);
    return p;
  }
  static void put8(Octet* p, U8 v) { p[0] = static_cast<Octet>(v); }
  // Big-endian stores: swap once, then store the octets as they lie in memory, which the compiler
  // turns into one bswap and one store instead of a shift per octet.
  static void put16(Octet* p, U16 v) { putMemory(p, Netzo::hton16(v)); }
  static void put24(Octet* p, U32 v) {
    p[0] = static_cast<Octet>(v >> 16);
    p[1] = static_cast<Octet>(v >> 8);
    p[2] = static_cast<Octet>(v);
  }
  static void put32(Octet* p, U32 v) { putMemory(p, Netzo::hton32(v)); }
  // The octets of `v` in memory order.
  template <typename T>
  static void putMemory(Octet* p, T v) {
    U8 octets[sizeof v];
    std::memcpy(octets, &v, sizeof v);
    putOctets(p, octets, sizeof v);
  }
  // Copies a run of octets into the buffer. memcpy moves long runs with a string-move instruction
  // that, on some processors, slows down three to four times when the destination lies just past
  // the source modulo the 4 KiB page: each load then waits for a store whose low address bits it
  // matches. Where the caller's run and our buffer fall like that, a plain loop of vector moves,
  // or one that copies backward (each load then lies below the stores in flight), is taken
  // instead, on processors where a one-time measurement finds it faster; elsewhere memcpy stays.
  static void copyRun(Octet* p, const U8* src, U32 n) {
    const std::uintptr_t ahead = (reinterpret_cast<std::uintptr_t>(p) - reinterpret_cast<std::uintptr_t>(src)) & 4095;
    if (n >= kAliasedRunMin && ahead - 1 < kAliasedWindow) [[unlikely]] {
      copyAliasedRun(p, src, n);
    } else if (n != 0) {
      std::memcpy(p, src, n);
    }
  }
  static constexpr U32 kAliasedRunMin = 1024;
  static constexpr std::uintptr_t kAliasedWindow = 31;  // destination 1 to 31 octets past the source
  static void copyAliasedRun(Octet* p, const U8* src, U32 n);

 public:
  // The copy this processor uses for runs placed just past their source ("memcpy", "forward
  // vector loop" or "backward vector loop"), chosen by a one-time measurement on first use.
  static const char* aliasedRunCopy();
  // A copy of `n` octets between ranges that do not overlap, as memcpy.
  struct RunCopy {
    void (*copy)(void* to, const void* from, std::size_t n);
    const char* name;
  };
  // Every copy that the measurement chooses among on this processor, memcpy first: each must land
  // exactly the octets memcpy lands, whichever is chosen.
  static std::span<const RunCopy> aliasedRunCopies();

 private:
  static void putOctets(Octet* p, const U8* src, U32 n) {
    for (U32 i = 0; i < n; ++i) p[i] = static_cast<Octet>(src[i]);
  }

  // addFields: the width of each field type, and its store (advancing the cursor).
 public:
  // The widths are shared with Deserialize::readFields, which reads the same field types.
  static constexpr U32 fieldWidth(const U8*) { return 1; }
  static constexpr U32 fieldWidth(const U16*) { return 2; }
  static constexpr U32 fieldWidth(const U24*) { return 3; }
  static constexpr U32 fieldWidth(const U32*) { return 4; }
  static constexpr U32 fieldWidth(const U64*) { return 8; }
  static constexpr U32 fieldWidth(const Netzo::IpAddr*) { return 4; }
  static constexpr U32 fieldWidth(const Netzo::Ip6Addr*) { return 16; }
  static constexpr U32 fieldWidth(const Netzo::AutonomousSystem*) { return 4; }
  static constexpr U32 fieldWidth(const AfiSafi*) { return 3; }
  template <typename T>
  static constexpr U32 fieldWidth(const T*) {
    static_assert(sizeof(T) == 0,
                  "addFields and readFields take U8, U16, U24, U32, U64, IpAddr, Ip6Addr, AutonomousSystem, AfiSafi");
    return 0;
  }

 private:
  static void putField(Octet*& p, U8 v) { put8(p, v), p += 1; }
  static void putField(Octet*& p, U16 v) { put16(p, v), p += 2; }
  static void putField(Octet*& p, U24 v) { put24(p, v.value), p += 3; }
  static void putField(Octet*& p, U32 v) { put32(p, v), p += 4; }
  static void putField(Octet*& p, const U64& v) { putMemory(p, Netzo::hton64(v)), p += 8; }
  static void putField(Octet*& p, Netzo::IpAddr a) { putMemory(p, a.value()), p += 4; }
  static void putField(Octet*& p, const Netzo::Ip6Addr& a) { putOctets(p, a.octets().data(), 16), p += 16; }
  static void putField(Octet*& p, Netzo::AutonomousSystem asn) { put32(p, asn.value()), p += 4; }
  static void putField(Octet*& p, AfiSafi afiSafi) {
    put16(p, afiSafi.afi());
    PICO_ASSERT(afiSafi.safi() <= 0xFF);
    put8(p + 2, static_cast<U8>(afiSafi.safi()));
    p += 3;
  }
  static void putField(Octet*& p, Octets run) { copyRun(p, run.data, run.size), p += run.size; }
  template <typename T, std::size_t N>
  static void putField(Octet*& p, std::span<T, N> items) {
    for (const T& item : items) putField(p, item);
  }

  template <typename T>
  struct IsSpan : std::false_type {};
  template <typename T, std::size_t N>
  struct IsSpan<std::span<T, N>> : std::true_type {};

 public:
  // The octets that addFields takes for `field`: its width, a run's size, a span's elements.
  template <typename F>
  static constexpr U64 fieldOctets(const F& field) {
    if constexpr (std::is_same_v<F, Octets>) {
      return field.size;
    } else if constexpr (IsSpan<F>::value) {
      return U64{field.size()} * fieldWidth(static_cast<const typename F::value_type*>(nullptr));
    } else {
      return fieldWidth(static_cast<const F*>(nullptr));
    }
  }

 private:
  Octet* buffer_ = inline_;            // inline_ until the first growth, then a heap block
  U32 writeOffset_ = 0;                // octets written; at most capacity_
  U32 capacity_ = inlineCapacity;      // octets at buffer_; never 0, never above 65535
  // Deliberately left uninitialised. It starts a cache line, so that long runs copied into it
  // move whole lines (a string move is slower into a destination that is not line-aligned).
  alignas(64) Octet inline_[inlineCapacity];
};

}  // namespace Routing::Bgp
