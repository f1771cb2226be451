#pragma once
// DedupTablesHelper: creates the hash tables behind dedup tables.
//
// createDedupHashTable builds a Brim::DedupHashTableUnorderedSet in ordinary process memory;
// createStashDedupHashTable a KelpStash::DedupHashTableUnorderedSet in the stash heap, where the
// keys interned into it are allocated too. Both take the multiThreaded choice (the set's internal
// lock) and come back notification-active.
//
//   auto set = Routing::Bgp::DedupTablesHelperIs()->createStashDedupHashTable(/*multiThreaded=*/true);

#include "platform/Brim/KelpStash.h"
#include "platform/Kelp/Ptr.h"

namespace Routing::Bgp {

class DedupTablesHelper : public Kelp::PtrInterface {
 public:
  Kelp::Ptr<Brim::DedupHashTableUnorderedSet> createDedupHashTable(bool multiThreaded) const;
  Kelp::Ptr<KelpStash::DedupHashTableUnorderedSet> createStashDedupHashTable(bool multiThreaded) const;
};

// A new helper.
Kelp::Ptr<DedupTablesHelper> dedupTablesHelperFactory();
// The process's registered helper, created on first use.
Kelp::Ptr<DedupTablesHelper> DedupTablesHelperIs();

}  // namespace Routing::Bgp
