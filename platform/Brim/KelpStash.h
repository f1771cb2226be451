#pragma once
// KelpStash: the stash heap and the dedup variants whose objects live in it.
//
// The stash heap is a process-wide pool for small framework objects (at most kMaxPooledSize
// octets): objects of one size class are carved from 64 KiB slabs, each slab keeping the list of
// its own free blocks and a count of the blocks it has handed out, with a per-thread cache in
// front of each class so that allocating and freeing a key costs a few instructions and no lock.
// A pooled object costs exactly its size rounded up to 8 octets (no per-object header, unlike
// malloc's 16), which is what keeps an interned IPv4 route key at 24 octets. A thread cache refills
// from one slab at a time, taking the slab's whole free list in one step when it is short. A slab
// whose blocks have all come back leaves its class: a few are kept for reuse by any class, and
// the pages of the others go back to the system, so a table that is learnt and then lost does
// not keep its peak.
//
// Classes opt in by deriving from StashAllocated (an empty base, so it adds no size):
//   KelpStash::PtrInterface                 a framework object in the stash heap
//   KelpStash::DedupHandleWithTableInHeap   an interned handle in the stash heap
//   KelpStash::DedupHashTableUnorderedSet   a dedup table in the same heap as its handles
//
// heapStats() reports what is in use and reserved, which tests use to prove that nothing leaks
// (the pool hides its objects from a leak checker) and benchmarks to report memory per key. Under
// AddressSanitizer free blocks are poisoned, so a use after release is still reported.

#include <cstddef>
#include <cstdint>

#include "platform/Brim/Dedup.h"
#include "platform/Kelp/Ptr.h"

namespace KelpStash {

inline constexpr std::size_t kMaxPooledSize = 256;

// Allocates `size` octets, 8-aligned, from the pool (or from operator new above kMaxPooledSize).
void* allocate(std::size_t size);
// Frees what allocate(size) returned, with the same size.
void deallocate(void* p, std::size_t size) noexcept;

struct HeapStats {
  std::int64_t objectsInUse = 0;  // pooled objects allocated and not yet freed
  std::int64_t bytesInUse = 0;    // their sizes, rounded to the size class
  std::int64_t bytesReserved = 0; // slab memory taken from the system and not given back
};
HeapStats heapStats();

// Gives a class the stash heap as its allocator.
struct StashAllocated {
  static void* operator new(std::size_t size) { return allocate(size); }
  static void operator delete(void* p, std::size_t size) noexcept { deallocate(p, size); }
};

class PtrInterface : public Kelp::PtrInterface, public StashAllocated {};

// An interned handle allocated in the stash heap, beside the table that holds it.
class DedupHandleWithTableInHeap : public Brim::DedupHandleBase, public StashAllocated {};

// A dedup table allocated in the stash heap.
class DedupHashTableUnorderedSet : public Brim::DedupHashTableUnorderedSet, public StashAllocated {
 public:
  explicit DedupHashTableUnorderedSet(bool useLock) : Brim::DedupHashTableUnorderedSet(useLock) {}
};

}  // namespace KelpStash
