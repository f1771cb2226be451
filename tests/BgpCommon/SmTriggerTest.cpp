#include "BgpCommon/SmTrigger.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Routing::Bgp {
namespace {

// Each row: 'i' triggerInc or 's' triggerIs with `arg`, the value afterwards (and triggerInc's
// result) and the notifications told so far.
TEST(SmTrigger, NotifiesOncePerChangeOnly) {
  auto t = smTriggerFactory();
  EXPECT_EQ(t->trigger(), 0u);
  std::vector<std::string> seen;
  Kelp::FunctionNotifiee machine([&](std::string_view attr) { seen.emplace_back(attr); });
  t->notifiees().notifieeIs(&machine);
  struct Row { char op; U32 arg, value; std::size_t notifications; };
  const Row rows[] = {
      {'i', 0, 0, 0},                    // nothing changes
      {'i', 1, 1, 1},                    // the usual kick
      {'s', 1, 1, 1},                    // same value: nobody told
      {'s', 4294967295u, 4294967295u, 2},
      {'i', 1, 0, 3},                    // wraps to 0, still a change
      {'i', 4294967295u, 4294967295u, 4},
      {'i', 2, 1, 5},
      {'s', 0, 0, 6},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.op << " " << row.arg);
    if (row.op == 'i') EXPECT_EQ(t->triggerInc(row.arg), row.value);
    else t->triggerIs(row.arg);
    EXPECT_EQ(t->trigger(), row.value);
    EXPECT_EQ(seen.size(), row.notifications);
  }
  EXPECT_EQ(seen, std::vector<std::string>(6, "trigger"));
}

// An observer may kick the trigger again while it is being told; each call still answers the value
// it set itself.
TEST(SmTrigger, ReentrantObserverLeavesEachCallItsOwnValue) {
  auto t = smTriggerFactory();
  int told = 0;
  Kelp::FunctionNotifiee machine([&](std::string_view) {
    if (++told == 1) t->triggerInc(1);
  });
  t->notifiees().notifieeIs(&machine);
  EXPECT_EQ(t->triggerInc(1), 1u);
  EXPECT_EQ(t->trigger(), 2u);
  EXPECT_EQ(told, 2);
}

}  // namespace
}  // namespace Routing::Bgp
