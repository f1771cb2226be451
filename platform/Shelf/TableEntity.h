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
// Record is a KelpShelf value type whose field `key` is its Key, ordered by operator<.
//
// Besides its named notifiees, a table has watchers: code that serves every kind of table alike
// (the tool, the Python module) hears each change as one TableChange, in the words of
// Shelf::Change, and reads the records with the generic members below.

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/Kelp/Registry.h"
#include "platform/Shelf/EntityManager.h"
#include "platform/Shelf/KelpShelf.h"

namespace KelpSharedMem {

// One change to a typed table: Shelf::Change with its key decoded. Scalar changes are the
// entity's own business and are not passed on.
template <typename Key>
struct TableChange {
  Shelf::Change::Kind kind;
  const Key* key = nullptr;  // for Shelf::Change::Kind::key
};

template <typename Key>
class TableWatcher {
 public:
  virtual ~TableWatcher() = default;
  virtual void onTableChange(const TableChange<Key>& change) = 0;
};

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

  // The generic face of every table (the entity's own members carry its own names).
  std::optional<Record> recordFind(const Key& key) const { return records_.find(key); }
  std::uint32_t recordCount() const { return records_.size(); }
  // Every record, ordered by key.
  std::vector<Record> recordsByKey() const {
    std::vector<Record> all;
    all.reserve(records_.size());
    records_.forEach([&](const Record& r) { all.push_back(r); });
    std::sort(all.begin(), all.end(), [](const Record& a, const Record& b) { return a.key < b.key; });
    return all;
  }
  const Kelp::Ptr<KelpShelf::CollectionControl>& recordControl() const { return records_.control(); }
  void watcherIs(TableWatcher<Key>* w) {
    if (std::find(watchers_.begin(), watchers_.end(), w) == watchers_.end()) watchers_.push_back(w);
  }
  void watcherDel(TableWatcher<Key>* w) { std::erase(watchers_, w); }

 protected:
  template <typename F>
  void recordForEach(F&& fn) const {
    records_.forEach(fn);
  }

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

  void recordControlIs(const Kelp::Ptr<KelpShelf::CollectionControl>& c) {
    this->listenTo(records_.control(), c);
    records_.controlIs(c);
  }

  void notifyKey(const Key& key) {
    this->notifyAll([&](Notifiee& n) { (n.*kOnKey)(key); });
    tellWatchers({Shelf::Change::Kind::key, &key});
  }
  void notifyQuiesced(bool quiesced) {
    this->notifyAll([&](Notifiee& n) { (n.*kOnQuiesced)(quiesced); });
    tellWatchers({quiesced ? Shelf::Change::Kind::writerClosed : Shelf::Change::Kind::writerOpen});
  }
  void notifyMountStatus() {
    this->notifyAll([](Notifiee& n) { (n.*kOnMountStatus)(); });
    tellWatchers({Shelf::Change::Kind::resync});
  }
  // A header scalar of the table changed (readers only).
  virtual void onScalarChange(std::uint32_t /*index*/) {}

  KelpShelf::Collection<Key, Record> records_;

 private:
  KelpShelf::CollectionControl* boundControl() const override { return records_.control().get(); }
  void onChange(const Shelf::Change& c) override {
    switch (c.kind) {
      case Shelf::Change::Kind::key:
        notifyKey(KelpShelf::KeyCodec<Key>::decode(c.key));
        break;
      case Shelf::Change::Kind::resync:
        notifyMountStatus();
        break;
      case Shelf::Change::Kind::writerClosed:
      case Shelf::Change::Kind::writerOpen:
        notifyQuiesced(c.kind == Shelf::Change::Kind::writerClosed);
        break;
      case Shelf::Change::Kind::scalar:
        onScalarChange(c.scalarIndex);
        break;
    }
  }
  // A watcher may leave while it is told.
  void tellWatchers(const TableChange<Key>& change) {
    if (watchers_.empty()) return;
    std::vector<TableWatcher<Key>*> copy = watchers_;
    for (TableWatcher<Key>* w : copy) w->onTableChange(change);
  }

  Kelp::Ptr<Entity> parent_;
  std::vector<TableWatcher<Key>*> watchers_;
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
