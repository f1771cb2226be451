// The byte-level shared-memory table: writer and reader in one process, each with its own mapping.
#include "platform/Shelf/Shelf.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <thread>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Shelf/Format.h"
#include "platform/Shelf/TempRoot.h"

namespace {

using Shelf::Bytes;
using Kind = Shelf::Change::Kind;
using Shelf::TempRoot;

const Shelf::Labels kLabels{"Test::Table", "entries", "test/table"};

Bytes bytes(const std::string& s) { return Bytes(reinterpret_cast<const std::uint8_t*>(s.data()), s.size()); }
using Hash = std::uint32_t (*)(const std::string&);
// A poor hash on purpose: keys share a handful of buckets, so chains are long and links change.
std::uint32_t poorHash(const std::string& key) { return static_cast<std::uint8_t>(key[0]) & 7; }

std::optional<std::string> findIn(const Shelf::Reader& r, const std::string& k, Hash hash = poorHash) {
  std::uint8_t out[Shelf::kMaxSlotBytes];
  const auto n = r.find(bytes(k), hash(k), out, sizeof out);
  return n ? std::optional<std::string>(std::string(reinterpret_cast<char*>(out), *n)) : std::nullopt;
}
std::vector<Kind> kindsPolled(Shelf::Reader& r) {
  std::vector<Kind> kinds;
  r.poll([&](const Shelf::Change& c) { kinds.push_back(c.kind); });
  return kinds;
}

struct Table {
  explicit Table(const TempRoot& root, Shelf::Geometry g = {64, 8, 40, 0}, Hash h = poorHash)
      : hash(h),
        where(root.path(), "test/table"),
        writer(Shelf::Writer::create(where, kLabels, g)),
        reader(where, kLabels, g.keyMax, g.valueMax, [this](std::string_view m) { reports.emplace_back(m); }) {}
  bool put(const std::string& k, const std::string& v) { return writer->put(bytes(k), hash(k), bytes(v)); }
  bool erase(const std::string& k) { return writer->erase(bytes(k), hash(k)); }
  std::optional<std::string> find(const std::string& k) const { return findIn(reader, k, hash); }
  std::map<std::string, std::string> readAll() const {
    std::map<std::string, std::string> out;
    reader.forEach([&](Bytes k, Bytes v) {
      EXPECT_TRUE(out.emplace(std::string(k.begin(), k.end()), std::string(v.begin(), v.end())).second) << "listed twice";
    });
    return out;
  }

  Hash hash;
  Shelf::Location where;
  std::unique_ptr<Shelf::Writer> writer;
  std::vector<std::string> reports;
  Shelf::Reader reader;
};

// Maps the table file writable, as a stray process could, to damage it.
struct Damage {
  explicit Damage(const std::string& path)
      : fd(open(path.c_str(), O_RDWR)),
        size(std::filesystem::file_size(path)),
        base(static_cast<std::uint8_t*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0))) {}
  ~Damage() { munmap(base, size), close(fd); }
  std::uint8_t* findText(const std::string& text) {
    auto* p = static_cast<std::uint8_t*>(memmem(base, size, text.data(), text.size()));
    EXPECT_NE(p, nullptr) << text;
    return p;
  }
  int fd;
  std::size_t size;
  std::uint8_t* base;
};

TEST(Shelf, MountPathsThatWouldLeaveTheRootAreRefusedAndEveryOtherLeafHoldsATable) {
  const std::string leave = "refused: it has a '..' component, which would leave the root";
  const std::pair<std::string, std::string> rows[] = {
      {"", "refused: it is empty"},
      {"/etc/table", "refused: it is absolute; mount paths are relative to the root"},
      {"a//b", "refused: it has an empty component"},
      {"a/b/", "refused: it has an empty component"},
      {"../x", leave},
      {"a/../../x", leave},
      {"a/..", leave},
      {"a/./b", "refused: it has a '.' component"},
      {"names/" + std::string(256, 'n'), "refused: it has a component longer than 255 bytes"},
      {"a/b\nc", "refused: it contains a control character"},
  };
  for (const auto& [path, message] : rows) {
    try {
      Shelf::Location("/tmp/root", path);
      ADD_FAILURE() << "accepted " << path;
    } catch (const Kelp::RangeException& e) {
      // Echoed at most 64 bytes long, control characters escaped.
      std::string echoed = path.size() > 64 ? path.substr(0, 64) + "..." : path;
      if (auto nl = echoed.find('\n'); nl != std::string::npos) echoed.replace(nl, 1, "\\x0a");
      EXPECT_EQ(e.what(), "Shelf mount path '" + echoed + "' " + message);
    }
  }
  // A relative root would name another table in each process's working directory.
  EXPECT_THROW(Shelf::Location("shm/root", "a"), Kelp::RangeException);
  EXPECT_EQ(Shelf::Location("/tmp/root/", "a/..b/c").fullPath(), "/tmp/root/a/..b/c");
  // Any leaf accepted can hold a table: the lock and the file being built beside it have names of
  // their own that stay within the system's limit.
  TempRoot root;
  for (std::size_t length : {1u, 200u, 249u, 250u, 255u}) {
    const Shelf::Location where(root.path(), "names/" + std::string(length, 'n'));
    auto w = Shelf::Writer::create(where, kLabels, {8, 8, 8, 0});
    EXPECT_TRUE(w->put(bytes("k"), poorHash("k"), bytes("v"))) << length;
    EXPECT_EQ(findIn(Shelf::Reader(where, kLabels, 8, 8), "k"), "v") << length;
    EXPECT_THROW(Shelf::Writer::create(where, kLabels, {8, 8, 8, 0}), Shelf::Exception) << length;
  }
  // What a writer that died left where it builds goes, an empty folder too; anything else is named.
  const Shelf::Location where(root.path(), "names/new");
  std::filesystem::create_directories(root.path() + "/names/.new.new");
  EXPECT_NO_THROW(Shelf::Writer::create(where, kLabels, {8, 8, 8, 0}));
  std::filesystem::create_directories(root.path() + "/names/.new.new/inside");
  EXPECT_THAT([&] { Shelf::Writer::create(where, kLabels, {8, 8, 8, 0}); },
              testing::ThrowsMessage<Shelf::Exception>(testing::HasSubstr("cannot create .new.new: File exists")));
  // The root, when none is given.
  const char* saved = std::getenv("BGPCOMMON_SHM_ROOT");
  const std::string keep = saved != nullptr ? saved : "";
  unsetenv("BGPCOMMON_SHM_ROOT");
  EXPECT_EQ(Shelf::Location::defaultRoot(), "/dev/shm/bgpcommon");
  setenv("BGPCOMMON_SHM_ROOT", "/tmp/elsewhere", 1);
  EXPECT_EQ(Shelf::Location("", "a").fullPath(), "/tmp/elsewhere/a");
  saved != nullptr ? setenv("BGPCOMMON_SHM_ROOT", keep.c_str(), 1) : unsetenv("BGPCOMMON_SHM_ROOT");
}

// Long random sequences of puts, erases and clears against a plain map, with fixed seeds, in two
// shapes: string keys under the poor hash (long chains, links changing in the middle of them), and
// small integer keys hashed to themselves, as result identifiers are (42 slots and buckets, 128
// keys: records move in and out of their homes). Lookups, both iterations, the change ring and the writer's return values agree with the
// model throughout, in a full table too (a new key is refused, changing nothing); afterwards every
// slot is usable again: the table takes exactly its capacity.
TEST(Shelf, AgreesWithAPlainMapOverRandomOperations) {
  struct Shape { Shelf::Geometry geometry; Hash hash; std::uint32_t keyCount; std::function<std::string(std::uint32_t)> key; };
  const Shape shapes[] = {
      {{64, 8, 40, 0}, poorHash, 90, [](std::uint32_t n) { return char('a' + n % 26) + std::to_string(n); }},
      {{40, 4, 16, 0}, [](const std::string& k) { std::uint32_t h; std::memcpy(&h, k.data(), 4); return h; }, 128,
       [](std::uint32_t n) { return std::string(reinterpret_cast<const char*>(&n), 4); }},
  };
  TempRoot root;
  for (const Shape& shape : shapes) {
    Table t(root, shape.geometry, shape.hash);
    const std::uint32_t capacity = shape.geometry.capacity;
    std::map<std::string, std::string> model;
    std::set<std::string> touched;  // keys changed since the last poll
    std::mt19937 rng(capacity);
    t.reader.poll([](const Shelf::Change&) {});
    for (int step = 0; step < 20000; ++step) {
      const std::uint32_t op = rng() % 100;
      const std::string key = shape.key(rng() % shape.keyCount);
      if (op < 60) {
        const std::string value(rng() % (shape.geometry.valueMax + 1), "AB"[rng() % 2]);
        const bool isNew = model.count(key) == 0;
        if (isNew && model.size() == capacity) {
          EXPECT_THROW(t.put(key, value), Shelf::TableFullException);
        } else {
          const bool changed = isNew || model[key] != value;
          EXPECT_EQ(t.put(key, value), changed);
          model[key] = value;
          if (changed) touched.insert(key);
        }
      } else if (op < 98) {
        const bool present = model.erase(key) != 0;
        EXPECT_EQ(t.erase(key), present);
        if (present) touched.insert(key);
      } else {
        t.writer->clear();
        for (const auto& [k, v] : model) touched.insert(k);
        model.clear();
      }
      ASSERT_EQ(t.writer->occupancy(), model.size());
      const auto it = model.find(key);
      ASSERT_EQ(t.find(key), it == model.end() ? std::nullopt : std::optional(it->second)) << "step " << step;
      if (step % 97 != 0) continue;
      for (std::uint32_t n = 0; n < shape.keyCount; ++n) {
        const auto m = model.find(shape.key(n));
        EXPECT_EQ(t.find(shape.key(n)), m == model.end() ? std::nullopt : std::optional(m->second)) << n;
      }
      EXPECT_EQ(t.readAll(), model);
      std::map<std::string, std::string> viaWriter;
      t.writer->forEach([&](Bytes k, Bytes v) { viaWriter[std::string(k.begin(), k.end())] = std::string(v.begin(), v.end()); });
      EXPECT_EQ(viaWriter, model);
      std::set<std::string> heard;
      bool resync = false;
      t.reader.poll([&](const Shelf::Change& c) {
        if (c.kind == Kind::key) heard.emplace(c.key.begin(), c.key.end());
        resync |= c.kind == Kind::resync;
      });
      if (!resync) EXPECT_EQ(heard, touched);
      touched.clear();
    }
    t.writer->clear();
    for (std::uint32_t n = 0; n < capacity; ++n) EXPECT_TRUE(t.put(shape.key(shape.keyCount - 1 - n), "full"));
    try {
      t.put(shape.key(0), "one more");
      ADD_FAILURE() << "a key beyond the capacity fit";
    } catch (const Shelf::TableFullException& e) {
      EXPECT_EQ(e.what(), fmt::format("Shelf table full (occupancy:{0} tableSize:{0}) test/table", capacity));
    }
    for (std::uint32_t n = 0; n < capacity; ++n) EXPECT_EQ(t.find(shape.key(shape.keyCount - 1 - n)), "full");
    EXPECT_EQ(t.find(shape.key(0)), std::nullopt);
    EXPECT_EQ(t.reports, std::vector<std::string>{});
  }
}

TEST(Shelf, BadGeometryAndOversizedEntriesAreRefused) {
  TempRoot root;
  for (const Shelf::Geometry& g : {Shelf::Geometry{0, 8, 8, 0}, {8, 0, 8, 0}, {8, 8, 5000, 0}, {8, 8, 8, 100}}) {
    EXPECT_THROW(Shelf::Writer::create(Shelf::Location(root.path(), "t"), kLabels, g), Kelp::RangeException);
  }
  Table t(root);
  for (const auto& [k, v] : {std::pair<std::string, std::string>{"123456789", "v"}, {"k", std::string(41, 'x')}, {"", "v"}}) {
    EXPECT_THROW(t.put(k, v), Kelp::RangeException) << k;
  }
  EXPECT_EQ(t.writer->occupancy(), 0u);
}

// The checksum a table keeps of each record is CRC32C, lane by lane, the same whether computed
// with tables or with the processor's instruction. The reference is CRC32C's bit-by-bit definition.
TEST(Shelf, RecordChecksumsAreCrc32cWithTablesAndWithTheInstruction) {
  auto crc32c = [](const std::vector<std::uint8_t>& in) {
    std::uint32_t c = ~0u;
    for (std::uint8_t b : in) {
      c ^= b;
      for (int bit = 0; bit < 8; ++bit) c = (c >> 1) ^ (0x82F63B78u & (0u - (c & 1u)));
    }
    return ~c;
  };
  ASSERT_EQ(crc32c({'1', '2', '3', '4', '5', '6', '7', '8', '9'}), 0xE3069283u);  // the check value
  std::mt19937 rng(5);
  for (std::size_t words = 1; words <= 40; ++words) {
    std::vector<std::uint8_t> in(8 * words), lanes[2];  // lane 0 takes the even words, lane 1 the odd ones
    for (auto& b : in) b = static_cast<std::uint8_t>(rng());
    for (std::size_t w = 0; w < words; ++w) lanes[w % 2].insert(lanes[w % 2].end(), &in[8 * w], &in[8 * w + 8]);
    const std::uint64_t expected = std::uint64_t{crc32c(lanes[0])} << 32 | crc32c(lanes[1]);
    EXPECT_EQ(Shelf::detail::tableChecksum(Bytes(in)), expected) << words;
    if (auto sum = Shelf::detail::instructionChecksum(Bytes(in))) EXPECT_EQ(*sum, expected) << words;
  }
}

// A table's life as a reader sees it. A reader made before its table attaches when the writer
// arrives; it waits for changes and scalars, hears an unchanged scalar as no change, and gets one
// resync for the lot when it fell more than the ring's length behind. A second writer is refused
// with the holder named. When the writer goes, readers hear so and read its last contents on; the
// next writer starts empty, in a new file of the next generation, and the same reader follows it,
// also when the old file was removed before that writer came (so it had nothing to retire).
TEST(Shelf, AReaderFollowsATableThroughItsWriters) {
  TempRoot root;
  const Shelf::Location where(root.path(), "late/table");
  Shelf::Reader reader(where, kLabels, 8, 40);
  EXPECT_FALSE(reader.attached());
  EXPECT_FALSE(reader.wait(0.01));
  auto writer = Shelf::Writer::create(where, kLabels, {8, 8, 40, 4});
  auto put = [&](const std::string& v) { return writer->put(bytes("k"), poorHash("k"), bytes(v)); };
  put("v");
  EXPECT_TRUE(reader.wait(1.0));
  EXPECT_EQ(findIn(reader, "k"), "v");
  EXPECT_EQ(reader.occupancy(), 1u);
  EXPECT_EQ(kindsPolled(reader), std::vector<Kind>{Kind::resync});
  EXPECT_FALSE(reader.wait(0.02));

  std::thread later([&] { std::this_thread::sleep_for(std::chrono::milliseconds(20)), writer->scalarIs(2, 77); });
  EXPECT_TRUE(reader.wait(10.0));
  later.join();
  std::vector<std::uint32_t> scalars;
  reader.poll([&](const Shelf::Change& c) { scalars.push_back(c.kind == Kind::scalar ? c.scalarIndex : 99); });
  EXPECT_EQ(scalars, std::vector<std::uint32_t>{2});
  EXPECT_EQ(reader.scalar(2), 77u);
  writer->scalarIs(2, 77);
  EXPECT_EQ(reader.poll([](const Shelf::Change&) {}), 0u);
  for (int i = 0; i < 5; ++i) put("v" + std::to_string(i));
  EXPECT_EQ(kindsPolled(reader), std::vector<Kind>{Kind::resync});
  put("again");
  EXPECT_EQ(kindsPolled(reader), std::vector<Kind>{Kind::key});

  try {
    Shelf::Writer::create(where, kLabels, {8, 8, 8, 0});
    ADD_FAILURE() << "a second writer opened the table";
  } catch (const Shelf::Exception& e) {
    EXPECT_EQ(e.what(), fmt::format("Shelf {}: another writer (pid {}) has this table open", where.fullPath(), getpid()));
  }
  EXPECT_TRUE(put("still mine"));
  const std::uint64_t generation = reader.generation();
  EXPECT_EQ(kindsPolled(reader), std::vector<Kind>{Kind::key});
  writer.reset();
  EXPECT_EQ(kindsPolled(reader), std::vector<Kind>{Kind::writerClosed});
  EXPECT_FALSE(reader.writerOpen());
  EXPECT_EQ(findIn(reader, "k"), "still mine");

  writer = Shelf::Writer::create(where, kLabels, {16, 8, 40, 0});
  EXPECT_EQ(findIn(reader, "k"), std::nullopt);
  EXPECT_TRUE(writer->put(bytes("new"), poorHash("new"), bytes("value")));
  EXPECT_EQ(findIn(reader, "new"), "value");
  EXPECT_EQ(reader.generation(), generation + 1);
  EXPECT_TRUE(reader.writerOpen());
  EXPECT_EQ(kindsPolled(reader), (std::vector<Kind>{Kind::resync, Kind::writerOpen}));

  writer.reset();
  EXPECT_EQ(kindsPolled(reader), std::vector<Kind>{Kind::writerClosed});
  std::filesystem::remove(where.fullPath());
  writer = Shelf::Writer::create(where, kLabels, {16, 8, 40, 0});
  EXPECT_TRUE(writer->put(bytes("third"), poorHash("third"), bytes("value")));
  EXPECT_TRUE(reader.wait(10.0));
  EXPECT_EQ(kindsPolled(reader), (std::vector<Kind>{Kind::resync, Kind::writerOpen}));
  EXPECT_EQ(findIn(reader, "third"), "value");
}

// Whatever stands at a table's path, a reader answers at once: a FIFO must not block its open, a
// symbolic link is not followed, and a file too short for its header's geometry (one truncated,
// say) is not mapped, nor a table of another type or with a damaged header. Each is reported
// once, with what is wrong.
TEST(Shelf, ANonTableAtItsPathIsRefusedAtOnce) {
  TempRoot root;
  const Shelf::Location where(root.path(), "hostile/table");
  const std::string table = Shelf::Location(root.path(), "hostile/real").fullPath();
  Shelf::Writer::create(Shelf::Location(root.path(), "hostile/real"), kLabels, {64, 8, 40, 0});
  const std::uint64_t tableSize = std::filesystem::file_size(table);
  const std::pair<std::function<void(const std::string&)>, std::string> rows[] = {
      {[](const std::string& p) { ASSERT_EQ(mkfifo(p.c_str(), 0644), 0); }, "not a table file: it is a FIFO"},
      {[](const std::string& p) { std::filesystem::create_directory(p); }, "not a table file: it is a directory"},
      {[&](const std::string& p) { std::filesystem::create_symlink(table, p); }, "not a table file: it is a symbolic link"},
      {[](const std::string& p) { std::ofstream(p) << "short"; }, "file of 5 bytes is too short to hold a table"},
      {[&](const std::string& p) {
         std::filesystem::copy_file(table, p);
         std::filesystem::resize_file(p, tableSize - 4096);
       },
       fmt::format("file of {} bytes, where its header's geometry needs {}", tableSize - 4096, tableSize)},
      {[&](const std::string&) { Shelf::Writer::create(where, {"Other::Type", "entries", ""}, {8, 8, 8, 0}); },
       "holds Other::Type collection 'entries', not Test::Table collection 'entries'"},
      {[&](const std::string& p) {
         std::filesystem::copy_file(table, p);
         Damage(p).findText("test/table")[0] = 'X';
       },
       "header checksum mismatch"},
      {[&](const std::string& p) {
         std::filesystem::copy_file(table, p);
         std::filesystem::permissions(p, std::filesystem::perms(0666));
       },
       "not a table file: table (mode 0666) is writable by users other than its owner"},
      {[&](const std::string& p) {
         // A header, checksum and all, of the largest geometry over a sparse file: refused before
         // a reader walks millions of empty buckets.
         Shelf::detail::FileHeader h;
         std::ifstream(table, std::ios::binary).read(reinterpret_cast<char*>(&h), sizeof h);
         const auto l = Shelf::detail::layoutFor(Shelf::kMaxCapacity, 8, 40, h.ringCapacity);
         h.capacity = Shelf::kMaxCapacity, h.slotCount = l.slotCount, h.ringOffset = l.ringOffset, h.fileSize = l.fileSize;
         h.geometryChecksum = Shelf::detail::headerChecksum(&h);
         std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(&h), sizeof h);
         std::filesystem::resize_file(p, l.fileSize);
       },
       "a file of 5704261632 bytes of which only 4096 are stored: its slots were never written"},
  };
  for (const auto& [make, message] : rows) {
    std::filesystem::remove_all(where.fullPath());
    make(where.fullPath());
    std::vector<std::string> reports;
    // A handler may ask the reader again (the alarm ends a deadlock).
    Shelf::Reader* self = nullptr;
    Shelf::Reader reader(where, kLabels, 8, 40, [&](std::string_view m) { reports.emplace_back(m), self->writerOpen(); });
    self = &reader;
    alarm(5);
    EXPECT_FALSE(reader.attached() || reader.attached()) << message;
    alarm(0);
    EXPECT_EQ(reports, std::vector<std::string>{"Shelf " + where.fullPath() + ": " + message});
  }
  // A refused file that then changes (as a new file may get a refused one's inode) is looked at again.
  std::filesystem::remove_all(where.fullPath());
  std::ofstream(where.fullPath()) << "short";
  Shelf::Reader reader(where, kLabels, 8, 40, [](std::string_view) {});
  EXPECT_FALSE(reader.attached());
  std::filesystem::copy_file(table, where.fullPath(), std::filesystem::copy_options::overwrite_existing);
  EXPECT_TRUE(reader.attached());
}

// One word of a record damaged: in its value or the zeros after it (the checksum covers the whole
// slot), the record reads as absent and the records beside it read on; in its stamp (a bit that
// leaves it odd, as if the writer were still writing it), it still reads, checked against the
// checksum under the stamp its link names; in its link to the next record, the chain ends there
// and the records behind read as absent. Each is reported, once however often it is met, whether
// the writer lives or not: a reader never waits on a slot.
TEST(Shelf, ADamagedWordIsReportedOnceAndServesNothingWrong) {
  // The value lies 40 bytes into the slot: the slot header, then the key and its padding.
  struct Row {
    int at;
    std::string message;
    bool k7Served;
    bool restServed;
  };
  const Row rows[] = {{3, ": checksum mismatch in slot ", false, true},
                      {14, ": checksum mismatch in slot ", false, true},
                      {-40, " reads 0x", true, true},
                      {-32, ", which slot ", true, false}};
  for (const Row& row : rows) {
    TempRoot root;
    Table t(root);
    for (int i = 0; i < 20; ++i) t.put("k" + std::to_string(i), "value-of-k" + std::to_string(i));
    t.put("m1", "value-of-m1");  // another chain
    Damage(t.where.fullPath()).findText("value-of-k7")[row.at] ^= 1;
    EXPECT_EQ(t.find("k7"), row.k7Served ? std::optional<std::string>("value-of-k7") : std::nullopt) << row.at;
    // k7's chain, from the head: k19, k18, ..., k8, k7, k6, ...: the keys behind k7 are k0..k6.
    EXPECT_EQ(t.find("k6"), row.restServed ? std::optional<std::string>("value-of-k6") : std::nullopt) << row.at;
    EXPECT_EQ(t.find("k8"), "value-of-k8") << row.at;
    EXPECT_EQ(t.find("m1"), "value-of-m1") << row.at;
    t.writer.reset();
    EXPECT_EQ(t.find("k7").has_value(), row.k7Served) << row.at;
    ASSERT_EQ(t.reports.size(), 1u) << row.at;
    EXPECT_NE(t.reports[0].find(row.message), std::string::npos) << t.reports[0];
    EXPECT_TRUE(t.reports[0].starts_with("Shelf " + t.where.fullPath() + ": ")) << t.reports[0];
  }
  // The live word damaged: the file is still the one at the path, so lookups read on, and the
  // damage is reported once (the path is looked at again at most once a millisecond).
  TempRoot root;
  Table t(root);
  t.put("k1", "v1");
  Damage(t.where.fullPath()).base[448] ^= 4;
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(t.find("k1"), "v1");
  ASSERT_EQ(t.reports.size(), 1u);
  EXPECT_NE(t.reports[0].find("the table's live word reads 0x"), std::string::npos) << t.reports[0];
}

// One bit flipped in every word of the file in turn (header, records' stamps, links, heads,
// checksums, keys, values and padding, the ring), twice over with different bits: a fresh reader
// then looks up every key (by find and by the inline lookup) and lists the table. It is never
// given a value the key does not hold now, and a key that reads as absent, or is left out of the
// list, while present has been reported; so has any other answer that differs. 0 crashes, hangs
// or silent answers.
TEST(Shelf, EveryBitFlipIsHarmlessOrReported) {
  TempRoot root;
  Table t(root, {64, 8, 40, 0}, [](const std::string& k) { return static_cast<std::uint32_t>(k[1] - '0') % 5; });
  std::map<std::string, std::string> model;
  for (int i = 0; i < 60; ++i) t.put(fmt::format("k{}{}", i % 10, i / 10), model[fmt::format("k{}{}", i % 10, i / 10)] = fmt::format("v{}", i));
  for (int i = 0; i < 60; i += 7) t.put(fmt::format("k{}{}", i % 10, i / 10), model[fmt::format("k{}{}", i % 10, i / 10)] = fmt::format("w{}", i));
  for (int i = 0; i < 60; i += 9) t.erase(fmt::format("k{}{}", i % 10, i / 10)), model.erase(fmt::format("k{}{}", i % 10, i / 10));
  Damage d(t.where.fullPath());
  std::size_t rounds = 0, reported = 0;
  for (int pass = 0; pass < 2; ++pass) {
    for (std::size_t word = 0; word < d.size / 8; ++word) {
      const std::size_t at = word * 8 + (word * 7 + pass * 29) % 64 / 8;
      const std::uint8_t bit = static_cast<std::uint8_t>(1u << ((word * 3 + pass * 5) % 8));
      d.base[at] ^= bit;
      std::vector<std::string> reports;
      Shelf::Reader r(t.where, kLabels, 8, 40, [&](std::string_view m) { reports.emplace_back(m); });
      bool differs = false;
      for (int i = 0; i < 60; ++i) {
        const std::string k = fmt::format("k{}{}", i % 10, i / 10);
        const std::optional<std::string> want = model.count(k) ? std::optional<std::string>(model[k]) : std::nullopt;
        const std::optional<std::string> got = findIn(r, k, t.hash);
        if (got) ASSERT_EQ(got, want) << "byte " << at << " bit " << int(bit);
        Shelf::Reader::ValueWords<8, 40> words{};
        std::uint64_t keyWord = 0;
        std::memcpy(&keyWord, k.data(), k.size());
        if (r.findAtHome<8, 40>(keyWord, 2, t.hash(k), words)) {
          ASSERT_EQ(std::string(reinterpret_cast<const char*>(words.words), words.length), want.value_or("absent"))
              << "inline, byte " << at << " bit " << int(bit);
        }
        differs = differs || got != want;
      }
      std::map<std::string, std::string> listed;
      r.forEach([&](Bytes k, Bytes v) { listed[std::string(k.begin(), k.end())] = std::string(v.begin(), v.end()); });
      for (const auto& [k, v] : listed) ASSERT_EQ(model.count(k) ? model[k] : "absent", v) << "listed, byte " << at;
      differs = differs || listed != model;
      if (differs) EXPECT_FALSE(reports.empty()) << "byte " << at << " bit " << int(bit) << " changed answers silently";
      reported += !reports.empty();
      d.base[at] ^= bit;
      ++rounds;
    }
  }
  EXPECT_GE(rounds, 2000u);
  EXPECT_GT(reported, 100u);
}

// The file format, pinned byte for byte: a reader built from another version of this library must
// find the header's fields, a slot's fields and the marks where they are, and a change to any of
// them has to be a new version. (The writer's pid, the file's own live mark and the header
// checksum over it, the fields that vary, are blanked.)
TEST(Shelf, TheFileFormatIsPinned) {
  TempRoot root;
  const Shelf::Location where(root.path(), "pinned");
  auto w = Shelf::Writer::create(where, {"Pin::Type", "rows", "pin"}, {4, 8, 8, 0});
  w->put(bytes("k"), 1, bytes("v"));
  w->scalarIs(0, 0x1122);
  std::ifstream in(where.fullPath(), std::ios::binary);
  std::vector<std::uint8_t> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_EQ(file.size(), 8192u);
  auto hex = [&](std::size_t at, std::size_t n) {
    std::string out;
    for (std::size_t i = at; i < at + n; ++i) out += fmt::format("{:02x}", file[i]);
    return out;
  };
  EXPECT_EQ(hex(40, 4), hex(448, 4));  // the live word holds the file's mark, which is odd
  EXPECT_EQ(file[40] & 1, 1);
  for (std::size_t at : {12, 40, 400}) std::fill(file.begin() + at, file.begin() + at + (at == 400 ? 8 : 4), 0);
  // Magic "BGPSHELF", version 5, pid, file size, generation; capacity, slots (and buckets), mark,
  // key and value bounds, slot size, ring capacity and entry size; offsets of slots and ring.
  EXPECT_EQ(hex(0, 80),
            "4247505348454c460500000000000000" "0020000000000000" "0100000000000000"
            "04000000" "05000000" "00000000" "08000000" "08000000" "30000000" "40000000" "18000000"
            "0010000000000000" "0011000000000000");
  EXPECT_EQ(hex(80, 12), "50696e3a3a5479706500" "0000");  // type name, NUL-padded to 128 bytes
  EXPECT_EQ(hex(452, 4), "01000000");                       // writer open
  EXPECT_EQ(hex(512, 16), "0200000000000000" "02000000" "01000000");  // changes so far, wake word, occupancy
  EXPECT_EQ(hex(576, 8), "2211000000000000");                // scalar 0
  // Slot 1, home of bucket 1: stamp 12 (slots 0-4 were written free with stamps 2-10), key and
  // value lengths; link: the end of the chain; head of bucket 1: slot 1, stamp 12; checksum
  // (CRC32C of the stamp word and the value's word, and of the key's word); the key and the value
  // each in a word of its own.
  EXPECT_EQ(hex(4096 + 48, 48), "0c000000" "0100" "0100" "ffffffff00000000" "010000000c000000" "929f57028f69a5d7"
                                "6b00000000000000" "7600000000000000");

  // The inline lookup answers from that home slot; a record of the same bucket kept elsewhere, it
  // leaves to find. (It needs the CRC32C instruction; without it, it always leaves it to find.)
  w->put(bytes("j"), 1, bytes("w"));
  Shelf::Reader r(where, {"Pin::Type", "rows", ""}, 8, 8);
  ASSERT_TRUE(r.attached());
  Shelf::Reader::ValueWords<8, 8> value{};
  const bool instruction = Shelf::detail::instructionChecksum(bytes("12345678")).has_value();
  EXPECT_EQ((r.findAtHome<8, 8>)('k', 1, 1, value), instruction);
  if (instruction) EXPECT_EQ(std::make_pair(value.words[0], value.length), std::make_pair(std::uint64_t{'v'}, 1u));
  EXPECT_FALSE((r.findAtHome<8, 8>)('j', 1, 1, value));
  EXPECT_FALSE((r.findAtHome<8, 8>)('k', 1, 2, value));  // another bucket's home
  // The same word is another key under another length ("k" and a NUL), none, or one past the bound.
  for (std::uint32_t len : {0u, 2u, 9u}) EXPECT_FALSE((r.findAtHome<8, 8>)('k', len, 1, value)) << len;
  auto one = [](const std::string&) { return 1u; };
  EXPECT_EQ(findIn(r, "j", one), "w");

  // A whole record at home is not the key's record unless its bucket's chain reaches it: with one
  // bit of the head flipped, neither lookup answers from it (the link names another stamp), and
  // the damage is reported.
  std::vector<std::string> reports;
  r.corruptionHandlerIs([&](std::string_view m) { reports.emplace_back(m); });
  Damage(where.fullPath()).base[4096 + 48 + 16 + 4] ^= 0x20;
  EXPECT_FALSE((r.findAtHome<8, 8>)('k', 1, 1, value));
  EXPECT_EQ(findIn(r, "k", one), std::nullopt);
  EXPECT_EQ(findIn(r, "j", one), std::nullopt);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_NE(reports[0].find("a link in the chain of bucket 1 names record 0x2c, which slot 1 does not hold"),
            std::string::npos) << reports[0];

  // Mended, the record serves again; once a new writer has replaced the file, no longer.
  Damage(where.fullPath()).base[4096 + 48 + 16 + 4] ^= 0x20;
  EXPECT_EQ((r.findAtHome<8, 8>)('k', 1, 1, value), instruction);
  w.reset();
  w = Shelf::Writer::create(where, {"Pin::Type", "rows", "pin"}, {4, 8, 8, 0});
  EXPECT_FALSE((r.findAtHome<8, 8>)('k', 1, 1, value));
  EXPECT_EQ(findIn(r, "k", one), std::nullopt);
}

}  // namespace
