#pragma once
// Path attributes of an UPDATE, typed, read and written (RFC 4271 section 5 and the RFCs of each
// attribute), and the NLRI lists that travel with them.
//
// PathAttributes holds one slot per known attribute (present or not, with the flags octet it was
// read with or will be written with) and keeps unknown attributes raw with their flags. Reading
// then writing gives the same octets for every well-formed attribute set: each attribute is
// written with its own flags, in the extended length form exactly when its flags say so, and the
// attributes in the order they were read. A program can read an UPDATE, change one attribute and
// write it on:
//
//   Routing::Bgp::PathAttributes attrs;
//   Routing::Bgp::Deserialize in(attributeOctets, offsetInMessage);
//   ReadError e = Routing::Bgp::readPathAttributes(in, options, attrs);   // e.action: RFC 7606
//   attrs.multiExitDisc.set(50);
//   Routing::Bgp::Serialize out;
//   Routing::Bgp::writePathAttributes(out, attrs, options);
//
// Storage: lists (AS numbers, communities, cluster ids) are absl::InlinedVector with inline room
// for the common sizes (16 AS numbers, 16 communities, 8 extended, 4 large, 4 cluster ids, 4
// unknown attributes), so reading an ordinary attribute set allocates nothing; a longer list
// spills to the heap once, and an object that is read into again keeps that room. What is kept as
// octets (unknown attributes, NLRI, next hops of unknown families) is a view into the message: the
// message must outlive the attributes read from it.
//
// Every attribute is described once, in a table (type code, name, expected flags, reader, writer,
// the RFC 7606 action when it is malformed); reading, writing and the checks all walk that table.

#include <array>
#include <optional>
#include <span>
#include <string_view>

#include <absl/container/inlined_vector.h>

#include "BgpCommon/BgpDeserialize.h"
#include "BgpCommon/BgpSerialize.h"
#include "BgpCommon/RouteTarget.h"

namespace Routing::Bgp {

// Path attribute type codes (IANA "BGP Path Attributes").
enum class AttrType : U8 {
  origin = 1,
  asPath = 2,
  nextHop = 3,
  multiExitDisc = 4,
  localPref = 5,
  atomicAggregate = 6,
  aggregator = 7,
  communities = 8,       // RFC 1997
  originatorId = 9,      // RFC 4456
  clusterList = 10,      // RFC 4456
  mpReachNlri = 14,      // RFC 4760
  mpUnreachNlri = 15,    // RFC 4760
  extendedCommunities = 16,  // RFC 4360
  as4Path = 17,          // RFC 6793
  as4Aggregator = 18,    // RFC 6793
  largeCommunities = 32,  // RFC 8092
};
constexpr auto kelpEnum(Kelp::Tag<AttrType>) {
  return Kelp::enumType<AttrType>("Routing::Bgp::AttrType", {{AttrType::origin, "ORIGIN"},
                                                             {AttrType::asPath, "AS_PATH"},
                                                             {AttrType::nextHop, "NEXT_HOP"},
                                                             {AttrType::multiExitDisc, "MULTI_EXIT_DISC"},
                                                             {AttrType::localPref, "LOCAL_PREF"},
                                                             {AttrType::atomicAggregate, "ATOMIC_AGGREGATE"},
                                                             {AttrType::aggregator, "AGGREGATOR"},
                                                             {AttrType::communities, "COMMUNITIES"},
                                                             {AttrType::originatorId, "ORIGINATOR_ID"},
                                                             {AttrType::clusterList, "CLUSTER_LIST"},
                                                             {AttrType::mpReachNlri, "MP_REACH_NLRI"},
                                                             {AttrType::mpUnreachNlri, "MP_UNREACH_NLRI"},
                                                             {AttrType::extendedCommunities, "EXTENDED_COMMUNITIES"},
                                                             {AttrType::as4Path, "AS4_PATH"},
                                                             {AttrType::as4Aggregator, "AS4_AGGREGATOR"},
                                                             {AttrType::largeCommunities, "LARGE_COMMUNITIES"}},
                                   Kelp::EnumNumbers::any);
}
KELP_ENUM_FUNCTIONS(AttrType)

// The attribute flags octet (RFC 4271 section 4.3). The low four bits are unused; they are kept
// as read.
inline constexpr U8 attrFlagOptional = 0x80;
inline constexpr U8 attrFlagTransitive = 0x40;
inline constexpr U8 attrFlagPartial = 0x20;
inline constexpr U8 attrFlagExtendedLength = 0x10;  // a two-octet length follows the type

// A small set of AFI/SAFIs: those whose NLRI carry add-path identifiers.
class AfiSafiSet {
 public:
  static constexpr std::size_t capacity = 8;
  AfiSafiSet() = default;
  AfiSafiSet(std::initializer_list<AfiSafi> items) {
    for (AfiSafi a : items) add(a);
  }
  bool contains(AfiSafi a) const {
    for (std::size_t i = 0; i < count_; ++i)
      if (items_[i] == a) return true;
    return false;
  }
  // Adds `a`; asserts that there is room.
  void add(AfiSafi a);
  std::size_t size() const { return count_; }

 private:
  std::array<AfiSafi, capacity> items_{};
  std::size_t count_ = 0;
};

// What a session negotiated, as it shapes the octets. For reading, addPath holds the AFI/SAFIs the
// peer sends path identifiers for; for writing, those this side sends them for (RFC 7911 section
// 4: each direction is negotiated on its own).
struct SessionOptions {
  bool fourOctetAs = true;        // AS_PATH and AGGREGATOR carry four-octet AS numbers (RFC 6793)
  bool extendedMessage = false;   // messages up to 65535 octets (RFC 8654); otherwise 4096
  AfiSafiSet addPath;             // NLRI of these AFI/SAFIs start with a path identifier
  // MRT: TABLE_DUMP_V2 RIB entries carry MP_REACH_NLRI abbreviated to its next-hop length and next
  // hop (RFC 6396 section 4.3.4), the AFI/SAFI being the record's. When set (afi non-zero), an
  // MP_REACH_NLRI whose first octet accounts for the rest of its value is read in that form, for
  // this AFI/SAFI (MpReach::abbreviated); others (some writers put the whole attribute) as usual.
  AfiSafi mrtAbbreviatedMpReach{};
};

// One NLRI field (the UPDATE's withdrawn routes or NLRI, or those of MP_REACH/MP_UNREACH): a view
// of its octets that reads its entries on iteration. A list returned by a reader has been checked
// whole, so iterating it cannot fail. Building one: write the entries with writeNlri into a
// Serialize and view its octets.
class NlriList {
 public:
  NlriList() = default;
  // `base` is the offset of the first octet in the message (for error offsets).
  NlriList(std::span<const U8> octets, AfiSafi afiSafi, bool addPath, bool withdrawal = false, U32 base = 0)
      : octets_(octets), afiSafi_(afiSafi), base_(base), addPath_(addPath), withdrawal_(withdrawal) {}

  std::span<const U8> octets() const { return octets_; }
  AfiSafi afiSafi() const { return afiSafi_; }
  bool addPath() const { return addPath_; }
  bool empty() const { return octets_.empty(); }
  // RFC 8277 labelled unicast.
  bool labelled() const { return afiSafi_.safi() == safiMplsLabel; }
  // True for IPv4 and IPv6 unicast, multicast and labelled unicast, whose entries this reads;
  // other families are kept as octets only.
  bool typed() const;
  U32 base() const { return base_; }

  // Checks every entry; a default ReadError when all read. The action is sessionReset (RFC 7606
  // section 5.3: an NLRI field that cannot be parsed leaves nothing trustworthy in the message).
  ReadError check() const;
  // The number of entries (reads them all).
  std::size_t size() const;

  class iterator {
   public:
    using value_type = NlriEntry;
    using difference_type = std::ptrdiff_t;
    iterator() = default;
    // By value: the entry lives in the iterator, which a reference would outlive.
    NlriEntry operator*() const { return entry_; }
    const NlriEntry* operator->() const { return &entry_; }
    iterator& operator++();
    void operator++(int) { ++*this; }
    friend bool operator==(const iterator& a, const iterator& b) { return a.at_ == b.at_; }

   private:
    friend class NlriList;
    iterator(const NlriList* list, const U8* at);
    const NlriList* list_ = nullptr;
    const U8* at_ = nullptr;
    const U8* next_ = nullptr;
    NlriEntry entry_;
  };
  iterator begin() const;
  iterator end() const;

 private:
  std::span<const U8> octets_;
  AfiSafi afiSafi_{};
  U32 base_ = 0;
  bool addPath_ = false;
  bool withdrawal_ = false;
};

// Writes one NLRI entry as `list`'s kind reads it: path identifier when addPath, labels (the
// entry's fields as they are) when labelled, then length and prefix octets. Throws
// Kelp::RangeException, writing nothing, when the labels and prefix exceed the 255 bits that the
// length octet counts, or like every add past the message's limit.
void writeNlri(Serialize& out, const NlriEntry& entry, bool addPath, bool labelled);

// Empties an InlinedVector without giving its heap room back (its clear() does), so that an
// object read into again and again allocates only when a list outgrows every earlier one.
// Shrinking never reallocates; for the plain values these lists hold it only sets the size (where
// an erase moves and destroys through a general path).
template <typename V>
void emptyKeepingRoom(V& v) {
  v.resize(0);
}

enum class Origin : U8 { igp = 0, egp = 1, incomplete = 2 };
constexpr auto kelpEnum(Kelp::Tag<Origin>) {
  return Kelp::enumType<Origin>("Routing::Bgp::Origin",
                                {{Origin::igp, "igp"}, {Origin::egp, "egp"}, {Origin::incomplete, "incomplete"}});
}
KELP_ENUM_FUNCTIONS(Origin)

// AS_PATH or AS4_PATH (RFC 4271 section 4.3, RFC 5065, RFC 6793): segments, each a type and a run
// of AS numbers. The numbers of all segments lie in one list, each segment naming how many are its.
struct AsPath {
  enum SegmentType : U8 { asSet = 1, asSequence = 2, asConfedSequence = 3, asConfedSet = 4 };
  struct Segment {
    U8 type = asSequence;
    U8 count = 0;  // AS numbers in the segment, 1 to 255
    friend bool operator==(const Segment&, const Segment&) = default;
  };
  absl::InlinedVector<Segment, 4> segments;
  absl::InlinedVector<Netzo::AutonomousSystem, 16> asns;  // every segment's numbers, in order

  // The path length of route selection (RFC 4271 section 9.1.2.2, RFC 5065 section 5.3): a set
  // counts 1, confederation segments 0. RFC 6793 counts AS_PATH against AS4_PATH the same way.
  std::size_t pathLength() const;
  // Appends a segment of `asns` (split into segments of at most 255).
  void segmentAppend(U8 type, std::span<const Netzo::AutonomousSystem> numbers);
  // Empties the path, keeping the room the lists took (absl's clear() would give it back).
  void clear() {
    emptyKeepingRoom(segments);
    emptyKeepingRoom(asns);
  }
  friend bool operator==(const AsPath&, const AsPath&) = default;
};

// AGGREGATOR and AS4_AGGREGATOR.
struct Aggregator {
  Netzo::AutonomousSystem asn;
  Netzo::IpAddr address;
  friend bool operator==(const Aggregator&, const Aggregator&) = default;
};

// RFC 8092.
struct LargeCommunity {
  U32 globalAdmin = 0;
  U32 localData1 = 0;
  U32 localData2 = 0;
  friend bool operator==(const LargeCommunity&, const LargeCommunity&) = default;
};

// MP_REACH_NLRI (RFC 4760 section 3). For IPv4 and IPv6 the next hop is typed: one address, or for
// IPv6 a global and a link-local address (RFC 2545 section 3); any other length is kept as
// octets.
struct MpReach {
  AfiSafi afiSafi;
  Netzo::IpGenAddr nextHop;           // ipUnknown when the next hop is kept as octets
  Netzo::IpGenAddr linkLocalNextHop;  // the second IPv6 address of a 32-octet next hop
  std::span<const U8> nextHopOctets;  // the next hop as read (a view), used when nextHop is unset
  U8 reserved = 0;                    // the octet after the next hop, kept as read
  NlriList nlri;
  // Read, and written, as MRT abbreviates it: next-hop length and next hop only (see
  // SessionOptions::mrtAbbreviatedMpReach).
  bool abbreviated = false;
};

// MP_UNREACH_NLRI (RFC 4760 section 4).
struct MpUnreach {
  AfiSafi afiSafi;
  NlriList withdrawn;
};

// An attribute this reader does not type, kept as it came.
struct RawAttribute {
  U8 flags = 0;
  U8 type = 0;
  std::span<const U8> value;
};

// One attribute slot: present or not, its flags, its value.
template <typename T>
struct Attribute {
  bool present = false;
  // As read. 0, which no known attribute can carry on the wire, writes the attribute's usual
  // flags (AttributeInfo::flags) in the short length form, or the extended one when the value
  // needs it.
  U8 flags = 0;
  T value{};

  explicit operator bool() const { return present; }
  const T& operator*() const { return value; }
  const T* operator->() const { return &value; }
  T* operator->() { return &value; }
  // Present with `v`, keeping the flags of an attribute that was present already.
  void set(T v) {
    present = true;
    value = std::move(v);
  }
  void reset() { present = false, flags = 0; }
};

// Typed attributes of one UPDATE.
struct PathAttributes {
  Attribute<Origin> origin;
  Attribute<AsPath> asPath;                 // in the session's AS width; see fullAsPath()
  Attribute<Netzo::IpAddr> nextHop;
  Attribute<U32> multiExitDisc;
  Attribute<U32> localPref;
  Attribute<bool> atomicAggregate;          // no value: present or not
  Attribute<Aggregator> aggregator;
  Attribute<absl::InlinedVector<U32, 16>> communities;            // RFC 1997, high 16 bits the AS
  Attribute<Netzo::IpAddr> originatorId;
  Attribute<absl::InlinedVector<Netzo::IpAddr, 4>> clusterList;
  Attribute<MpReach> mpReach;
  Attribute<MpUnreach> mpUnreach;
  // Route targets are RouteTargets; the other extended communities are their 64-bit values in the
  // same type (RouteTarget::extCommValueIsValidRouteTarget tells them apart).
  Attribute<absl::InlinedVector<RouteTarget, 8>> extendedCommunities;
  Attribute<AsPath> as4Path;
  Attribute<Aggregator> as4Aggregator;
  Attribute<absl::InlinedVector<LargeCommunity, 4>> largeCommunities;
  absl::InlinedVector<RawAttribute, 4> unknown;

  // The type codes in the order read (unknown ones included); writing follows it, then writes
  // attributes present but not listed in type code order.
  absl::InlinedVector<U8, 16> order;

  // The AS path with AS4_PATH merged in (RFC 6793 section 4.2.3), when the session was two-octet:
  // the leading AS numbers of AS_PATH beyond AS4_PATH's count, then AS4_PATH. AS_PATH alone when
  // AS4_PATH is absent, longer than AS_PATH, or to be ignored for AGGREGATOR's sake.
  AsPath fullAsPath(const SessionOptions& options) const;
  // AGGREGATOR, or AS4_AGGREGATOR in its place when AGGREGATOR names AS_TRANS (RFC 6793 4.2.3).
  std::optional<Aggregator> fullAggregator(const SessionOptions& options) const;

  // Every slot absent, lists emptied (their heap room kept).
  void clear();
};

// Reads the path attributes in `in` (exactly the UPDATE's path attribute octets). Malformed
// attributes are handled as RFC 7606 says: a discarded attribute is left absent, the rest is read
// on; the most severe error found (the first of them) is returned, and a default ReadError when
// there is none. With treatAsWithdraw or worse, what was read is still there for inspection.
// Missing mandatory attributes are not checked here (they depend on the NLRI): see checkMandatory.
ReadError readPathAttributes(Deserialize& in, const SessionOptions& options, PathAttributes& out);
// ORIGIN and AS_PATH, and NEXT_HOP when `ipv4Nlri`, must be present in an UPDATE that announces
// routes (RFC 4271 section 5, RFC 7606 section 3 d: treat-as-withdraw).
ReadError checkMandatory(const PathAttributes& attrs, bool ipv4Nlri, U32 offset);

// Writes every present attribute (see `order`), each with its flags.
void writePathAttributes(Serialize& out, const PathAttributes& attrs, const SessionOptions& options);
// Writes one attribute, type code `type`, if present (an unknown one from `unknown`).
void writePathAttribute(Serialize& out, U8 type, const PathAttributes& attrs, const SessionOptions& options);

// The description of a known attribute, from the table the reader and writer walk.
struct AttributeInfo {
  AttrType type;
  std::string_view name;  // "AS_PATH", the name AttrType prints
  U8 flags;               // the usual flags: optional and transitive bits as RFC 4271 requires
  U8 checkedFlags;        // the flag bits a reader checks (optional, and transitive where fixed)
  ErrorAction malformed;  // RFC 7606 action when the attribute is malformed
};
// The table entry of `type`, or nullptr for an unknown type code.
const AttributeInfo* attributeInfo(U8 type);

}  // namespace Routing::Bgp
