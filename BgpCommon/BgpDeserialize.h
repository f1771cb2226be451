#pragma once
// Deserialize: the bounded cursor that BGP messages and attribute values are read with, the
// reading half of Serialize.
//
// It reads fixed-width integers (network order), AS numbers, addresses, AFI/SAFI pairs, prefixes
// in NLRI encoding and MPLS label stacks from a span of octets, and never past its end. A read that
// does not fit reads nothing and returns false; the cursor remembers the first failure (which rule,
// at which offset) so that a caller reading a group of fields checks once. Offsets count from the
// start of the message: a cursor over a piece of it carries the piece's position (`base`), so an
// error deep inside an attribute still names its octet in the whole message.
//
// Reading a message is data, not exceptions: what a peer sent wrong comes back as a ReadError, the
// rule it broke, the offset and the action RFC 7606 gives for it.
//
//   Routing::Bgp::Deserialize in(bytes);
//   U8 flags, type;
//   U16 length;
//   if (!in.readFields(flags, type, length)) return in.failure(ErrorAction::treatAsWithdraw);
//   Netzo::IpGenPrefix p;
//   if (!in.readPrefix(p, Netzo::AddressFamily::ipv4)) ...           // badPrefixLength or truncated
//
// Nothing here allocates, except readMplsLabelStack into a stack with too little capacity.

#include <cstring>
#include <span>

#include "BgpCommon/BgpSerialize.h"
#include "platform/Kelp/EnumType.h"
#include "platform/Kelp/TextForm.h"
#include "platform/Netzo/AddressFamily.h"
#include "platform/Netzo/AutonomousSystem.h"
#include "platform/Netzo/IpAddr.h"
#include "platform/Netzo/IpGenPrefix.h"
#include "platform/Netzo/MplsLabel.h"
#include "platform/Netzo/NetU32.h"
#include "platform/Pico/Integers.h"
#include "platform/Routing/AfiSafi.h"

namespace Routing::Bgp {

// What RFC 7606 says to do about a malformed message, from the mildest to the most severe, so that
// of several errors in one UPDATE the worst wins (std::max).
KELP_ENUM(enum class, ErrorAction, U8, "Routing::Bgp::ErrorAction", named,
          none = 0,              // nothing is wrong
          attributeDiscard = 1,  // drop the attribute, use the rest of the UPDATE (RFC 7606 section 2)
          treatAsWithdraw = 2,   // every route the UPDATE announces is withdrawn instead
          afiSafiDisable = 3,    // stop the address family on this session (RFC 4760 section 7)
          sessionReset = 4)      // send a NOTIFICATION and close the session (RFC 4271 section 6)

// The rule a message broke.
KELP_ENUM(enum class, ReadRule, U8, "Routing::Bgp::ReadRule", named,
          none = 0,
          truncated,            // a field needs more octets than its container holds
          // Header (RFC 4271 section 4.1, RFC 8654).
          badMarker,            // the 16 marker octets are not all ones
          badMessageLength,     // below 19, above 4096 (65535 with extended messages) or not the type's size
          badMessageType,       // not 1 to 5
          // OPEN (RFC 4271 section 4.2, RFC 5492).
          badVersion,           // not version 4
          badHoldTime,          // 1 or 2 seconds
          badOptionalParameters,  // parameter lengths that do not add up
          badCapability,        // a known capability of the wrong length
          // UPDATE (RFC 4271 section 4.3, RFC 7606).
          badWithdrawnLength,   // the withdrawn routes length runs past the message
          badAttributesLength,  // the total path attribute length runs past the message
          attributePastEnd,     // an attribute's length runs past the path attributes
          badAttributeFlags,    // the optional/transitive bits are wrong for a known attribute
          badAttributeLength,   // a known attribute's length is not what its type allows
          duplicateAttribute,   // the same type code twice
          missingMandatory,     // ORIGIN, AS_PATH or NEXT_HOP absent from an UPDATE that announces routes
          unknownWellKnown,     // a well-known (not optional) attribute this reader does not know
          badOrigin,            // ORIGIN above 2
          badAsPathSegment,     // a segment of unknown type, of zero length or past its attribute
          badNextHop,           // a next hop of a length the address family does not allow
          badPrefixLength,      // a prefix longer than its family allows
          badLabelStack,        // a labelled prefix whose labels run past its length
          badMpReach,           // MP_REACH_NLRI / MP_UNREACH_NLRI whose fields do not add up
          // NOTIFICATION, ROUTE-REFRESH (RFC 4271 section 4.5, RFC 2918, RFC 7313).
          badRouteRefresh)      // not AFI, subtype, SAFI

// A malformed input: which rule, where, and what to do about it. A default ReadError is "no error"
// and tests false.
struct ReadError {
  ReadRule rule = ReadRule::none;
  ErrorAction action = ErrorAction::none;
  U32 offset = 0;          // the octet of the message where the broken field starts
  U8 attributeType = 0;    // the path attribute concerned, or 0

  explicit operator bool() const { return rule != ReadRule::none; }
  // "badAttributeFlags at offset 27 in attribute 2: treatAsWithdraw"
  Kelp::String toStrep() const;
  friend bool operator==(const ReadError&, const ReadError&) = default;
};
std::ostream& operator<<(std::ostream& os, const ReadError& e);

// A prefix as NLRI carries it (RFC 4271 section 4.3, RFC 7911, RFC 8277): an optional add-path
// identifier, the labels of a labelled prefix, the prefix. The labels stay in their three-octet
// NLRI form where they lie (a view into the message): labelStack() copies them out.
struct NlriEntry {
  Netzo::IpGenPrefix prefix;
  U32 pathId = 0;                   // the add-path identifier; 0 where add-path is not in use
  std::span<const U8> labelFields;  // three octets per label, label << 4 | S; empty when unlabelled

  std::size_t labelCount() const { return labelFields.size() / 3; }
  // The three-octet field of label i: label in bits 23..4, the bottom-of-stack bit in bit 0.
  U32 labelField(std::size_t i) const {
    const U8* p = labelFields.data() + 3 * i;
    return U32{p[0]} << 16 | U32{p[1]} << 8 | p[2];
  }
  // The labels as a stack (traffic class and TTL 0, S as sent).
  Netzo::MplsLabelStack labelStack() const;
  friend bool operator==(const NlriEntry& a, const NlriEntry& b) {
    return a.prefix == b.prefix && a.pathId == b.pathId &&
           std::equal(a.labelFields.begin(), a.labelFields.end(), b.labelFields.begin(), b.labelFields.end());
  }
};

class Deserialize {
 public:
  // A cursor over `bytes`, whose first octet is octet `base` of the message.
  explicit Deserialize(std::span<const U8> bytes, U32 base = 0) noexcept
      : p_(bytes.data()), end_(bytes.data() + bytes.size()), start_(bytes.data()), base_(base) {}

  // The message offset of the next octet to be read.
  U32 offset() const { return base_ + static_cast<U32>(p_ - start_); }
  U32 remaining() const { return static_cast<U32>(end_ - p_); }
  bool atEnd() const { return p_ == end_; }
  // The octets not read yet.
  std::span<const U8> rest() const { return {p_, end_}; }

  // The first failure of this cursor: its rule (none while every read has succeeded), at the
  // offset where the field that failed starts.
  bool failed() const { return failRule_ != ReadRule::none; }
  ReadRule failureRule() const { return failRule_; }
  U32 failureOffset() const { return failOffset_; }
  // As a ReadError with the given action (and attribute).
  ReadError failure(ErrorAction action, U8 attributeType = 0) const {
    return ReadError{failRule_, action, failOffset_, attributeType};
  }
  // Records a failure of the caller's own (a value out of range): only the first one is kept.
  // Returns false, for `return in.fail(...)`.
  bool fail(ReadRule rule, U32 offset) {
    if (failRule_ == ReadRule::none) failRule_ = rule, failOffset_ = offset;
    return false;
  }

  // Fixed-width reads, network order. Each reads all or nothing.
  [[nodiscard]] bool readU8(U8& v) { return readFields(v); }
  [[nodiscard]] bool readU16(U16& v) { return readFields(v); }
  [[nodiscard]] bool readU24(U32& v) {
    U24 f;
    if (!readFields(f)) return false;
    v = f.value;
    return true;
  }
  [[nodiscard]] bool readU32(U32& v) { return readFields(v); }
  [[nodiscard]] bool readU64(U64& v) { return readFields(v); }
  // Two octets, or four with `fourOctet` (RFC 6793).
  [[nodiscard]] bool readAutonomousSystem(Netzo::AutonomousSystem& asn, bool fourOctet) {
    if (fourOctet) return readFields(asn);
    U16 v;
    if (!readFields(v)) return false;
    asn = Netzo::AutonomousSystem(v);
    return true;
  }
  [[nodiscard]] bool readIpv4Addr(Netzo::IpAddr& a) { return readFields(a); }
  [[nodiscard]] bool readIpv6Addr(Netzo::Ip6Addr& a) { return readFields(a); }
  // AFI in two octets, SAFI in one (RFC 4760).
  [[nodiscard]] bool readAfiSafi(AfiSafi& a) { return readFields(a); }

  // A three-octet field for readFields (the one Serialize::addFields writes).
  using U24 = Serialize::U24;

  // Reads several fixed-width fields with one bounds check, the mirror of Serialize::addFields:
  // U8, U16, U24, U32, U64 (big-endian), Netzo::IpAddr, Netzo::Ip6Addr, Netzo::AutonomousSystem
  // (four octets) and AfiSafi. Reads all of them or none.
  template <typename... Fields>
  [[nodiscard]] bool readFields(Fields&... fields) {
    constexpr U32 total = (Serialize::fieldWidth(static_cast<const Fields*>(nullptr)) + ... + 0);
    if (remaining() < total) [[unlikely]]
      return fail(ReadRule::truncated, offset());
    (getField(p_, fields), ...);
    return true;
  }

  // The next `n` octets as a view, without copying.
  [[nodiscard]] bool readBytes(std::span<const U8>& out, U32 n) {
    if (remaining() < n) [[unlikely]]
      return fail(ReadRule::truncated, offset());
    out = {p_, n};
    p_ += n;
    return true;
  }
  [[nodiscard]] bool skip(U32 n) {
    std::span<const U8> ignored;
    return readBytes(ignored, n);
  }
  // A cursor over the next `n` octets (offsets continuing this one's); this one moves past them.
  [[nodiscard]] bool readCursor(Deserialize& out, U32 n) {
    const U32 at = offset();
    std::span<const U8> piece;
    if (!readBytes(piece, n)) return false;
    out = Deserialize(piece, at);
    return true;
  }

  // A prefix in NLRI encoding (RFC 4271 section 4.3): a length in bits, then just enough octets
  // for it. The address bits past the length are kept as sent. A length above the family's
  // maximum fails with badPrefixLength, missing octets with truncated.
  [[nodiscard]] bool readPrefix(Netzo::IpGenPrefix& out, Netzo::AddressFamily family);
  // One NLRI entry: with `addPath` a four-octet path identifier first (RFC 7911); with `labelled`
  // the length covers a label stack before the prefix, three octets a label, up to the label with
  // the bottom-of-stack bit (RFC 8277 section 2, RFC 3032). `withdrawal` reads exactly one label
  // field whatever its S bit: a withdrawal carries 0x800000 or 0x000000 there (RFC 8277
  // section 2.4). Fails with badPrefixLength, badLabelStack or truncated.
  [[nodiscard]] bool readNlri(NlriEntry& out, Netzo::AddressFamily family, bool addPath, bool labelled,
                              bool withdrawal = false);
  // Three-octet NLRI labels up to and including the one with the bottom-of-stack bit, into `out`
  // (which is cleared first) as label stack entries with traffic class and TTL 0.
  [[nodiscard]] bool readMplsLabelStack(Netzo::MplsLabelStack& out);

 private:
  template <typename T>
  static T loadMemory(const U8* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
  }
  static void getField(const U8*& p, U8& v) { v = *p++; }
  static void getField(const U8*& p, U16& v) { v = Netzo::ntoh16(loadMemory<U16>(p)), p += 2; }
  static void getField(const U8*& p, U24& v) { v.value = U32{p[0]} << 16 | U32{p[1]} << 8 | p[2], p += 3; }
  static void getField(const U8*& p, U32& v) { v = Netzo::ntoh32(loadMemory<U32>(p)), p += 4; }
  static void getField(const U8*& p, U64& v) { v = Netzo::ntoh64(loadMemory<U64>(p)), p += 8; }
  static void getField(const U8*& p, Netzo::IpAddr& a) { a = Netzo::IpAddr::fromNetworkOrder(loadMemory<U32>(p)), p += 4; }
  static void getField(const U8*& p, Netzo::Ip6Addr& a) { a = Netzo::Ip6Addr(p), p += 16; }
  static void getField(const U8*& p, Netzo::AutonomousSystem& a) {
    a = Netzo::AutonomousSystem(Netzo::ntoh32(loadMemory<U32>(p))), p += 4;
  }
  static void getField(const U8*& p, AfiSafi& a) {
    a = AfiSafi(static_cast<Afi>(U16(p[0] << 8 | p[1])), static_cast<Safi>(p[2])), p += 3;
  }

  const U8* p_;
  const U8* end_;
  const U8* start_;  // octet base_ of the message
  U32 base_;
  ReadRule failRule_ = ReadRule::none;
  U32 failOffset_ = 0;
};

}  // namespace Routing::Bgp
