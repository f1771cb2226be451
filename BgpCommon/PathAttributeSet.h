#pragma once
// Path-attribute sets interned once each, as route keys are.
//
// In a full table most routes share their attributes with others: a peer announces thousands of
// prefixes with one AS path, next hop and community list, and a RIB keeps one copy of such a set
// for all of them. A PathAttributeSet is that copy: the attribute octets as they came (from an
// UPDATE or an MRT RIB entry), with the two session options that decide how they read (four-octet
// AS numbers, MRT's abbreviated MP_REACH_NLRI), in one block of the stash heap. Routes hold a
// reference to it; the set leaves its table with the last of them.
//
// The identity is the octets and the options: two sets are one exactly when their octets are equal
// and they read alike. Octets are not put in a canonical form first (a peer that orders its
// attributes differently sends another set): the octets are what a router passes on, so keeping
// them as read is what lets the set be written back unchanged, and comparing octets is one memcmp.
//
//   PathAttributeSetDedupTable table(/*multiThreaded=*/false);
//   Kelp::Ptr<const PathAttributeSet> a = table.dedup(route.attributeOctets, *route.options);
//   Kelp::Ptr<const PathAttributeSet> b = table.dedup(sameOctets, sameOptions);   // a == b
//   PathAttributes attrs;
//   ReadError e = a->read(attrs);   // the typed attributes, read again from the octets
//
// Memory: 24 octets of header (the dedup handle's 16, the options, the length), then the octets,
// the whole rounded up to 8; no hash is kept (the set hashes its octets again when the table
// grows), and the table's share is one 8-octet slot at most 7/8 full.

#include <cstdint>
#include <memory>
#include <new>
#include <span>
#include <vector>

#include "BgpCommon/BgpPathAttributes.h"
#include "platform/Brim/Dedup.h"
#include "platform/Brim/KelpStash.h"
#include "platform/Kelp/Ptr.h"

namespace Routing::Bgp {

class PathAttributeSet final : public KelpStash::DedupHandleWithTableInHeap {
 public:
  // The longest set: an attribute field's length is two octets.
  static constexpr std::size_t kMaxOctets = 65535;

  // What a set is looked up by: octets and options on the stack, hashed once.
  struct Content : Brim::DedupContentHandle {
    Content(std::span<const U8> o, const SessionOptions& options)
        : octets(o), mpReachWord(options.mrtAbbreviatedMpReach.value()), fourOctetAs(options.fourOctetAs) {}
    std::span<const U8> octets;
    std::uint32_t mpReachWord;  // SessionOptions::mrtAbbreviatedMpReach
    bool fourOctetAs;
    std::uint32_t hash() const { return hashOf(octets, mpReachWord, fourOctetAs); }
  };

  std::span<const U8> octets() const { return {reinterpret_cast<const U8*>(this + 1), length_}; }
  // The options the octets read with (the others as SessionOptions has them by default).
  SessionOptions options() const;
  // Reads the octets into `out` with options(): what readPathAttributes answers.
  ReadError read(PathAttributes& out) const;

  std::uint32_t hash() const override { return hashOf(octets(), mpReachWord_, fourOctetAs_ != 0); }
  bool compare(const Brim::DedupHandleBase* other) const override {
    auto* o = static_cast<const PathAttributeSet*>(other);
    return same(o->octets(), o->mpReachWord_, o->fourOctetAs_ != 0);
  }
  bool compareByContent(const Brim::DedupContentHandle& content) const override {
    auto& c = static_cast<const Content&>(content);
    return same(c.octets, c.mpReachWord, c.fourOctetAs);
  }

  // The allocation callback of the table: a new set holding a copy of the content's octets, in
  // one stash block of sizeof(PathAttributeSet) + the octets.
  static Brim::DedupHandleBase* alloc(const Brim::DedupContentHandle& content);
  // Sets are only made by alloc (their octets follow them in the same block) ...
  static void* operator new(std::size_t) = delete;
  // ... and freed with the size they were made with.
  void operator delete(PathAttributeSet* p, std::destroying_delete_t);

 private:
  explicit PathAttributeSet(const Content& c);
  static std::uint32_t hashOf(std::span<const U8> octets, std::uint32_t mpReachWord, bool fourOctetAs);
  bool same(std::span<const U8> o, std::uint32_t mpReachWord, bool fourOctetAs) const;

  std::uint32_t mpReachWord_;  // SessionOptions::mrtAbbreviatedMpReach's word
  std::uint16_t length_;       // of the octets after the object
  std::uint8_t fourOctetAs_;
};

// The canonical form of an MRT RIB entry's attributes, read with the record's options. RFC 6396
// section 4.3.4 has a RIB entry's MP_REACH_NLRI abbreviated to its next hop (length and address),
// the record giving the family and the prefix; some writers put the whole attribute there, whose
// NLRI restates the entry's own prefix, so that no two prefixes could share a set. A whole
// MP_REACH_NLRI of the record's family is rewritten in the abbreviated form (into `scratch`, which
// the answer then views), reading with the same next hop and, as the abbreviated form reads, no
// NLRI; any other octets are answered as they are.
std::span<const U8> ribEntryAttributes(std::span<const U8> octets, const SessionOptions& options,
                                       std::vector<U8>& scratch);

// The interning set of path-attribute sets (in the stash heap). With `multiThreaded`, several
// threads may intern and release sets at once.
class PathAttributeSetDedupTable : public Kelp::PtrInterface {
 public:
  explicit PathAttributeSetDedupTable(bool multiThreaded);

  // The one set of these octets read with these options, created when absent. Octets longer than
  // PathAttributeSet::kMaxOctets throw Kelp::RangeException, interning nothing.
  Kelp::Ptr<const PathAttributeSet> dedup(std::span<const U8> octets, const SessionOptions& options) const;
  // The same for the attributes of an MRT RIB entry, in their canonical form (ribEntryAttributes,
  // into `scratch`).
  Kelp::Ptr<const PathAttributeSet> dedupRibEntry(std::span<const U8> octets, const SessionOptions& options,
                                                  std::vector<U8>& scratch) const;
  // The set if it is interned, else null; never inserts.
  Kelp::Ptr<const PathAttributeSet> find(std::span<const U8> octets, const SessionOptions& options) const;
  // The number of distinct sets interned.
  std::size_t size() const { return table_->size(); }
  const Kelp::Ptr<KelpStash::DedupHashTableUnorderedSet>& hashTable() const { return table_; }

 private:
  Kelp::Ptr<KelpStash::DedupHashTableUnorderedSet> table_;
};

// One set as a table that does not count references answers it: its octets and the options they
// read with.
struct AttributeSetView {
  std::span<const U8> octets;
  SessionOptions options;
  // Reads the octets into `out` with `options`: what readPathAttributes answers.
  ReadError read(PathAttributes& out) const;
};

// Path-attribute sets packed one after another, for a table that keeps every set it interns until
// it is cleared whole, as a RIB loaded from a dump does. A set is named by a 32-bit number (where
// it lies in the store), so a route holds 4 octets for it instead of an 8-octet pointer, and costs
// its octets and a 3-octet header (its length and the index of its options among the few distinct
// ones), unaligned, in 1 MiB chunks that are filled in order and never moved. An index of 8-octet
// slots (hash and number) finds a set again; it is at most 3/4 full. No set leaves alone, so none
// carries a reference count or a virtual table: what PathAttributeSet spends on being released by
// its last holder. Identity is PathAttributeSet's: equal octets read with equal options.
//
//   PackedAttributeSets sets;
//   PackedAttributeSets::Number a = sets.intern(octets, options);
//   PackedAttributeSets::Number b = sets.intern(sameOctets, sameOptions);   // a == b
//   AttributeSetView v = sets[a];                                           // v.octets, v.read(attrs)
//   sets.clear();                                                           // every number let go
//
// Not thread-safe: one thread interns, any number read what was interned before they started.
class PackedAttributeSets {
 public:
  using Number = std::uint32_t;
  static constexpr unsigned kChunkBits = 20;

  PackedAttributeSets() = default;
  PackedAttributeSets(const PackedAttributeSets&) = delete;
  PackedAttributeSets& operator=(const PackedAttributeSets&) = delete;

  // The number of the set of these octets read with these options, stored when absent. Octets
  // longer than PathAttributeSet::kMaxOctets throw Kelp::RangeException, storing nothing; so does
  // a store past 4 GiB of sets or past 256 distinct options.
  Number intern(std::span<const U8> octets, const SessionOptions& options);
  // The same for the attributes of an MRT RIB entry, in their canonical form (ribEntryAttributes).
  Number internRibEntry(std::span<const U8> octets, const SessionOptions& options, std::vector<U8>& scratch) {
    return intern(ribEntryAttributes(octets, options, scratch), options);
  }
  // The set numbered `n` (a number this store answered since it was last cleared).
  AttributeSetView operator[](Number n) const;
  // The number of distinct sets stored.
  std::size_t size() const { return size_; }
  // Octets taken from the heap: the chunks (their unused tail included) and the index.
  std::size_t allocatedBytes() const;
  // Lets go of every set and of the memory they took.
  void clear();

 private:
  struct Options {
    std::uint32_t mpReachWord;  // SessionOptions::mrtAbbreviatedMpReach's word
    bool fourOctetAs;
  };
  static constexpr std::size_t kChunkBytes = std::size_t{1} << kChunkBits;
  static constexpr std::size_t kHeader = 3;

  const U8* at(Number n) const { return chunks_[n >> kChunkBits].get() + (n & (kChunkBytes - 1)); }
  std::uint8_t optionsIndex(const SessionOptions& options);
  Number append(std::span<const U8> octets, std::uint8_t options);
  void grow();

  std::vector<std::unique_ptr<U8[]>> chunks_;
  std::size_t used_ = kChunkBytes;  // octets filled in chunks_.back() (none yet: a new one is due)
  // Open addressing, probed linearly: hash << 32 | (number + 1), 0 when empty; a power of 2 long.
  std::vector<std::uint64_t> slots_;
  std::size_t size_ = 0;
  std::vector<Options> options_;  // the distinct options, by the index a set's header holds
  std::uint8_t lastOptions_ = 0;  // the index the last set interned had (most dumps have one or two)
};

}  // namespace Routing::Bgp
