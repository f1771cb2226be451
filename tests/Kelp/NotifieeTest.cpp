#include "platform/Kelp/Notifiee.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Kelp::FunctionNotifiee;
using Kelp::NotifieeList;

TEST(Notifiee, EachRegisteredNotifieeIsToldOncePerChange) {
  NotifieeList list;
  std::vector<std::string> seen;
  FunctionNotifiee a([&](std::string_view attr) { seen.push_back("a:" + std::string(attr)); });
  FunctionNotifiee b([&](std::string_view attr) { seen.push_back("b:" + std::string(attr)); });
  list.notifieeIs(&a);
  list.notifieeIs(&b);
  list.notifieeIs(&a);  // already there: still one registration
  EXPECT_EQ(list.notifiees(), 2u);
  list.notify("trigger");
  EXPECT_EQ(seen, (std::vector<std::string>{"a:trigger", "b:trigger"}));
  EXPECT_EQ(a.notifier(), &list);

  list.notifieeDel(&a);
  list.notifieeDel(&a);
  seen.clear();
  list.notify("x");
  EXPECT_EQ(seen, (std::vector<std::string>{"b:x"}));
  EXPECT_EQ(a.notifier(), nullptr);

  NotifieeList other;  // registering elsewhere leaves the first list
  other.notifieeIs(&b);
  EXPECT_EQ(list.notifiees(), 0u);
  EXPECT_EQ(b.notifier(), &other);
}

// Notifiees that change the registrations while being notified.
TEST(Notifiee, RegistrationChangesDuringNotification) {
  NotifieeList list;
  std::vector<std::string> seen;
  std::unique_ptr<FunctionNotifiee> c;
  FunctionNotifiee late([&](std::string_view) { seen.push_back("late"); });
  FunctionNotifiee a([&](std::string_view) {
    seen.push_back("a");
    list.notifieeDel(c.get());  // c, not yet called, is not called
    list.notifieeIs(&late);     // late is first called on the next change
  });
  FunctionNotifiee self([&](std::string_view) {
    seen.push_back("self");
    list.notifieeDel(&self);
  });
  c = std::make_unique<FunctionNotifiee>([&](std::string_view) { seen.push_back("c"); });
  FunctionNotifiee d([&](std::string_view) { seen.push_back("d"); });
  list.notifieeIs(&self);
  list.notifieeIs(&a);
  list.notifieeIs(c.get());
  list.notifieeIs(&d);
  list.notify("t");
  EXPECT_EQ(seen, (std::vector<std::string>{"self", "a", "d"}));
  EXPECT_EQ(list.notifiees(), 3u);  // a, d, late
  seen.clear();
  list.notify("t");
  EXPECT_EQ(seen, (std::vector<std::string>{"a", "d", "late"}));

  // A notifiee destroyed from inside a notification leaves the list and is not called.
  auto doomed = std::make_unique<FunctionNotifiee>([&](std::string_view) { seen.push_back("doomed"); });
  FunctionNotifiee killer([&](std::string_view) {
    seen.push_back("killer");
    doomed.reset();
  });
  NotifieeList list2;
  list2.notifieeIs(&killer);
  list2.notifieeIs(doomed.get());
  seen.clear();
  list2.notify("t");
  list2.notify("t");
  EXPECT_EQ(seen, (std::vector<std::string>{"killer", "killer"}));
  EXPECT_EQ(list2.notifiees(), 1u);
}

TEST(Notifiee, ListDestroyedFirstDetachesItsNotifiees) {
  FunctionNotifiee n([](std::string_view) {});
  {
    NotifieeList list;
    list.notifieeIs(&n);
  }
  EXPECT_EQ(n.notifier(), nullptr);  // and n's destructor touches no list
}

}  // namespace
