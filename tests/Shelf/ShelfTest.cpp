// The byte-level shared-memory table: writer and reader in one process, each with its own mapping.
#include "platform/Shelf/Shelf.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
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
#include <gtest/gtest.h>

#include "tests/Shelf/ShelfTestSupport.h"

namespace {

using Shelf::Bytes;
using testing_support::TempRoot;

const Shelf::Labels kLabels{"Test::Table", "entries", "test/table"};

Bytes bytes(const std::string& s) { return Bytes(reinterpret_cast<const std::uint8_t*>(s.data()), s.size()); }
// A poor hash on purpose: keys share a handful of buckets, so chains are long and links change.
std::uint32_t hashOf(const std::string& key) { return static_cast<std::uint8_t>(key[0]) & 7; }

struct Table {
  explicit Table(const TempRoot& root, Shelf::Geometry g = {64, 8, 40, 0})
      : where(root.path(), "test/table"),
        writer(Shelf::Writer::create(where, kLabels, g)),
        reader(where, kLabels, 8, 40, [this](std::string_view m) { reports.emplace_back(m); }) {}

  bool put(const std::string& k, const std::string& v) { return writer->put(bytes(k), hashOf(k), bytes(v)); }
  std::optional<std::string> find(const std::string& k) const {
    std::uint8_t out[40];
    auto n = reader.find(bytes(k), hashOf(k), out, sizeof out);
    if (!n) return std::nullopt;
    return std::string(reinterpret_cast<char*>(out), *n);
  }
  std::map<std::string, std::string> readAll() const {
    std::map<std::string, std::string> out;
    reader.forEach([&](Bytes k, Bytes v) {
      bool fresh = out.emplace(std::string(k.begin(), k.end()), std::string(v.begin(), v.end())).second;
      EXPECT_TRUE(fresh) << "a key was listed twice";
    });
    return out;
  }

  Shelf::Location where;
  std::unique_ptr<Shelf::Writer> writer;
  std::vector<std::string> reports;
  Shelf::Reader reader;
};

TEST(Shelf, MountPathsThatWouldLeaveTheRootAreRefused) {
  struct Row {
    const char* path;
    const char* message;
  };
  const Row rows[] = {
      {"", "Shelf mount path '' refused: it is empty"},
      {"/etc/table", "Shelf mount path '/etc/table' refused: it is absolute; mount paths are relative to the root"},
      {"a//b", "Shelf mount path 'a//b' refused: it has an empty component"},
      {"a/b/", "Shelf mount path 'a/b/' refused: it has an empty component"},
      {"../x", "Shelf mount path '../x' refused: it has a '..' component, which would leave the root"},
      {"a/../../x", "Shelf mount path 'a/../../x' refused: it has a '..' component, which would leave the root"},
      {"a/..", "Shelf mount path 'a/..' refused: it has a '..' component, which would leave the root"},
      {"a/./b", "Shelf mount path 'a/./b' refused: it has a '.' component"},
  };
  for (const Row& row : rows) {
    try {
      Shelf::Location("/tmp/root", row.path);
      ADD_FAILURE() << "accepted " << row.path;
    } catch (const Kelp::RangeException& e) {
      EXPECT_STREQ(e.what(), row.message);
    }
  }
  EXPECT_EQ(Shelf::Location("/tmp/root/", "a/..b/c").fullPath(), "/tmp/root/a/..b/c");
}

TEST(Shelf, DefaultRootComesFromTheEnvironment) {
  const char* saved = std::getenv("BGPCOMMON_SHM_ROOT");
  std::string keep = saved != nullptr ? saved : "";
  unsetenv("BGPCOMMON_SHM_ROOT");
  EXPECT_EQ(Shelf::Location::defaultRoot(), "/dev/shm/bgpcommon");
  setenv("BGPCOMMON_SHM_ROOT", "/tmp/elsewhere", 1);
  EXPECT_EQ(Shelf::Location("", "a").fullPath(), "/tmp/elsewhere/a");
  if (saved != nullptr) {
    setenv("BGPCOMMON_SHM_ROOT", keep.c_str(), 1);
  } else {
    unsetenv("BGPCOMMON_SHM_ROOT");
  }
}

// Long random sequences of puts, erases and clears against a plain map, with a fixed seed. The
// reader's lookups, its iteration and the change ring must all agree with the model.
TEST(Shelf, AgreesWithAPlainMapOverRandomOperations) {
  TempRoot root;
  Table t(root);
  std::map<std::string, std::string> model;
  std::set<std::string> touched;  // keys changed since the last poll
  std::mt19937 rng(20240611);
  auto randomKey = [&] {
    std::uint32_t n = rng() % 90;
    return std::string(1, static_cast<char>('a' + n % 26)) + std::to_string(n);
  };
  auto randomValue = [&] { return std::string(rng() % 41, static_cast<char>('A' + rng() % 26)); };
  t.reader.poll([](const Shelf::Change&) {});

  for (int step = 0; step < 6000; ++step) {
    std::uint32_t op = rng() % 100;
    std::string key = randomKey();
    if (op < 60) {
      std::string value = randomValue();
      bool isNew = model.count(key) == 0;
      if (isNew && model.size() == 64) {
        EXPECT_THROW(t.put(key, value), Shelf::TableFullException);
      } else {
        bool changed = isNew || model[key] != value;
        EXPECT_EQ(t.put(key, value), changed);
        model[key] = value;
        if (changed) touched.insert(key);
      }
    } else if (op < 98) {
      bool present = model.erase(key) != 0;
      EXPECT_EQ(t.writer->erase(bytes(key), hashOf(key)), present);
      if (present) touched.insert(key);
    } else {
      t.writer->clear();
      for (const auto& [k, v] : model) touched.insert(k);
      model.clear();
    }
    ASSERT_EQ(t.writer->occupancy(), model.size());

    if (step % 97 == 0) {
      for (std::uint32_t n = 0; n < 90; ++n) {
        std::string k = std::string(1, static_cast<char>('a' + n % 26)) + std::to_string(n);
        auto it = model.find(k);
        EXPECT_EQ(t.find(k), it == model.end() ? std::nullopt : std::optional<std::string>(it->second)) << k;
      }
      EXPECT_EQ(t.readAll(), model);
      std::map<std::string, std::string> viaWriter;
      t.writer->forEach([&](Bytes k, Bytes v) { viaWriter[std::string(k.begin(), k.end())] = std::string(v.begin(), v.end()); });
      EXPECT_EQ(viaWriter, model);

      std::set<std::string> heard;
      bool resync = false;
      t.reader.poll([&](const Shelf::Change& c) {
        if (c.kind == Shelf::Change::Kind::key) heard.emplace(c.key.begin(), c.key.end());
        if (c.kind == Shelf::Change::Kind::resync || c.kind == Shelf::Change::Kind::cleared) resync = true;
      });
      if (!resync) EXPECT_EQ(heard, touched);
      touched.clear();
    }
  }
  EXPECT_TRUE(t.reports.empty());
}

TEST(Shelf, FullTableRefusesNewKeysAndChangesNothing) {
  TempRoot root;
  Table t(root, {3, 8, 40, 0});
  EXPECT_TRUE(t.put("k1", "one"));
  EXPECT_TRUE(t.put("k2", "two"));
  EXPECT_TRUE(t.put("k3", "three"));
  try {
    t.put("k4", "four");
    ADD_FAILURE() << "a fourth key fit a table of three";
  } catch (const Kelp::RangeException& e) {
    EXPECT_STREQ(e.what(), "Shelf table full (occupancy:3 tableSize:3) test/table");
  }
  EXPECT_EQ(t.writer->occupancy(), 3u);
  EXPECT_EQ(t.find("k4"), std::nullopt);
  // Replacing an existing key still works in a full table, over and over.
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(t.put("k2", "two" + std::to_string(i)));
  EXPECT_EQ(t.find("k2"), "two19");
  EXPECT_TRUE(t.writer->erase(bytes("k1"), hashOf("k1")));
  EXPECT_TRUE(t.put("k4", "four"));
  EXPECT_EQ(t.readAll(), (std::map<std::string, std::string>{{"k2", "two19"}, {"k3", "three"}, {"k4", "four"}}));
}

// Small integer keys hashed to themselves, as result identifiers are, over more buckets than the
// table has slots: records live at their bucket's home slot when it is free, elsewhere when not,
// and homes are shared. Churn moves records in and out of homes and frees and reuses slots in and
// out of turn; the reader must agree with the model throughout, and afterwards every slot must be
// usable again (the table takes exactly its capacity).
TEST(Shelf, RecordsMovingInAndOutOfTheirHomesStayReadable) {
  TempRoot root;
  const std::uint32_t capacity = 40;  // 64 buckets, 42 slots: buckets 42..63 share homes 0..21
  Shelf::Location where(root.path(), "homes");
  auto writer = Shelf::Writer::create(where, kLabels, {capacity, 4, 16, 0});
  Shelf::Reader reader(where, kLabels, 4, 16);
  auto keyOf = [](const std::uint32_t& k) { return Bytes(reinterpret_cast<const std::uint8_t*>(&k), 4); };
  auto find = [&](std::uint32_t k) -> std::optional<std::string> {
    std::uint8_t out[16];
    auto n = reader.find(keyOf(k), k, out, sizeof out);
    if (!n) return std::nullopt;
    return std::string(reinterpret_cast<char*>(out), *n);
  };
  std::map<std::uint32_t, std::string> model;
  std::mt19937 rng(99);
  for (int step = 0; step < 20000; ++step) {
    const std::uint32_t k = rng() % 128;  // buckets 0..63, each for two keys
    if (rng() % 3 != 0) {
      if (model.size() == capacity && model.count(k) == 0) continue;
      std::string v = "v" + std::to_string(step) + std::string(rng() % 8, 'x');
      writer->put(keyOf(k), k, bytes(v));
      model[k] = v;
    } else {
      EXPECT_EQ(writer->erase(keyOf(k), k), model.erase(k) == 1);
    }
    auto it = model.find(k);
    ASSERT_EQ(find(k), it == model.end() ? std::nullopt : std::optional<std::string>(it->second)) << "step " << step;
    if (step % 1000 == 0) {
      for (std::uint32_t q = 0; q < 128; ++q) {
        auto m = model.find(q);
        EXPECT_EQ(find(q), m == model.end() ? std::nullopt : std::optional<std::string>(m->second)) << q;
      }
    }
  }
  for (const auto& [k, v] : model) writer->erase(keyOf(k), k);
  for (std::uint32_t k = 0; k < capacity; ++k) writer->put(keyOf(k * 3), k * 3, bytes("full"));
  EXPECT_THROW(writer->put(keyOf(1000), 1000, bytes("one more")), Shelf::TableFullException);
  for (std::uint32_t k = 0; k < capacity; ++k) EXPECT_EQ(find(k * 3), "full");
}

// The checksum a table keeps of each record is CRC32C, lane by lane, the same whether computed
// with tables or with the processor's instruction. The reference here is the plain bit-by-bit
// definition of CRC32C.
TEST(Shelf, RecordChecksumsAreCrc32cWithTablesAndWithTheInstruction) {
  auto crc32c = [](const std::uint8_t* p, std::size_t n) {
    std::uint32_t c = ~0u;
    for (std::size_t i = 0; i < n; ++i) {
      c ^= p[i];
      for (int bit = 0; bit < 8; ++bit) c = (c >> 1) ^ (0x82F63B78u & (0u - (c & 1u)));
    }
    return ~c;
  };
  ASSERT_EQ(crc32c(reinterpret_cast<const std::uint8_t*>("123456789"), 9), 0xE3069283u);  // the check value
  std::mt19937 rng(5);
  for (std::size_t words = 1; words <= 40; ++words) {
    std::vector<std::uint8_t> in(8 * words);
    for (auto& b : in) b = static_cast<std::uint8_t>(rng());
    // Lane 0 takes the even words, lane 1 the odd ones.
    std::vector<std::uint8_t> lane0, lane1;
    for (std::size_t w = 0; w < words; ++w) (w % 2 == 0 ? lane0 : lane1).insert((w % 2 == 0 ? lane0 : lane1).end(), &in[8 * w], &in[8 * w + 8]);
    const std::uint64_t expected = std::uint64_t{crc32c(lane0.data(), lane0.size())} << 32 | crc32c(lane1.data(), lane1.size());
    EXPECT_EQ(Shelf::detail::tableChecksum(Bytes(in)), expected) << words;
    if (auto sum = Shelf::detail::instructionChecksum(Bytes(in))) EXPECT_EQ(*sum, expected) << words;
  }
}

TEST(Shelf, StoringTheSameBytesAgainIsNoChange) {
  TempRoot root;
  Table t(root);
  t.reader.poll([](const Shelf::Change&) {});
  EXPECT_TRUE(t.put("k", "v"));
  EXPECT_FALSE(t.put("k", "v"));
  EXPECT_TRUE(t.put("k", "w"));
  std::vector<std::string> heard;
  t.reader.poll([&](const Shelf::Change& c) { heard.emplace_back(c.key.begin(), c.key.end()); });
  EXPECT_EQ(heard, (std::vector<std::string>{"k", "k"}));
}

TEST(Shelf, BadGeometryAndOversizedEntriesAreRefused) {
  TempRoot root;
  Shelf::Location where(root.path(), "t");
  EXPECT_THROW(Shelf::Writer::create(where, kLabels, {0, 8, 8, 0}), Kelp::RangeException);
  EXPECT_THROW(Shelf::Writer::create(where, kLabels, {8, 0, 8, 0}), Kelp::RangeException);
  EXPECT_THROW(Shelf::Writer::create(where, kLabels, {8, 8, 5000, 0}), Kelp::RangeException);
  EXPECT_THROW(Shelf::Writer::create(where, kLabels, {8, 8, 8, 100}), Kelp::RangeException);
  Table t(root);
  EXPECT_THROW(t.put("123456789", "v"), Kelp::RangeException);
  EXPECT_THROW(t.put("k", std::string(41, 'x')), Kelp::RangeException);
  EXPECT_THROW(t.put("", "v"), Kelp::RangeException);
  EXPECT_EQ(t.writer->occupancy(), 0u);
}

TEST(Shelf, ARestartedWriterStartsEmptyAndAttachedReadersFollowIt) {
  TempRoot root;
  Table t(root);
  EXPECT_TRUE(t.put("old", "value"));
  EXPECT_EQ(t.find("old"), "value");
  const std::uint64_t firstGeneration = t.reader.generation();
  t.reader.poll([](const Shelf::Change&) {});

  // The writer goes: readers hear it and keep reading its last contents.
  t.writer.reset();
  std::vector<Shelf::Change::Kind> kinds;
  t.reader.poll([&](const Shelf::Change& c) { kinds.push_back(c.kind); });
  EXPECT_EQ(kinds, std::vector<Shelf::Change::Kind>{Shelf::Change::Kind::writerClosed});
  EXPECT_FALSE(t.reader.writerOpen());
  EXPECT_EQ(t.find("old"), "value");

  // A new writer on the same path starts empty; the same reader sees its contents.
  t.writer = Shelf::Writer::create(t.where, kLabels, {16, 8, 40, 0});
  EXPECT_EQ(t.find("old"), std::nullopt);
  EXPECT_TRUE(t.put("new", "value2"));
  EXPECT_EQ(t.find("new"), "value2");
  EXPECT_EQ(t.reader.generation(), firstGeneration + 1);
  EXPECT_EQ(t.reader.capacity(), 16u);
  EXPECT_TRUE(t.reader.writerOpen());
  kinds.clear();
  t.reader.poll([&](const Shelf::Change& c) { kinds.push_back(c.kind); });
  EXPECT_EQ(kinds, std::vector<Shelf::Change::Kind>{Shelf::Change::Kind::resync});
  EXPECT_TRUE(t.reports.empty());
}

TEST(Shelf, OneLiveWriterPerTable) {
  TempRoot root;
  Table t(root);
  try {
    Shelf::Writer::create(t.where, kLabels, {8, 8, 8, 0});
    ADD_FAILURE() << "a second writer opened the table";
  } catch (const Shelf::Exception& e) {
    EXPECT_EQ(std::string(e.what()),
              fmt::format("Shelf {}: another writer (pid {}) has this table open", t.where.fullPath(), getpid()));
  }
  EXPECT_TRUE(t.put("k", "still mine"));
  EXPECT_EQ(t.find("k"), "still mine");
  // The lock goes with the writer; the next one starts a new generation.
  const std::uint64_t generation = t.reader.generation();
  t.writer.reset();
  t.writer = Shelf::Writer::create(t.where, kLabels, {8, 8, 8, 0});
  EXPECT_EQ(t.reader.generation(), generation + 1);
}

// Whatever stands at a table's path, a reader answers at once: a FIFO must not block its open, a
// symbolic link is not followed, and a file too short for its header's geometry (one truncated,
// say) is not mapped. Each is reported once, with what is wrong.
TEST(Shelf, ANonTableAtItsPathIsRefusedAtOnce) {
  TempRoot root;
  const Shelf::Location where(root.path(), "hostile/table");
  std::string table;
  {
    auto w = Shelf::Writer::create(Shelf::Location(root.path(), "hostile/real"), kLabels, {64, 8, 40, 0});
    table = Shelf::Location(root.path(), "hostile/real").fullPath();
  }
  const std::uint64_t tableSize = std::filesystem::file_size(table);
  struct Row {
    const char* what;
    std::function<void(const std::string&)> make;
    std::string message;
  };
  const Row rows[] = {
      {"fifo", [](const std::string& p) { ASSERT_EQ(mkfifo(p.c_str(), 0644), 0); }, "not a table file: it is a FIFO"},
      {"directory", [](const std::string& p) { std::filesystem::create_directory(p); },
       "not a table file: it is a directory"},
      {"symbolic link", [&](const std::string& p) { std::filesystem::create_symlink(table, p); },
       "not a table file: it is a symbolic link"},
      {"short file", [](const std::string& p) { std::ofstream(p) << "short"; },
       "file of 5 bytes is too short to hold a table"},
      {"truncated table",
       [&](const std::string& p) {
         std::filesystem::copy_file(table, p);
         std::filesystem::resize_file(p, tableSize - 4096);
       },
       fmt::format("file of {} bytes, where its header's geometry needs {}", tableSize - 4096, tableSize)},
  };
  for (const Row& row : rows) {
    std::filesystem::remove_all(where.fullPath());
    row.make(where.fullPath());
    std::vector<std::string> reports;
    // A handler may ask the reader again (the alarm ends a deadlock).
    Shelf::Reader* self = nullptr;
    Shelf::Reader reader(where, kLabels, 8, 40, [&](std::string_view m) {
      reports.emplace_back(m);
      EXPECT_FALSE(self->writerOpen());
    });
    self = &reader;
    alarm(5);
    EXPECT_FALSE(reader.attached()) << row.what;
    EXPECT_FALSE(reader.attached()) << row.what;
    alarm(0);
    EXPECT_EQ(reports, std::vector<std::string>{"Shelf " + where.fullPath() + ": " + row.message}) << row.what;
  }
}

// Any leaf the location rules accept can hold a table: the lock and the file being built beside
// it have names of their own that stay within the system's limit.
TEST(Shelf, EveryAcceptedLeafCanHoldATable) {
  TempRoot root;
  for (std::size_t length : {1u, 200u, 249u, 250u, 255u}) {
    const Shelf::Location where(root.path(), "names/" + std::string(length, 'n'));
    auto w = Shelf::Writer::create(where, kLabels, {8, 8, 8, 0});
    EXPECT_TRUE(w->put(bytes("k"), 1, bytes("v"))) << length;
    Shelf::Reader r(where, kLabels, 8, 8);
    std::uint8_t out[8];
    EXPECT_EQ(r.find(bytes("k"), 1, out, sizeof out), 1u) << length;
    EXPECT_THROW(Shelf::Writer::create(where, kLabels, {8, 8, 8, 0}), Shelf::Exception) << length;
  }
  EXPECT_THROW(Shelf::Location(root.path(), "names/" + std::string(256, 'n')), Kelp::RangeException);
}

TEST(Shelf, AReaderAttachesWhenTheWriterArrives) {
  TempRoot root;
  Shelf::Location where(root.path(), "late/table");
  Shelf::Reader reader(where, kLabels, 8, 40);
  EXPECT_FALSE(reader.attached());
  std::uint8_t out[40];
  EXPECT_EQ(reader.find(bytes("k"), hashOf("k"), out, sizeof out), std::nullopt);
  EXPECT_FALSE(reader.wait(0.01));
  auto writer = Shelf::Writer::create(where, kLabels, {8, 8, 40, 0});
  writer->put(bytes("k"), hashOf("k"), bytes("v"));
  EXPECT_TRUE(reader.wait(1.0));
  EXPECT_EQ(reader.find(bytes("k"), hashOf("k"), out, sizeof out), 1u);
  EXPECT_EQ(reader.occupancy(), 1u);
}

TEST(Shelf, AReaderRefusesATableOfAnotherType) {
  TempRoot root;
  Table t(root);
  std::vector<std::string> reports;
  Shelf::Reader other(t.where, {"Other::Type", "entries", ""}, 8, 40,
                      [&](std::string_view m) { reports.emplace_back(m); });
  EXPECT_FALSE(other.attached());
  EXPECT_FALSE(other.attached());
  ASSERT_EQ(reports.size(), 1u) << "the same failure is reported once";
  EXPECT_EQ(reports[0], "Shelf " + t.where.fullPath() +
                            ": holds Test::Table collection 'entries', not Other::Type collection 'entries'");
}

TEST(Shelf, FallingBehindTheRingAsksForAResync) {
  TempRoot root;
  Table t(root, {8, 8, 40, 4});
  t.reader.poll([](const Shelf::Change&) {});
  for (int i = 0; i < 5; ++i) t.put("k", "v" + std::to_string(i));
  std::vector<Shelf::Change::Kind> kinds;
  t.reader.poll([&](const Shelf::Change& c) { kinds.push_back(c.kind); });
  EXPECT_EQ(kinds, std::vector<Shelf::Change::Kind>{Shelf::Change::Kind::resync});
  t.put("k", "again");
  kinds.clear();
  t.reader.poll([&](const Shelf::Change& c) { kinds.push_back(c.kind); });
  EXPECT_EQ(kinds, std::vector<Shelf::Change::Kind>{Shelf::Change::Kind::key});
}

TEST(Shelf, WaitingReadersWakeForChangesAndScalars) {
  TempRoot root;
  Table t(root);
  t.reader.poll([](const Shelf::Change&) {});
  EXPECT_FALSE(t.reader.wait(0.02));
  std::thread writer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    t.writer->scalarIs(2, 77);
  });
  EXPECT_TRUE(t.reader.wait(10.0));
  writer.join();
  std::vector<std::uint32_t> scalars;
  t.reader.poll([&](const Shelf::Change& c) {
    if (c.kind == Shelf::Change::Kind::scalar) scalars.push_back(c.scalarIndex);
  });
  EXPECT_EQ(scalars, std::vector<std::uint32_t>{2});
  EXPECT_EQ(t.reader.scalar(2), 77u);
  t.writer->scalarIs(2, 77);  // unchanged: no change announced
  EXPECT_EQ(t.reader.poll([](const Shelf::Change&) {}), 0u);
}

// ---- Distrust --------------------------------------------------------------------------------------

// Maps the table file writable, as a stray process could, to damage it.
struct Damage {
  explicit Damage(const std::string& path) {
    fd = open(path.c_str(), O_RDWR);
    struct stat st;
    fstat(fd, &st);
    size = static_cast<std::size_t>(st.st_size);
    base = static_cast<std::uint8_t*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  }
  ~Damage() {
    munmap(base, size);
    close(fd);
  }
  std::uint8_t* findText(const std::string& text) {
    auto* p = static_cast<std::uint8_t*>(memmem(base, size, text.data(), text.size()));
    EXPECT_NE(p, nullptr) << text;
    return p;
  }
  int fd;
  std::size_t size;
  std::uint8_t* base;
};

TEST(Shelf, ADamagedRecordReadsAsAbsentAndIsReported) {
  TempRoot root;
  Table t(root);
  for (int i = 0; i < 20; ++i) t.put("k" + std::to_string(i), "value-of-k" + std::to_string(i));
  Damage d(t.where.fullPath());
  d.findText("value-of-k7")[3] ^= 0x20;

  EXPECT_EQ(t.find("k7"), std::nullopt);
  ASSERT_EQ(t.reports.size(), 1u);
  EXPECT_TRUE(t.reports[0].starts_with("Shelf " + t.where.fullPath() + ": checksum mismatch in slot "))
      << t.reports[0];
  EXPECT_EQ(t.find("k8"), "value-of-k8");
}

// The checksum covers the whole slot, the unused zero bytes after a value included.
TEST(Shelf, DamageAfterTheValueIsCaughtToo) {
  TempRoot root;
  Table t(root);
  t.put("a", "short");
  t.put("b", "short too");  // another bucket
  Damage d(t.where.fullPath());
  d.findText("short too")[12] = 1;
  EXPECT_EQ(t.find("b"), std::nullopt);
  ASSERT_EQ(t.reports.size(), 1u);
  EXPECT_TRUE(t.reports[0].starts_with("Shelf " + t.where.fullPath() + ": checksum mismatch in slot ")) << t.reports[0];
  EXPECT_EQ(t.find("a"), "short");
}

TEST(Shelf, ADamagedHeaderKeepsNewReadersOut) {
  TempRoot root;
  Table t(root);
  t.put("k", "v");
  EXPECT_EQ(t.find("k"), "v");  // attaches
  Damage d(t.where.fullPath());
  d.findText("test/table")[0] = 'X';
  std::vector<std::string> reports;
  Shelf::Reader late(t.where, kLabels, 8, 40, [&](std::string_view m) { reports.emplace_back(m); });
  std::uint8_t out[40];
  EXPECT_EQ(late.find(bytes("k"), hashOf("k"), out, sizeof out), std::nullopt);
  EXPECT_EQ(reports, std::vector<std::string>{"Shelf " + t.where.fullPath() + ": header checksum mismatch"});
  // A reader attached before the damage copied the geometry out and reads on.
  EXPECT_EQ(t.find("k"), "v");
}

// A record whose sequence counter is left odd looks like one the writer is rewriting. While a writer
// has the table open the reader waits a bounded while and answers absent; once no writer has it
// open, nothing can finish the write, so it is damage and is reported at once.
TEST(Shelf, ARecordStuckMidWriteReadsAsAbsent) {
  TempRoot root;
  Table t(root);
  t.put("k7", "value-of-k7");
  t.put("m1", "value-of-m1");  // another chain
  Damage d(t.where.fullPath());
  // The counter opens the 32-byte slot header that the key follows; the value comes a little later.
  std::uint8_t* value = d.findText("value-of-k7");
  std::uint8_t* key = value - 2;
  while (key > value - 16 && std::memcmp(key, "k7", 2) != 0) --key;
  ASSERT_EQ(std::memcmp(key, "k7", 2), 0);
  key[-32] ^= 1;

  EXPECT_EQ(t.find("k7"), std::nullopt);
  EXPECT_TRUE(t.reports.empty());
  EXPECT_EQ(t.find("m1"), "value-of-m1");
  t.writer.reset();
  EXPECT_EQ(t.find("k7"), std::nullopt);
  ASSERT_EQ(t.reports.size(), 1u);
  EXPECT_TRUE(t.reports[0].ends_with(" in the chain of bucket 3 is mid-write, and no writer has the table open"))
      << t.reports[0];
  EXPECT_EQ(t.find("m1"), "value-of-m1");
}

// Random bytes anywhere past the header: lookups answer the stored value or nothing, never a wrong
// value; nothing crashes or hangs, and damage is reported.
TEST(Shelf, RandomDamageNeverYieldsAWrongValue) {
  TempRoot root;
  std::mt19937 rng(7);
  std::size_t reported = 0;
  for (int round = 0; round < 40; ++round) {
    Table t(root);
    std::map<std::string, std::string> model;
    for (int i = 0; i < 50; ++i) {
      std::string k = "k" + std::to_string(i);
      model[k] = "v" + std::to_string(i * 7919);
      t.put(k, model[k]);
    }
    {
      Damage d(t.where.fullPath());
      for (int hit = 0; hit < 1 + round % 8; ++hit) {
        std::size_t at = 4096 + rng() % (d.size - 4096);
        d.base[at] = static_cast<std::uint8_t>(rng());
      }
    }
    for (const auto& [k, v] : model) {
      std::optional<std::string> got = t.find(k);
      if (got) EXPECT_EQ(*got, v) << "round " << round;
    }
    for (const auto& [k, v] : t.readAll()) EXPECT_EQ(model.at(k), v) << "round " << round;
    reported += t.reports.size();
    t.writer.reset();
  }
  EXPECT_GT(reported, 0u);
}

// The file format, pinned byte for byte: a reader built from another version of this library must
// find the header's fields, a slot's fields and the marks where they are, and a change to any of
// them has to be a new version. (The writer's pid, the one field that varies, is blanked.)
TEST(Shelf, TheFileFormatIsPinned) {
  TempRoot root;
  const Shelf::Location where(root.path(), "pinned");
  auto w = Shelf::Writer::create(where, {"Pin::Type", "rows", "pin"}, {4, 8, 8, 0});
  w->put(bytes("k"), 1, bytes("v"));
  w->scalarIs(0, 0x1122);
  std::ifstream in(where.fullPath(), std::ios::binary);
  std::vector<std::uint8_t> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_EQ(file.size(), 8192u);
  std::fill(file.begin() + 12, file.begin() + 16, 0);
  auto hex = [&](std::size_t at, std::size_t n) {
    std::string out;
    for (std::size_t i = at; i < at + n; ++i) out += fmt::format("{:02x}", file[i]);
    return out;
  };
  // Magic "BGPSHELF", version 4, pid, file size, generation; capacity, slots, buckets, key and value
  // bounds, slot size, ring capacity and entry size; offsets of buckets, slots and ring.
  EXPECT_EQ(hex(0, 88),
            "4247505348454c460400000000000000" "0020000000000000" "0100000000000000"
            "04000000" "05000000" "04000000" "08000000" "08000000" "30000000" "40000000" "18000000"
            "0010000000000000" "4010000000000000" "4011000000000000");
  EXPECT_EQ(hex(88, 12), "50696e3a3a5479706500" "0000");  // type name, NUL-padded to 128 bytes
  EXPECT_EQ(hex(448, 8), "4c49564501000000");               // live mark, writer open
  EXPECT_EQ(hex(512, 16), "0200000000000000" "02000000" "01000000");  // changes so far, wake word, occupancy
  EXPECT_EQ(hex(576, 8), "2211000000000000");                // scalar 0
  EXPECT_EQ(hex(4096, 16), "ffffffff" "01000000" "ffffffff" "ffffffff");  // bucket 1 heads at its home, slot 1
  // Slot 1: counter 4 (free once, then the record), link kNone, checksum, zeros, bucket 1, own
  // index 1, key and value lengths, the key and the value each in a word of its own.
  EXPECT_EQ(hex(4160 + 48, 48), "04000000" "ffffffff" "bde7486ac2637efd" "00000000" "01000000" "01000000" "0100" "0100"
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
  std::uint8_t out[8];
  EXPECT_EQ(r.find(bytes("j"), 1, out, sizeof out), 1u);
  EXPECT_EQ(out[0], 'w');

  // A whole record copied into another slot is not that slot's record: "j" (slot 0, its home
  // being taken) copied into slot 4, which bucket 1 is made to lead to.
  std::vector<std::string> reports;
  r.corruptionHandlerIs([&](std::string_view m) { reports.emplace_back(m); });
  {
    Damage d(where.fullPath());
    std::memcpy(d.base + 4160 + 48 * 4, d.base + 4160, 48);
    const std::uint32_t four = 4;
    std::memcpy(d.base + 4096 + 4, &four, 4);
  }
  EXPECT_EQ(r.find(bytes("j"), 1, out, sizeof out), std::nullopt);
  EXPECT_EQ(reports, std::vector<std::string>{"Shelf " + where.fullPath() + ": slot 4 holds the record of slot 0"});

  // Once a new writer has replaced the file, the inline lookup no longer answers from it.
  w.reset();
  w = Shelf::Writer::create(where, {"Pin::Type", "rows", "pin"}, {4, 8, 8, 0});
  EXPECT_FALSE((r.findAtHome<8, 8>)('k', 1, 1, value));
  EXPECT_EQ(r.find(bytes("k"), 1, out, sizeof out), std::nullopt);
}

TEST(Shelf, AReaderMapsTheTableReadOnly) {
  TempRoot root;
  Table t(root);
  t.put("k", "v");
  ASSERT_TRUE(t.reader.attached());
  Bytes mapped = t.reader.mappedBytes();
  std::ifstream maps("/proc/self/maps");
  std::string line;
  int readerMappings = 0;
  char start[32];
  std::snprintf(start, sizeof start, "%lx-", reinterpret_cast<unsigned long>(mapped.data()));
  while (std::getline(maps, line)) {
    if (line.starts_with(start)) {
      EXPECT_NE(line.find(" r--s "), std::string::npos) << line;
      ++readerMappings;
    }
  }
  EXPECT_EQ(readerMappings, 1);
  // A write through the mapping faults (AddressSanitizer turns the signal into a failing exit).
  auto faulted = [](int status) {
    return (WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) || (WIFEXITED(status) && WEXITSTATUS(status) != 0);
  };
  EXPECT_EXIT(const_cast<std::uint8_t*>(mapped.data())[64] = 1, faulted, "");
}

}  // namespace
