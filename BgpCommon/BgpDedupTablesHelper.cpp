#include "BgpCommon/BgpDedupTablesHelper.h"

#include "platform/Kelp/Registry.h"

namespace Routing::Bgp {

Kelp::Ptr<Brim::DedupHashTableUnorderedSet> DedupTablesHelper::createDedupHashTable(bool multiThreaded) const {
  auto t = Kelp::makePtr<Brim::DedupHashTableUnorderedSet>(multiThreaded);
  t->hasNotificationActiveIs(true);
  return t;
}

Kelp::Ptr<KelpStash::DedupHashTableUnorderedSet> DedupTablesHelper::createStashDedupHashTable(
    bool multiThreaded) const {
  auto t = Kelp::makePtr<KelpStash::DedupHashTableUnorderedSet>(multiThreaded);
  t->hasNotificationActiveIs(true);
  return t;
}

Kelp::Ptr<DedupTablesHelper> dedupTablesHelperFactory() { return Kelp::makePtr<DedupTablesHelper>(); }

Kelp::Ptr<DedupTablesHelper> DedupTablesHelperIs() {
  // Never released: the helper is stateless and tables may be created during exit.
  static DedupTablesHelper* helper = dedupTablesHelperFactory().release();
  return Kelp::Ptr<DedupTablesHelper>(helper);
}

namespace {
const Kelp::TypeInfo helperType = Kelp::entityType("Routing::Bgp::DedupTablesHelper",
                                                   {"createDedupHashTable", "createStashDedupHashTable"});
const Kelp::TypeModule module("BgpDedupTablesHelper", {&helperType});
}  // namespace

}  // namespace Routing::Bgp
