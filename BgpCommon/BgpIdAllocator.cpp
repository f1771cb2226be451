#include "BgpCommon/BgpIdAllocator.h"

#include <fmt/format.h>

#include "platform/Kelp/Registry.h"
#include "platform/Pico/Format.h"

namespace Routing::Bgp {

BgpIdAllocator::BgpIdAllocator(const Kelp::String& name) : name_(name) {}

U32 BgpIdAllocator::largestAllocatedIdInc(U32 by) { return largestAllocatedId_ += by; }

U32 BgpIdAllocator::freeIdFront() const {
  return freeId_.head() != nullptr ? freeId_.head()->value : invalidId();
}

U32 BgpIdAllocator::freeIdBack() const {
  return freeId_.tail() != nullptr ? freeId_.tail()->value : invalidId();
}

void BgpIdAllocator::freeIdEnq(U32 id) { freeId_.enq().value = id; }

U32 BgpIdAllocator::freeIdDeq() {
  U32 id = invalidId();
  freeId_.deq([&id](const KelpFreeId& e) { id = e.value; });
  return id;
}

void BgpIdAllocator::freeIdIs(U32 index, U32 id) { freeId_.entryAt(index).value = id; }

void BgpIdAllocator::freeIdDel(U32 index) { freeId_.del(index); }

BgpIdAllocator::FreeIdQueue::iterator BgpIdAllocator::freeIdDel(FreeIdQueue::iterator it) {
  return freeId_.del(it);
}

void BgpIdAllocator::freeIdDelAll() { freeId_.delAll(); }

Kelp::String BgpIdAllocator::debugString() const {
  std::lock_guard<std::mutex> lock(mutex_);
  Kelp::String out = "BgpIdAllocator ";
  Kelp::TextForm<Kelp::String>::printQuoted(out, name_);
  fmt::format_to(std::back_inserter(out), " largestAllocatedId {} freeId [", largestAllocatedId_);
  bool first = true;
  for (const KelpFreeId& e : freeId_) {
    fmt::format_to(std::back_inserter(out), "{}{}", first ? "" : ", ", e.value);
    first = false;
  }
  out += "]";
  return out;
}

Kelp::Ptr<BgpIdAllocator> bgpIdAllocatorFactory(const Kelp::String& name) {
  return Kelp::makePtr<BgpIdAllocator>(name);
}

Kelp::Ptr<BgpIdAllocator> BgpIdAllocatorIs(const Kelp::String& name) { return bgpIdAllocatorFactory(name); }

Kelp::Ptr<BgpInstanceEpochAllocator> bgpInstanceEpochAllocatorFactory() {
  return Kelp::makePtr<BgpInstanceEpochAllocator>();
}

Kelp::Ptr<BgpInstanceEpochAllocator> BgpInstanceEpochAllocatorIs() { return bgpInstanceEpochAllocatorFactory(); }

namespace {
const Kelp::TypeInfo allocatorType = Kelp::entityType(
    "Routing::Bgp::BgpIdAllocator", {"allocate", "debugString", "free", "freeId", "invalidId", "largestAllocatedId"});
const Kelp::TypeInfo epochAllocatorType =
    Kelp::entityType("Routing::Bgp::BgpInstanceEpochAllocator",
                     {"allocate", "debugString", "free", "freeId", "invalidId", "largestAllocatedId"});
const Kelp::TypeInfo freeIdType = Kelp::entityType("Routing::Bgp::KelpFreeId", {"value"});
const Kelp::TypeModule module("BgpIdAllocator", {&allocatorType, &epochAllocatorType, &freeIdType});
}  // namespace

}  // namespace Routing::Bgp
