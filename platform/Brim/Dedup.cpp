#include "platform/Brim/Dedup.h"

#include <array>
#include <memory>

#include "platform/Pico/Assert.h"

namespace Brim {

namespace {

std::atomic<bool> assertIsDedupedDisabled{false};

// Table numbers: a two-level array of table pointers indexed by a 24-bit number. Handles store the
// number instead of a pointer; reads are lock-free, numbering and unnumbering take a mutex. A
// number is reused only after its table is gone, and a table cannot go while a handle refers to it.
class TableNumbers {
 public:
  static constexpr std::uint32_t kPageBits = 12;
  static constexpr std::uint32_t kPageSize = 1u << kPageBits;
  static constexpr std::uint32_t kPages = 1u << (24 - kPageBits);

  std::uint32_t add(DedupHashTable* table) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::uint32_t n;
    if (!free_.empty()) {
      n = free_.back();
      free_.pop_back();
    } else {
      PICO_ASSERT(next_ < kPages * kPageSize);
      n = next_++;
    }
    Page* page = pages_[n >> kPageBits].load(std::memory_order_acquire);
    if (page == nullptr) {
      page = new Page{};
      pages_[n >> kPageBits].store(page, std::memory_order_release);
    }
    (*page)[n & (kPageSize - 1)].store(table, std::memory_order_release);
    return n;
  }

  void remove(std::uint32_t n) {
    std::lock_guard<std::mutex> lock(mutex_);
    (*pages_[n >> kPageBits].load(std::memory_order_acquire))[n & (kPageSize - 1)].store(
        nullptr, std::memory_order_release);
    free_.push_back(n);
  }

  DedupHashTable* at(std::uint32_t n) const {
    const Page* page = pages_[n >> kPageBits].load(std::memory_order_acquire);
    return page == nullptr ? nullptr : (*page)[n & (kPageSize - 1)].load(std::memory_order_acquire);
  }

 private:
  using Page = std::array<std::atomic<DedupHashTable*>, kPageSize>;
  std::mutex mutex_;
  std::vector<std::uint32_t> free_;
  std::uint32_t next_ = 1;  // 0 means "no table"
  std::array<std::atomic<Page*>, kPages> pages_{};
};

TableNumbers& tableNumbers() {
  static TableNumbers* numbers = new TableNumbers;  // never destroyed: tables may die during exit
  return *numbers;
}

}  // namespace

// ---- DedupHandleBase -----------------------------------------------------------------------

bool DedupHandleBase::everDeduped() const {
  DedupState s = dedupState();
  return isDeduped() || s == DedupState::deduped || s == DedupState::removedAtRelease ||
         s == DedupState::removedByTable;
}

void DedupHandleBase::assertIsDeduped() const {
  if (assertIsDedupedDisabled.load(std::memory_order_relaxed)) return;
  PICO_ASSERT(isDeduped());
}

void DedupHandleBase::assertIsDedupedDisabledIs(bool disabled) {
  assertIsDedupedDisabled.store(disabled, std::memory_order_relaxed);
}

DedupHashTable* DedupHandleBase::getDedupHashTable() const {
  std::uint32_t w = word_.load(std::memory_order_acquire);
  if (stateOf(w) != DedupState::deduped) return nullptr;
  return DedupHashTable::tableNumbered(tableNumberOf(w));
}

void DedupHandleBase::setDedupHashTable(DedupHashTable* table) {
  tableNumberIs(table == nullptr ? 0 : table->number());
}

void DedupHandleBase::stateIs(DedupState s) const {
  std::uint32_t w = word_.load(std::memory_order_relaxed);
  word_.store((w & ~kStateMask) | static_cast<std::uint32_t>(s), std::memory_order_release);
}

void DedupHandleBase::tableNumberIs(std::uint32_t number) const {
  std::uint32_t w = word_.load(std::memory_order_relaxed);
  word_.store((w & ((1u << kTableShift) - 1)) | (number << kTableShift), std::memory_order_release);
}

void DedupHandleBase::deleteRefSlow() const {
  const std::uint32_t w = word_.load(std::memory_order_acquire);
  if (stateOf(w) == DedupState::deduped) {
    // Whether this release leaves only the table's reference is decided by the table, under its
    // lock when it has one.
    DedupHashTable::tableNumbered(tableNumberOf(w))->releaseFromHandle(this);
    return;
  }
  dropRef();
}

void DedupHandleBase::onZeroReferences() const {
  // An interned handle keeps its table alive until it is destroyed; that reference goes last.
  DedupHashTable* table = nullptr;
  DedupState s = dedupState();
  if (s == DedupState::deduped || s == DedupState::removedAtRelease || s == DedupState::removedByTable) {
    table = DedupHashTable::tableNumbered(tableNumber());
  }
  delete this;
  if (table != nullptr) table->dropHandleRef();
}

// ---- Notifiee ------------------------------------------------------------------------------

void DedupHashTableLifeTimeNotifiee::handleInsert(const Kelp::Ptr<DedupHandleBase>&) const {}
void DedupHashTableLifeTimeNotifiee::handleRemove(DedupHandleBase*) const {}
void DedupHashTableLifeTimeNotifiee::handleNotificationStop(const Kelp::Ptr<const DedupHashTable>&) const {}

// ---- DedupHashTable ------------------------------------------------------------------------

DedupHashTable::DedupHashTable(bool useLock) : useLock_(useLock), number_(tableNumbers().add(this)) {}

DedupHashTable::~DedupHashTable() { tableNumbers().remove(number_); }

DedupHashTable* DedupHashTable::tableNumbered(std::uint32_t number) {
  return number == 0 ? nullptr : tableNumbers().at(number);
}

std::size_t DedupHashTable::size() const {
  Guard g(*this);
  return storeSize();
}

void DedupHashTable::adoptLocked(DedupHandleBase* handle, bool stored) {
  const std::uint32_t w = handle->word_.load(std::memory_order_relaxed);
  handle->word_.store((w & ~(DedupHandleBase::kStateMask | (~0u << DedupHandleBase::kTableShift))) |
                          (number_ << DedupHandleBase::kTableShift) |
                          static_cast<std::uint32_t>(DedupState::deduped),
                      std::memory_order_release);
  // The table's reference and the caller's. A handle no one holds a reference to (one just built
  // by the table's allocation callback) is known to this thread alone, so its count is set with a
  // plain store: interning a new key then takes no locked instruction.
  if (handle->refCount() == 0) {
    handle->refs_.store(2, std::memory_order_relaxed);
  } else {
    handle->takeTwoRefs();
  }
  takeHandleRef();    // the handle's reference on its table
  if (!stored) storeInsert(handle);
  if (notifiee_ && hasNotificationActive()) notifiee_->handleInsert(Kelp::Ptr<DedupHandleBase>(handle));
}

void DedupHashTable::takeHandleRef() {
  if (useLock_) {
    newRef();
  } else if (handleRefs_++ == 0) {
    newRef();
  }
}

void DedupHashTable::dropHandleRef() {
  if (useLock_) {
    deleteRef();
  } else if (--handleRefs_ == 0) {
    deleteRef();
  }
}

Kelp::Ptr<DedupHandleBase> DedupHashTable::dedup(DedupHandleBase* handle) {
  PICO_ASSERT(handle != nullptr);
  if (handle->isDeduped() && handle->getDedupHashTable() == this) return Kelp::Ptr<DedupHandleBase>(handle);
  std::uint32_t hash = handle->hash();
  Guard g(*this);
  if (DedupHandleBase* found = storeFindHandle(*handle, hash)) {
    found->takeRef();
    return Kelp::Ptr<DedupHandleBase>::adopt(found);
  }
  PICO_ASSERT(handle->dedupState() == DedupState::neverDeduped);
  adoptLocked(handle, false);
  return Kelp::Ptr<DedupHandleBase>::adopt(handle);
}

Kelp::Ptr<DedupHandleBase> DedupHashTable::findOrDedup(const DedupContentHandle& content, std::uint32_t hash,
                                                       DedupAllocFn alloc) {
  Guard g(*this);
  bool inserted = false;
  DedupHandleBase* handle = storeFindOrInsert(content, hash, alloc, inserted);
  if (inserted) {
    PICO_ASSERT(handle->hash() == hash);
    adoptLocked(handle, true);
  } else {
    handle->takeRef();
  }
  return Kelp::Ptr<DedupHandleBase>::adopt(handle);
}

Kelp::Ptr<DedupHandleBase> DedupHashTable::find(const DedupContentHandle& content, std::uint32_t hash) const {
  Guard g(*this);
  DedupHandleBase* found = storeFindContent(content, hash);
  if (found == nullptr) return nullptr;
  found->takeRef();
  return Kelp::Ptr<DedupHandleBase>::adopt(found);
}

Kelp::Ptr<DedupHandleBase> DedupHashTable::lookup(const DedupHandleBase& like) const {
  std::uint32_t hash = like.hash();
  Guard g(*this);
  DedupHandleBase* found = storeFindHandle(like, hash);
  if (found == nullptr) return nullptr;
  found->takeRef();
  return Kelp::Ptr<DedupHandleBase>::adopt(found);
}

void DedupHashTable::notifyRemoveLocked(DedupHandleBase* handle) const {
  if (notifiee_ && hasNotificationActive()) notifiee_->handleRemove(handle);
}

bool DedupHashTable::remove(DedupHandleBase* handle) {
  {
    Guard g(*this);
    if (handle->dedupState() != DedupState::deduped || handle->tableNumber() != number_) return false;
    storeErase(handle);
    handle->stateIs(DedupState::removedByTable);
    notifyRemoveLocked(handle);
  }
  handle->dropRef();  // the table's reference; the caller still holds one
  return true;
}

void DedupHashTable::releaseFromHandle(const DedupHandleBase* handle) {
  auto* h = const_cast<DedupHandleBase*>(handle);
  if (!useLock_) {
    // Others may still copy and release the handle, so the count is re-checked atomically.
    if (h->dropRefIfOthersRemain()) return;
    // The caller's reference and the table's are the last two, and no one else can take another
    // (a lookup needs the table, which is this thread's): the handle leaves and goes.
    storeErase(h);
    h->stateIs(DedupState::removedAtRelease);
    notifyRemoveLocked(h);
    h->refs_.store(0, std::memory_order_relaxed);
    delete h;
    dropHandleRef();  // may destroy the table: nothing of it is used after this
    return;
  }
  // The releasing thread holds one reference, and through it the handle holds one on this table,
  // so the table is alive here whatever other threads do.
  bool leaves = false;
  {
    Guard g(*this);
    if (handle->dedupState() == DedupState::deduped) {
      // Under the lock the count can only grow through holders of other references, which would
      // make it larger than ours plus the table's; so equality here is final.
      if (handle->refCount() > DedupHandleBase::kTableRefs + 1) {
        handle->dropRefKnownNotLast();
        return;
      }
      storeErase(h);
      h->stateIs(DedupState::removedAtRelease);
      notifyRemoveLocked(h);
      leaves = true;
    }
  }
  if (leaves) handle->dropRefKnownNotLast();  // the table's reference
  handle->dropRef();                          // the caller's: destroys the handle if it was the last
}

std::vector<Kelp::Ptr<DedupHandleBase>> DedupHashTable::handles() const {
  std::vector<Kelp::Ptr<DedupHandleBase>> out;
  Guard g(*this);
  out.reserve(storeSize());
  storeForEach([&](DedupHandleBase* h) {
    h->takeRef();
    out.push_back(Kelp::Ptr<DedupHandleBase>::adopt(h));
  });
  return out;
}

Kelp::Ptr<const DedupHashTableLifeTimeNotifiee> DedupHashTable::lifeTimeNotifiee() const {
  Guard g(*this);
  return notifiee_;
}

void DedupHashTable::lifeTimeNotifieeIs(const Kelp::Ptr<const DedupHashTableLifeTimeNotifiee>& notifiee) {
  Kelp::Ptr<const DedupHashTableLifeTimeNotifiee> old;
  {
    Guard g(*this);
    if (notifiee_ == notifiee) return;
    old = std::exchange(notifiee_, notifiee);
  }
  if (old) old->handleNotificationStop(Kelp::Ptr<const DedupHashTable>(this));
}

// ---- DedupHashTableUnorderedSet ------------------------------------------------------------

DedupHashTableUnorderedSet::~DedupHashTableUnorderedSet() {
  // Every interned handle holds a reference on its table, so a dying table is empty.
  PICO_ASSERT(set_.empty());
}

std::size_t DedupHashTableUnorderedSet::capacity() const { return set_.capacity(); }

DedupHandleBase* DedupHashTableUnorderedSet::insertNewLocked(const DedupContentHandle& content, std::uint32_t hash,
                                                             DedupAllocFn alloc) {
  DedupHandleBase* handle = alloc(content);  // may throw: nothing has changed yet
  set_.insert(handle, hash);
  adoptLocked(handle, true);
  return handle;
}

DedupHandleBase* DedupHashTableUnorderedSet::storeFindContent(const DedupContentHandle& content,
                                                              std::uint32_t hash) const {
  return set_.find(hash, [&](const DedupHandleBase* h) { return h->compareByContent(content); });
}

DedupHandleBase* DedupHashTableUnorderedSet::storeFindHandle(const DedupHandleBase& like, std::uint32_t hash) const {
  return set_.find(hash, [&](const DedupHandleBase* h) { return h->compare(&like); });
}

void DedupHashTableUnorderedSet::storeInsert(DedupHandleBase* handle) { set_.insert(handle, handle->hash()); }

DedupHandleBase* DedupHashTableUnorderedSet::storeFindOrInsert(const DedupContentHandle& content, std::uint32_t hash,
                                                               DedupAllocFn alloc, bool& inserted) {
  DedupHandleBase* found = storeFindContent(content, hash);
  inserted = found == nullptr;
  if (found != nullptr) return found;
  DedupHandleBase* handle = alloc(content);
  set_.insert(handle, hash);
  return handle;
}

void DedupHashTableUnorderedSet::storeErase(const DedupHandleBase* handle) { set_.erase(handle, handle->hash()); }

std::size_t DedupHashTableUnorderedSet::storeSize() const { return set_.size(); }

void DedupHashTableUnorderedSet::storeForEach(const std::function<void(DedupHandleBase*)>& f) const {
  set_.forEach(f);
}

}  // namespace Brim
