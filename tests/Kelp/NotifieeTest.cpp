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
  list.notify("trigger");
  list.notifieeDel(&a);
  list.notifieeDel(&a);
  EXPECT_EQ(a.notifier(), nullptr);
  list.notify("x");
  EXPECT_EQ(seen, (std::vector<std::string>{"a:trigger", "b:trigger", "b:x"}));
  NotifieeList other;  // registering elsewhere leaves the first list
  other.notifieeIs(&b);
  EXPECT_EQ(list.notifiees(), 0u);
  EXPECT_EQ(b.notifier(), &other);
  {
    NotifieeList gone;
    gone.notifieeIs(&a);
  }
  EXPECT_EQ(a.notifier(), nullptr);  // a list destroyed first detaches its notifiees
}

// Notifiees that change the registrations while being notified: one removed is not called, one
// added is first called on the next change, one that removes itself does not make the next one
// skipped, and one destroyed leaves the list.
TEST(Notifiee, RegistrationChangesDuringNotification) {
  NotifieeList list;
  std::vector<std::string> seen;
  auto note = [&](const char* name) { return [&seen, name](std::string_view) { seen.push_back(name); }; };
  auto c = std::make_unique<FunctionNotifiee>(note("c"));
  FunctionNotifiee late(note("late")), d(note("d"));
  FunctionNotifiee a([&](std::string_view) {
    seen.push_back("a");
    c.reset();  // destroyed before its turn: leaves the list
    list.notifieeIs(&late);
  });
  FunctionNotifiee self([&](std::string_view) {
    seen.push_back("self");
    list.notifieeDel(&self);
  });
  for (Kelp::Notifiee* n : std::initializer_list<Kelp::Notifiee*>{&self, &a, c.get(), &d}) list.notifieeIs(n);
  list.notify("t");
  EXPECT_EQ(list.notifiees(), 3u);  // a, d, late
  list.notify("t");
  EXPECT_EQ(seen, (std::vector<std::string>{"self", "a", "d", "a", "d", "late"}));
}

}  // namespace
