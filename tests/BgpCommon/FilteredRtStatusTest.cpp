#include "BgpCommon/FilteredRtStatus.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/Kelp/Registry.h"
#include "platform/Shelf/TempRoot.h"
#include "tests/Support/PolicyResults.h"
#include "tests/Support/ValueConformance.h"

namespace Routing::BgpRedistribute {
namespace {

using testing_support::rangeMessage;
using testing_support::versionedRecord;
using Events = std::vector<std::string>;

Netzo::IpGenPrefix prefix(const char* text) { return Netzo::IpGenPrefix::fromString(text); }

// Records what a status table's notifiees hear, one word per event.
struct Log : IgpResultStatus::Notifiee, FilteredRtStatus::Notifiee {
  void onResult(IgpResultId key) override { events.push_back("key " + std::to_string(key.value)); }
  void onResultQuiesced(bool q) override { events.push_back(q ? "quiesced" : "active"); }
  void onResultMountStatus() override { events.push_back("mount"); }
  void onFilteredRoute(const Netzo::IpGenPrefix& p) override { events.push_back("route " + p.stringValue()); }
  void onFilteredRouteMountStatus() override { events.push_back("mount"); }
  void onRoutesProcessed() override { events.push_back("processed"); }
  Events take() { return std::exchange(events, {}); }
  Events events;
};

// A table root with two entity managers, as a writing and a reading process have them.
class FilteredRtStatusTest : public ::testing::Test {
 protected:
  Shelf::TempRoot root;
  Kelp::Ptr<KelpSharedMem::EntityManager> em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  Kelp::Ptr<KelpSharedMem::EntityManager> readerEm = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
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
  // Stored packed (family, length, address octets, identifier), and exactly one record: a byte
  // after it makes it no record.
  const std::uint8_t v4[] = {1, 24, 192, 0, 2, 0, 1, 0, 0, 0};
  EXPECT_EQ(FilteredRoute::deserialize(v4), FilteredRoute(prefix("192.0.2.0/24"), IgpResultId(1)));
  for (const FilteredRoute& r : {FilteredRoute(prefix("192.0.2.0/24"), IgpResultId(1)),
                                 FilteredRoute(prefix("2001:db8::1/128"), IgpResultId(2)), FilteredRoute()}) {
    std::uint8_t buf[FilteredRoute::maxSerializedLen + 1] = {};
    r.serialize(buf);
    const std::uint32_t n = r.serializeLen();
    EXPECT_EQ(FilteredRoute::deserialize(std::span(buf, n)), r);
    EXPECT_EQ(rangeMessage([&] { FilteredRoute::deserialize(std::span(buf, n + 1)); }),
              "FilteredRoute record of " + std::to_string(n + 1) + " bytes is longer than " + std::to_string(n));
  }
  // Bytes that hold no prefix: a length beyond the family's, a family that does not exist.
  const std::uint8_t badLength[] = {1, 33, 10, 0, 0, 0, 7, 0, 0, 0}, badFamily[] = {0x11, 0, 7, 0, 0, 0};
  for (std::span<const std::uint8_t> bad : {std::span<const std::uint8_t>(badLength), std::span<const std::uint8_t>(badFamily)}) {
    EXPECT_EQ(rangeMessage([&] { FilteredRoute::deserialize(bad); }), "bytes do not hold a prefix");
    EXPECT_EQ(KelpShelf::KeyCodec<Netzo::IpGenPrefix>::decode(bad.first(bad.size() - 4)), Netzo::IpGenPrefix());
  }
}

TEST_F(FilteredRtStatusTest, ReadersSeeWhatTheWriterStores) {
  auto early = IgpResultStatus::createIgpResultStatusReader("vrf2", readerEm);  // before the writer
  ASSERT_TRUE(early);
  EXPECT_EQ(early->result(IgpResultId(1)), std::nullopt);
  // A writer starts from an empty table, also when the process holds the records of an earlier one.
  IgpResultStatus::createIgpResultStatusWriter("vrf2", em, 100)->resultIs(versionedRecord(1, 1));
  auto status = IgpResultStatus::createIgpResultStatusWriter("vrf2", em, 100);
  EXPECT_EQ(status->resultCount(), 0u);
  EXPECT_EQ(em->entity("routing/rib/igpResultStatus/vrf2"), status);  // where other processes look
  Log writerLog, readerLog;
  status->notifieeIs(&writerLog);
  early->notifieeIs(&readerLog);
  early->resultControl()->poll();
  EXPECT_EQ(readerLog.take(), Events{"mount"});

  for (std::uint32_t k = 1; k <= 100; ++k) status->resultIs(versionedRecord(k, k * 3));  // full
  status->resultIs(versionedRecord(5, 15));  // unchanged: no notification
  status->resultDel(IgpResultId(1000));      // absent: no change, no notification
  status->resultDel(IgpResultId(100));
  EXPECT_EQ(status->resultCount(), 99u);
  EXPECT_TRUE(writerLog.events.size() == 101u && writerLog.events.back() == "key 100") << writerLog.events.size();

  EXPECT_EQ(IgpResultStatus::createIgpResultStatusReader("vrf2", readerEm), early) << "one entity per mount";
  for (std::uint32_t k = 1; k < 100; ++k) EXPECT_EQ(early->result(IgpResultId(k)), versionedRecord(k, k * 3));
  EXPECT_EQ(early->result(IgpResultId(100)), std::nullopt);
  std::uint32_t listed = 0;
  early->resultForEach([&](const IgpResult& r) { listed += r == versionedRecord(r.key.value, r.key.value * 3); });
  EXPECT_EQ(listed, 99u);
  early->resultControl()->poll();
  Events heard = readerLog.take();
  EXPECT_TRUE(heard.size() == 101u && heard.front() == "key 1" && heard.back() == "key 100") << heard.size();

  status->resultDelAll();
  EXPECT_EQ(writerLog.events.size(), 101u + 99u);
  status->resultCommit(nullptr);  // the facility's word that any record may have changed
  EXPECT_EQ(writerLog.events.back(), "mount");
  em = nullptr;
  status = nullptr;  // the writer goes
  early->resultControl()->poll();
  EXPECT_EQ(readerLog.take(), (Events{"mount", "quiesced"}));
  early->notifieeDel(&readerLog);
}

// Readers decode stored bytes as IgpResult::deserialize does, whichever way they read them: a
// flag byte other than 0 and 1 reads as true, and a record deserialize refuses is refused with its
// message.
TEST_F(FilteredRtStatusTest, ReadersDecodeStoredBytesAsDeserializeDoes) {
  auto status = IgpResultStatus::createIgpResultStatusWriter("vrf4", em, 16);
  auto view = IgpResultStatus::createIgpResultStatusReader("vrf4", readerEm);
  auto store = [&](std::uint32_t id, std::size_t at, std::uint8_t byte) {
    IgpResult r = versionedRecord(id, 4);  // flags clear, four communities
    std::vector<std::uint8_t> bytes(r.serializeLen());
    r.serialize(bytes.data());
    bytes[at] = byte;
    status->resultControl()->writer()->put(Shelf::Bytes(reinterpret_cast<const std::uint8_t*>(&id), 4), id, bytes);
    return r;
  };
  IgpResult flagged = store(1, 5, 2);
  flagged.ospfBitDn = true;
  store(2, 44, 5);
  EXPECT_EQ(view->result(IgpResultId(1)), flagged);
  EXPECT_EQ(rangeMessage([&] { view->result(IgpResultId(2)); }), "array count 5 above its limit 4");
}

// Both tables are registered types. A path that holds an entity of another type gives no status
// table; a status table needs its one collection, under its own name.
TEST_F(FilteredRtStatusTest, MountsAreCheckedByTypeAndCollection) {
  EXPECT_TRUE(Kelp::findType(IgpResultStatus::kTypeName) && Kelp::findType(FilteredRtStatus::kTypeName));
  EXPECT_THROW(IgpResultStatus::createIgpResultStatusReader("../../escape", em), Kelp::RangeException);
  EXPECT_THROW(IgpResultStatus::createIgpResultStatusReader("", em), Kelp::RangeException);
  EXPECT_THROW(IgpResultStatus::createIgpResultStatusWriter("vrf1/deeper", em, 4), Kelp::RangeException);
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

TEST_F(FilteredRtStatusTest, RoutesByPrefixAndRoutesProcessed) {
  const Kelp::String path = "routing/rib/filteredRtStatus/default";
  auto writer = Kelp::ptrDynamicCast<FilteredRtStatus>(
      em->mount(path, FilteredRtStatus::kTypeName, {KelpSharedMem::MountMode::writer, {{"filteredRoute", 16}}}));
  auto reader = Kelp::ptrDynamicCast<FilteredRtStatus>(
      readerEm->mount(path, FilteredRtStatus::kTypeName, {KelpSharedMem::MountMode::reader, {}}));
  ASSERT_TRUE(writer && reader);
  Log log;
  reader->notifieeIs(&log);
  reader->filteredRouteControl()->poll();
  log.take();
  std::uint32_t id = 0;
  for (const char* p : {"10.0.0.0/8", "10.0.0.0/16", "2001:db8::/32"}) {
    writer->filteredRouteIs(FilteredRoute(prefix(p), IgpResultId(++id)));
  }
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
  EXPECT_EQ(log.take(), (Events{"route 10.0.0.0/8", "route 10.0.0.0/16", "route 2001:db8::/32", "processed",
                                "route 10.0.0.0/8"}));
  reader->notifieeDel(&log);

  auto unmounted = filteredRtStatusFactory("loose");  // no table bound: kept in the entity
  unmounted->routesProcessedIs(true);
  EXPECT_TRUE(unmounted->routesProcessed());
}

// A control outlives its entity: the entity leaves it when its last reference goes.
TEST_F(FilteredRtStatusTest, AControlForgetsItsEntity) {
  auto status = IgpResultStatus::createIgpResultStatusReader("gone", readerEm);
  Kelp::Ptr<KelpShelf::CollectionControl> control = status->resultControl();
  ASSERT_NE(control->listener(), nullptr);
  readerEm->unmount(IgpResultStatus::mountPath("gone"));
  status = nullptr;
  EXPECT_EQ(control->listener(), nullptr);
  IgpResultStatus::createIgpResultStatusWriter("gone", em, 4)->resultIs(versionedRecord(1, 1));
  EXPECT_EQ(control->poll(), 1u);  // heard, told to no one
}

// A writer that meets a damaged table reports it and stops rather than spread the damage.
TEST_F(FilteredRtStatusTest, AWriterStopsOnADamagedTable) {
  auto status = IgpResultStatus::createIgpResultStatusWriter("hurt", em, 64);
  status->resultIs(versionedRecord(1, 1));
  const int fd = open((root.path() + "/routing/rib/igpResultStatus/hurt").c_str(), O_RDWR);
  struct stat st;
  fstat(fd, &st);
  auto* base = static_cast<std::uint8_t*>(mmap(nullptr, st.st_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  std::memset(base + 1024, 0x55, st.st_size - 1024);  // everything past the header's fixed part
  munmap(base, st.st_size);
  close(fd);
  status->resultControl()->corruptionHandlerIs(
      [](std::string_view m) { std::fprintf(stderr, "handler: %.*s\n", static_cast<int>(m.size()), m.data()); });
  EXPECT_DEATH(status->resultIs(versionedRecord(1, 2)), "handler: Shelf .*hurt: link to slot .*in no man's land");
}

}  // namespace
}  // namespace Routing::BgpRedistribute
