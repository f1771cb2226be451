#pragma once
// The shared-memory status tables of redistribution.
//
// IgpResultStatus publishes IgpResult records under their IgpResultId. The process that
// deduplicates policy results writes it; the processes that redistribute routes read it:
//
//   // writer: mounts routing/rib/igpResultStatus/vrf1 with room for 1024 records, empty
//   auto status = IgpResultStatus::createIgpResultStatusWriter("vrf1", em, 1024);
//   status->resultIs(record);
//
//   // reader, in another process
//   auto view = IgpResultStatus::createIgpResultStatusReader("vrf1", em);
//   std::optional<IgpResult> r = view->result(IgpResultId(7));
//   view->resultControl()->waitForChanges(1.0);   // then poll() to hear which keys changed
//   view->resultControl()->poll();
//
// Notifiees hear of each changed key (on the writer's side at once; on a reader's side when it
// polls), of the writer closing or a new one opening (quiesced), and of everything having to be
// read again (mount status: first attach, a new writer, a cleared table, or a reader that fell
// behind the change ring).

#include <optional>
#include <string_view>
#include <vector>

#include "BgpCommon/IgpPolicyTypes.h"
#include "platform/Shelf/EntityManager.h"
#include "platform/Shelf/KelpShelf.h"

// Result identifiers are small numbers handed out in sequence, so the number itself spreads them
// evenly over the buckets.
template <>
struct KelpShelf::KeyCodec<Routing::BgpRedistribute::IgpResultId> {
  static constexpr std::uint32_t maxSize = 4;
  static std::uint32_t encode(const Routing::BgpRedistribute::IgpResultId& id, std::uint8_t* out) {
    std::memcpy(out, &id.value, 4);
    return 4;
  }
  static Routing::BgpRedistribute::IgpResultId decode(Shelf::Bytes b) {
    std::uint32_t v = 0;
    std::memcpy(&v, b.data(), std::min<std::size_t>(b.size(), 4));
    return Routing::BgpRedistribute::IgpResultId(v);
  }
  static std::uint32_t hash(const Routing::BgpRedistribute::IgpResultId& id) { return id.value; }
};

namespace Routing::BgpRedistribute {

class IgpResultStatus : public KelpSharedMem::Entity, private KelpShelf::CollectionControl::Listener {
 public:
  static constexpr std::string_view kTypeName = "Routing::BgpRedistribute::IgpResultStatus";
  static constexpr std::string_view kMountPrefix = "routing/rib/igpResultStatus/";
  static constexpr std::string_view kCollection = "result";

  class Notifiee {
   public:
    virtual ~Notifiee() = default;
    virtual void onResult(IgpResultId /*key*/) {}
    virtual void onResultQuiesced(bool /*quiesced*/) {}
    virtual void onResultMountStatus() {}
  };

  // Mounts routing/rib/igpResultStatus/<name> for writing with room for `size` records and clears
  // it: a writer never inherits the records of an earlier run.
  static Kelp::Ptr<IgpResultStatus> createIgpResultStatusWriter(const Kelp::String& name,
                                                                const Kelp::Ptr<KelpSharedMem::EntityManager>& em,
                                                                std::uint32_t size);
  // Mounts the same path for reading; null when the path holds an entity of another type.
  static Kelp::Ptr<IgpResultStatus> createIgpResultStatusReader(const Kelp::String& name,
                                                                const Kelp::Ptr<KelpSharedMem::EntityManager>& em);
  static Kelp::String mountPath(const Kelp::String& name) { return Kelp::String(kMountPrefix) + name; }

  explicit IgpResultStatus(const Kelp::String& name) : KelpSharedMem::Entity(name) {}

  std::string_view typeName() const override { return kTypeName; }

  // The stored record, or none.
  std::optional<IgpResult> result(IgpResultId key) const { return result_.find(key); }
  // Calls fn(const IgpResult&) for every record.
  template <typename F>
  void resultForEach(F&& fn) const {
    result_.forEach(fn);
  }
  std::uint32_t resultCount() const { return result_.size(); }

  // Writer only. Inserts or replaces by key, then notifies; storing an equal record changes nothing.
  // A new key in a full table throws the table-full error.
  void resultIs(const IgpResult& r);
  // Writer only. Removes the record if present, then notifies.
  void resultDel(IgpResultId key);
  // Writer only. Removes every record, notifying each key.
  void resultDelAll();

  const Kelp::Ptr<KelpShelf::CollectionControl>& resultControl() const { return result_.control(); }
  void resultControlIs(const Kelp::Ptr<KelpShelf::CollectionControl>& c);
  void collectionControlIs(std::string_view collection, const Kelp::Ptr<KelpShelf::CollectionControl>& c) override;

  void resultNotify(IgpResultId key);
  void resultNotifyQuiesced(bool quiesced);
  void resultNotifyMountStatus();

  void notifieeIs(Notifiee* n);
  void notifieeDel(Notifiee* n);

 protected:
  // The last reference is gone: the control, which may outlive us, must stop calling us.
  void onZeroReferences() const override;

 private:
  void onKeyChange(Shelf::Bytes key) override;
  void onResync() override { resultNotifyMountStatus(); }
  void onQuiesced(bool quiesced) override { resultNotifyQuiesced(quiesced); }

  KelpShelf::Collection<IgpResultId, IgpResult> result_;
  std::vector<Notifiee*> notifiees_;
};

Kelp::Ptr<IgpResultStatus> igpResultStatusFactory(const Kelp::String& name);

}  // namespace Routing::BgpRedistribute
