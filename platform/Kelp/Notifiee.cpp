#include "platform/Kelp/Notifiee.h"

#include <algorithm>

namespace Kelp {

Notifiee::~Notifiee() {
  if (list_ != nullptr) list_->notifieeDel(this);
}

NotifieeList::~NotifieeList() {
  for (Notifiee* n : entries_) {
    if (n != nullptr) n->list_ = nullptr;
  }
}

void NotifieeList::notifieeIs(Notifiee* n) {
  if (n == nullptr || n->list_ == this) return;
  if (n->list_ != nullptr) n->list_->notifieeDel(n);
  entries_.push_back(n);
  n->list_ = this;
  ++count_;
}

void NotifieeList::notifieeDel(Notifiee* n) {
  if (n == nullptr || n->list_ != this) return;
  auto it = std::find(entries_.begin(), entries_.end(), n);
  n->list_ = nullptr;
  --count_;
  if (notifying_ != 0) {
    *it = nullptr;  // a notification is walking the vector: leave the slot, compact afterwards
  } else {
    entries_.erase(it);
  }
}

void NotifieeList::notify(std::string_view attrName) {
  // Compacts the slots emptied during the outermost notification, also when a notifiee throws.
  struct Depth {
    NotifieeList& list;
    explicit Depth(NotifieeList& l) : list(l) { ++list.notifying_; }
    ~Depth() {
      if (--list.notifying_ == 0 && list.count_ != list.entries_.size()) {
        list.entries_.erase(std::remove(list.entries_.begin(), list.entries_.end(), nullptr),
                            list.entries_.end());
      }
    }
  } depth(*this);
  // Only the entries present now are told; the vector may grow meanwhile, so index, don't iterate.
  const std::size_t n = entries_.size();
  for (std::size_t i = 0; i < n; ++i) {
    if (Notifiee* e = entries_[i]) e->onAttributeChange(attrName);
  }
}

}  // namespace Kelp
