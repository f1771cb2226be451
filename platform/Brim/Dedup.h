#pragma once
// The dedup-handle facility: interning of reference-counted values.
//
// Model. A dedup table holds at most one handle per distinct value. A handle is a reference-counted
// framework object (Kelp::PtrInterface) that knows how to hash itself and compare itself with
// another handle or with a plain content record. Interning a value answers the one handle the table
// holds for it, creating and inserting it when the value is new; so two interned handles of one
// table are equal exactly when they are the same object. The table holds one reference on each
// handle it contains. When a release leaves only the table's reference, the handle leaves the table
// and is destroyed; interning the same value later creates a new handle.
//
// Invariants:
//   - a handle is in at most one table, and only in state `deduped`;
//   - a table never holds two handles that compare equal;
//   - an interned handle holds a reference on its table from insertion until it is destroyed, so a
//     table outlives every handle it ever interned;
//   - with a locked table (useLock/multiThreaded true), the decision to remove a handle at its last
//     outside release is taken under the table's lock, after re-reading the count, and lookups take
//     their reference under the same lock: a lookup never returns a handle that is being removed,
//     and a value never has two handles in one table.
//
// Layers. DedupHashTable is the non-template core (locking, reference rule, notification);
// DedupHashTableUnorderedSet stores the handles in a Brim::HandleSet, an open-addressing set of
// tagged pointers searched by hash and an equality test, so that a content record on the stack
// finds its handle without allocating.
// Typed code stays thin on top: a key type overrides hash/compare/compareByContent and passes an
// allocation function that builds a key from its content record.
//
//   struct Key : Brim::DedupHandle { ... hash(), compare(), compareByContent() ... };
//   auto table = Kelp::makePtr<Brim::DedupHashTableUnorderedSet>(/*useLock=*/true);
//   Kelp::Ptr<Key> k = Brim::handleCast<Key>(table->findOrDedup(content, content.hash(), allocKey));
//   k = nullptr;   // the last outside reference: the key leaves the table

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <type_traits>
#include <vector>

#include "platform/Brim/HandleSet.h"
#include "platform/Kelp/Ptr.h"

namespace Brim {

class DedupHashTable;

// A content record: the plain value a handle is looked up by. It holds nothing itself; derived
// records carry the fields and the handle type's compareByContent reads them.
struct DedupContentHandle {
  bool operator==(const DedupContentHandle&) const { return true; }
};

// Where a handle stands with respect to tables. Kept in three bits of the handle.
enum class DedupState : std::uint8_t {
  neverDeduped = 0,      // built, never inserted into a table
  deduped = 1,           // in its table
  removedAtRelease = 2,  // was in a table, left it when only the table still referred to it
  removedByTable = 3,    // was in a table, taken out by DedupHashTable::remove()
  uncounted = 4,         // held by a table without a table reference (not produced by these tables)
};

class DedupHandleBase : public Kelp::PtrInterface {
 public:
  DedupHandleBase() = default;
  // A copy is a new, un-interned handle with no references.
  DedupHandleBase(const DedupHandleBase&) noexcept : Kelp::PtrInterface() {}
  DedupHandleBase& operator=(const DedupHandleBase&) noexcept { return *this; }

  DedupState dedupState() const { return stateOf(word_.load(std::memory_order_acquire)); }
  // True while the handle is in a table.
  virtual bool isDeduped() const { return dedupState() == DedupState::deduped; }
  // True when the handle is or was in a table.
  virtual bool everDeduped() const;
  // Fails the assertion "isDeduped()" unless the handle is deduped (and the check is switched on).
  virtual void assertIsDeduped() const;
  // The bucket hash; equal handles and matching content records must hash alike.
  virtual std::uint32_t hash() const = 0;
  // Value equality with another handle of the same table.
  virtual bool compare(const DedupHandleBase* other) const = 0;
  // Value equality with a content record of this handle's type.
  virtual bool compareByContent(const DedupContentHandle& content) const = 0;
  // The table holding this handle; null unless deduped.
  virtual DedupHashTable* getDedupHashTable() const;
  // Records the table that holds the handle (done by the table when it inserts the handle).
  virtual void setDedupHashTable(DedupHashTable* table);

  // Takes one reference, atomically when the framework's pointers are thread-safe.
  void newRef() const { takeRef(); }
  // Releases one reference. An interned handle whose release would leave only the table's
  // reference leaves its table; any other handle is destroyed when the count reaches zero.
  void deleteRef() const final;

  // Switches assertIsDeduped() off (true) or on (false) for the whole process.
  static void assertIsDedupedDisabledIs(bool disabled);

 protected:
  void onZeroReferences() const final;

 private:
  friend class DedupHashTable;

  // The table holds exactly one reference on each handle it contains.
  static constexpr std::uint32_t kTableRefs = 1;
  static constexpr std::uint32_t kStateMask = 0x7;
  static constexpr int kTableShift = 8;

  static DedupState stateOf(std::uint32_t w) { return static_cast<DedupState>(w & kStateMask); }
  static std::uint32_t tableNumberOf(std::uint32_t w) { return w >> kTableShift; }
  void stateIs(DedupState s) const;
  void tableNumberIs(std::uint32_t number) const;
  std::uint32_t tableNumber() const { return tableNumberOf(word_.load(std::memory_order_acquire)); }
  std::uint32_t refCount() const { return refs_.load(std::memory_order_acquire); }
  // The counts follow the framework's rule for every table, locked or not: a table without its
  // lock belongs to one thread, but a key it holds may still be copied and released by any thread
  // that was handed a reference, without ever touching the table.
  void takeRef() const { Kelp::PtrInterface::newRef(); }
  // Takes the table's reference and the caller's in one step (one locked instruction, not two).
  void takeTwoRefs() const {
#if KELP_THREAD_SAFE_PTR
    refs_.fetch_add(2, std::memory_order_relaxed);
#else
    refs_.store(refs_.load(std::memory_order_relaxed) + 2, std::memory_order_relaxed);
#endif
  }
  // Drops a reference that is known not to be the last one.
  void dropRefKnownNotLast() const { decrementRef(); }
  void dropRef() const {
    if (decrementRef() == 0) onZeroReferences();
  }
  // Drops one reference if others than the caller's and the table's remain; answers whether it did.
  bool dropRefIfOthersRemain() const {
    std::uint32_t c = refs_.load(std::memory_order_relaxed);
    while (c > kTableRefs + 1) {
#if KELP_THREAD_SAFE_PTR
      if (refs_.compare_exchange_weak(c, c - 1, std::memory_order_release, std::memory_order_relaxed)) return true;
#else
      refs_.store(c - 1, std::memory_order_relaxed);
      return true;
#endif
    }
    return false;
  }
  // deleteRef() when the release may be the last outside one.
  void deleteRefSlow() const;

  // Bits 0-2: DedupState. Bits 8-31: the number of the table that holds (or held) the handle,
  // 0 for none. The number is a compact stand-in for the table pointer (see
  // DedupHashTable::number) that fits beside the reference count, so an interned key costs 16
  // octets before its own fields.
  mutable std::atomic<std::uint32_t> word_{0};
};

inline void DedupHandleBase::deleteRef() const {
  // Others still refer to the handle beside the table and the caller: neither the last release
  // nor the one that takes the handle out of its table.
  if (dropRefIfOthersRemain()) return;
  deleteRefSlow();
}

// A handle allocated in ordinary process memory (for example an interned policy result).
class DedupHandle : public DedupHandleBase {};

// Told of a table's handles as they come and go. Called with the table's lock held: a notifiee
// must not call back into the table, and must not keep or take references to a handle in
// handleRemove (it is leaving).
class DedupHashTableLifeTimeNotifiee : public Kelp::PtrInterface {
 public:
  // A new handle has been inserted.
  virtual void handleInsert(const Kelp::Ptr<DedupHandleBase>& handle) const;
  // A handle has left the table (its last outside reference went, or it was removed).
  virtual void handleRemove(DedupHandleBase* handle) const;
  // The table no longer reports to this notifiee.
  virtual void handleNotificationStop(const Kelp::Ptr<const DedupHashTable>& table) const;
};

// Builds a new, un-interned handle from a content record (the allocation callback of findOrDedup).
using DedupAllocFn = DedupHandleBase* (*)(const DedupContentHandle& content);

class DedupHashTable : public Kelp::PtrInterface {
 public:
  DedupHashTable(const DedupHashTable&) = delete;
  DedupHashTable& operator=(const DedupHashTable&) = delete;
  ~DedupHashTable() override;

  // Whether operations take the table's internal lock (several threads may share the table).
  bool useLock() const { return useLock_; }
  bool multiThreaded() const { return useLock_; }
  std::size_t size() const;

  // Interns a ready handle: answers the equal handle already in the table, or inserts `handle`
  // (which must never have been deduped) and answers it.
  Kelp::Ptr<DedupHandleBase> dedup(DedupHandleBase* handle);
  // Interns by content: answers the handle equal to `content`, creating it with `alloc` and
  // inserting it when absent. `hash` is the content's hash, which the new handle must share.
  Kelp::Ptr<DedupHandleBase> findOrDedup(const DedupContentHandle& content, std::uint32_t hash,
                                         DedupAllocFn alloc);
  // Lookups that never insert: the handle equal to the content / to `like`, or null.
  Kelp::Ptr<DedupHandleBase> find(const DedupContentHandle& content, std::uint32_t hash) const;
  Kelp::Ptr<DedupHandleBase> lookup(const DedupHandleBase& like) const;
  // Takes `handle` out of this table (state removedByTable) and drops the table's reference.
  // Answers false when the handle is not in this table. The caller must hold a reference.
  bool remove(DedupHandleBase* handle);
  // Every handle in the table, each with a reference taken under the lock.
  std::vector<Kelp::Ptr<DedupHandleBase>> handles() const;

  // The lifetime notifiee. Replacing it tells the old one handleNotificationStop.
  Kelp::Ptr<const DedupHashTableLifeTimeNotifiee> lifeTimeNotifiee() const;
  void lifeTimeNotifieeIs(const Kelp::Ptr<const DedupHashTableLifeTimeNotifiee>& notifiee);
  // Notifications are delivered only while active.
  bool hasNotificationActive() const { return notificationActive_.load(std::memory_order_acquire); }
  void hasNotificationActiveIs(bool active) { notificationActive_.store(active, std::memory_order_release); }

  // The table's compact number, stored in its handles (1 .. 2^24-1, unique among live tables).
  std::uint32_t number() const { return number_; }
  static DedupHashTable* tableNumbered(std::uint32_t number);

 protected:
  explicit DedupHashTable(bool useLock);

  // Storage operations of a concrete table, always called with the lock held (when used).
  virtual DedupHandleBase* storeFindContent(const DedupContentHandle& content, std::uint32_t hash) const = 0;
  virtual DedupHandleBase* storeFindHandle(const DedupHandleBase& like, std::uint32_t hash) const = 0;
  virtual void storeInsert(DedupHandleBase* handle) = 0;
  // Answers the handle equal to `content`, or the one `alloc` builds, inserted in the same probe
  // (`inserted` tells which).
  virtual DedupHandleBase* storeFindOrInsert(const DedupContentHandle& content, std::uint32_t hash,
                                             DedupAllocFn alloc, bool& inserted) = 0;
  virtual void storeErase(const DedupHandleBase* handle) = 0;
  virtual std::size_t storeSize() const = 0;
  virtual void storeForEach(const std::function<void(DedupHandleBase*)>& f) const = 0;

 protected:
  class Guard {
   public:
    explicit Guard(const DedupHashTable& t) : mutex_(t.useLock_ ? &t.mutex_ : nullptr) {
      if (mutex_ != nullptr) mutex_->lock();
    }
    ~Guard() {
      if (mutex_ != nullptr) mutex_->unlock();
    }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

   private:
    std::mutex* mutex_;
  };

  // Adopts a handle found absent (inserting it unless `stored`); the lock is held. Leaves it with
  // the table's reference and the caller's.
  void adoptLocked(DedupHandleBase* handle, bool stored);
  static void takeRef(const DedupHandleBase* handle) { handle->takeRef(); }

 private:
  friend class DedupHandleBase;

  // The slow path of DedupHandleBase::deleteRef: the release may leave only the table's reference.
  void releaseFromHandle(const DedupHandleBase* handle);
  void notifyRemoveLocked(DedupHandleBase* handle) const;
  // Each interned handle holds a reference on its table until it is destroyed. A table without
  // its lock counts those plainly in handleRefs_ and holds one framework reference while any
  // are left; a locked one takes a framework reference per handle.
  void takeHandleRef();
  void dropHandleRef();

  const bool useLock_;
  std::uint32_t number_;
  std::uint64_t handleRefs_ = 0;  // unlocked tables only: handles referring to the table
  std::atomic<bool> notificationActive_{false};
  mutable std::mutex mutex_;
  Kelp::Ptr<const DedupHashTableLifeTimeNotifiee> notifiee_;  // guarded by mutex_
};

// The table on a Brim::HandleSet: one 8-octet slot per handle, holding its address and a
// fingerprint of its hash (see HandleSet.h for why not a general-purpose set).
class DedupHashTableUnorderedSet : public DedupHashTable {
 public:
  explicit DedupHashTableUnorderedSet(bool useLock) : DedupHashTable(useLock) {}
  ~DedupHashTableUnorderedSet() override;

  // The set's allocated slot count (for memory accounting).
  std::size_t capacity() const;

  // findOrDedup for one key type, with the set probe and the comparison compiled into the caller:
  // the typed front of interning (a route key table's dedupContent). Same contract as findOrDedup.
  template <typename Key, typename Content>
  Kelp::Ptr<Key> findOrDedupAs(const Content& content, std::uint32_t hash, DedupAllocFn alloc) {
    Guard g(*this);
    DedupHandleBase* handle = set_.find(
        hash, [&](const DedupHandleBase* h) { return static_cast<const Key*>(h)->compareByContent(content); });
    if (handle != nullptr) [[likely]] {
      takeRef(handle);
    } else {
      handle = insertNewLocked(content, hash, alloc);
    }
    return Kelp::Ptr<Key>::adopt(static_cast<Key*>(handle));
  }

 protected:
  DedupHandleBase* storeFindContent(const DedupContentHandle& content, std::uint32_t hash) const override;
  DedupHandleBase* storeFindHandle(const DedupHandleBase& like, std::uint32_t hash) const override;
  void storeInsert(DedupHandleBase* handle) override;
  DedupHandleBase* storeFindOrInsert(const DedupContentHandle& content, std::uint32_t hash, DedupAllocFn alloc,
                                     bool& inserted) override;
  void storeErase(const DedupHandleBase* handle) override;
  std::size_t storeSize() const override;
  void storeForEach(const std::function<void(DedupHandleBase*)>& f) const override;

 private:
  // Builds the handle for a content found absent, inserts and adopts it; the lock is held.
  DedupHandleBase* insertNewLocked(const DedupContentHandle& content, std::uint32_t hash, DedupAllocFn alloc);

  HandleSet<DedupHandleBase> set_;
};

// The typed view of a handle answered by a table (unchecked: the table's handles are all of the
// type its user inserts).
template <typename T>
Kelp::Ptr<T> handleCast(Kelp::Ptr<DedupHandleBase>&& p) {
  return Kelp::Ptr<T>::adopt(static_cast<T*>(p.release()));
}

}  // namespace Brim
