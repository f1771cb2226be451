#pragma once
// Policy results kept once each, numbered, and published for other processes.
//
// Many redistributed routes share one policy outcome. IgpResultTable interns each distinct
// IgpResult_ as one DedupIgpResult handle; the first time an outcome appears its table's lifetime
// notifiee gives it an identifier from an IgpResultIdAllocator and publishes the converted
// IgpResult record under that identifier in the shared-memory IgpResultStatus table. Routes carry
// only the identifier (their attribute-set identifier), which readers in other processes look up
// (see IgpResultStatusReaderHelper). When the last holder of a handle lets go, the record is
// deleted and then the identifier freed, so an identifier is only reused after its record is gone.
//
//   auto status = IgpResultStatus::createIgpResultStatusWriter("static", em, 4096);
//   Kelp::Ptr<IgpResultTable> table = igpResultTableFactory(status);
//   Kelp::Ptr<const DedupIgpResult> h = table->dedup(result);   // h->id(): 1, record 1 published
//   Kelp::Ptr<const DedupIgpResult> g = table->dedup(same);     // g == h, nothing published
//   h = g = nullptr;                                            // record 1 deleted, id 1 freed
//
// Two results are the same outcome when they agree on every field of IgpResult_::outcome():
// preference, tag, metric (two unset metrics agree), IS-IS level, OSPF metric type, both DN bits,
// OSPF domain id, OSPF route type and the used communities. The policy's own state (dps) takes no
// part: results differing only there share one handle, one identifier and one record.
//
// A table is used from one thread: its dedup set is built without its lock. Interning a new
// outcome into a full status table throws the table-full error and changes nothing.
//
// At trace level 8 the table writes a line per operation, naming it: "dedup", "lookup",
// "handleInitialized", "handleRemove" (and the allocator its "new" / "reuse" / "free" lines).

#include <cstdint>

#include "BgpCommon/BgpIdAllocator.h"
#include "BgpCommon/FilteredRtStatus.h"
#include "BgpCommon/IgpPolicyTypes.h"
#include "platform/Brim/Dedup.h"
#include "platform/Kelp/Ptr.h"

namespace Routing::Bgp {

// The allocator of IGP result identifiers: a BgpIdAllocator named "IgpResult".
class IgpResultIdAllocator : public BgpIdAllocator {
 public:
  IgpResultIdAllocator() : BgpIdAllocator("IgpResult") {}
};

// The one handle of a distinct policy result.
class DedupIgpResult final : public Brim::DedupHandle {
 public:
  // The content record a result is looked up by, without building a handle.
  struct Content : Brim::DedupContentHandle {
    explicit Content(const IgpResult_& r) : result(&r) {}
    const IgpResult_* result;
  };

  explicit DedupIgpResult(const IgpResult_& result) : result_(result), hash_(result.hash()) {}

  // A copy of the policy result, fixed for the handle's life.
  const IgpResult_& result() const { return result_; }
  // The allocated identifier; 0 until the table has inserted the handle.
  std::uint32_t id() const { return id_; }
  void idIs(std::uint32_t id) { id_ = id; }

  // The result's hash (kept: the set asks for it again when it grows).
  std::uint32_t hash() const override { return hash_; }
  // Same outcome (dps ignored).
  bool compare(const Brim::DedupHandleBase* other) const override {
    return sameOutcome(result_, static_cast<const DedupIgpResult*>(other)->result_);
  }
  bool compareByContent(const Brim::DedupContentHandle& content) const override {
    return sameOutcome(result_, *static_cast<const Content&>(content).result);
  }
  // True when the two results are the same outcome (IgpResult_::outcome(): everything but dps).
  static bool sameOutcome(const IgpResult_& a, const IgpResult_& b) { return Bgp::sameOutcome(a, b); }
  // Builds a new, un-interned handle from a Content record (the set's allocation callback).
  static Brim::DedupHandleBase* alloc(const Brim::DedupContentHandle& content) {
    return new DedupIgpResult(*static_cast<const Content&>(content).result);
  }

  const Brim::DedupHandleBase* dedupHandle() const { return this; }
  static const DedupIgpResult* fromDedupHandle(const Brim::DedupHandleBase* h) {
    return static_cast<const DedupIgpResult*>(h);
  }
  static DedupIgpResult* fromDedupHandleNonConst(Brim::DedupHandleBase* h) { return static_cast<DedupIgpResult*>(h); }

 private:
  IgpResult_ result_;
  std::uint32_t hash_;
  std::uint32_t id_ = 0;
};

Kelp::Ptr<DedupIgpResult> dedupIgpResultFactory(const IgpResult_& result);
Kelp::Ptr<DedupIgpResult> DedupIgpResultIs(const IgpResult_& result);

// Publishes a result when its handle enters the table and withdraws it when the handle leaves.
class IgpResultTableLTNotifiee : public Brim::DedupHashTableLifeTimeNotifiee {
 public:
  explicit IgpResultTableLTNotifiee(const Kelp::Ptr<BgpRedistribute::IgpResultStatus>& status)
      : igpResultStatus_(status) {}

  const Kelp::Ptr<BgpRedistribute::IgpResultStatus>& igpResultStatus() const { return igpResultStatus_; }
  const Kelp::Ptr<IgpResultIdAllocator>& idAllocator() const { return idAllocator_; }
  void idAllocatorIs(const Kelp::Ptr<IgpResultIdAllocator>& a) { idAllocator_ = a; }

  // Gives the handle a new identifier and publishes its record under it.
  void handleInsert(const Kelp::Ptr<Brim::DedupHandleBase>& handle) const override;
  // Deletes the handle's record, then frees its identifier.
  void handleRemove(Brim::DedupHandleBase* handle) const override;
  void handleNotificationStop(const Kelp::Ptr<const Brim::DedupHashTable>& table) const override;

  // The record published for a result: its outcome (every field but dps), under `id`.
  static BgpRedistribute::IgpResult recordOf(const IgpResult_& result, std::uint32_t id);

 private:
  const Kelp::Ptr<BgpRedistribute::IgpResultStatus> igpResultStatus_;
  Kelp::Ptr<IgpResultIdAllocator> idAllocator_;
};

class IgpResultTable : public Kelp::PtrInterface {
 public:
  // Stores the status table and runs handleInitialized().
  explicit IgpResultTable(const Kelp::Ptr<BgpRedistribute::IgpResultStatus>& status);

  const Kelp::Ptr<BgpRedistribute::IgpResultStatus>& igpResultStatus() const { return igpResultStatus_; }
  const Kelp::Ptr<Brim::DedupHashTableUnorderedSet>& dedupResultStatus() const { return dedupResultStatus_; }
  const Kelp::Ptr<IgpResultTableLTNotifiee>& igpResultTableLTNotifiee() const { return igpResultTableLTNotifiee_; }
  // The notifiee's allocator (null without a notifiee).
  Kelp::Ptr<IgpResultIdAllocator> idAllocator() const;
  bool initialized() const { return initialized_; }
  // Whether the dedup set takes its lock (false once initialised: one thread uses the table).
  bool useLock() const { return dedupResultStatus_ && dedupResultStatus_->useLock(); }

  // Builds the dedup set (without its lock), the notifiee and its allocator, and registers the
  // notifiee with the set. Run once, by the constructor.
  void handleInitialized();

  // The one handle for `result`, interned (identifier allocated, record published) when new.
  // Throws Shelf::TableFullException, changing nothing, when a new result finds the status table full.
  Kelp::Ptr<const DedupIgpResult> dedup(const IgpResult_& result);
  // The handle for `result` if it is interned, else null; never inserts.
  Kelp::Ptr<const DedupIgpResult> lookup(const IgpResult_& result) const;
  // The number of distinct results interned.
  std::size_t size() const { return dedupResultStatus_ ? dedupResultStatus_->size() : 0; }

  // The dedup set with that locking: the existing one when its locking matches, else a new one
  // (which reports to the current notifiee; handles of an older set keep theirs).
  Kelp::Ptr<Brim::DedupHashTableUnorderedSet> dedupResultStatusIs(bool useLock);
  Kelp::Ptr<Brim::DedupHashTableUnorderedSet> dedupResultStatusDel();
  // A new notifiee publishing into `status`; it takes over the allocator of the one it replaces
  // and becomes the dedup set's lifetime notifiee.
  Kelp::Ptr<IgpResultTableLTNotifiee> igpResultTableLTNotifieeIs(const Kelp::Ptr<BgpRedistribute::IgpResultStatus>& status);
  // Takes the notifiee out (the set stops reporting to it) and returns it.
  Kelp::Ptr<IgpResultTableLTNotifiee> igpResultTableLTNotifieeDel();

 private:
  void registerNotifiee();
  // The status table's writer when it has no room for another record, else null.
  const Shelf::Writer* fullStatusWriter() const;

  const Kelp::Ptr<BgpRedistribute::IgpResultStatus> igpResultStatus_;
  Kelp::Ptr<Brim::DedupHashTableUnorderedSet> dedupResultStatus_;
  Kelp::Ptr<IgpResultTableLTNotifiee> igpResultTableLTNotifiee_;
  bool initialized_ = false;
};

Kelp::Ptr<IgpResultTable> igpResultTableFactory(const Kelp::Ptr<BgpRedistribute::IgpResultStatus>& status);
Kelp::Ptr<IgpResultTable> IgpResultTableIs(const Kelp::Ptr<BgpRedistribute::IgpResultStatus>& status);
Kelp::Ptr<IgpResultIdAllocator> igpResultIdAllocatorFactory();
Kelp::Ptr<IgpResultIdAllocator> IgpResultIdAllocatorIs();

}  // namespace Routing::Bgp
