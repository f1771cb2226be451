#pragma once
// KelpSharedMem: framework entities whose collections live in shared-memory tables, and the entity
// manager that mounts them.
//
// An entity type registers once (EntityTypeRegistration, at load time) with its qualified name, a
// factory and the one shared collection it owns. The entity manager mounts a path below its root
// (default $BGPCOMMON_SHM_ROOT, else /dev/shm/bgpcommon) in writer or reader mode: it builds the
// entity with the factory, creates or attaches the collection's table at that path and binds the
// collection's control to the entity. entity(path) then returns the entity.
//
//   auto em = Kelp::makePtr<KelpSharedMem::EntityManager>("/tmp/tables");
//   em->mount("routing/rib/igpResultStatus/vrf1", "Routing::BgpRedistribute::IgpResultStatus",
//             {KelpSharedMem::MountMode::writer, {{"result", 1024}}});
//   Kelp::Ptr<KelpSharedMem::Entity> e = em->entity("routing/rib/igpResultStatus/vrf1");
//
// Mount paths are relative to the root; "..", ".", empty components and absolute paths are refused
// with Kelp::RangeException.

#include <cstdint>
#include <map>
#include <mutex>
#include <string_view>
#include <vector>

#include "platform/Kelp/Ptr.h"
#include "platform/Kelp/TextForm.h"
#include "platform/Shelf/KelpShelf.h"

namespace KelpSharedMem {

class Entity : public Kelp::PtrInterface {
 public:
  explicit Entity(Kelp::String name) : name_(std::move(name)) {}

  const Kelp::String& name() const { return name_; }
  virtual std::string_view typeName() const = 0;
  // The facility binds the entity's shared collection to its control when it mounts the entity.
  virtual void collectionControlIs(std::string_view collection, const Kelp::Ptr<KelpShelf::CollectionControl>& c) = 0;

 private:
  Kelp::String name_;
};

// The part every entity with one shared collection has in common: its notifiee list, hearing the
// collection's control as its listener, and leaving the control when the last reference goes (the
// control may outlive the entity). Notifiee is the entity's own notifiee interface.
template <typename Notifiee>
class CollectionEntity : public Entity, protected KelpShelf::CollectionControl::Listener {
 public:
  using Entity::Entity;

  void notifieeIs(Notifiee* n) {
    for (Notifiee* m : notifiees_) {
      if (m == n) return;
    }
    notifiees_.push_back(n);
  }
  void notifieeDel(Notifiee* n) { std::erase(notifiees_, n); }

 protected:
  // Calls fn(notifiee) for each notifiee; a notifiee may leave while it is told.
  template <typename F>
  void notifyAll(F&& fn) const {
    std::vector<Notifiee*> copy = notifiees_;
    for (Notifiee* n : copy) fn(*n);
  }
  bool hasNotifiees() const { return !notifiees_.empty(); }

  // Makes this entity the listener of `next` (and no longer of `previous`).
  void listenTo(const Kelp::Ptr<KelpShelf::CollectionControl>& previous,
                const Kelp::Ptr<KelpShelf::CollectionControl>& next) {
    if (previous) previous->listenerIs(nullptr);
    if (next) next->listenerIs(this);
  }
  virtual KelpShelf::CollectionControl* boundControl() const = 0;

  void onZeroReferences() const override {
    if (KelpShelf::CollectionControl* c = boundControl()) c->listenerIs(nullptr);
    delete this;
  }

 private:
  std::vector<Notifiee*> notifiees_;
};

// The shared collection an entity type owns: its name and the largest key and value it stores.
struct CollectionSpec {
  std::string_view name;
  std::uint32_t keyMax;
  std::uint32_t valueMax;
};

struct EntityTypeEntry {
  std::string_view typeName;
  Kelp::Ptr<Entity> (*factory)(const Kelp::String& name);
  CollectionSpec collection;
};

// Makes an entity type known to every entity manager for as long as it lives (a file-scope object
// in the type's source file).
class EntityTypeRegistration {
 public:
  explicit EntityTypeRegistration(const EntityTypeEntry& entry);
  ~EntityTypeRegistration();
  EntityTypeRegistration(const EntityTypeRegistration&) = delete;
  EntityTypeRegistration& operator=(const EntityTypeRegistration&) = delete;

 private:
  EntityTypeEntry entry_;
};

const EntityTypeEntry* findEntityType(std::string_view typeName);

enum class MountMode : std::uint8_t { writer, reader };

// A collection's capacity, as the writer asks for it.
struct CollectionInfo {
  Kelp::String name;
  std::uint32_t capacity = 0;
};

struct MountInfo {
  MountMode mode = MountMode::reader;
  std::vector<CollectionInfo> collections;  // writer mode: one per collection of the type
};

class EntityManager : public Kelp::PtrInterface {
 public:
  // An empty root means $BGPCOMMON_SHM_ROOT, else /dev/shm/bgpcommon.
  explicit EntityManager(Kelp::String root = {});

  const Kelp::String& root() const { return root_; }

  // Mounts `path` with an entity of type `typeName` and returns the entity. A path mounted already
  // in the same mode answers its existing entity. Throws Kelp::RangeException for a refused path, an
  // unknown type, a writer mount without a capacity or a path mounted in the other mode;
  // Shelf::Exception when the table cannot be created.
  Kelp::Ptr<Entity> mount(const Kelp::String& path, std::string_view typeName, const MountInfo& info);
  // The entity mounted at `path`, or null.
  Kelp::Ptr<Entity> entity(const Kelp::String& path) const;
  // Forgets the mount (the entity lives on while referenced); false when nothing was mounted there.
  bool unmount(const Kelp::String& path);
  std::vector<Kelp::String> mountPaths() const;

 private:
  Kelp::String root_;
  mutable std::mutex mutex_;
  struct Mounted {
    MountMode mode;
    Kelp::Ptr<Entity> entity;
  };
  std::map<Kelp::String, Mounted> mounts_;
};

}  // namespace KelpSharedMem
