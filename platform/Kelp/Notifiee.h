#pragma once
// Observers of framework objects.
//
// An observable object keeps a NotifieeList and calls notify("attr") once for every change of one
// of its attributes (never when a setter stores the value already held). Observers derive from
// Notifiee, register with the list and are told the name of the attribute that changed:
//
//   struct Kicker : Kelp::Notifiee {
//     void onAttributeChange(std::string_view attr) override { if (attr == "trigger") run(); }
//   };
//   Kicker k;
//   trigger->notifiees().notifieeIs(&k);   // k.onAttributeChange("trigger") on every change
//
// FunctionNotifiee wraps a callable, for observers that are not classes of their own.
//
// A notifiee belongs to at most one list at a time and leaves it when destroyed; a list that is
// destroyed first detaches its notifiees. Notifiees may register, unregister (themselves or
// others) and be destroyed from inside onAttributeChange: an entry removed during a notification
// is not called afterwards, and one added during it is first called on the next change.
//
// Lists are not thread-safe: an object's attributes, its notifications and its notifiees'
// registrations belong to one thread at a time. A notifiee must not destroy the observed object
// (and so its list) from inside onAttributeChange.

#include <cstddef>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

namespace Kelp {

class NotifieeList;

class Notifiee {
 public:
  Notifiee() = default;
  Notifiee(const Notifiee&) = delete;
  Notifiee& operator=(const Notifiee&) = delete;
  virtual ~Notifiee();

  // Called once for every change of the attribute named `attrName` of the observed object.
  virtual void onAttributeChange(std::string_view attrName) = 0;

  // The list this notifiee is registered with, or null.
  NotifieeList* notifier() const { return list_; }

 private:
  friend class NotifieeList;
  NotifieeList* list_ = nullptr;
};

class NotifieeList {
 public:
  NotifieeList() = default;
  NotifieeList(const NotifieeList&) = delete;
  NotifieeList& operator=(const NotifieeList&) = delete;
  ~NotifieeList();

  // Registers `n` (leaving any other list it was on); registering twice is one registration.
  void notifieeIs(Notifiee* n);
  // Unregisters `n`; nothing happens when it is not registered here.
  void notifieeDel(Notifiee* n);
  // How many notifiees are registered.
  std::size_t notifiees() const { return count_; }

  // Tells every registered notifiee, once each, that attribute `attrName` changed.
  void notify(std::string_view attrName);

 private:
  std::vector<Notifiee*> entries_;  // removed entries are null until the outermost notify ends
  std::size_t count_ = 0;
  unsigned notifying_ = 0;          // depth of nested notify() calls
};

// A notifiee that calls a function with the changed attribute's name.
class FunctionNotifiee : public Notifiee {
 public:
  explicit FunctionNotifiee(std::function<void(std::string_view)> fn) : fn_(std::move(fn)) {}
  void onAttributeChange(std::string_view attrName) override { fn_(attrName); }

 private:
  std::function<void(std::string_view)> fn_;
};

}  // namespace Kelp
