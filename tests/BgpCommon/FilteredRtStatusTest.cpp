#include "BgpCommon/FilteredRtStatus.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include <gtest/gtest.h>

#include "platform/Kelp/Registry.h"
#include "tests/Shelf/ShelfTestSupport.h"
#include "tests/Support/ValueConformance.h"

namespace Routing::BgpRedistribute {
namespace {

using testing_support::TempRoot;
using testing_support::versionedRecord;

Netzo::IpGenPrefix prefix(const char* text) { return Netzo::IpGenPrefix::fromString(text); }

// Records what a status table's notifiees hear, one word per event.
struct Log : IgpResultStatus::Notifiee, FilteredRtStatus::Notifiee {
  void onResult(IgpResultId key) override { events.push_back("key " + std::to_string(key.value)); }
  void onResultQuiesced(bool q) override { events.push_back(q ? "quiesced" : "active"); }
  void onResultMountStatus() override { events.push_back("mount"); }
  void onFilteredRoute(const Netzo::IpGenPrefix& p) override { events.push_back("route " + p.stringValue()); }
  void onFilteredRouteMountStatus() override { events.push_back("mount"); }
  void onRoutesProcessed() override { events.push_back("processed"); }
  std::vector<std::string> take() { return std::exchange(events, {}); }
  std::vector<std::string> events;
};

TEST(FilteredRtStatus, FilteredRouteValue) {
  testing_support::expectValueConformance<FilteredRoute>({
      FilteredRoute(),
      FilteredRoute(prefix("10.0.0.0/8"), IgpResultId(7)),
      FilteredRoute(prefix("2001:db8::/32"), IgpResultId(4294967295u)),
      FilteredRoute(prefix("10.0.0.1/8"), IgpResultId(7)),
  });
  EXPECT_EQ(Kelp::valueToStrep(FilteredRoute(prefix("10.0.0.0/8"), IgpResultId(7))),
            "Value('Routing::BgpRedistribute::FilteredRoute', ** {'key': 10.0.0.0/8, 'igpResultId': 7})");
  for (const FilteredRoute& r : {FilteredRoute(prefix("192.0.2.0/24"), IgpResultId(1)),
                                 FilteredRoute(prefix("2001:db8::1/128"), IgpResultId(2)), FilteredRoute()}) {
    std::uint8_t buf[FilteredRoute::maxSerializedLen];
    r.serialize(buf);
    EXPECT_EQ(FilteredRoute::deserialize(std::span(buf, r.serializeLen())), r);
  }
  // Bytes that hold no prefix: a length beyond the family's, a family that does not exist.
  const std::uint8_t badLength[] = {1, 33, 10, 0, 0, 0, 7, 0, 0, 0};
  const std::uint8_t badFamily[] = {0x11, 0, 7, 0, 0, 0};
  for (std::span<const std::uint8_t> bad : {std::span<const std::uint8_t>(badLength), std::span<const std::uint8_t>(badFamily)}) {
    EXPECT_THROW(FilteredRoute::deserialize(bad), Kelp::RangeException);
    EXPECT_EQ(KelpShelf::KeyCodec<Netzo::IpGenPrefix>::decode(bad.first(bad.size() - 4)), Netzo::IpGenPrefix());
  }
}

// A writer starts from an empty table, also when the process already holds the table with the
// records of an earlier writer.
TEST(FilteredRtStatus, AWriterStartsEmpty) {
  TempRoot root;
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  IgpResultStatus::createIgpResultStatusWriter("vrf1", em, 64)->resultIs(versionedRecord(1, 1));
  EXPECT_EQ(IgpResultStatus::createIgpResultStatusWriter("vrf1", em, 64)->resultCount(), 0u);
}

TEST(FilteredRtStatus, ReadersSeeWhatTheWriterStores) {
  TempRoot root;
  auto readerEm = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  auto early = IgpResultStatus::createIgpResultStatusReader("vrf2", readerEm);  // before the writer
  ASSERT_TRUE(early);
  EXPECT_EQ(early->result(IgpResultId(1)), std::nullopt);

  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  auto status = IgpResultStatus::createIgpResultStatusWriter("vrf2", em, 100);
  EXPECT_EQ(em->entity("routing/rib/igpResultStatus/vrf2"), status);  // where other processes look
  EXPECT_EQ(status->resultControl()->capacity(), 100u);
  Log writerLog, readerLog;
  status->notifieeIs(&writerLog);
  early->notifieeIs(&readerLog);
  early->resultControl()->poll();
  EXPECT_EQ(readerLog.take(), std::vector<std::string>{"mount"});

  for (std::uint32_t k = 1; k <= 100; ++k) status->resultIs(versionedRecord(k, k * 3));
  status->resultIs(versionedRecord(5, 15));  // unchanged: no notification
  status->resultDel(IgpResultId(1000));      // absent: no change, no notification
  status->resultDel(IgpResultId(100));
  EXPECT_EQ(status->resultCount(), 99u);
  EXPECT_EQ(writerLog.events.size(), 101u);
  EXPECT_EQ(writerLog.events.back(), "key 100");

  auto late = IgpResultStatus::createIgpResultStatusReader("vrf2", readerEm);
  EXPECT_EQ(late, early) << "one entity per mount";
  for (std::uint32_t k = 1; k < 100; ++k) EXPECT_EQ(early->result(IgpResultId(k)), versionedRecord(k, k * 3));
  EXPECT_EQ(early->result(IgpResultId(100)), std::nullopt);
  std::uint32_t listed = 0;
  early->resultForEach([&](const IgpResult& r) {
    EXPECT_EQ(r, versionedRecord(r.key.value, r.key.value * 3));
    ++listed;
  });
  EXPECT_EQ(listed, 99u);

  early->resultControl()->poll();
  std::vector<std::string> heard = readerLog.take();
  ASSERT_EQ(heard.size(), 101u);
  EXPECT_EQ(heard.front(), "key 1");
  EXPECT_EQ(heard.back(), "key 100");

  status->resultDelAll();
  EXPECT_EQ(writerLog.events.size(), 101u + 99u);
  em = nullptr;
  status = nullptr;  // the writer goes
  early->resultControl()->poll();
  EXPECT_EQ(readerLog.take(), (std::vector<std::string>{"mount", "quiesced"}));
  early->notifieeDel(&readerLog);
}

// Readers decode stored bytes as IgpResult::deserialize does, whichever way they read them: a
// flag byte other than 0 and 1 reads as true, and a record deserialize refuses is refused with its
// message.
TEST(FilteredRtStatus, ReadersDecodeStoredBytesAsDeserializeDoes) {
  TempRoot root;
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  auto status = IgpResultStatus::createIgpResultStatusWriter("vrf4", em, 16);
  auto readerEm = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  auto view = IgpResultStatus::createIgpResultStatusReader("vrf4", readerEm);
  Shelf::Writer* raw = status->resultControl()->writer();
  auto store = [&](IgpResultId id, std::size_t at, std::uint8_t byte) {
    IgpResult r = versionedRecord(id.value, 4);  // flags clear, four communities
    std::vector<std::uint8_t> bytes(r.serializeLen());
    r.serialize(bytes.data());
    bytes[at] = byte;
    raw->put(Shelf::Bytes(reinterpret_cast<const std::uint8_t*>(&id.value), 4), id.value, bytes);
    return r;
  };
  IgpResult flagged = store(IgpResultId(1), 5, 2);
  flagged.ospfBitDn = true;
  store(IgpResultId(2), 44, 5);
  EXPECT_EQ(view->result(IgpResultId(1)), flagged);
  EXPECT_EQ(testing_support::rangeMessage([&] { view->result(IgpResultId(2)); }), "array count 5 above its limit 4");
}

// A path that holds an entity of another type gives no status table; a status table needs its
// one collection, under its own name.
TEST(FilteredRtStatus, MountsAreCheckedByTypeAndCollection) {
  TempRoot root;
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  EXPECT_THROW(IgpResultStatus::createIgpResultStatusReader("../../escape", em), Kelp::RangeException);
  EXPECT_THROW(IgpResultStatus::createIgpResultStatusReader("", em), Kelp::RangeException);
  em->mount("routing/rib/igpResultStatus/other", FilteredRtStatus::kTypeName, {KelpSharedMem::MountMode::reader, {}});
  EXPECT_FALSE(IgpResultStatus::createIgpResultStatusReader("other", em));
  EXPECT_THROW(IgpResultStatus::createIgpResultStatusWriter("other", em, 4), Kelp::RangeException);
  em->mount("routing/rib/igpResultStatus/otherw", FilteredRtStatus::kTypeName,
            {KelpSharedMem::MountMode::writer, {{"filteredRoute", 4}}});
  EXPECT_DEATH(IgpResultStatus::createIgpResultStatusWriter("otherw", em, 4), "igpResultStatus");
  EXPECT_THROW(em->mount("x", "No::Such::Type", {}), Kelp::RangeException);
  EXPECT_THROW(em->mount("z", IgpResultStatus::kTypeName, {KelpSharedMem::MountMode::writer, {{"results", 4}}}),
               Kelp::RangeException);
}

TEST(FilteredRtStatus, RoutesByPrefixAndRoutesProcessed) {
  TempRoot root;
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  const Kelp::String path = "routing/rib/filteredRtStatus/default";
  auto writer = Kelp::ptrDynamicCast<FilteredRtStatus>(
      em->mount(path, FilteredRtStatus::kTypeName, {KelpSharedMem::MountMode::writer, {{"filteredRoute", 16}}}));
  ASSERT_TRUE(writer);
  auto readerEm = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  auto reader = Kelp::ptrDynamicCast<FilteredRtStatus>(
      readerEm->mount(path, FilteredRtStatus::kTypeName, {KelpSharedMem::MountMode::reader, {}}));
  ASSERT_TRUE(reader);
  Log log;
  reader->notifieeIs(&log);
  reader->filteredRouteControl()->poll();
  log.take();

  writer->filteredRouteIs(FilteredRoute(prefix("10.0.0.0/8"), IgpResultId(1)));
  writer->filteredRouteIs(FilteredRoute(prefix("10.0.0.0/16"), IgpResultId(2)));
  writer->filteredRouteIs(FilteredRoute(prefix("2001:db8::/32"), IgpResultId(3)));
  EXPECT_EQ(reader->filteredRoute(prefix("10.0.0.0/16"))->igpResultId, IgpResultId(2));
  EXPECT_EQ(reader->filteredRoute(prefix("2001:db8::/32"))->igpResultId, IgpResultId(3));
  EXPECT_EQ(reader->filteredRoute(prefix("10.0.0.0/24")), std::nullopt);
  EXPECT_FALSE(reader->routesProcessed());
  writer->routesProcessedIs(true);
  writer->routesProcessedIs(true);
  EXPECT_TRUE(reader->routesProcessed());
  writer->filteredRouteDel(prefix("10.0.0.0/8"));
  EXPECT_EQ(reader->filteredRouteCount(), 2u);
  reader->filteredRouteControl()->poll();
  EXPECT_EQ(log.take(), (std::vector<std::string>{"route 10.0.0.0/8", "route 10.0.0.0/16", "route 2001:db8::/32",
                                                 "processed", "route 10.0.0.0/8"}));
  reader->notifieeDel(&log);

  auto unmounted = filteredRtStatusFactory("loose");
  EXPECT_FALSE(unmounted->routesProcessed());
  unmounted->routesProcessedIs(true);
  EXPECT_TRUE(unmounted->routesProcessed());
}

// Generic code finds both tables by name with every reflective name of the source; the facility's
// hooks make a new entity for a directory, tell an entity its parent and commit records.
TEST(FilteredRtStatus, RegistryNamesAndFacilityHooks) {
  std::set<std::string_view> names;
  for (std::string_view type : {IgpResultStatus::kTypeName, FilteredRtStatus::kTypeName}) {
    const Kelp::TypeInfo* t = Kelp::findType(type);
    ASSERT_NE(t, nullptr) << type;
    EXPECT_EQ(t->attributes.front().name, "name");
    for (const auto& a : t->attributes) names.insert(a.name);
  }
  EXPECT_EQ(names, (std::set<std::string_view>{
                       "agent", "createIgpResultStatusReader", "createIgpResultStatusWriter", "deserialize",
                       "deserializeLen", "filteredRoute", "filteredRouteControl", "name", "prefix", "result",
                       "resultControl", "routesProcessed", "serialize", "serializeLen", "shmemEm", "size", "value"}));

  TempRoot root;
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  auto status = IgpResultStatus::createIgpResultStatusWriter("hooks", em, 4);
  auto fresh = IgpResultStatus::newEntityForDir("dir");
  EXPECT_EQ(fresh->name(), "dir");
  EXPECT_EQ(fresh->resultControl(), nullptr);
  fresh->handleParent(status);
  EXPECT_EQ(fresh->parent(), status);
  Log log;
  status->notifieeIs(&log);
  const IgpResult r = versionedRecord(5, 1);
  status->resultCommit(&r);
  status->resultCommit(nullptr);
  status->resultIs(r);
  status->resultIs(r);  // the same record again: nothing to tell
  EXPECT_EQ(log.take(), (std::vector<std::string>{"key 5", "mount", "key 5"}));
  status->notifieeDel(&log);
}

// A control outlives its entity: the entity leaves it when its last reference goes.
TEST(FilteredRtStatus, AControlForgetsItsEntity) {
  TempRoot root;
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  auto status = IgpResultStatus::createIgpResultStatusReader("gone", em);
  Kelp::Ptr<KelpShelf::CollectionControl> control = status->resultControl();
  ASSERT_NE(control->listener(), nullptr);
  em->unmount(IgpResultStatus::mountPath("gone"));
  status = nullptr;
  EXPECT_EQ(control->listener(), nullptr);
  auto writerEm = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  auto writer = IgpResultStatus::createIgpResultStatusWriter("gone", writerEm, 4);
  writer->resultIs(versionedRecord(1, 1));
  EXPECT_EQ(control->poll(), 1u);  // heard, told to no one
}

// A writer that meets a damaged table reports it and stops rather than spread the damage.
TEST(FilteredRtStatus, AWriterStopsOnADamagedTable) {
  TempRoot root;
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  auto status = IgpResultStatus::createIgpResultStatusWriter("hurt", em, 64);
  status->resultIs(versionedRecord(1, 1));
  {
    int fd = open((root.path() + "/routing/rib/igpResultStatus/hurt").c_str(), O_RDWR);
    struct stat st;
    fstat(fd, &st);
    auto* base = static_cast<std::uint8_t*>(mmap(nullptr, st.st_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    std::memset(base + 1024, 0x55, st.st_size - 1024);  // everything past the header's fixed part
    munmap(base, st.st_size);
    close(fd);
  }
  EXPECT_DEATH(
      {
        status->resultControl()->corruptionHandlerIs([](std::string_view m) {
          std::fprintf(stderr, "handler: %.*s\n", static_cast<int>(m.size()), m.data());
        });
        status->resultIs(versionedRecord(1, 2));
      },
      "handler: Shelf .*hurt: link to slot .*in no man's land");
}

}  // namespace
}  // namespace Routing::BgpRedistribute
