#include "platform/Shelf/EntityManager.h"

#include <algorithm>

#include "platform/Pico/Format.h"

namespace KelpSharedMem {

namespace {
struct TypeTable {
  std::mutex mutex;
  std::vector<const EntityTypeEntry*> specs;
};
TypeTable& typeTable() {
  static TypeTable* t = new TypeTable;  // never destroyed: registrations may go during exit
  return *t;
}
}  // namespace

EntityTypeRegistration::EntityTypeRegistration(const EntityTypeEntry& entry) : entry_(entry) {
  TypeTable& t = typeTable();
  std::lock_guard<std::mutex> lock(t.mutex);
  t.specs.push_back(&entry_);
}

EntityTypeRegistration::~EntityTypeRegistration() {
  TypeTable& t = typeTable();
  std::lock_guard<std::mutex> lock(t.mutex);
  t.specs.erase(std::remove(t.specs.begin(), t.specs.end(), &entry_), t.specs.end());
}

const EntityTypeEntry* findEntityType(std::string_view typeName) {
  TypeTable& t = typeTable();
  std::lock_guard<std::mutex> lock(t.mutex);
  for (const EntityTypeEntry* s : t.specs) {
    if (s->typeName == typeName) return s;
  }
  return nullptr;
}

EntityManager::EntityManager(Kelp::String root)
    : root_(root.empty() ? Shelf::Location::defaultRoot() : std::move(root)) {}

Kelp::Ptr<Entity> EntityManager::mount(const Kelp::String& path, std::string_view typeName, const MountInfo& info) {
  Shelf::Location where(root_, path);  // refuses paths that would leave the root
  std::lock_guard<std::mutex> lock(mutex_);
  if (auto it = mounts_.find(path); it != mounts_.end()) {
    if (it->second.mode != info.mode) {
      Pico::fmthrow<Kelp::RangeException>("Shelf mount {}: already mounted as {}", path,
                                          it->second.mode == MountMode::writer ? "writer" : "reader");
    }
    return it->second.entity;
  }

  const EntityTypeEntry* entry = findEntityType(typeName);
  if (entry == nullptr) Pico::fmthrow<Kelp::RangeException>("Shelf mount {}: unknown entity type '{}'", path, typeName);
  for (const CollectionInfo& c : info.collections) {
    if (c.name != entry->collection.name) {
      Pico::fmthrow<Kelp::RangeException>("Shelf mount {}: {} has no collection '{}'", path, typeName, c.name);
    }
  }
  const Shelf::Labels labels{Kelp::String(typeName), Kelp::String(entry->collection.name), path};
  Kelp::Ptr<KelpShelf::CollectionControl> control;
  if (info.mode == MountMode::writer) {
    auto c = std::find_if(info.collections.begin(), info.collections.end(),
                          [&](const CollectionInfo& i) { return i.name == entry->collection.name; });
    if (c == info.collections.end()) {
      Pico::fmthrow<Kelp::RangeException>("Shelf mount {}: a writer must give the capacity of collection '{}'", path,
                                          entry->collection.name);
    }
    control = KelpShelf::CollectionControl::writerFor(
        where, labels, Shelf::Geometry{c->capacity, entry->collection.keyMax, entry->collection.valueMax, 0});
  } else {
    control = KelpShelf::CollectionControl::readerFor(where, labels, entry->collection.keyMax, entry->collection.valueMax);
  }
  Kelp::Ptr<Entity> entity = entry->factory(where.leaf());
  PICO_ASSERT(entity && entity->typeName() == typeName);
  entity->collectionControlIs(entry->collection.name, control);
  mounts_.emplace(path, Mounted{info.mode, entity});
  PICO_FMTRACE(Pico::kTraceLevelOperational, " mount {} {} as {}", path, typeName,
               info.mode == MountMode::writer ? "writer" : "reader");
  return entity;
}

Kelp::Ptr<Entity> EntityManager::entity(const Kelp::String& path) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = mounts_.find(path);
  return it == mounts_.end() ? nullptr : it->second.entity;
}

bool EntityManager::unmount(const Kelp::String& path) {
  Kelp::Ptr<Entity> gone;  // released after the lock
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = mounts_.find(path);
  if (it == mounts_.end()) return false;
  gone = std::move(it->second.entity);
  mounts_.erase(it);
  return true;
}

std::vector<Kelp::String> EntityManager::mountPaths() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Kelp::String> out;
  for (const auto& [path, e] : mounts_) out.push_back(path);
  return out;
}

}  // namespace KelpSharedMem
