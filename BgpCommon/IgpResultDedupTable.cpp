#include "BgpCommon/IgpResultDedupTable.h"

#include "platform/Kelp/Registry.h"
#include "platform/Pico/Format.h"
#include "platform/Shelf/Shelf.h"

namespace Routing::Bgp {

using BgpRedistribute::IgpResult;
using BgpRedistribute::IgpResultId;
using BgpRedistribute::IgpResultStatus;

// ---- DedupIgpResult ----------------------------------------------------------------------

Kelp::Ptr<DedupIgpResult> dedupIgpResultFactory(const IgpResult_& result) {
  return Kelp::makePtr<DedupIgpResult>(result);
}

Kelp::Ptr<DedupIgpResult> DedupIgpResultIs(const IgpResult_& result) { return dedupIgpResultFactory(result); }

// ---- IgpResultTableLTNotifiee ------------------------------------------------------------

IgpResult IgpResultTableLTNotifiee::recordOf(const IgpResult_& result, std::uint32_t id) {
  return outcomeRecord(result, id);
}

void IgpResultTableLTNotifiee::handleInsert(const Kelp::Ptr<Brim::DedupHandleBase>& handle) const {
  PICO_ASSERT(idAllocator_);
  DedupIgpResult* h = DedupIgpResult::fromDedupHandleNonConst(handle.get());
  h->idIs(idAllocator_->allocate());
  igpResultStatus_->resultIs(recordOf(h->result(), h->id()));
}

void IgpResultTableLTNotifiee::handleRemove(Brim::DedupHandleBase* handle) const {
  const std::uint32_t id = DedupIgpResult::fromDedupHandle(handle)->id();
  PICO_FMTRACE(Pico::kTraceLevelOperational, " {} handleRemove id {}", static_cast<const void*>(this), id);
  // The record goes first: once the identifier is free it may name another result.
  igpResultStatus_->resultDel(IgpResultId(id));
  idAllocator_->free(id);
}

void IgpResultTableLTNotifiee::handleNotificationStop(const Kelp::Ptr<const Brim::DedupHashTable>&) const {}

// ---- IgpResultTable ----------------------------------------------------------------------

IgpResultTable::IgpResultTable(const Kelp::Ptr<IgpResultStatus>& status) : igpResultStatus_(status) {
  handleInitialized();
}

Kelp::Ptr<IgpResultIdAllocator> IgpResultTable::idAllocator() const {
  return igpResultTableLTNotifiee_ ? igpResultTableLTNotifiee_->idAllocator() : nullptr;
}

void IgpResultTable::handleInitialized() {
  PICO_FMTRACE(Pico::kTraceLevelOperational, " {} handleInitialized", static_cast<const void*>(this));
  dedupResultStatusIs(false);
  igpResultTableLTNotifieeIs(igpResultStatus_);
  igpResultTableLTNotifiee_->idAllocatorIs(igpResultIdAllocatorFactory());
  registerNotifiee();
  initialized_ = true;
}

void IgpResultTable::registerNotifiee() {
  if (!dedupResultStatus_) return;
  dedupResultStatus_->lifeTimeNotifieeIs(igpResultTableLTNotifiee_);
  dedupResultStatus_->hasNotificationActiveIs(igpResultTableLTNotifiee_ != nullptr);
}

const Shelf::Writer* IgpResultTable::fullStatusWriter() const {
  const IgpResultTableLTNotifiee* n = igpResultTableLTNotifiee_.get();
  if (n == nullptr || !n->igpResultStatus()) return nullptr;
  const Kelp::Ptr<KelpShelf::CollectionControl>& control = n->igpResultStatus()->resultControl();
  if (!control || control->writer() == nullptr) return nullptr;
  const Shelf::Writer* w = control->writer();
  return w->occupancy() >= w->capacity() ? w : nullptr;
}

Kelp::Ptr<const DedupIgpResult> IgpResultTable::dedup(const IgpResult_& result) {
  PICO_ASSERT(dedupResultStatus_);
  const DedupIgpResult::Content content(result);
  const std::uint32_t hash = result.hash();
  Kelp::Ptr<DedupIgpResult> h;
  if (const Shelf::Writer* full = fullStatusWriter()) [[unlikely]] {
    // Only a result interned already can be answered. A new one is refused here, before the set
    // adopts it: the record could not be published, and the set's insertion cannot be undone.
    h = Brim::handleCast<DedupIgpResult>(dedupResultStatus_->find(content, hash));
    if (!h) {
      Pico::fmthrow<Shelf::TableFullException>("Shelf table full (occupancy:{} tableSize:{}) {}", full->occupancy(),
                                               full->capacity(), full->labels().tableName);
    }
  } else {
    h = dedupResultStatus_->findOrDedupAs<DedupIgpResult>(content, hash, &DedupIgpResult::alloc);
  }
  PICO_FMTRACE(Pico::kTraceLevelOperational, " {} dedup id {}", static_cast<const void*>(this), h->id());
  return h;
}

Kelp::Ptr<const DedupIgpResult> IgpResultTable::lookup(const IgpResult_& result) const {
  PICO_ASSERT(dedupResultStatus_);
  const DedupIgpResult::Content content(result);
  Kelp::Ptr<const DedupIgpResult> h =
      Brim::handleCast<DedupIgpResult>(dedupResultStatus_->find(content, result.hash()));
  PICO_FMTRACE(Pico::kTraceLevelOperational, " {} lookup id {}", static_cast<const void*>(this), h ? h->id() : 0);
  return h;
}

Kelp::Ptr<Brim::DedupHashTableUnorderedSet> IgpResultTable::dedupResultStatusIs(bool useLock) {
  if (dedupResultStatus_ && dedupResultStatus_->useLock() == useLock) return dedupResultStatus_;
  dedupResultStatus_ = Kelp::makePtr<Brim::DedupHashTableUnorderedSet>(useLock);
  registerNotifiee();
  return dedupResultStatus_;
}

Kelp::Ptr<Brim::DedupHashTableUnorderedSet> IgpResultTable::dedupResultStatusDel() {
  return std::exchange(dedupResultStatus_, nullptr);
}

Kelp::Ptr<IgpResultTableLTNotifiee> IgpResultTable::igpResultTableLTNotifieeIs(const Kelp::Ptr<IgpResultStatus>& status) {
  auto n = Kelp::makePtr<IgpResultTableLTNotifiee>(status);
  // Identifiers stay unique across the change: the new notifiee hands out from the same allocator.
  if (igpResultTableLTNotifiee_) n->idAllocatorIs(igpResultTableLTNotifiee_->idAllocator());
  igpResultTableLTNotifiee_ = n;
  registerNotifiee();
  return n;
}

Kelp::Ptr<IgpResultTableLTNotifiee> IgpResultTable::igpResultTableLTNotifieeDel() {
  Kelp::Ptr<IgpResultTableLTNotifiee> n = std::exchange(igpResultTableLTNotifiee_, nullptr);
  registerNotifiee();
  return n;
}

Kelp::Ptr<IgpResultTable> igpResultTableFactory(const Kelp::Ptr<IgpResultStatus>& status) {
  return Kelp::makePtr<IgpResultTable>(status);
}

Kelp::Ptr<IgpResultTable> IgpResultTableIs(const Kelp::Ptr<IgpResultStatus>& status) {
  return igpResultTableFactory(status);
}

Kelp::Ptr<IgpResultIdAllocator> igpResultIdAllocatorFactory() { return Kelp::makePtr<IgpResultIdAllocator>(); }

Kelp::Ptr<IgpResultIdAllocator> IgpResultIdAllocatorIs() { return igpResultIdAllocatorFactory(); }

namespace {
const Kelp::TypeInfo allocatorType =
    Kelp::entityType("Routing::Bgp::IgpResultIdAllocator",
                     {"allocate", "debugString", "free", "freeId", "invalidId", "largestAllocatedId"});
const Kelp::TypeInfo handleType = Kelp::entityType(
    "Routing::Bgp::DedupIgpResult", {"dedupHandle", "fromDedupHandle", "fromDedupHandleNonConst", "result"});
const Kelp::TypeInfo notifieeType =
    Kelp::entityType("Routing::Bgp::IgpResultTableLTNotifiee", {"igpResultStatus", "idAllocator"});
const Kelp::TypeInfo tableType = Kelp::entityType(
    "Routing::Bgp::IgpResultTable", {"dedup", "dedupResultStatus", "handleInitialized", "idAllocator", "igpResultStatus",
                                     "igpResultTableLTNotifiee", "initialized", "lookup", "useLock"});
const Kelp::TypeModule module("IgpResultDedupTable", {&allocatorType, &handleType, &notifieeType, &tableType});
}  // namespace

}  // namespace Routing::Bgp
