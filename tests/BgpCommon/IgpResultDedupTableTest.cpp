// Interning policy results: one handle, one identifier and one published record per outcome, seen
// by a reader of the shared table through its own mapping. (The flow across processes is the
// bgpcommon tool's demo, tests/tools/DemoCommandTest.cpp.)
#include "BgpCommon/IgpResultDedupTable.h"

#include <vector>

#include <gtest/gtest.h>

#include "platform/Shelf/TempRoot.h"
#include "tests/Support/PolicyResults.h"

namespace Routing::Bgp {
namespace {

using BgpRedistribute::IgpResult;
using BgpRedistribute::IgpResultId;
using BgpRedistribute::IgpResultStatus;
using testing_support::fullPolicyResult;
using Shelf::TempRoot;

IgpResult_ withTag(std::uint32_t tag) {
  IgpResult_ r;
  r.tagIs(tag);
  return r;
}
// The full result with some state of the policy library's own.
IgpResult_ fullWithOwnState() {
  IgpResult_ r = fullPolicyResult();
  r.dps = Kelp::makePtr<Kelp::PtrInterface>();
  return r;
}

class IgpResultDedupTableTest : public ::testing::Test {
 protected:
  TempRoot root;
  Kelp::Ptr<KelpSharedMem::EntityManager> em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  Kelp::Ptr<IgpResultStatus> status = IgpResultStatus::createIgpResultStatusWriter("dedup", em, 64);
  Kelp::Ptr<IgpResultTable> table = igpResultTableFactory(status);
  // A reader of the same file through its own read-only mapping.
  Kelp::Ptr<KelpSharedMem::EntityManager> readerEm = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  Kelp::Ptr<IgpResultStatus> view = IgpResultStatus::createIgpResultStatusReader("dedup", readerEm);

  std::uint32_t largestId() const { return table->idAllocator()->largestAllocatedId(); }
};

TEST_F(IgpResultDedupTableTest, EqualResultsShareOneHandleOneIdOneRecord) {
  EXPECT_EQ(table->lookup(fullPolicyResult()), nullptr);  // a lookup never inserts: no identifier taken
  auto ha = table->dedup(fullWithOwnState());
  auto hb = table->dedup(fullWithOwnState());
  EXPECT_EQ(ha.get(), hb.get());
  EXPECT_EQ(ha->id(), 1u);  // the first identifier of a fresh table
  EXPECT_EQ(table->lookup(fullPolicyResult()).get(), ha.get());
  EXPECT_EQ(ha->references(), 3u);  // ours and the table's: the lookup's reference is gone
  EXPECT_EQ(largestId(), 1u);
  EXPECT_EQ(status->resultCount(), 1u);
  // The record carries every field but dps, under the identifier.
  auto record = view->result(IgpResultId(1));
  ASSERT_TRUE(record);
  EXPECT_EQ(Kelp::valueToStrep(*record),
            "Value('Routing::BgpRedistribute::IgpResult', ** {'key': 1, 'preference': 110, 'ospfBitDn': True, "
            "'ospfv3BitDn': True, 'metric': 77, 'isisLevel': level2, 'ospfMetricType': type1, "
            "'ospfDomainId': 1234605616436508552, 'ospfRouteType': 5, 'tag': 4200, 'community': [100, 200]})");

  // A result that policy left alone is published as a default record.
  auto plain = table->dedup(IgpResult_());
  EXPECT_EQ(view->result(IgpResultId(plain->id())), IgpResult(IgpResultId(2)));
}

TEST_F(IgpResultDedupTableTest, EveryFieldButDpsTellsOutcomesApart) {
  // Each change of one field of the full result is an outcome of its own, even the OSPF domain and
  // route types, which the hash leaves out (they share the base's bucket).
  auto base = table->dedup(fullPolicyResult());
  std::vector<Kelp::Ptr<const DedupIgpResult>> held;
  for (const auto& change : testing_support::policyResultChanges()) {
    IgpResult_ r = fullPolicyResult();
    change.apply(r);
    held.push_back(table->dedup(r));
    EXPECT_NE(held.back().get(), base.get()) << change.what;
    EXPECT_EQ(held.back()->id(), held.size() + 1) << change.what;
  }
  EXPECT_EQ(status->resultCount(), held.size() + 1);
  // Unset metrics agree whatever their low bits.
  IgpResult_ r = fullPolicyResult();
  r.metric = Kelp::MaybeU63::fromRaw(Kelp::MaybeU63::kUnsetBit | 9);
  EXPECT_EQ(table->dedup(r).get(), held[2].get());
}

// A result leaves the table at its last release, or when the table removes it: either way its
// record is withdrawn first and its identifier then freed for the next new result.
TEST_F(IgpResultDedupTableTest, ALeavingResultWithdrawsItsRecordThenFreesItsId) {
  auto a = table->dedup(withTag(1));
  auto a2 = table->dedup(withTag(1));
  auto b = table->dedup(withTag(2));
  ASSERT_EQ(b->id(), 2u);
  a = nullptr;  // another holder remains
  EXPECT_TRUE(view->result(IgpResultId(1)));
  a2 = nullptr;  // the last one
  EXPECT_FALSE(view->result(IgpResultId(1)));
  EXPECT_EQ(status->resultCount(), 1u);
  EXPECT_EQ(table->size(), 1u);
  EXPECT_EQ(table->idAllocator()->freeIdFront(), 1u);
  // The next new result takes the freed identifier; its record replaces nothing of the old one.
  auto c = table->dedup(withTag(3));
  EXPECT_EQ(c->id(), 1u);
  EXPECT_EQ(view->result(IgpResultId(1))->tag.value, 3u);
  EXPECT_EQ(largestId(), 2u);
  // Interning the released result again makes it new: a fresh identifier.
  auto again = table->dedup(withTag(1));
  EXPECT_EQ(again->id(), 3u);
  // Removed by the table while still held.
  ASSERT_TRUE(table->dedupResultStatus()->remove(const_cast<DedupIgpResult*>(b.get())));
  EXPECT_FALSE(view->result(IgpResultId(2)));
  EXPECT_EQ(status->resultCount(), 2u);
  EXPECT_EQ(table->idAllocator()->freeIdFront(), 2u);
  auto d = table->dedup(withTag(2));
  EXPECT_NE(d.get(), b.get());
  EXPECT_EQ(d->id(), 2u);
  EXPECT_EQ(view->result(IgpResultId(2))->tag.value, 2u);
}

TEST_F(IgpResultDedupTableTest, AFullStatusTableRefusesNewResultsOnly) {
  auto t = igpResultTableFactory(IgpResultStatus::createIgpResultStatusWriter("full", em, 2));
  auto a = t->dedup(withTag(1));
  auto b = t->dedup(withTag(2));
  try {
    t->dedup(withTag(3));
    ADD_FAILURE() << "no exception";
  } catch (const Shelf::TableFullException& e) {
    EXPECT_STREQ(e.what(), "Shelf table full (occupancy:2 tableSize:2) routing/rib/igpResultStatus/full");
  }
  // Nothing changed, and outcomes interned already are still answered.
  EXPECT_EQ(t->size(), 2u);
  EXPECT_EQ(t->idAllocator()->largestAllocatedId(), 2u);
  EXPECT_EQ(t->dedup(withTag(2)).get(), b.get());
  a = nullptr;
  EXPECT_EQ(t->dedup(withTag(3))->id(), 1u);
}

TEST_F(IgpResultDedupTableTest, ALockedSetReportsToTheSameNotifiee) {
  auto old = table->dedup(withTag(1));
  auto locked = table->dedupResultStatusIs(true);
  EXPECT_TRUE(table->useLock());
  EXPECT_NE(locked.get(), old->getDedupHashTable());
  auto h = table->dedup(withTag(2));
  EXPECT_EQ(h->id(), 2u);  // one allocator for both sets
  EXPECT_TRUE(view->result(IgpResultId(2)));
  old = nullptr;  // the old set still withdraws its records
  EXPECT_FALSE(view->result(IgpResultId(1)));

  table->igpResultTableLTNotifieeDel();
  EXPECT_EQ(locked->lifeTimeNotifiee(), nullptr);
  EXPECT_EQ(table->dedup(withTag(3))->id(), 0u);  // nobody numbers or publishes it
  EXPECT_EQ(status->resultCount(), 1u);
}

}  // namespace
}  // namespace Routing::Bgp
