#pragma once
// Small non-zero identifiers, handed out and taken back for reuse.
//
// The agent numbers many kinds of objects with 32-bit identifiers that it stores compactly and
// publishes to other processes (the IGP result records are filed under one), so identifiers are
// kept small: a freed identifier is handed out again before a fresh one is made. Reuse is first in,
// first out (the identifier freed longest ago comes back first), which keeps an identifier unused
// for as long as possible after it is freed, giving readers that still hold it time to let go.
//
//   Kelp::Ptr<BgpIdAllocator> ids = bgpIdAllocatorFactory("IgpResultId");
//   U32 a = ids->allocate();   // 1
//   U32 b = ids->allocate();   // 2
//   ids->free(a);
//   ids->allocate();           // 1 again; then 3
//
// 0 (invalidId()) is never handed out and may never be freed. Nothing else is checked: an
// identifier freed twice is queued twice and handed out twice. allocate() and free() may be called
// from any thread: each allocator has a mutex of its own around its queue and counter. The queue
// accessors (freeIdEnq, freeIdDeq, ...) and largestAllocatedIdInc take no lock: they are for
// restoring or inspecting state while nobody allocates.
//
// At trace level 8 every allocate and free writes a line naming the allocator, whether the
// identifier was reused or new, and the identifier in hexadecimal:
//   "... allocate(): 0x5581c2d0 reuseIgpResultId id 0x2"

#include <mutex>

#include "platform/Kelp/LinkQueue.h"
#include "platform/Kelp/Ptr.h"
#include "platform/Kelp/TextForm.h"
#include "platform/Pico/Format.h"
#include "platform/Pico/Integers.h"

namespace Routing::Bgp {

// An identifier waiting in an allocator's queue for reuse, under its queue index.
class KelpFreeId : public Kelp::LinkQueueEntry<KelpFreeId, U32> {
 public:
  U32 value = 0;  // the freed identifier
};

class BgpIdAllocator : public Kelp::PtrInterface {
 public:
  using FreeIdQueue = Kelp::LinkQueue<KelpFreeId>;

  explicit BgpIdAllocator(const Kelp::String& name);

  // Only used in trace lines, to tell the allocators apart.
  const Kelp::String& name() const { return name_; }

  // A non-zero identifier: the one freed longest ago, or else largestAllocatedId + 1. Wrapping
  // past 4294967295 with nothing to reuse is fatal.
  U32 allocate();
  // Queues `id` for reuse. Freeing 0 is fatal.
  void free(U32 id);
  // The identifier no allocator hands out.
  static constexpr U32 invalidId() { return 0; }

  // The largest identifier ever handed out fresh; never goes down.
  U32 largestAllocatedId() const { return largestAllocatedId_; }
  // Adds `by` and returns the new value (no lock, no check).
  U32 largestAllocatedIdInc(U32 by);

  // The queue of identifiers waiting for reuse. The accessors below take no lock.
  const FreeIdQueue& freeId() const { return freeId_; }
  // The identifier at the head / tail of the queue; 0 when it is empty.
  U32 freeIdFront() const;
  U32 freeIdBack() const;
  // Appends `id` at the tail.
  void freeIdEnq(U32 id);
  // Removes the head and returns its identifier; 0 (and nothing changed) when empty.
  U32 freeIdDeq();
  // Sets the identifier of the entry with queue index `index`, making the entry at its place when
  // there is none (for restoring a saved queue).
  void freeIdIs(U32 index, U32 id);
  void freeIdDel(U32 index);
  FreeIdQueue::iterator freeIdDel(FreeIdQueue::iterator it);
  void freeIdDelAll();

  // "BgpIdAllocator 'NAME' largestAllocatedId N freeId [a, b, ...]" (takes the lock).
  Kelp::String debugString() const;

 private:
  const Kelp::String name_;
  mutable std::mutex mutex_;  // guards freeId_ and largestAllocatedId_ in allocate and free
  FreeIdQueue freeId_;
  U32 largestAllocatedId_ = 0;
};

// allocate() and free() are defined here, inline: callers allocate and free in tight loops, and a
// call into the library for each would cost as much as the work itself.
inline U32 BgpIdAllocator::allocate() {
  U32 id = invalidId();
  bool reused;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    reused = freeId_.deq([&id](const KelpFreeId& e) { id = e.value; });
    if (!reused) id = ++largestAllocatedId_;
  }
  PICO_FMTRACE(Pico::kTraceLevelOperational, " {} {}{} id {:#x}", static_cast<const void*>(this),
               reused ? "reuse" : "new", name_, id);
  // Reached only when the counter wrapped past 4294967295 with nothing to reuse.
  PICO_ASSERT(BgpIdAllocator::invalidId() != id);
  return id;
}

inline void BgpIdAllocator::free(U32 id) {
  PICO_FMTRACE(Pico::kTraceLevelOperational, " {} free {} id {:#x}", static_cast<const void*>(this), name_, id);
  PICO_ASSERT(BgpIdAllocator::invalidId() != id);
  std::lock_guard<std::mutex> lock(mutex_);
  freeId_.enq().value = id;
}

// The allocator of BGP instance epochs: every allocated value is a new epoch number (1 first).
class BgpInstanceEpochAllocator : public BgpIdAllocator {
 public:
  BgpInstanceEpochAllocator() : BgpIdAllocator("BgpInstanceEpoch") {}
};

Kelp::Ptr<BgpIdAllocator> bgpIdAllocatorFactory(const Kelp::String& name);
Kelp::Ptr<BgpIdAllocator> BgpIdAllocatorIs(const Kelp::String& name);
Kelp::Ptr<BgpInstanceEpochAllocator> bgpInstanceEpochAllocatorFactory();
Kelp::Ptr<BgpInstanceEpochAllocator> BgpInstanceEpochAllocatorIs();

}  // namespace Routing::Bgp
