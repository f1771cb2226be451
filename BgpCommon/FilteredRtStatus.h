#pragma once
// The shared-memory status tables of redistribution.
//
// FilteredRoute ties a route prefix to the IgpResultId of the policy result that applies to it;
// FilteredRtStatus publishes them keyed by prefix, with routesProcessed telling readers that the
// writer has been through every route once. Users mount FilteredRtStatus themselves.
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

#include <array>
#include <optional>
#include <string_view>
#include <vector>

#include "BgpCommon/IgpPolicyTypes.h"
#include "platform/Netzo/IpGenPrefix.h"
#include "platform/Shelf/EntityManager.h"
#include "platform/Shelf/KelpShelf.h"
#include "platform/Shelf/TableEntity.h"

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

// Route prefixes key the filtered-route table in their byte form, hashed with the prefix's own hash.
// Bytes that do not make a prefix decode to the default prefix.
template <>
struct KelpShelf::KeyCodec<Netzo::IpGenPrefix> {
  using Codec = Kelp::ByteCodec<Netzo::IpGenPrefix>;
  static constexpr std::uint32_t maxSize = Codec::kMax;
  static std::uint32_t encode(const Netzo::IpGenPrefix& p, std::uint8_t* out) {
    Codec::put(out, p);
    return Codec::size(p);
  }
  static Netzo::IpGenPrefix decode(Shelf::Bytes b);
  static std::uint32_t hash(const Netzo::IpGenPrefix& p) { return p.hash(0); }
};

namespace Routing::BgpRedistribute {

struct FilteredRoute : Kelp::ValueBase<FilteredRoute> {
  // Stored packed: the prefix's bytes, then the identifier (4 bytes, little-endian).
  static constexpr Kelp::ByteLayout kelpByteLayout = Kelp::ByteLayout::packed;
  static constexpr std::uint32_t maxSerializedLen = 22;

  Netzo::IpGenPrefix key;  // the route prefix
  IgpResultId igpResultId;  // the result that applies to it

  FilteredRoute() = default;
  FilteredRoute(const Netzo::IpGenPrefix& k, IgpResultId id) : key(k), igpResultId(id) {}
  explicit FilteredRoute(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  std::uint32_t serializeLen() const;
  void serialize(std::uint8_t* out) const;
  // Kelp::RangeException when the bytes do not hold a prefix and an identifier.
  static FilteredRoute deserialize(std::span<const std::uint8_t> in);

  friend constexpr auto kelpType(Kelp::Tag<FilteredRoute>) {
    return Kelp::valueType<FilteredRoute>("Routing::BgpRedistribute::FilteredRoute",
                                          Kelp::field("key", &FilteredRoute::key),
                                          Kelp::field("igpResultId", &FilteredRoute::igpResultId));
  }
};

// What an IgpResultStatus tells its notifiees: a record's key changed, the writer closed (true) or
// a new one opened (false), or everything has to be read again.
class IgpResultStatusNotifiee {
 public:
  virtual ~IgpResultStatusNotifiee() = default;
  virtual void onResult(IgpResultId /*key*/) {}
  virtual void onResultQuiesced(bool /*quiesced*/) {}
  virtual void onResultMountStatus() {}
};

class IgpResultStatus
    : public KelpSharedMem::TableEntity<IgpResultStatus, IgpResultId, IgpResult, IgpResultStatusNotifiee,
                                        &IgpResultStatusNotifiee::onResult, &IgpResultStatusNotifiee::onResultQuiesced,
                                        &IgpResultStatusNotifiee::onResultMountStatus> {
 public:
  static constexpr std::string_view kTypeName = "Routing::BgpRedistribute::IgpResultStatus";
  static constexpr std::string_view kMountPrefix = "routing/rib/igpResultStatus/";
  static constexpr std::string_view kCollection = "result";
  // Reflective names: the entity's attributes, the creation functions and their arguments (the
  // entity manager and the capacity), and the record hooks of the collection.
  static constexpr std::array<std::string_view, 13> kAttributes = {
      "name",  "result", "resultControl", "createIgpResultStatusWriter", "createIgpResultStatusReader",
      "agent", "shmemEm", "size", "value", "serialize", "serializeLen", "deserialize", "deserializeLen"};

  using Notifiee = IgpResultStatusNotifiee;

  // Mounts routing/rib/igpResultStatus/<name> for writing with room for `size` records and clears
  // it: a writer never inherits the records of an earlier run.
  static Kelp::Ptr<IgpResultStatus> createIgpResultStatusWriter(const Kelp::String& name,
                                                                const Kelp::Ptr<KelpSharedMem::EntityManager>& em,
                                                                std::uint32_t size);
  // Mounts the same path for reading; null when the path holds an entity of another type.
  static Kelp::Ptr<IgpResultStatus> createIgpResultStatusReader(const Kelp::String& name,
                                                                const Kelp::Ptr<KelpSharedMem::EntityManager>& em);
  static Kelp::String mountPath(const Kelp::String& name) { return Kelp::String(kMountPrefix) + name; }

  using TableEntity::TableEntity;

  // The stored record, or none. Inlined, as the lookup it makes is.
  [[gnu::always_inline]] std::optional<IgpResult> result(IgpResultId key) const { return records_.find(key); }
  // Calls fn(const IgpResult&) for every record.
  template <typename F>
  void resultForEach(F&& fn) const {
    recordForEach(fn);
  }
  std::uint32_t resultCount() const { return recordCount(); }

  // Writer only. Inserts or replaces by key, then notifies; storing an equal record changes nothing.
  // A new key in a full table throws the table-full error.
  void resultIs(const IgpResult& r) { recordIs(r); }
  // Writer only. Removes the record if present, then notifies.
  void resultDel(IgpResultId key) { recordDel(key); }
  // Writer only. Removes every record, notifying each key.
  void resultDelAll() { recordDelAll(); }
  // The facility's hook after a record was written (none: any record may have changed).
  void resultCommit(const IgpResult* r) { recordCommit(r); }

  const Kelp::Ptr<KelpShelf::CollectionControl>& resultControl() const { return recordControl(); }
  void resultControlIs(const Kelp::Ptr<KelpShelf::CollectionControl>& c) { recordControlIs(c); }

  void resultNotify(IgpResultId key) { notifyKey(key); }
  void resultNotifyQuiesced(bool quiesced) { notifyQuiesced(quiesced); }
  void resultNotifyMountStatus() { notifyMountStatus(); }
};

Kelp::Ptr<IgpResultStatus> igpResultStatusFactory(const Kelp::String& name);

class FilteredRtStatusNotifiee {
 public:
  virtual ~FilteredRtStatusNotifiee() = default;
  virtual void onFilteredRoute(const Netzo::IpGenPrefix& /*prefix*/) {}
  virtual void onFilteredRouteQuiesced(bool /*quiesced*/) {}
  virtual void onFilteredRouteMountStatus() {}
  virtual void onRoutesProcessed() {}
};

class FilteredRtStatus
    : public KelpSharedMem::TableEntity<FilteredRtStatus, Netzo::IpGenPrefix, FilteredRoute, FilteredRtStatusNotifiee,
                                        &FilteredRtStatusNotifiee::onFilteredRoute,
                                        &FilteredRtStatusNotifiee::onFilteredRouteQuiesced,
                                        &FilteredRtStatusNotifiee::onFilteredRouteMountStatus> {
 public:
  static constexpr std::string_view kTypeName = "Routing::BgpRedistribute::FilteredRtStatus";
  static constexpr std::string_view kCollection = "filteredRoute";
  // Where the agent mounts its filtered-route tables (the library leaves the mount to its users;
  // the tool, the demo and the Python module look here).
  static constexpr std::string_view kMountPrefix = "routing/rib/filteredRtStatus/";
  static Kelp::String mountPath(const Kelp::String& name) { return Kelp::String(kMountPrefix) + name; }
  // Reflective names: the entity's attributes, then the key and record hooks of the collection.
  static constexpr std::array<std::string_view, 10> kAttributes = {
      "name",  "filteredRoute", "filteredRouteControl", "routesProcessed", "prefix",
      "value", "serialize",     "serializeLen",         "deserialize",     "deserializeLen"};
  using Notifiee = FilteredRtStatusNotifiee;

  using TableEntity::TableEntity;

  std::optional<FilteredRoute> filteredRoute(const Netzo::IpGenPrefix& prefix) const { return recordFind(prefix); }
  template <typename F>
  void filteredRouteForEach(F&& fn) const {
    recordForEach(fn);
  }
  std::uint32_t filteredRouteCount() const { return recordCount(); }

  // Writer only, as for IgpResultStatus.
  void filteredRouteIs(const FilteredRoute& r) { recordIs(r); }
  void filteredRouteDel(const Netzo::IpGenPrefix& prefix) { recordDel(prefix); }
  void filteredRouteDelAll() { recordDelAll(); }
  void filteredRouteCommit(const FilteredRoute* r) { recordCommit(r); }

  // Written by the writer (shared with readers through the table); false until then.
  bool routesProcessed() const;
  void routesProcessedIs(bool processed);

  const Kelp::Ptr<KelpShelf::CollectionControl>& filteredRouteControl() const { return recordControl(); }
  void filteredRouteControlIs(const Kelp::Ptr<KelpShelf::CollectionControl>& c) { recordControlIs(c); }

  void filteredRouteNotify(const Netzo::IpGenPrefix& prefix) { notifyKey(prefix); }
  void filteredRouteNotifyQuiesced(bool quiesced) { notifyQuiesced(quiesced); }
  void filteredRouteNotifyMountStatus() { notifyMountStatus(); }

 private:
  static constexpr std::uint32_t kRoutesProcessedScalar = 0;

  void onScalarChange(std::uint32_t index) override;

  bool routesProcessed_ = false;  // while no table is bound
};

Kelp::Ptr<FilteredRtStatus> filteredRtStatusFactory(const Kelp::String& name);

}  // namespace Routing::BgpRedistribute
