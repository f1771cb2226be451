#include "BgpCommon/BgpPathAttributes.h"

#include <algorithm>
#include <bitset>

#include <fmt/format.h>

#include "platform/Pico/Assert.h"

namespace Routing::Bgp {

void AfiSafiSet::add(AfiSafi a) {
  if (contains(a)) return;
  PICO_ASSERT(count_ < capacity);
  items_[count_++] = a;
}

// ---------------------------------------------------------------------------------------------
// NLRI lists

bool NlriList::typed() const {
  const bool family = afiSafi_.afi() == afiIpv4 || afiSafi_.afi() == afiIpv6;
  const Safi safi = afiSafi_.safi();
  return family && (safi == safiUnicast || safi == safiMulticast || safi == safiMplsLabel);
}

namespace {
Netzo::AddressFamily familyOf(AfiSafi a) {
  return a.afi() == afiIpv6 ? Netzo::AddressFamily::ipv6 : Netzo::AddressFamily::ipv4;
}
}  // namespace

ReadError NlriList::check() const {
  Deserialize in(octets_, base_);
  NlriEntry e;
  while (!in.atEnd()) {
    if (!in.readNlri(e, familyOf(afiSafi_), addPath_, labelled(), withdrawal_)) {
      return in.failure(ErrorAction::sessionReset);
    }
  }
  return {};
}

std::size_t NlriList::size() const {
  std::size_t n = 0;
  for (auto it = begin(); it != end(); ++it) ++n;
  return n;
}

NlriList::iterator::iterator(const NlriList* list, const U8* at) : list_(list), at_(at), next_(at) { ++*this; }

NlriList::iterator& NlriList::iterator::operator++() {
  const U8* end = list_->octets_.data() + list_->octets_.size();
  at_ = next_;
  if (at_ == end) return *this;
  Deserialize in({at_, end});
  if (!in.readNlri(entry_, familyOf(list_->afiSafi_), list_->addPath_, list_->labelled(), list_->withdrawal_)) {
    at_ = next_ = end;  // an unchecked list ends at its first bad entry
    return *this;
  }
  next_ = end - in.remaining();
  return *this;
}

NlriList::iterator NlriList::begin() const {
  if (!typed()) return end();
  return iterator(this, octets_.data());
}
NlriList::iterator NlriList::end() const {
  iterator it;
  it.list_ = this;
  it.at_ = it.next_ = octets_.data() + octets_.size();
  return it;
}

void writeNlri(Serialize& out, const NlriEntry& entry, bool addPath, bool labelled) {
  const unsigned bits = entry.prefix.length();
  const std::size_t labelOctets = labelled ? entry.labelFields.size() : 0;
  // One octet gives the length of the label fields and the prefix together, in bits: a labelled
  // /24 has room for nine labels, a /128 for five.
  const U8 lengthBits = Serialize::lengthOctet(bits + 8 * labelOctets, [&] {
    return fmt::format("NLRI {} with {} label fields, in bits", entry.prefix.stringValue(), labelOctets / 3);
  });
  // One group: the entry is written whole or, past the message's limit, not at all.
  const Serialize::Octets labels{entry.labelFields.data(), static_cast<U32>(labelOctets)};
  const Serialize::Octets prefix{entry.prefix.address().octets(), (bits + 7) / 8};
  if (addPath) {
    out.addFields(U32{entry.pathId}, lengthBits, labels, prefix);
  } else {
    out.addFields(lengthBits, labels, prefix);
  }
}

// ---------------------------------------------------------------------------------------------
// AS paths

std::size_t AsPath::pathLength() const {
  std::size_t n = 0;
  for (const Segment& s : segments) {
    if (s.type == asSequence) n += s.count;
    if (s.type == asSet) n += 1;
  }
  return n;
}

void AsPath::segmentAppend(U8 type, std::span<const Netzo::AutonomousSystem> numbers) {
  while (!numbers.empty()) {
    const std::size_t n = std::min<std::size_t>(numbers.size(), 255);
    segments.push_back(Segment{type, static_cast<U8>(n)});
    asns.insert(asns.end(), numbers.begin(), numbers.begin() + n);
    numbers = numbers.subspan(n);
  }
}

namespace {

// Reads a whole AS_PATH / AS4_PATH value, AS numbers `width` octets each. Every segment must be of
// a known type, hold at least one number and end within the attribute (RFC 7606 section 7.2).
// A first walk checks the segment headers and counts; the lists are then sized once (keeping their
// room) and filled straight from the octets, instead of growing by one number at a time.
bool readAsPath(Deserialize& in, unsigned width, AsPath& out) {
  const std::span<const U8> value = in.rest();
  std::size_t segments = 0, numbers = 0;
  while (!in.atEnd()) {
    const U32 at = in.offset();
    U8 type, count;
    if (!in.readFields(type, count)) return in.fail(ReadRule::badAsPathSegment, at);
    if (type < AsPath::asSet || type > AsPath::asConfedSet || count == 0 || in.remaining() < count * width) {
      return in.fail(ReadRule::badAsPathSegment, at);
    }
    (void)in.skip(count * width);
    ++segments;
    numbers += count;
  }
  out.segments.resize(segments);
  out.asns.resize(numbers);
  AsPath::Segment* segment = out.segments.data();
  Netzo::AutonomousSystem* asn = out.asns.data();
  for (const U8* p = value.data(); p != value.data() + value.size();) {
    const U8 count = p[1];
    *segment++ = AsPath::Segment{p[0], count};
    p += 2;
    if (width == 4) {
      for (unsigned i = 0; i < count; ++i, p += 4) *asn++ = U32{p[0]} << 24 | U32{p[1]} << 16 | U32{p[2]} << 8 | p[3];
    } else {
      for (unsigned i = 0; i < count; ++i, p += 2) *asn++ = U32{p[0]} << 8 | p[1];
    }
  }
  return true;
}
std::size_t asPathSize(const AsPath& p, unsigned width) { return 2 * p.segments.size() + width * p.asns.size(); }
void writeAsPath(Serialize& out, const AsPath& p, unsigned width) {
  std::size_t next = 0;
  for (const AsPath::Segment& s : p.segments) {
    out.addFields(s.type, s.count);
    for (std::size_t i = next; i < next + s.count; ++i) out.addAutonomousSystem(p.asns[i], width == 4);
    next += s.count;
  }
}

// ---------------------------------------------------------------------------------------------
// Value codecs: for each kind of value, how it is read from a cursor over exactly the attribute's
// value, how many octets it takes, and how it is written. A read that returns false has recorded
// its rule on the cursor; one that leaves octets unread broke the attribute's length.

struct OriginCodec {
  using Value = Origin;
  static bool read(Deserialize& in, const SessionOptions&, Origin& v) {
    U8 o;
    if (in.remaining() != 1) return in.fail(ReadRule::badAttributeLength, in.offset());
    (void)in.readU8(o);
    if (o > 2) return in.fail(ReadRule::badOrigin, in.offset() - 1);
    v = static_cast<Origin>(o);
    return true;
  }
  static std::size_t size(const Origin&, const SessionOptions&) { return 1; }
  static void write(Serialize& out, const Origin& v, const SessionOptions&) { out.addU8(static_cast<U8>(v)); }
};

// A fixed-width value read with readFields.
template <typename T, U32 Width>
struct FixedCodec {
  using Value = T;
  static bool read(Deserialize& in, const SessionOptions&, T& v) {
    if (in.remaining() != Width) return in.fail(ReadRule::badAttributeLength, in.offset());
    return in.readFields(v);
  }
  static std::size_t size(const T&, const SessionOptions&) { return Width; }
  static void write(Serialize& out, const T& v, const SessionOptions&) { out.addFields(v); }
};

struct EmptyCodec {
  using Value = bool;
  static bool read(Deserialize& in, const SessionOptions&, bool& v) {
    if (!in.atEnd()) return in.fail(ReadRule::badAttributeLength, in.offset());
    v = true;
    return true;
  }
  static std::size_t size(const bool&, const SessionOptions&) { return 0; }
  static void write(Serialize&, const bool&, const SessionOptions&) {}
};

// AS_PATH: AS numbers as wide as the session's; AS4_PATH: always four octets.
template <bool AlwaysFourOctet>
struct AsPathCodec {
  using Value = AsPath;
  static unsigned width(const SessionOptions& o) { return AlwaysFourOctet || o.fourOctetAs ? 4 : 2; }
  static bool read(Deserialize& in, const SessionOptions& o, AsPath& v) { return readAsPath(in, width(o), v); }
  static std::size_t size(const AsPath& v, const SessionOptions& o) { return asPathSize(v, width(o)); }
  static void write(Serialize& out, const AsPath& v, const SessionOptions& o) { writeAsPath(out, v, width(o)); }
};

template <bool AlwaysFourOctet>
struct AggregatorCodec {
  using Value = Aggregator;
  static bool read(Deserialize& in, const SessionOptions& o, Aggregator& v) {
    const bool four = AlwaysFourOctet || o.fourOctetAs;
    if (in.remaining() != (four ? 8u : 6u)) return in.fail(ReadRule::badAttributeLength, in.offset());
    return in.readAutonomousSystem(v.asn, four) && in.readIpv4Addr(v.address);
  }
  static std::size_t size(const Aggregator&, const SessionOptions& o) {
    return AlwaysFourOctet || o.fourOctetAs ? 8 : 6;
  }
  static void write(Serialize& out, const Aggregator& v, const SessionOptions& o) {
    out.addAutonomousSystem(v.asn, AlwaysFourOctet || o.fourOctetAs);
    out.addIpv4Addr(v.address);
  }
};

// A non-empty list of fixed-width items (communities, cluster ids, extended and large
// communities): RFC 7606 sections 7.8, 7.10, 7.14 and RFC 8092 section 6 make any other length
// malformed.
template <typename List, U32 Width>
struct ListCodec {
  using Value = List;
  using Item = typename List::value_type;
  static bool read(Deserialize& in, const SessionOptions&, List& v) {
    const U32 n = in.remaining();
    if (n == 0 || n % Width != 0) return in.fail(ReadRule::badAttributeLength, in.offset());
    v.resize(n / Width);  // every item is read over: no need to empty the list first
    // The length is checked whole: each item is read through a cursor of exactly its width, whose
    // bounds check the compiler sees through.
    const U8* p = in.rest().data();
    for (Item& item : v) {
      Deserialize one({p, Width});
      readItem(one, item);
      p += Width;
    }
    (void)in.skip(n);
    return true;
  }
  static std::size_t size(const List& v, const SessionOptions&) { return Width * v.size(); }
  static void write(Serialize& out, const List& v, const SessionOptions&) {
    for (const Item& item : v) writeItem(out, item);
  }
  static void readItem(Deserialize& in, U32& c) { (void)in.readU32(c); }
  static void readItem(Deserialize& in, Netzo::IpAddr& a) { (void)in.readIpv4Addr(a); }
  static void readItem(Deserialize& in, RouteTarget& rt) { (void)in.readU64(rt.value); }
  static void readItem(Deserialize& in, LargeCommunity& c) { (void)in.readFields(c.globalAdmin, c.localData1, c.localData2); }
  static void writeItem(Serialize& out, U32 c) { out.addFields(c); }
  static void writeItem(Serialize& out, Netzo::IpAddr a) { out.addFields(a); }
  static void writeItem(Serialize& out, const RouteTarget& rt) { out.addFields(rt.value); }
  static void writeItem(Serialize& out, const LargeCommunity& c) { out.addFields(c.globalAdmin, c.localData1, c.localData2); }
};

// The next hop of MP_REACH_NLRI: typed for the IP families when it is one address (4 or 16
// octets) or an IPv6 global and link-local pair (32 octets, RFC 2545 section 3).
bool readNextHop(Deserialize& in, U8 length, MpReach& v) {
  const U32 at = in.offset();
  if (!in.readBytes(v.nextHopOctets, length)) return in.fail(ReadRule::badMpReach, at);
  v.nextHop = Netzo::IpGenAddr();
  v.linkLocalNextHop = Netzo::IpGenAddr();
  const bool ipFamily = NlriList({}, v.afiSafi, false).typed();
  if (!ipFamily) return true;
  const U8* p = v.nextHopOctets.data();
  if (length == 4) {
    v.nextHop = Netzo::IpAddr(p[0], p[1], p[2], p[3]);
  } else if (length == 16 || length == 32) {
    v.nextHop = Netzo::Ip6Addr(p);
    if (length == 32) v.linkLocalNextHop = Netzo::Ip6Addr(p + 16);
  } else {
    return in.fail(ReadRule::badNextHop, at - 1);
  }
  return true;
}
std::size_t nextHopSize(const MpReach& v) {
  if (v.nextHop.family() == Netzo::AddressFamily::ipUnknown) return v.nextHopOctets.size();
  return v.nextHop.octetCount() + v.linkLocalNextHop.octetCount();
}
void writeNextHop(Serialize& out, const MpReach& v) {
  out.addU8(Serialize::lengthOctet(nextHopSize(v), [] { return "MP_REACH_NLRI next hop, in octets"; }));
  if (v.nextHop.family() == Netzo::AddressFamily::ipUnknown) {
    out.addData(v.nextHopOctets.data(), static_cast<U32>(v.nextHopOctets.size()));
    return;
  }
  out.addIpGenAddr(v.nextHop);
  if (v.linkLocalNextHop.family() != Netzo::AddressFamily::ipUnknown) out.addIpGenAddr(v.linkLocalNextHop);
}

// Reads an NLRI field of `afiSafi` to the end of `in`, checking its entries where the family is
// one this reader types.
bool readNlriField(Deserialize& in, AfiSafi afiSafi, const SessionOptions& o, bool withdrawal, NlriList& out) {
  const U32 at = in.offset();
  std::span<const U8> octets;
  (void)in.readBytes(octets, in.remaining());
  out = NlriList(octets, afiSafi, o.addPath.contains(afiSafi), withdrawal, at);
  if (!out.typed()) return true;
  const ReadError e = out.check();
  return e ? in.fail(e.rule, e.offset) : true;
}

struct MpReachCodec {
  using Value = MpReach;
  static bool read(Deserialize& in, const SessionOptions& o, MpReach& v) {
    const U32 at = in.offset();
    U8 nextHopLength;
    // RFC 6396 section 4.3.4: only the next-hop length and the next hop, the record saying the
    // rest. Some MRT writers put the whole attribute there instead; the abbreviated form is the one
    // whose first octet accounts for the rest of the value.
    v.abbreviated = o.mrtAbbreviatedMpReach.afi() != afiUnknown && in.remaining() >= 1 &&
                    in.rest()[0] + 1u == in.remaining();
    if (v.abbreviated) {
      v.afiSafi = o.mrtAbbreviatedMpReach;
      v.reserved = 0;
      v.nlri = NlriList({}, v.afiSafi, false);
      (void)in.readU8(nextHopLength);
      return readNextHop(in, nextHopLength, v);
    }
    if (!in.readFields(v.afiSafi, nextHopLength)) return in.fail(ReadRule::badMpReach, at);
    if (!readNextHop(in, nextHopLength, v)) return false;
    if (!in.readU8(v.reserved)) return in.fail(ReadRule::badMpReach, in.offset());
    return readNlriField(in, v.afiSafi, o, false, v.nlri);
  }
  static std::size_t size(const MpReach& v, const SessionOptions&) {
    if (v.abbreviated) return 1 + nextHopSize(v);
    return 3 + 1 + nextHopSize(v) + 1 + v.nlri.octets().size();
  }
  static void write(Serialize& out, const MpReach& v, const SessionOptions&) {
    if (v.abbreviated) return writeNextHop(out, v);
    out.addAfiSafi(v.afiSafi);
    writeNextHop(out, v);
    out.addU8(v.reserved);
    out.addData(v.nlri.octets().data(), static_cast<U32>(v.nlri.octets().size()));
  }
};

struct MpUnreachCodec {
  using Value = MpUnreach;
  static bool read(Deserialize& in, const SessionOptions& o, MpUnreach& v) {
    if (!in.readAfiSafi(v.afiSafi)) return in.fail(ReadRule::badMpReach, in.offset());
    return readNlriField(in, v.afiSafi, o, true, v.withdrawn);
  }
  static std::size_t size(const MpUnreach& v, const SessionOptions&) { return 3 + v.withdrawn.octets().size(); }
  static void write(Serialize& out, const MpUnreach& v, const SessionOptions&) {
    out.addAfiSafi(v.afiSafi);
    out.addData(v.withdrawn.octets().data(), static_cast<U32>(v.withdrawn.octets().size()));
  }
};

// ---------------------------------------------------------------------------------------------
// The table: one row per known attribute, its description and its slot's reader and writer.

// The header of an attribute of `size` value octets: its own flags, or the usual ones when it has
// none, with the extended length bit forced on when the value needs two length octets.
void writeHeader(Serialize& out, U8 flags, U8 usual, U8 type, std::size_t size) {
  if (flags == 0) flags = usual;
  if (size > 255) flags |= attrFlagExtendedLength;
  if (flags & attrFlagExtendedLength) {
    out.addFields(flags, type, static_cast<U16>(size));
  } else {
    out.addFields(flags, type, static_cast<U8>(size));
  }
}

// Keeps the most severe error, the first of equals.
void note(ReadError& worst, const ReadError& e) {
  if (e.action > worst.action) worst = e;
}

// An attribute of `length` value octets whose value did not read: the cursor says which rule it
// broke (none when octets were left over), `action` is the attribute's RFC 7606 action.
[[gnu::noinline]] void noteMalformed(ReadError& worst, const Deserialize& value, ErrorAction action, U8 type, U32 at,
                                     U32 length) {
  // Not even the AFI/SAFI of MP_REACH_NLRI / MP_UNREACH_NLRI could be read: no family to disable.
  if (action == ErrorAction::afiSafiDisable && length < 3) action = ErrorAction::sessionReset;
  ReadRule rule = value.failed() ? value.failureRule() : ReadRule::badAttributeLength;
  U32 offset = value.failureOffset();
  // A length that does not fit the attribute is reported at the attribute's length field.
  if (rule == ReadRule::truncated) rule = ReadRule::badAttributeLength;
  if (rule == ReadRule::badAttributeLength) offset = at + 2;
  note(worst, ReadError{rule, action, offset, type});
}

// Reads one occurrence of a known attribute, `value` being exactly its value and `at` the offset
// of its flags octet: into its slot, marked present with its flags and added to the order, when
// its flags and value are right; otherwise the slot is left absent and the error noted. Inlined
// where the reader dispatches the common attributes itself, called through the table for the rest.
template <auto Slot, typename Codec, AttrType Type, U8 Flags, ErrorAction Malformed>
[[gnu::always_inline]] inline void readAttribute(Deserialize& value, U32 at, U8 flags, const SessionOptions& o,
                                                 PathAttributes& a, ReadError& worst) {
  constexpr U8 type = static_cast<U8>(Type);
  auto& slot = a.*Slot;
  // RFC 7606 section 3 c: optional or transitive bits in conflict with the attribute's
  // definition make it malformed.
  if ((flags & (attrFlagOptional | attrFlagTransitive)) != Flags) [[unlikely]] {
    note(worst, ReadError{ReadRule::badAttributeFlags, Malformed, at, type});
    return;
  }
  const U32 length = value.remaining();
  if (!Codec::read(value, o, slot.value) || !value.atEnd()) [[unlikely]] {
    noteMalformed(worst, value, Malformed, type, at, length);
    slot.reset();
    return;
  }
  slot.present = true;
  slot.flags = flags;
  a.order.push_back(type);
}

struct Row {
  AttributeInfo info;
  // Reads one occurrence (see readAttribute).
  void (*read)(Deserialize& value, U32 at, U8 flags, const SessionOptions& o, PathAttributes& attrs, ReadError& worst);
  bool (*present)(const PathAttributes& attrs);
  // Writes the whole attribute, header and value, when it is present.
  void (*write)(Serialize& out, const PathAttributes& attrs, const SessionOptions& o);
};

// The attribute's name, as AttrType's description gives it.
constexpr std::string_view attrName(AttrType type) {
  for (const Kelp::EnumEntryInfo& e : Kelp::enumDescOf<AttrType>.entries) {
    if (e.value == static_cast<U8>(type)) return e.name;
  }
  return {};
}

template <auto Slot, typename Codec, AttrType Type, U8 Flags>
void writeAttribute(Serialize& out, const PathAttributes& a, const SessionOptions& o) {
  const auto& slot = a.*Slot;
  if (!slot.present) return;
  writeHeader(out, slot.flags, Flags, static_cast<U8>(Type), Codec::size(slot.value, o));
  Codec::write(out, slot.value, o);
}

template <auto Slot, typename Codec, AttrType Type, U8 Flags, ErrorAction Malformed>
constexpr Row row() {
  return Row{
      AttributeInfo{Type, attrName(Type), Flags, static_cast<U8>(attrFlagOptional | attrFlagTransitive), Malformed},
      [](Deserialize& value, U32 at, U8 flags, const SessionOptions& o, PathAttributes& a, ReadError& worst) {
        readAttribute<Slot, Codec, Type, Flags, Malformed>(value, at, flags, o, a, worst);
      },
      [](const PathAttributes& a) { return (a.*Slot).present; },
      &writeAttribute<Slot, Codec, Type, Flags>,
  };
}

constexpr U8 wellKnown = attrFlagTransitive;
constexpr U8 optionalTransitive = attrFlagOptional | attrFlagTransitive;
constexpr U8 optionalNonTransitive = attrFlagOptional;
using P = PathAttributes;

// RFC 7606 section 7 gives each attribute's action when it is malformed; AS4_PATH and
// AS4_AGGREGATOR are discarded (RFC 6793 section 6), MP_REACH_NLRI and MP_UNREACH_NLRI disable
// their AFI/SAFI (section 7.11; a session reset when not even the AFI/SAFI can be read).
constexpr ErrorAction withdraw = ErrorAction::treatAsWithdraw;
constexpr ErrorAction discard = ErrorAction::attributeDiscard;
using Communities = absl::InlinedVector<U32, 16>;
using ClusterList = absl::InlinedVector<Netzo::IpAddr, 4>;
using ExtendedCommunities = absl::InlinedVector<RouteTarget, 8>;
using LargeCommunities = absl::InlinedVector<LargeCommunity, 4>;

// A row as a type: the table below is a list of these, so that what needs every attribute at
// once (clearing them all before a read) unrolls into plain stores instead of a call per row, and
// the reader can call the common attributes' readers directly.
template <auto Slot, typename Codec, AttrType Type, U8 Flags, ErrorAction Malformed>
struct Def {
  static constexpr U8 code = static_cast<U8>(Type);
  static constexpr Row row = ::Routing::Bgp::row<Slot, Codec, Type, Flags, Malformed>();
  [[gnu::always_inline]] static void read(Deserialize& value, U32 at, U8 flags, const SessionOptions& o,
                                          PathAttributes& a, ReadError& worst) {
    readAttribute<Slot, Codec, Type, Flags, Malformed>(value, at, flags, o, a, worst);
  }
  static void reset(PathAttributes& a) { (a.*Slot).reset(); }
  // Writes the attribute when it is present and not written yet.
  static void writeRest(Serialize& out, const PathAttributes& a, const SessionOptions& o, const std::bitset<256>& done) {
    if ((a.*Slot).present && !done[static_cast<U8>(Type)]) writeAttribute<Slot, Codec, Type, Flags>(out, a, o);
  }
};
template <typename... Defs>
struct Table {
  static constexpr Row rows[] = {Defs::row...};
  static void resetAll(PathAttributes& a) { (Defs::reset(a), ...); }
  static void writeRest(Serialize& out, const PathAttributes& a, const SessionOptions& o, const std::bitset<256>& done) {
    (Defs::writeRest(out, a, o, done), ...);
  }
};

// The attributes nearly every route carries, which the reader dispatches itself.
using OriginDef = Def<&P::origin, OriginCodec, AttrType::origin, wellKnown, withdraw>;
using AsPathDef = Def<&P::asPath, AsPathCodec<false>, AttrType::asPath, wellKnown, withdraw>;
using NextHopDef = Def<&P::nextHop, FixedCodec<Netzo::IpAddr, 4>, AttrType::nextHop, wellKnown, withdraw>;
using MedDef = Def<&P::multiExitDisc, FixedCodec<U32, 4>, AttrType::multiExitDisc, optionalNonTransitive, withdraw>;
using LocalPrefDef = Def<&P::localPref, FixedCodec<U32, 4>, AttrType::localPref, wellKnown, withdraw>;
using AggregatorDef = Def<&P::aggregator, AggregatorCodec<false>, AttrType::aggregator, optionalTransitive, discard>;
using CommunitiesDef = Def<&P::communities, ListCodec<Communities, 4>, AttrType::communities, optionalTransitive, withdraw>;

using Attributes = Table<
    OriginDef, AsPathDef, NextHopDef, MedDef, LocalPrefDef,
    Def<&P::atomicAggregate, EmptyCodec, AttrType::atomicAggregate, wellKnown, discard>,
    AggregatorDef, CommunitiesDef,
    Def<&P::originatorId, FixedCodec<Netzo::IpAddr, 4>, AttrType::originatorId, optionalNonTransitive, withdraw>,
    Def<&P::clusterList, ListCodec<ClusterList, 4>, AttrType::clusterList, optionalNonTransitive, withdraw>,
    Def<&P::mpReach, MpReachCodec, AttrType::mpReachNlri, optionalNonTransitive, ErrorAction::afiSafiDisable>,
    Def<&P::mpUnreach, MpUnreachCodec, AttrType::mpUnreachNlri, optionalNonTransitive, ErrorAction::afiSafiDisable>,
    Def<&P::extendedCommunities, ListCodec<ExtendedCommunities, 8>, AttrType::extendedCommunities,
        optionalTransitive, withdraw>,
    Def<&P::as4Path, AsPathCodec<true>, AttrType::as4Path, optionalTransitive, discard>,
    Def<&P::as4Aggregator, AggregatorCodec<true>, AttrType::as4Aggregator, optionalTransitive, discard>,
    Def<&P::largeCommunities, ListCodec<LargeCommunities, 12>, AttrType::largeCommunities, optionalTransitive,
        withdraw>>;
constexpr const auto& rows = Attributes::rows;

// Row by type code.
const std::array<const Row*, 256> rowByType = [] {
  std::array<const Row*, 256> t{};
  for (const Row& r : rows) t[static_cast<U8>(r.info.type)] = &r;
  return t;
}();

bool isMp(U8 type) {
  return type == static_cast<U8>(AttrType::mpReachNlri) || type == static_cast<U8>(AttrType::mpUnreachNlri);
}

}  // namespace

const AttributeInfo* attributeInfo(U8 type) {
  const Row* r = rowByType[type];
  return r != nullptr ? &r->info : nullptr;
}

void PathAttributes::clear() {
  Attributes::resetAll(*this);
  // Cleared before every route a reader reads: the check costs less than an empty erase.
  if (!unknown.empty()) emptyKeepingRoom(unknown);
  if (!order.empty()) emptyKeepingRoom(order);
}

ReadError readPathAttributes(Deserialize& in, const SessionOptions& options, PathAttributes& out) {
  out.clear();
  ReadError worst;
  std::bitset<256> seen;
  while (!in.atEnd()) {
    const U32 at = in.offset();
    // The header: flags, type code, and a length of one octet, or two with the extended length flag.
    const std::span<const U8> rest = in.rest();
    const U32 headerSize = (rest[0] & attrFlagExtendedLength) ? 4 : 3;
    const bool headerRead = rest.size() >= headerSize;
    const U32 length = !headerRead ? 0 : headerSize == 4 ? U32{rest[2]} << 8 | rest[3] : U32{rest[2]};
    if (!headerRead || rest.size() - headerSize < length) [[unlikely]] {
      // RFC 7606 section 4: an attribute running past the path attributes leaves the rest of them
      // unparseable, but the NLRI can still be found. The cursor stops where the field that did
      // not fit starts.
      if (rest.size() >= 2) (void)in.skip(headerRead ? headerSize : 2);
      (void)in.fail(ReadRule::truncated, in.offset());
      note(worst, ReadError{ReadRule::attributePastEnd, ErrorAction::treatAsWithdraw, at, headerRead ? rest[1] : U8{0}});
      break;
    }
    const U8 flags = rest[0], type = rest[1];
    Deserialize value(rest.subspan(headerSize, length), at + headerSize);
    (void)in.skip(headerSize + length);
    if (seen[type]) [[unlikely]] {
      // RFC 7606 section 3 g: a repeated MP_REACH_NLRI or MP_UNREACH_NLRI resets the session; of
      // any other attribute, the occurrences after the first are discarded.
      note(worst, ReadError{ReadRule::duplicateAttribute,
                            isMp(type) ? ErrorAction::sessionReset : ErrorAction::attributeDiscard, at, type});
      continue;
    }
    seen[type] = true;
    switch (type) {
      case OriginDef::code: OriginDef::read(value, at, flags, options, out, worst); continue;
      case AsPathDef::code: AsPathDef::read(value, at, flags, options, out, worst); continue;
      case NextHopDef::code: NextHopDef::read(value, at, flags, options, out, worst); continue;
      case MedDef::code: MedDef::read(value, at, flags, options, out, worst); continue;
      case LocalPrefDef::code: LocalPrefDef::read(value, at, flags, options, out, worst); continue;
      case AggregatorDef::code: AggregatorDef::read(value, at, flags, options, out, worst); continue;
      case CommunitiesDef::code: CommunitiesDef::read(value, at, flags, options, out, worst); continue;
      default: break;
    }
    if (const Row* r = rowByType[type]) {
      r->read(value, at, flags, options, out, worst);
      continue;
    }
    if (!(flags & attrFlagOptional)) {
      // RFC 4271 section 6.3: Unrecognized Well-known Attribute.
      note(worst, ReadError{ReadRule::unknownWellKnown, ErrorAction::sessionReset, at, type});
    }
    out.unknown.push_back(RawAttribute{flags, type, value.rest()});
    out.order.push_back(type);
  }
  return worst;
}

ReadError checkMandatory(const PathAttributes& attrs, bool ipv4Nlri, U32 offset) {
  for (AttrType t : {AttrType::origin, AttrType::asPath, AttrType::nextHop}) {
    if (t == AttrType::nextHop && !ipv4Nlri) continue;
    if (!rowByType[static_cast<U8>(t)]->present(attrs)) {
      return ReadError{ReadRule::missingMandatory, ErrorAction::treatAsWithdraw, offset, static_cast<U8>(t)};
    }
  }
  return {};
}

void writePathAttribute(Serialize& out, U8 type, const PathAttributes& attrs, const SessionOptions& options) {
  Serialize::AllOrNothing guard(out);
  if (const Row* r = rowByType[type]) return r->write(out, attrs, options);
  for (const RawAttribute& a : attrs.unknown) {
    if (a.type != type) continue;
    writeHeader(out, a.flags, attrFlagOptional | attrFlagTransitive, type, a.value.size());
    out.addData(a.value.data(), static_cast<U32>(a.value.size()));
    return;
  }
}

void writePathAttributes(Serialize& out, const PathAttributes& attrs, const SessionOptions& options) {
  Serialize::AllOrNothing guard(out);
  std::bitset<256> written;
  for (U8 type : attrs.order) {
    if (written[type]) continue;
    written[type] = true;
    writePathAttribute(out, type, attrs, options);
  }
  Attributes::writeRest(out, attrs, options, written);
  for (const RawAttribute& a : attrs.unknown) {
    if (!written[a.type]) {
      written[a.type] = true;
      writePathAttribute(out, a.type, attrs, options);
    }
  }
}

// ---------------------------------------------------------------------------------------------
// RFC 6793 section 4.2.3: from a two-octet speaker, AS4_PATH and AS4_AGGREGATOR carry the
// four-octet numbers that AS_PATH and AGGREGATOR hold as AS_TRANS.

namespace {
// AS4_PATH and AS4_AGGREGATOR are to be ignored: the session is four-octet (they are not for us),
// or AGGREGATOR names a real two-octet AS while AS4_AGGREGATOR is there (the aggregation happened
// at a speaker that did not pass the four-octet numbers on).
bool ignoreAs4(const PathAttributes& a, const SessionOptions& o) {
  if (o.fourOctetAs) return true;
  return a.aggregator && a.as4Aggregator && a.aggregator->asn.value() != Netzo::AutonomousSystem::asTrans;
}
}  // namespace

AsPath PathAttributes::fullAsPath(const SessionOptions& options) const {
  if (!asPath) return AsPath();
  if (!as4Path || ignoreAs4(*this, options)) return *asPath;
  const std::size_t total = asPath->pathLength();
  const std::size_t as4 = as4Path->pathLength();
  if (total < as4) return *asPath;
  // Take as many AS numbers and segments as needed from the front of AS_PATH so that the merged
  // path is as long as AS_PATH, then AS4_PATH.
  AsPath merged;
  std::size_t need = total - as4;
  std::size_t next = 0;
  for (const AsPath::Segment& s : asPath->segments) {
    if (need == 0) break;
    const std::span<const Netzo::AutonomousSystem> numbers(asPath->asns.data() + next, s.count);
    next += s.count;
    if (s.type == AsPath::asSequence) {
      const std::size_t n = std::min<std::size_t>(need, s.count);
      merged.segmentAppend(s.type, numbers.first(n));
      need -= n;
    } else {
      merged.segmentAppend(s.type, numbers);
      if (s.type == AsPath::asSet) need -= 1;
    }
  }
  merged.segments.insert(merged.segments.end(), as4Path->segments.begin(), as4Path->segments.end());
  merged.asns.insert(merged.asns.end(), as4Path->asns.begin(), as4Path->asns.end());
  return merged;
}

std::optional<Aggregator> PathAttributes::fullAggregator(const SessionOptions& options) const {
  if (!aggregator) return std::nullopt;
  if (!as4Aggregator || options.fourOctetAs || aggregator->asn.value() != Netzo::AutonomousSystem::asTrans) {
    return *aggregator;
  }
  return *as4Aggregator;
}

}  // namespace Routing::Bgp
