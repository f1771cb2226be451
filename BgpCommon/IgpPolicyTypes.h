#pragma once
// The results of redistribution policy for IGP and static routes.
//
// When the agent redistributes OSPF, OSPFv3, IS-IS or static routes into BGP, routing policy
// computes a few attributes per route: preference, metric, tag, up to four standard communities
// and the OSPF/IS-IS particulars. Two forms carry that result:
//
//   Routing::Bgp::IgpResult_                 the in-process form, as policy evaluation produces
//                                            it (it derives from the policy library's Result_);
//                                            deduplicated and identified by its contents
//   Routing::BgpRedistribute::IgpResult      the flat record published in the shared-memory
//                                            status table under an IgpResultId, read by other
//                                            processes; no pointers, copied byte for byte
//
// and two small identifiers:
//   IgpResultId     the number a record is published under (0 means "no result"); prints as a
//                   bare decimal number
//   CommunityIndex  a position in the four-slot community array, 0..3
//
// The community array keeps its count ending on a non-zero value: deleting the last slot drops
// the trailing zero slots too, so "communities 10, 0, 30" with 30 deleted becomes "10".
//
// Serialized IgpResult: the aligned byte form of its description (platform/Kelp/ByteForm.h),
// little-endian, 48 + 4 * count bytes:
//   0 key(4) 4 preference(1) 5 ospfBitDn(1) 6 ospfv3BitDn(1) 7 padding(1, not written)
//   8 metric(8) 16 isisLevel(4) 20 ospfMetricType(4) 24 ospfDomainId(8) 32 ospfRouteType(8)
//   40 tag(4) 44 community count(4) 48 community values(4 each)
// The record in memory is the same image, so the shared table's reader copies it in whole.
//
// Neither IgpResult nor IgpResult_ can be built from text (they hold a collection); their text
// constructors stop the process.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <tuple>
#include <type_traits>

#include "platform/Brim/HashMix.h"
#include "platform/Kelp/BareTextForm.h"
#include "platform/Kelp/ByteForm.h"
#include "platform/Kelp/ValueType.h"
#include "platform/Routing/PolicyResult.h"

namespace Routing::BgpRedistribute {

struct IgpResultId : Kelp::ValueBase<IgpResultId> {
  std::uint32_t value = 0;

  constexpr IgpResultId() = default;
  constexpr explicit IgpResultId(std::uint32_t v) : value(v) {}

  std::uint32_t hash(std::uint32_t seed) const;
  // Identifiers order by number (a table lists its records so).
  friend constexpr bool operator<(IgpResultId a, IgpResultId b) { return a.value < b.value; }
  friend constexpr auto kelpType(Kelp::Tag<IgpResultId>) {
    return Kelp::valueType<IgpResultId>("Routing::BgpRedistribute::IgpResultId", Kelp::field("value", &IgpResultId::value));
  }
};

inline std::uint32_t IgpResultId::hash(std::uint32_t seed) const { return Kelp::hashFields(*this, seed); }

struct CommunityIndex : Kelp::ValueBase<CommunityIndex> {
  static constexpr std::uint32_t min = 0;
  static constexpr std::uint32_t max = 3;

  std::uint32_t value = 0;

  constexpr CommunityIndex() = default;
  // Throws Kelp::RangeException for an index outside min..max.
  explicit CommunityIndex(std::uint32_t v) : value(checked(v)) {}
  explicit CommunityIndex(Kelp::CharRange& r) {
    Kelp::parseFields(r, *this);
    checked(value);
  }

  static std::uint32_t checked(std::uint32_t v);

  friend constexpr auto kelpType(Kelp::Tag<CommunityIndex>) {
    return Kelp::valueType<CommunityIndex>("Routing::BgpRedistribute::CommunityIndex",
                                           Kelp::field("value", &CommunityIndex::value));
  }
};

// The array range error: "array count 5 above its limit 4".
[[noreturn]] void throwArrayRange(std::uint32_t count, std::uint32_t limit);

// Up to four standard communities (RFC 1997), kept in index order. Slots at or beyond the count
// take no part in equality, hashing, printing or serializing.
class CommunityArray {
 public:
  static constexpr std::uint32_t kSlots = 4;

  // A position in the array; positions beyond the last slot raise the CommunityIndex range error
  // when used to change the array.
  class Iterator {
   public:
    Iterator(const CommunityArray* a, std::uint32_t pos) : array_(a), pos_(pos) {}
    std::uint32_t position() const { return pos_; }
    std::uint32_t value() const { return array_->at(CommunityIndex(pos_)); }
    Iterator& operator++() {
      ++pos_;
      return *this;
    }
    // True while the position is inside the used slots.
    explicit operator bool() const { return pos_ < array_->count(); }

   private:
    const CommunityArray* array_;
    std::uint32_t pos_;
  };

  std::uint32_t count() const { return count_; }
  // The value at `i`, 0 for an unused slot.
  std::uint32_t at(CommunityIndex i) const { return i.value < count_ ? slots_[i.value] : 0; }
  const std::uint32_t* data() const { return slots_; }
  Iterator begin() const { return Iterator(this, 0); }

  // Stores `value` at `i`; the count grows to i + 1 when `i` is beyond it (skipped slots keep what
  // they held, 0 in a fresh array).
  void communityIs(CommunityIndex i, std::uint32_t value);
  void communityIs(const Iterator& it, std::uint32_t value) { communityIs(CommunityIndex(it.position()), value); }
  // Removes the value at `i` and returns it (0 when `i` is at or beyond the count). A slot before
  // the last is zeroed in place; removing the last slot also drops the zero slots before it.
  std::uint32_t communityDel(CommunityIndex i);
  std::uint32_t communityDel(const Iterator& it) { return communityDel(CommunityIndex(it.position())); }
  void communityDelAll() { count_ = 0; }

  // Reads a count and values as stored; a count above 4 raises the array range error.
  void assign(std::uint32_t count, const std::uint32_t* values);
  // The same with all four slots given, those at and beyond `count` holding 0.
  void assignSlots(std::uint32_t count, std::uint32_t s0, std::uint32_t s1, std::uint32_t s2, std::uint32_t s3) {
    if (count > kSlots) throwArrayRange(count, kSlots);
    count_ = count;
    slots_[0] = s0;
    slots_[1] = s1;
    slots_[2] = s2;
    slots_[3] = s3;
  }

  friend bool operator==(const CommunityArray& a, const CommunityArray& b);

 private:
  std::uint32_t count_ = 0;
  std::uint32_t slots_[kSlots] = {};
};

// In JSON (Kelp/Json.h): the communities in use, each as "HIGH:LOW" (its two 16-bit halves), as
// operators write them.
inline void kelpJson(std::string& out, const CommunityArray& a) {
  out += '[';
  for (auto it = a.begin(); it; ++it) {
    if (it.position() != 0) out += ',';
    out += '"' + std::to_string(it.value() >> 16) + ':' + std::to_string(it.value() & 0xFFFF) + '"';
  }
  out += ']';
}

// In a hash (Brim/FieldHash.h): the framework hash of the used slots, as 4 octets, so that slots
// beyond the count, which equality ignores, change nothing.
[[gnu::always_inline]] inline void hashMixInto(Brim::HashMix& h, const CommunityArray& a) {
  Kelp::Hash used;
  used.hashMixBytes(a.data(), 4u * a.count());
  h.mixBytes4(used.result());
}

// Copies one outcome field into a record; of a community array only the used slots.
template <typename M>
void assignOutcome(M& to, const M& from) {
  to = from;
}
inline void assignOutcome(CommunityArray& to, const CommunityArray& from) { to.assign(from.count(), from.data()); }

struct IgpResult : Kelp::ValueBase<IgpResult> {
  // Holds a collection: not built from text (the range constructor asserts).
  static constexpr bool kelpNoStringConstructor = true;
  static constexpr Kelp::ByteLayout kelpByteLayout = Kelp::ByteLayout::aligned;
  static constexpr std::uint32_t minSerializedLen = 48;
  static constexpr std::uint32_t maxSerializedLen = 64;

  IgpResultId key;
  RoutePreference preference;
  bool ospfBitDn = false;
  bool ospfv3BitDn = false;
  Kelp::MaybeU63 metric;
  Isis::Level isisLevel = Isis::Level::levelUnset;
  Ospf::OspfExtMetricType ospfMetricType = Ospf::OspfExtMetricType::typeUnset;
  std::uint64_t ospfDomainId = 0;
  std::uint64_t ospfRouteType = 0;
  RouteTag tag;
  CommunityArray community;

  explicit IgpResult(IgpResultId k) : key(k) {}
  // Text cannot describe a record with a collection: stops the process.
  explicit IgpResult(Kelp::CharRange& r);

  void communityIs(CommunityIndex i, std::uint32_t value) { community.communityIs(i, value); }
  void communityIs(const CommunityArray::Iterator& it, std::uint32_t value) { community.communityIs(it, value); }
  std::uint32_t communityDel(CommunityIndex i) { return community.communityDel(i); }
  std::uint32_t communityDel(const CommunityArray::Iterator& it) { return community.communityDel(it); }
  void communityDelAll() { community.communityDelAll(); }

  // 48 + 4 * community count.
  std::uint32_t serializeLen() const;
  // Writes serializeLen() bytes to `out`; byte 7 is padding and left as it was.
  void serialize(std::uint8_t* out) const;
  // The length of the record at the front of `in`; Kelp::RangeException when `in` is shorter than
  // the record or its count is above 4.
  static std::uint32_t deserializeLen(std::span<const std::uint8_t> in);
  // Reads the record at the front of `in`, with the checks of deserializeLen.
  static IgpResult deserialize(std::span<const std::uint8_t> in);
  // The same from a record of `len` bytes (at most maxSerializedLen) held in little-endian words
  // (8 of them, zeros after the record), as the shared-memory table's inlined lookup has it, which
  // holds the length to that bound: the words are the record's own memory image, copied in whole.
  // fromWords, called only where wordsDecodable holds, gives what deserialize would; where it does
  // not hold, deserialize is the one to call, and refuses the record.
  static bool wordsDecodable(const std::uint64_t* w, std::uint32_t len);
  static IgpResult fromWords(const std::uint64_t* w);

  // True when anything differs from a fresh record with key 0.
  explicit operator bool() const { return !(*this == IgpResult(IgpResultId())); }

  friend constexpr auto kelpType(Kelp::Tag<IgpResult>) {
    return Kelp::valueType<IgpResult>(
        "Routing::BgpRedistribute::IgpResult", Kelp::field("key", &IgpResult::key),
        Kelp::field("preference", &IgpResult::preference), Kelp::field("ospfBitDn", &IgpResult::ospfBitDn),
        Kelp::field("ospfv3BitDn", &IgpResult::ospfv3BitDn), Kelp::field("metric", &IgpResult::metric),
        Kelp::field("isisLevel", &IgpResult::isisLevel), Kelp::field("ospfMetricType", &IgpResult::ospfMetricType),
        Kelp::field("ospfDomainId", &IgpResult::ospfDomainId), Kelp::field("ospfRouteType", &IgpResult::ospfRouteType),
        Kelp::field("tag", &IgpResult::tag), Kelp::field("community", &IgpResult::community),
        Kelp::function("serializeLen", &IgpResult::serializeLen));
  }
};

// A sample record whose every field follows from `key` and `version` (the version defaulting to the
// key), so that a reader can check what it reads without knowing the writer: preference
// key % 200 + 1, tag 10 * key, metric 3 * version, OSPF domain id the version, and key % 5
// communities 65000:(key + i). The tool writes these, and benchmarks and tests read them.
IgpResult sampleIgpResult(std::uint32_t key, std::uint64_t version);
inline IgpResult sampleIgpResult(std::uint32_t key) { return sampleIgpResult(key, key); }

}  // namespace Routing::BgpRedistribute

namespace Routing::Bgp {

// One field of a policy result's outcome: its name, where the in-process result holds it (its own
// member, or one of the policy library's base), where the published record holds it, and whether
// the dedup table's bucket hash mixes it. Both members have the same type: a field cannot be
// published as something else.
template <typename InResult, typename InRecord, bool Hashed>
struct OutcomeField {
  static constexpr bool hashed = Hashed;
  const char* name;
  InResult inResult;
  InRecord inRecord;
};
// The class a member pointer points into.
template <typename P>
struct MemberOf;
template <typename M, typename C>
struct MemberOf<M C::*> {
  using Class = C;
};

template <typename M, typename C>
constexpr auto hashedOutcome(const char* name, M C::*inResult, M BgpRedistribute::IgpResult::*inRecord) {
  return OutcomeField<M C::*, M BgpRedistribute::IgpResult::*, true>{name, inResult, inRecord};
}
template <typename M, typename C>
constexpr auto unhashedOutcome(const char* name, M C::*inResult, M BgpRedistribute::IgpResult::*inRecord) {
  return OutcomeField<M C::*, M BgpRedistribute::IgpResult::*, false>{name, inResult, inRecord};
}

struct IgpResult_ : Policy::Result_, Kelp::ValueBase<IgpResult_> {
  // Holds a collection: not built from text (the range constructor asserts).
  static constexpr bool kelpNoStringConstructor = true;
  Isis::Level isisLevel = Isis::Level::levelUnset;
  Ospf::OspfExtMetricType ospfMetricType = Ospf::OspfExtMetricType::typeUnset;
  bool ospfBitDn = false;
  bool ospfv3BitDn = false;
  std::uint64_t ospfDomainId = 0;
  std::uint64_t ospfRouteType = 0;
  BgpRedistribute::CommunityArray community;

  IgpResult_() = default;
  // Text cannot describe a result with a collection: stops the process.
  explicit IgpResult_(Kelp::CharRange& r);

  using CommunityIterator = BgpRedistribute::CommunityArray::Iterator;
  void communityIs(BgpRedistribute::CommunityIndex i, std::uint32_t value) { community.communityIs(i, value); }
  void communityIs(const CommunityIterator& it, std::uint32_t value) { community.communityIs(it, value); }
  std::uint32_t communityDel(BgpRedistribute::CommunityIndex i) { return community.communityDel(i); }
  std::uint32_t communityDel(const CommunityIterator& it) { return community.communityDel(it); }
  void communityDelAll() { community.communityDelAll(); }

  // The outcome of a result: what routes carrying it get, so what makes two results the same for
  // the dedup table, and what is published for it. That is everything but the policy's own state
  // (dps), which only the policy library reads. Listed in the order the bucket hash mixes them;
  // the OSPF domain and route types are left out of the hash (results differing only there share
  // a bucket and still differ). The result's own fields (those not in the policy library's base)
  // follow the base in its text form in this order.
  static constexpr auto outcome() {
    using R = BgpRedistribute::IgpResult;
    return std::make_tuple(hashedOutcome("isisLevel", &IgpResult_::isisLevel, &R::isisLevel),
                           hashedOutcome("ospfMetricType", &IgpResult_::ospfMetricType, &R::ospfMetricType),
                           hashedOutcome("preference", &IgpResult_::preferenceStorage, &R::preference),
                           hashedOutcome("tag", &IgpResult_::tagStorage, &R::tag),
                           hashedOutcome("metric", &IgpResult_::metric, &R::metric),
                           hashedOutcome("ospfBitDn", &IgpResult_::ospfBitDn, &R::ospfBitDn),
                           hashedOutcome("ospfv3BitDn", &IgpResult_::ospfv3BitDn, &R::ospfv3BitDn),
                           unhashedOutcome("ospfDomainId", &IgpResult_::ospfDomainId, &R::ospfDomainId),
                           unhashedOutcome("ospfRouteType", &IgpResult_::ospfRouteType, &R::ospfRouteType),
                           hashedOutcome("community", &IgpResult_::community, &R::community));
  }

  // The bucket hash of the dedup table, over the hashed outcome fields.
  std::uint32_t hash(std::uint32_t seed = 0) const;
  // True when policy set anything at all.
  explicit operator bool() const { return !(*this == IgpResult_()); }

  // The policy library's fields, then the outcome fields of the result's own.
  friend constexpr auto kelpType(Kelp::Tag<IgpResult_>) {
    auto own = std::apply(
        [](auto... f) {
          return std::tuple_cat([](auto field) {
            if constexpr (std::is_same_v<typename MemberOf<decltype(field.inResult)>::Class, IgpResult_>) {
              return std::make_tuple(Kelp::field(field.name, field.inResult));
            } else {
              return std::tuple<>();
            }
          }(f)...);
        },
        outcome());
    return std::apply(
        [](auto... ownFields) {
          return Kelp::valueType<IgpResult_>(
              "Routing::Bgp::IgpResult_", Kelp::field("preferenceStorage", &IgpResult_::preferenceStorage),
              Kelp::field("tagStorage", &IgpResult_::tagStorage), Kelp::field("metric", &IgpResult_::metric),
              Kelp::field("dps", &IgpResult_::dps), ownFields...);
        },
        own);
  }
};

inline constexpr auto igpOutcome = IgpResult_::outcome();

// Calls f(outcomeField) for every outcome field in order.
template <typename F>
[[gnu::always_inline]] constexpr void forEachOutcomeField(F&& f) {
  std::apply([&](const auto&... field) { (f(field), ...); }, igpOutcome);
}

// True when the two results are the same outcome: every outcome field agrees (dps takes no part).
inline bool sameOutcome(const IgpResult_& a, const IgpResult_& b) {
  return std::apply([&](const auto&... f) { return ((a.*(f.inResult) == b.*(f.inResult)) && ...); }, igpOutcome);
}

// The record published for a result under `id`: its outcome, field by field.
BgpRedistribute::IgpResult outcomeRecord(const IgpResult_& result, std::uint32_t id);

}  // namespace Routing::Bgp

template <>
struct Kelp::TextForm<Routing::BgpRedistribute::IgpResultId> : Kelp::BareTextForm<Routing::BgpRedistribute::IgpResultId> {};

// The value-array form of the used slots: "[]", "[100, 200]".
template <>
struct Kelp::TextForm<Routing::BgpRedistribute::CommunityArray> {
  static void print(String& out, const Routing::BgpRedistribute::CommunityArray& a);
  static void parse(CharRange& r, Routing::BgpRedistribute::CommunityArray& a);
};

// Stored as the count (4 bytes) and the used slots (4 bytes each). A count above 4 is the array
// range error.
template <>
struct Kelp::ByteCodec<Routing::BgpRedistribute::CommunityArray> {
  using Array = Routing::BgpRedistribute::CommunityArray;
  static constexpr std::uint32_t kAlign = 4;
  static constexpr std::uint32_t kMin = 4;
  static constexpr std::uint32_t kMax = 4 + 4 * Array::kSlots;
  static std::uint32_t count(const std::uint8_t* in) {
    std::uint32_t n;
    std::memcpy(&n, in, 4);
    return n;
  }
  static std::uint32_t size(const Array& a) { return 4 + 4 * a.count(); }
  static void put(std::uint8_t* out, const Array& a) {
    const std::uint32_t n = a.count();
    std::memcpy(out, &n, 4);
    std::memcpy(out + 4, a.data(), 4u * n);
  }
  static void validate(const std::uint8_t* in) {
    if (count(in) > Array::kSlots) Routing::BgpRedistribute::throwArrayRange(count(in), Array::kSlots);
  }
  static std::uint64_t storedSize(const std::uint8_t* in) { return 4 + 4 * std::uint64_t{count(in)}; }
  static bool canonical(const std::uint8_t* in) { return count(in) <= Array::kSlots; }
  static constexpr bool kCanonicalWithinMax = true;  // a count above kSlots stores more than kMax
  // Reads the used slots without branching on how many there are (readers of the status table
  // decode records of every length in turn, and a mispredicted branch there costs more than this):
  // a slot beyond the count reads the count field, which is always there, and is masked to 0 as in
  // a fresh array. The table keeps the compiler from turning the selection back into branches.
  static void get(const std::uint8_t* in, Array& a) {
    static constexpr std::uint32_t kPresent[Array::kSlots + 1][Array::kSlots] = {
        {0, 0, 0, 0}, {1, 0, 0, 0}, {1, 1, 0, 0}, {1, 1, 1, 0}, {1, 1, 1, 1}};
    const std::uint32_t n = count(in);
    auto slot = [in, present = kPresent[n]](std::uint32_t i) { return count(in + 4 * (i + 1) * present[i]) & (0u - present[i]); };
    a.assignSlots(n, slot(0), slot(1), slot(2), slot(3));
  }
  // Before a canonical record is copied in whole from `w` (a copy of `from`), its field at byte
  // `offset`: slots past the count read 0, as get leaves them. The slots are masked a word at a
  // time, by what the count (read from `from`) keeps of each.
  [[gnu::always_inline]] static void tidyWords(std::uint64_t* w, const std::uint64_t* from, std::uint32_t offset) {
    static constexpr std::uint64_t kKept[Array::kSlots + 1][2] = {{0, 0},
                                                                   {0xFFFFFFFFu, 0},
                                                                   {~std::uint64_t{0}, 0},
                                                                   {~std::uint64_t{0}, 0xFFFFFFFFu},
                                                                   {~std::uint64_t{0}, ~std::uint64_t{0}}};
    auto* bytes = reinterpret_cast<unsigned char*>(w);
    if ((offset + 4) % 8 == 0) {
      // The count is the high half of the word before the slots.
      const std::uint64_t* kept = kKept[from[offset / 8] >> 32];
      w[(offset + 4) / 8] &= kept[0];
      w[(offset + 4) / 8 + 1] &= kept[1];
    } else {
      const std::uint64_t* kept = kKept[count(reinterpret_cast<const unsigned char*>(from) + offset)];
      std::uint64_t slots[2];
      std::memcpy(slots, bytes + offset + 4, 16);
      slots[0] &= kept[0];
      slots[1] &= kept[1];
      std::memcpy(bytes + offset + 4, slots, 16);
    }
  }
};

namespace Routing::BgpRedistribute {

// The record's byte form, from its description; inline, as the shared table's reader calls them
// per lookup.
static_assert(Kelp::ByteForm<IgpResult>::kMin == IgpResult::minSerializedLen &&
              Kelp::ByteForm<IgpResult>::kMax == IgpResult::maxSerializedLen && sizeof(IgpResult) == 64);
inline std::uint32_t IgpResult::serializeLen() const { return Kelp::ByteForm<IgpResult>::size(*this); }
inline void IgpResult::serialize(std::uint8_t* out) const { Kelp::ByteForm<IgpResult>::put(out, *this); }
inline std::uint32_t IgpResult::deserializeLen(std::span<const std::uint8_t> in) {
  return Kelp::ByteForm<IgpResult>::sizeAt(in);
}
[[gnu::always_inline]] inline bool IgpResult::wordsDecodable(const std::uint64_t* w, std::uint32_t len) {
  return Kelp::ByteForm<IgpResult>::canonical(reinterpret_cast<const std::uint8_t*>(w), len);
}
[[gnu::always_inline]] inline IgpResult IgpResult::fromWords(const std::uint64_t* w) {
  IgpResult r{IgpResultId()};
  Kelp::fromImage(w, r);
  return r;
}

}  // namespace Routing::BgpRedistribute
