#pragma once
// KelpSharedMem::TableEntity: the one shape of an entity that publishes a single shared collection
// of records keyed by one of their fields.
//
// A typed status table (the IGP results by identifier, the filtered routes by prefix) is the same
// machine each time: a KelpShelf::Collection, a notifiee list told of each changed key, of the
// writer going quiet or coming back and of everything having to be read again, the binding of the
// collection's control, the facility's commit hook, and the registration of the type with the
// entity manager and the type registry. This template is that machine; a table names its record,
// key, notifiee callbacks and fixed names, and keeps only the members that carry its own names.
//
//   class ThingStatus : public KelpSharedMem::TableEntity<ThingStatus, ThingId, Thing, ThingNotifiee,
//                                                          &ThingNotifiee::onThing,
//                                                          &ThingNotifiee::onThingQuiesced,
//                                                          &ThingNotifiee::onThingMountStatus> {
//    public:
//     static constexpr std::string_view kTypeName = "Acme::ThingStatus";
//     static constexpr std::string_view kCollection = "thing";
//     static constexpr std::array<std::string_view, 3> kAttributes = {"name", "thing", "thingControl"};
//     ...
//   };
//   const KelpSharedMem::TableEntityRegistration<ThingStatus> thingStatusType;  // in the .cpp
//
// Record is a KelpShelf value type whose field `key` is its Key.

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/Kelp/Registry.h"
#include "platform/Shelf/EntityManager.h"
#include "platform/Shelf/KelpShelf.h"

namespace KelpSharedMem {

template <typename Derived, typename Key, typename Record, typename Notifiee, auto kOnKey, auto kOnQuiesced,
          auto kOnMountStatus>
class TableEntity : public CollectionEntity<Notifiee> {
 public:
  using KeyType = Key;
  using RecordType = Record;

  using CollectionEntity<Notifiee>::CollectionEntity;

  std::string_view typeName() const override { return Derived::kTypeName; }

  // The facility binds the collection to its control when it mounts the entity.
  void collectionControlIs(std::string_view collection, const Kelp::Ptr<KelpShelf::CollectionControl>& c) override {
    PICO_ASSERT(collection == Derived::kCollection);
    recordControlIs(c);
  }

  // The facility's hook after a record was committed to the table: the record's key changed, or,
  // with no record, any key may have.
  void recordCommit(const Record* r) {
    if (r != nullptr) {
      notifyKey(r->key);
    } else {
      notifyMountStatus();
    }
  }

  // The entity above this one in the mount tree, as the facility reports it; none for a table
  // mounted at the top.
  void handleParent(const Kelp::Ptr<Entity>& parent) { parent_ = parent; }
  const Kelp::Ptr<Entity>& parent() const { return parent_; }

  // A new, unmounted entity of this type for a directory entry of the mount tree.
  static Kelp::Ptr<Derived> newEntityForDir(const Kelp::String& name) { return Kelp::makePtr<Derived>(name); }

 protected:
  std::optional<Record> recordFind(const Key& key) const { return records_.find(key); }
  template <typename F>
  void recordForEach(F&& fn) const {
    records_.forEach(fn);
  }
  std::uint32_t recordCount() const { return records_.size(); }

  // Writer only. Inserts or replaces by key, then commits; storing an equal record changes nothing.
  void recordIs(const Record& r) {
    if (records_.set(r.key, r)) recordCommit(&r);
  }
  // Writer only. Removes the record if present, then notifies its key.
  void recordDel(const Key& key) {
    if (records_.del(key)) notifyKey(key);
  }
  // Writer only. Removes every record, notifying each key.
  void recordDelAll() {
    std::vector<Key> keys;
    if (this->hasNotifiees()) records_.forEach([&](const Record& r) { keys.push_back(r.key); });
    records_.delAll();
    for (const Key& k : keys) notifyKey(k);
  }

  const Kelp::Ptr<KelpShelf::CollectionControl>& recordControl() const { return records_.control(); }
  void recordControlIs(const Kelp::Ptr<KelpShelf::CollectionControl>& c) {
    this->listenTo(records_.control(), c);
    records_.controlIs(c);
  }

  void notifyKey(const Key& key) {
    this->notifyAll([&](Notifiee& n) { (n.*kOnKey)(key); });
  }
  void notifyQuiesced(bool quiesced) {
    this->notifyAll([&](Notifiee& n) { (n.*kOnQuiesced)(quiesced); });
  }
  void notifyMountStatus() {
    this->notifyAll([](Notifiee& n) { (n.*kOnMountStatus)(); });
  }

  KelpShelf::Collection<Key, Record> records_;

 private:
  KelpShelf::CollectionControl* boundControl() const override { return records_.control().get(); }
  void onKeyChange(Shelf::Bytes key) override { notifyKey(KelpShelf::KeyCodec<Key>::decode(key)); }
  void onResync() override { notifyMountStatus(); }
  void onQuiesced(bool quiesced) override { notifyQuiesced(quiesced); }

  Kelp::Ptr<Entity> parent_;
};

// True when `attributes` begins with the entity's name, its collection and the collection's
// control, in that order: the reflective names every table entity has, and the ones its own
// members carry.
template <typename T>
constexpr bool tableAttributesAreWellFormed() {
  constexpr std::string_view collection = T::kCollection;
  constexpr std::string_view control = T::kAttributes[2];
  return T::kAttributes.size() >= 3 && T::kAttributes[0] == "name" && T::kAttributes[1] == collection &&
         control.size() == collection.size() + 7 && control.substr(0, collection.size()) == collection &&
         control.substr(collection.size()) == "Control";
}

// Registers a table entity type, at load time, with every entity manager (factory and collection
// geometry) and with the type registry (its reflective attribute names).
template <typename T>
class TableEntityRegistration {
 public:
  static_assert(tableAttributesAreWellFormed<T>(), "a table's attributes start with name, collection, control");

  TableEntityRegistration()
      : entityType_({T::kTypeName,
                     [](const Kelp::String& name) -> Kelp::Ptr<Entity> { return T::newEntityForDir(name); },
                     {T::kCollection, KelpShelf::KeyCodec<typename T::KeyType>::maxSize,
                      T::RecordType::maxSerializedLen}}),
        typeInfo_(Kelp::entityType(T::kTypeName, T::kAttributes)) {}

  const Kelp::TypeInfo* typeInfo() const { return &typeInfo_; }

 private:
  EntityTypeRegistration entityType_;
  Kelp::TypeInfo typeInfo_;
};

}  // namespace KelpSharedMem
