#pragma once
// Kelp::LinkQueue: a first-in first-out queue of reference-counted entries keyed by a queue index.
//
// Entries are framework objects (LinkQueueEntry, a PtrInterface) linked forward from the head to
// the tail; each carries its queue index, which only grows from head to tail. The queue keeps
//   headIndex  the index of the head entry (for an empty queue: where the next entry will go),
//   nextIndex  the index given to the last appended entry (raised as entries are taken),
//   taken      how many entries were taken from the head,
//   size       how many entries it holds,
// and links to the head and the tail entry. The queue holds one reference on every entry it holds;
// others may take references of their own (Ptr<Entry>(&entry)) and keep an entry alive after the
// queue has let it go.
//
//   struct FreeId : Kelp::LinkQueueEntry<FreeId> { U32 value = 0; };
//   Kelp::LinkQueue<FreeId> q;
//   q.enq().value = 7;                                   // index 0
//   q.enq().value = 9;                                   // index 1
//   U32 v = 0;
//   q.deq([&](const FreeId& e) { v = e.value; });        // v == 7
//
// Queues that are filled and drained all the time (free lists) should not pay for an allocation
// per entry: an entry the queue lets go while nobody else refers to it is kept in a small cache of
// spare entries and handed out again by the next enq(). An entry's onZeroReferences() is therefore
// only called when another holder drops the last reference.
//
// Not thread-safe: the owner serializes access (the identifier allocator holds its mutex).

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <utility>

#include "platform/Kelp/Ptr.h"
#include "platform/Pico/Assert.h"

namespace Kelp {

template <typename Entry>
class LinkQueue;

// The part of a queue entry the queue manages: its index and the link to the entry behind it.
template <typename Derived, typename Index = std::uint32_t>
class LinkQueueEntry : public PtrInterface {
 public:
  using IndexType = Index;

  Index index() const { return index_; }

 private:
  template <typename>
  friend class LinkQueue;

  // The first reference, taken for the queue while nobody else can see the entry: no atomic
  // read-modify-write is needed.
  void queueRefIs() const { refs_.store(1, std::memory_order_relaxed); }
  // Drops the queue's reference. True when it was the last one, so the entry may be reused. When
  // the queue holds the only reference nobody can take a new one, so a load suffices; otherwise
  // the count is decremented as usual, and a holder that let go meanwhile makes it the last.
  bool queueRefDel() const {
    if (refs_.load(std::memory_order_acquire) == 1) {
      refs_.store(0, std::memory_order_relaxed);
      return true;
    }
    return decrementRef() == 0;
  }

  Index index_{};
  Derived* next_ = nullptr;  // the entry behind this one; the link holds the queue's reference
};

template <typename Entry>
class LinkQueue {
 public:
  using Index = typename Entry::IndexType;

  // Spare entries kept for reuse at most; beyond that, let-go entries are freed.
  static constexpr std::uint32_t kSpareLimit = 256;

  // Walks the entries from head to tail. It remembers the entry before the current one, so that
  // del(iterator) unlinks in constant time.
  class iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using pointer = const Entry*;
    using reference = const Entry&;

    iterator() = default;
    const Entry& operator*() const { return *cur_; }
    const Entry* operator->() const { return cur_; }
    iterator& operator++() {
      prev_ = cur_;
      cur_ = cur_->next_;
      return *this;
    }
    iterator operator++(int) {
      iterator old = *this;
      ++*this;
      return old;
    }
    friend bool operator==(const iterator& a, const iterator& b) { return a.cur_ == b.cur_; }

   private:
    friend class LinkQueue;
    iterator(Entry* prev, Entry* cur) : prev_(prev), cur_(cur) {}
    Entry* prev_ = nullptr;
    Entry* cur_ = nullptr;
  };
  using const_iterator = iterator;

  LinkQueue() = default;
  LinkQueue(const LinkQueue&) = delete;
  LinkQueue& operator=(const LinkQueue&) = delete;
  ~LinkQueue() {
    delAll();
    while (spare_ != nullptr) delete std::exchange(spare_, spare_->next_);
  }

  Index headIndex() const { return head_ != nullptr ? head_->index_ : emptyHeadIndex_; }
  Index nextIndex() const { return nextIndex_; }
  Index taken() const { return taken_; }
  Index size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // The head and tail entries; null when the queue is empty.
  const Entry* head() const { return head_; }
  const Entry* tail() const { return tail_; }

  iterator begin() const { return iterator(nullptr, head_); }
  iterator end() const { return iterator(tail_, nullptr); }

  // Appends a new entry at the tail and returns it for the caller to fill in (its payload is that
  // of a default-constructed Entry). Its index is the larger of the tail's index + 1 and
  // nextIndex, and becomes the new nextIndex.
  Entry& enq() {
    Index index = nextIndex_;
    if (tail_ != nullptr && Index(tailIndex_ + 1) > index) index = Index(tailIndex_ + 1);
    nextIndex_ = index;
    Entry* e = makeEntry(index);
    if (tail_ == nullptr) {
      head_ = e;
    } else {
      tail_->next_ = e;
    }
    tail_ = e;
    tailIndex_ = index;
    ++size_;
    PICO_ASSERT(tail_ != nullptr);
    return *e;
  }

  // Removes the head entry, showing it to take(const Entry&) first. False (and nothing changed)
  // when the queue is empty.
  template <typename F>
  bool deq(F&& take) {
    if (head_ == nullptr) return false;
    Entry* e = head_;
    head_ = e->next_;
    if (head_ == nullptr) {
      tail_ = nullptr;
      emptyHeadIndex_ = nextIndex_;
    } else if (Index(tailIndex_ + 1) > nextIndex_) {
      nextIndex_ = Index(tailIndex_ + 1);
    }
    ++taken_;
    --size_;
    std::forward<F>(take)(static_cast<const Entry&>(*e));
    letGo(e);
    return true;
  }

  // The entry with that index, or null. Looks at the head, then the tail, then walks.
  Entry* find(Index index) const {
    if (head_ == nullptr) return nullptr;
    if (head_->index_ == index) return head_;
    if (tailIndex_ == index) return tail_;
    for (Entry* e = head_->next_; e != nullptr; e = e->next_) {
      if (e->index_ == index) return e;
    }
    return nullptr;
  }

  // The entry with that index; a missing one is made and linked in at its place by index (a new
  // entry behind the tail raises nextIndex to its index, one before the head sets headIndex).
  Entry& entryAt(Index index) {
    if (Entry* e = find(index)) return *e;
    Entry* e = makeEntry(index);
    Entry* prev = nullptr;
    Entry* cur = head_;
    while (cur != nullptr && cur->index_ < index) {
      prev = cur;
      cur = cur->next_;
    }
    e->next_ = cur;
    if (prev == nullptr) {
      head_ = e;
    } else {
      prev->next_ = e;
    }
    if (cur == nullptr) {
      tail_ = e;
      tailIndex_ = index;
      if (index > nextIndex_) nextIndex_ = index;
    }
    ++size_;
    return *e;
  }

  // Removes the entry with that index; false when there is none.
  bool del(Index index) {
    Entry* prev = nullptr;
    for (Entry* e = head_; e != nullptr; prev = e, e = e->next_) {
      if (e->index_ == index) {
        unlink(prev, e);
        return true;
      }
    }
    return false;
  }

  // Removes the entry at `it` (which must be a valid, dereferenceable iterator of this queue) and
  // returns the iterator to the entry behind it.
  iterator del(iterator it) {
    PICO_ASSERT(it.cur_ != nullptr && (it.prev_ == nullptr ? head_ : it.prev_->next_) == it.cur_);
    Entry* next = it.cur_->next_;
    unlink(it.prev_, it.cur_);
    return iterator(it.prev_, next);
  }

  // Removes every entry.
  void delAll() {
    Entry* e = std::exchange(head_, nullptr);
    tail_ = nullptr;
    size_ = 0;
    emptyHeadIndex_ = nextIndex_;
    while (e != nullptr) {
      Entry* next = std::exchange(e->next_, nullptr);
      if (e->queueRefDel()) delete e;
      e = next;
    }
  }

 private:
  Entry* makeEntry(Index index) {
    Entry* e;
    if (spare_ != nullptr) {
      e = std::exchange(spare_, spare_->next_);
      --spareCount_;
      *e = Entry();  // payload back to its defaults; the reference count is left alone
    } else {
      e = new Entry();
    }
    e->index_ = index;
    e->next_ = nullptr;
    e->queueRefIs();
    return e;
  }

  void letGo(Entry* e) {
    e->next_ = nullptr;
    if (!e->queueRefDel()) return;
    if (spareCount_ < kSpareLimit) {
      e->next_ = spare_;
      spare_ = e;
      ++spareCount_;
    } else {
      delete e;
    }
  }

  void unlink(Entry* prev, Entry* e) {
    Entry* next = e->next_;
    if (prev == nullptr) {
      head_ = next;
      if (next == nullptr) emptyHeadIndex_ = nextIndex_;
    } else {
      prev->next_ = next;
    }
    if (e == tail_) {
      tail_ = prev;
      if (prev != nullptr) tailIndex_ = prev->index_;
    }
    --size_;
    letGo(e);
  }

  // The fields an enq or deq touches come first. The tail's index is kept here as well as in the
  // entry, and the head's index is read from the head entry, so that enq and deq touch no entry
  // but the one they add or remove and the tail they link to: with the owner's lock contended,
  // every entry touched inside it is a cache line that may have to come from the other core.
  Entry* head_ = nullptr;  // holds the queue's reference on the head entry
  Entry* tail_ = nullptr;
  Index tailIndex_{};       // the tail entry's index (meaningless when empty)
  Index nextIndex_{};
  Index size_{};
  Index taken_{};
  Entry* spare_ = nullptr;  // entries kept for reuse, linked through next_; no references held
  std::uint32_t spareCount_ = 0;
  Index emptyHeadIndex_{};  // headIndex() while the queue is empty
};

}  // namespace Kelp
