#pragma once
// Brim::HandleSet<T>: the set of handle pointers behind a dedup table.
//
// An open-addressing table of 8-octet slots, probed linearly and kept at most 3/4 full (removal
// marks included): a linear probe's run grows fast with the load, and at 7/8 a hit in a table
// just short of growing examined about four slots, with a mispredicted exit. A slot holds the handle's address in
// its low 48 bits and a 15-bit fingerprint of the handle's hash above it (bit 63 marks a live
// slot); 0 is an empty slot and 1 the mark of a removed one. Lookups are by a precomputed 32-bit
// hash and an equality test the caller gives, which is only run on handles whose fingerprint
// matches; removal is by address and never looks at the handles.
//
// Why not a general-purpose flat hash set of pointers: such a set keeps its control octets apart
// from its slots, so every operation first reads a control octet and then, in another cache line,
// the slot. Here the fingerprint sits in the slot: a hit reads one table line and then the handle
// (which it must touch anyway, to count the new reference), an insertion or a removal reads one
// table line. With hundreds of thousands of route keys neither the table nor the keys stay in the
// cache, and those lines are what interning and releasing cost. It is also an octet per slot
// smaller. Growth hashes every handle again (T::hash()), fetching the handles a few slots ahead.
//
//   Brim::HandleSet<Key> set;
//   set.insert(key, key->hash());                                   // known to be absent
//   Key* k = set.find(hash, [&](const Key* k) { return k->equals(content); });
//   set.erase(k, k->hash());
//
// Route keys come from BGP peers, and a key's hash is a fixed function of its content: a peer that
// knows it could send prefixes chosen to land in one run of slots and turn every lookup into a
// walk. So the slot a hash starts from is chosen by a multiplier drawn once per process from its
// hash seed (Kelp::processHashSeed), the multiply-shift family: for any two distinct hashes, the
// chance that they share a home is about that of random ones, whatever the peer chose. Keys with
// the same 32-bit hash still share a home; finding many such prefixes costs about 2^32 hashings
// each. The keys' own hash() values are not changed.
//
// Not thread-safe: the dedup table serializes access under its lock when it has one.

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <new>

#include "platform/Kelp/HashMap2018.h"
#include "platform/Pico/Assert.h"

namespace Brim {

template <typename T>
class HandleSet {
 public:
  HandleSet() = default;
  HandleSet(const HandleSet&) = delete;
  HandleSet& operator=(const HandleSet&) = delete;
  ~HandleSet() { freeSlots(slots_, capacity_); }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // Allocated slots (8 octets each).
  std::size_t capacity() const { return capacity_; }
  // Slot arrays of at least this many octets are mapped from the system rather than allocated,
  // and offered huge pages.
  static constexpr std::size_t kHugeBytes = std::size_t{2} << 20;
  static constexpr std::size_t kMappedBytes = kHugeBytes;

  // The handle with this hash that `equal` accepts, or null.
  template <typename Equal>
  T* find(std::uint32_t hash, Equal&& equal) const {
    if (capacity_ == 0) return nullptr;
    const std::uint64_t tag = tagOf(hash);
    for (std::size_t i = home(hash);; i = (i + 1) & mask_) {
      const std::uint64_t s = slots_[i];
      if (s == kEmpty) return nullptr;
      // Neither an empty nor a removed slot has the live bit that every tag carries.
      if ((s & kTagMask) == tag) {
        T* p = pointerOf(s);
        if (equal(static_cast<const T*>(p))) return p;
      }
    }
  }

  // Adds a handle known not to be in the set, under its hash.
  void insert(T* p, std::uint32_t hash) {
    const auto address = reinterpret_cast<std::uintptr_t>(p);
    PICO_ASSERT(address != 0 && (address & ~kPointerMask) == 0);
    if ((used_ + 1) * 4 > capacity_ * 3) grow();
    std::size_t i = home(hash);
    while ((slots_[i] & kLive) != 0) i = (i + 1) & mask_;
    if (slots_[i] == kEmpty) ++used_;  // a removed slot is reused as it stands
    slots_[i] = tagOf(hash) | address;
    ++size_;
  }

  // Removes the handle at this address, which is in the set under this hash.
  void erase(const T* p, std::uint32_t hash) {
    const std::uint64_t want = tagOf(hash) | reinterpret_cast<std::uintptr_t>(p);
    // Most members sit at their home or in the slot after it, and which varies from one to the
    // next: the first step picks between the two without a branch.
    std::size_t i = home(hash);
    i = (i + std::size_t{slots_[i] != want}) & mask_;
    while (slots_[i] != want) {
      PICO_ASSERT(slots_[i] != kEmpty);
      i = (i + 1) & mask_;
    }
    --size_;
    // A slot followed by a live or removed one becomes a removal mark (later members of the run are
    // found through it); one that ends its run is emptied, and so are the marks before it, which
    // end no search any more. Whether the run ends here is as good as random, so it picks the
    // value rather than a branch; marks to clear are rare.
    const bool endsRun = slots_[(i + 1) & mask_] == kEmpty;
    slots_[i] = endsRun ? kEmpty : kRemoved;
    used_ -= endsRun;
    for (i = (i - 1) & mask_; endsRun & (slots_[i] == kRemoved); i = (i - 1) & mask_) {
      slots_[i] = kEmpty;
      --used_;
    }
  }

  // How many slots past its home the handle at `p`, in the set under `hash`, sits: the extra steps
  // a lookup of it takes.
  std::size_t displacement(const T* p, std::uint32_t hash) const {
    const std::uint64_t want = tagOf(hash) | reinterpret_cast<std::uintptr_t>(p);
    std::size_t steps = 0;
    for (std::size_t i = home(hash); slots_[i] != want; i = (i + 1) & mask_) {
      PICO_ASSERT(slots_[i] != kEmpty);
      ++steps;
    }
    return steps;
  }

  template <typename F>
  void forEach(F&& f) const {
    for (std::size_t i = 0; i < capacity_; ++i) {
      if ((slots_[i] & kLive) != 0) f(pointerOf(slots_[i]));
    }
  }

 private:
  static constexpr std::uint64_t kEmpty = 0;
  static constexpr std::uint64_t kRemoved = 1;
  static constexpr std::uint64_t kLive = 1ull << 63;
  static constexpr std::uint64_t kPointerMask = (1ull << 48) - 1;
  static constexpr std::uint64_t kTagMask = ~kPointerMask;
  static constexpr std::size_t kMinCapacity = 8;
  static constexpr std::size_t kFetchAhead = 8;

  static std::uint64_t tagOf(std::uint32_t hash) { return kLive | (std::uint64_t{hash & 0x7FFF} << 48); }
  static T* pointerOf(std::uint64_t slot) { return reinterpret_cast<T*>(slot & kPointerMask); }
  // The first slot to probe: the top bits of the hash times the process's odd multiplier, which
  // also spreads a weak hash (a small counter, say) over the whole table.
  std::size_t home(std::uint32_t hash) const {
    return static_cast<std::size_t>((std::uint64_t{hash} * multiplier_) >> shift_);
  }
  // An odd 64-bit number from the process's seed (a splitmix64 step).
  static std::uint64_t processMultiplier() {
    static const std::uint64_t m = [] {
      std::uint64_t z = std::uint64_t{Kelp::processHashSeed()} + 0x9E3779B97F4A7C15ull;
      z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
      z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
      return (z ^ (z >> 31)) | 1;
    }();
    return m;
  }

  // Makes room for one more: doubles when live handles would fill more than 3/8 of the slots,
  // else rebuilds at the same size to clear the removed marks.
  void grow() {
    std::size_t capacity = capacity_ == 0 ? kMinCapacity : capacity_;
    if ((size_ + 1) * 8 > capacity * 3) capacity *= 2;
    rehash(capacity);
  }

  void rehash(std::size_t capacity) {
    std::uint64_t* old = slots_;
    const std::size_t oldCapacity = capacity_;
    slots_ = allocateSlots(capacity);
    capacity_ = capacity;
    mask_ = capacity - 1;
    shift_ = 64 - static_cast<unsigned>(__builtin_ctzll(capacity));
    used_ = size_;
    // The live slots first, packed at the front of the old array: whether a slot is live is as good
    // as random, and a branch on it in the loop below was mispredicted about once a handle.
    std::size_t live = 0;
    for (std::size_t j = 0; j < oldCapacity; ++j) {
      const std::uint64_t s = old[j];
      old[live] = s;
      live += (s & kLive) != 0;
    }
    PICO_ASSERT(live == size_);
    for (std::size_t j = 0; j < live; ++j) {
      // Fetch a handle a few ahead, so that reading the hashes overlaps their cache misses.
      if (j + kFetchAhead < live) __builtin_prefetch(pointerOf(old[j + kFetchAhead]));
      const std::uint64_t s = old[j];
      const std::uint32_t hash = pointerOf(s)->hash();
      std::size_t i = home(hash);
      while (slots_[i] != kEmpty) i = (i + 1) & mask_;
      slots_[i] = s;  // same hash, same fingerprint
    }
    freeSlots(old, oldCapacity);
  }

  // Slot arrays of a large table are mapped from the system directly, so that their pages go back
  // when the table goes (malloc may keep a freed block of that size for later), and are backed by
  // huge pages, which spare a random probe its page-table walk. Smaller ones come from malloc: a
  // small table learnt and lost over and over then finds its arrays' pages already resident,
  // where a fresh mapping faulted each page in again every time (27,693 IPv6 keys interned and
  // released over and over took 4.6 faults per thousand keys, about 7 ns a key on a virtual
  // machine). What malloc keeps is under 2 MiB. Zero-filled.
  static std::uint64_t* allocateSlots(std::size_t capacity) {
    const std::size_t bytes = capacity * sizeof(std::uint64_t);
    if (bytes < kMappedBytes) return new std::uint64_t[capacity]();
    void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) throw std::bad_alloc();
    ::madvise(p, bytes, MADV_HUGEPAGE);
    return static_cast<std::uint64_t*>(p);
  }
  static void freeSlots(std::uint64_t* slots, std::size_t capacity) {
    const std::size_t bytes = capacity * sizeof(std::uint64_t);
    if (bytes < kMappedBytes) {
      delete[] slots;
    } else {
      ::munmap(slots, bytes);
    }
  }

  std::uint64_t* slots_ = nullptr;
  std::size_t capacity_ = 0;  // a power of two, or 0 before the first insertion
  std::size_t mask_ = 0;
  unsigned shift_ = 64;
  std::uint64_t multiplier_ = processMultiplier();
  std::size_t size_ = 0;      // live slots
  std::size_t used_ = 0;      // live and removed slots: what a search may have to step over
};

}  // namespace Brim
