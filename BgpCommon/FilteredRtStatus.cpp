#include "BgpCommon/FilteredRtStatus.h"

#include <algorithm>

#include "platform/Kelp/Registry.h"
#include "platform/Pico/Format.h"

namespace Routing::BgpRedistribute {

Kelp::Ptr<IgpResultStatus> IgpResultStatus::createIgpResultStatusWriter(
    const Kelp::String& name, const Kelp::Ptr<KelpSharedMem::EntityManager>& em, std::uint32_t size) {
  const Kelp::String path = mountPath(name);
  em->mount(path, kTypeName, {KelpSharedMem::MountMode::writer, {{Kelp::String(kCollection), size}}});
  Kelp::Ptr<IgpResultStatus> igpResultStatus = Kelp::ptrDynamicCast<IgpResultStatus>(em->entity(path));
  PICO_ASSERT(igpResultStatus);
  igpResultStatus->resultDelAll();
  return igpResultStatus;
}

Kelp::Ptr<IgpResultStatus> IgpResultStatus::createIgpResultStatusReader(
    const Kelp::String& name, const Kelp::Ptr<KelpSharedMem::EntityManager>& em) {
  const Kelp::String path = mountPath(name);
  em->mount(path, kTypeName, {KelpSharedMem::MountMode::reader, {}});
  return Kelp::ptrDynamicCast<IgpResultStatus>(em->entity(path));
}

void IgpResultStatus::resultIs(const IgpResult& r) {
  if (result_.set(r.key, r)) resultNotify(r.key);
}

void IgpResultStatus::resultDel(IgpResultId key) {
  if (result_.del(key)) resultNotify(key);
}

void IgpResultStatus::resultDelAll() {
  std::vector<IgpResultId> keys;
  if (!notifiees_.empty()) result_.forEach([&](const IgpResult& r) { keys.push_back(r.key); });
  result_.delAll();
  for (IgpResultId k : keys) resultNotify(k);
}

void IgpResultStatus::resultControlIs(const Kelp::Ptr<KelpShelf::CollectionControl>& c) {
  if (result_.control()) result_.control()->listenerIs(nullptr);
  result_.controlIs(c);
  if (c) c->listenerIs(this);
}

void IgpResultStatus::collectionControlIs(std::string_view collection, const Kelp::Ptr<KelpShelf::CollectionControl>& c) {
  PICO_ASSERT(collection == kCollection);
  resultControlIs(c);
}

void IgpResultStatus::onKeyChange(Shelf::Bytes key) {
  resultNotify(KelpShelf::KeyCodec<IgpResultId>::decode(key));
}

void IgpResultStatus::resultNotify(IgpResultId key) {
  std::vector<Notifiee*> copy = notifiees_;  // a notifiee may leave while it is told
  for (Notifiee* n : copy) n->onResult(key);
}

void IgpResultStatus::resultNotifyQuiesced(bool quiesced) {
  std::vector<Notifiee*> copy = notifiees_;
  for (Notifiee* n : copy) n->onResultQuiesced(quiesced);
}

void IgpResultStatus::resultNotifyMountStatus() {
  std::vector<Notifiee*> copy = notifiees_;
  for (Notifiee* n : copy) n->onResultMountStatus();
}

void IgpResultStatus::notifieeIs(Notifiee* n) {
  if (std::find(notifiees_.begin(), notifiees_.end(), n) == notifiees_.end()) notifiees_.push_back(n);
}

void IgpResultStatus::notifieeDel(Notifiee* n) {
  notifiees_.erase(std::remove(notifiees_.begin(), notifiees_.end(), n), notifiees_.end());
}

void IgpResultStatus::onZeroReferences() const {
  if (result_.control()) result_.control()->listenerIs(nullptr);
  delete this;
}

Kelp::Ptr<IgpResultStatus> igpResultStatusFactory(const Kelp::String& name) {
  return Kelp::makePtr<IgpResultStatus>(name);
}

namespace {

const KelpSharedMem::EntityTypeRegistration igpResultStatusType({
    IgpResultStatus::kTypeName,
    [](const Kelp::String& name) -> Kelp::Ptr<KelpSharedMem::Entity> { return igpResultStatusFactory(name); },
    {IgpResultStatus::kCollection, KelpShelf::KeyCodec<IgpResultId>::maxSize, IgpResult::maxSerializedLen},
});

const Kelp::TypeInfo igpResultStatusInfo =
    Kelp::entityType(IgpResultStatus::kTypeName, {"name", "result", "resultControl"});

const Kelp::TypeModule module("FilteredRtStatus", {&igpResultStatusInfo});

}  // namespace
}  // namespace Routing::BgpRedistribute
