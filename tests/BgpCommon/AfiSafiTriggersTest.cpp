#include "BgpCommon/AfiSafiTriggers.h"

#include <gtest/gtest.h>

namespace Routing::Bgp {
namespace {

// Each row sets one family's trigger and states both families' triggers afterwards and the
// references the collection holds to each trigger.
TEST(AfiSafiTriggers, TriggerIsAddsReplacesAndRemoves) {
  const AfiSafi v4(afiIpv4, safiUnicast), v6(afiIpv6, safiUnicast), vpn4(afiIpv4, safiMplsVpn);
  auto triggers = afiSafiTriggersFactory();
  auto a = smTriggerFactory(), b = smTriggerFactory();
  struct Row { const char* what; AfiSafi key; Kelp::Ptr<SmTrigger> t, v4After, v6After; std::uint32_t aRefs, bRefs; };
  const Row rows[] = {
      {"null on a missing key: nothing", v4, nullptr, nullptr, nullptr, 0, 0},
      {"new entry", v4, a, a, nullptr, 1, 0},
      {"same trigger again: nothing", v4, a, a, nullptr, 1, 0},
      {"another family", v6, a, a, a, 2, 0},
      {"another trigger replaces, dropping the old reference", v4, b, b, a, 1, 1},
      {"null on a present key deletes", v6, nullptr, b, nullptr, 0, 1},
  };
  const std::uint32_t aOutside = a->references(), bOutside = b->references();  // a, b and the rows
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    triggers->triggerIs(row.key, row.t);
    EXPECT_EQ(triggers->trigger(v4), row.v4After);
    EXPECT_EQ(triggers->trigger(v6), row.v6After);
    EXPECT_EQ(a->references() - aOutside, row.aRefs);
    EXPECT_EQ(b->references() - bOutside, row.bRefs);
  }
  EXPECT_EQ(triggers->triggers().size(), 1u);
  EXPECT_EQ(triggers->triggerDel(vpn4), nullptr);  // missing
  EXPECT_EQ(triggers->triggerDel(v4), b);
  EXPECT_EQ(triggers->trigger(v4), nullptr);
  EXPECT_EQ(b->references(), bOutside);
  triggers->triggerIs(v4, a);
  triggers->triggerIs(vpn4, b);
  triggers->triggerDelAll();
  EXPECT_TRUE(triggers->triggers().empty());
}

}  // namespace
}  // namespace Routing::Bgp
