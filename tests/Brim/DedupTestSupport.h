#pragma once
// A minimal interned type for exercising the dedup facility without any routing type: a 64-bit
// number, looked up by a content record on the stack. Built on either handle base, so one suite
// covers the ordinary-heap and the stash-heap variants.

#include <cstdint>

#include "platform/Brim/Dedup.h"
#include "platform/Brim/HashMix.h"
#include "platform/Brim/KelpStash.h"

namespace testing_support {

struct NumberContent : Brim::DedupContentHandle {
  std::uint64_t n = 0;
  explicit NumberContent(std::uint64_t v) : n(v) {}
  static std::uint32_t hashOf(std::uint64_t v) {
    Brim::HashMix h;
    h.mixBytes8(v);
    return h.value();
  }
  std::uint32_t hash() const { return hashOf(n); }
};

template <typename Base>
struct NumberKey : Base {
  std::uint64_t n;
  explicit NumberKey(std::uint64_t v) : n(v) {}
  std::uint32_t hash() const override { return NumberContent::hashOf(n); }
  bool compare(const Brim::DedupHandleBase* other) const override {
    return static_cast<const NumberKey*>(other)->n == n;
  }
  bool compareByContent(const Brim::DedupContentHandle& c) const override {
    return static_cast<const NumberContent&>(c).n == n;
  }
  static Brim::DedupHandleBase* alloc(const Brim::DedupContentHandle& c) {
    return new NumberKey(static_cast<const NumberContent&>(c).n);
  }
  static Kelp::Ptr<NumberKey> intern(Brim::DedupHashTable& table, std::uint64_t v) {
    NumberContent c(v);
    return Brim::handleCast<NumberKey>(table.findOrDedup(c, c.hash(), &NumberKey::alloc));
  }
};

using HeapNumberKey = NumberKey<Brim::DedupHandle>;
using StashNumberKey = NumberKey<KelpStash::DedupHandleWithTableInHeap>;

}  // namespace testing_support
