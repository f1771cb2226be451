// The IGP result table across real processes: readers forked from the test or the bgpcommon tool,
// writers in the test or in forked children that are killed at random moments.
//
// Children are forked before the parent opens a writer: a forked child would otherwise hold the
// writer's lock on the table file for as long as it lives.
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <set>
#include <cstring>
#include <random>
#include <sstream>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "BgpCommon/FilteredRtStatus.h"
#include "tests/Shelf/ShelfTestSupport.h"
#include "tests/Support/RunTool.h"

namespace Routing::BgpRedistribute {
namespace {

using testing_support::isWholeRecord;
using testing_support::TempRoot;
using testing_support::versionedRecord;
using Clock = std::chrono::steady_clock;

struct Pipe {
  Pipe() { EXPECT_EQ(pipe(fd), 0); }
  ~Pipe() {
    closeRead();
    closeWrite();
  }
  void closeRead() {
    if (fd[0] >= 0) close(std::exchange(fd[0], -1));
  }
  void closeWrite() {
    if (fd[1] >= 0) close(std::exchange(fd[1], -1));
  }
  template <typename T>
  void send(const T& v) {
    EXPECT_EQ(write(fd[1], &v, sizeof v), static_cast<ssize_t>(sizeof v));
  }
  template <typename T>
  bool receive(T& v) {
    return read(fd[0], &v, sizeof v) == static_cast<ssize_t>(sizeof v);
  }
  int fd[2] = {-1, -1};
};

// Runs `body` in a child process, which exits with its result (99 when it threw).
template <typename F>
pid_t forkChild(F&& body) {
  pid_t pid = fork();
  if (pid == 0) {
    int code = 99;
    try {
      code = body();
    } catch (...) {
    }
    _exit(code);
  }
  return pid;
}

int exitCodeOf(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Kelp::Ptr<KelpSharedMem::EntityManager> manager(const TempRoot& root) {
  return Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
}

TEST(ShelfProcess, TheToolReadsEveryRecordAWriterStored) {
  TempRoot root;
  auto em = manager(root);
  auto status = IgpResultStatus::createIgpResultStatusWriter("tool", em, 512);
  std::string expected;
  for (std::uint32_t k = 1; k <= 300; ++k) {
    status->resultIs(versionedRecord(k, k * 11));
    expected += Kelp::valueToStrep(versionedRecord(k, k * 11)) + "\n";
  }
  auto text = testing_support::runTool("igp-results show tool --root " + root.path());
  EXPECT_EQ(text.status, 0);
  EXPECT_EQ(text.out, expected);

  auto json = testing_support::runTool("igp-results show tool --json --root " + root.path());
  ASSERT_EQ(json.status, 0) << json.out;
  nlohmann::json records = nlohmann::json::parse(json.out);
  ASSERT_EQ(records.size(), 300u);
  for (const auto& j : records) {
    IgpResult want = versionedRecord(j["key"].get<std::uint32_t>(), j["metric"].get<std::uint64_t>());
    EXPECT_EQ(j["tag"].get<std::uint32_t>(), want.tag.value);
    EXPECT_EQ(j["ospfDomainId"].get<std::uint64_t>(), want.ospfDomainId);
    EXPECT_EQ(j["isisLevel"].get<std::string>(), Isis::stringValue(want.isisLevel));
    EXPECT_EQ(j["community"].size(), want.community.count());
  }

  auto missing = testing_support::runTool("igp-results show nothing --root " + root.path());
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.out, "no table at " + root.path() + "/routing/rib/igpResultStatus/nothing\n");
}

TEST(ShelfProcess, AnAttachedReaderProcessFollowsARestartedWriter) {
  TempRoot root;
  Pipe toChild, toParent;
  pid_t child = forkChild([&] {
    char go;
    if (!toChild.receive(go)) return 10;
    auto em = manager(root);
    auto view = IgpResultStatus::createIgpResultStatusReader("restart", em);
    for (std::uint32_t k = 1; k <= 10; ++k) {
      if (view->result(IgpResultId(k)) != versionedRecord(k, 1)) return 2;
    }
    toParent.send('a');
    if (!toChild.receive(go)) return 11;
    // The same entity, never re-attached, must come to show the new writer's records only.
    auto deadline = Clock::now() + std::chrono::seconds(20);
    while (!view->result(IgpResultId(104)) && Clock::now() < deadline) {
      view->resultControl()->waitForChanges(0.1);
      view->resultControl()->poll();
    }
    for (std::uint32_t k = 1; k <= 10; ++k) {
      if (view->result(IgpResultId(k))) return 3;
    }
    for (std::uint32_t k = 100; k <= 104; ++k) {
      if (view->result(IgpResultId(k)) != versionedRecord(k, 2)) return 4;
    }
    return view->resultCount() == 5 ? 0 : 5;
  });

  auto firstEm = manager(root);
  auto first = IgpResultStatus::createIgpResultStatusWriter("restart", firstEm, 64);
  for (std::uint32_t k = 1; k <= 10; ++k) first->resultIs(versionedRecord(k, 1));
  toChild.send('g');
  char ack = 0;
  ASSERT_TRUE(toParent.receive(ack));

  first = nullptr;
  firstEm = nullptr;
  auto secondEm = manager(root);
  auto second = IgpResultStatus::createIgpResultStatusWriter("restart", secondEm, 32);
  for (std::uint32_t k = 100; k <= 104; ++k) second->resultIs(versionedRecord(k, 2));
  toChild.send('g');
  EXPECT_EQ(exitCodeOf(child), 0);
}

// What a verifying reader process found.
struct ReaderReport {
  std::uint64_t whole = 0;        // records read that were exactly what some write stored
  std::uint64_t torn = 0;         // records read that no write ever stored
  std::uint64_t absent = 0;       // lookups that found nothing (allowed, and rare)
  std::uint64_t regressions = 0;  // a key read at an older version after a newer one
  std::uint64_t listed = 0;       // records seen through iteration
  std::uint64_t reports = 0;      // corruption reports
};

ReaderReport verifyFor(const TempRoot& root, const char* name, std::uint32_t keys, std::chrono::milliseconds span,
                       std::uint32_t seed) {
  ReaderReport rep;
  auto em = manager(root);
  auto view = IgpResultStatus::createIgpResultStatusReader(name, em);
  view->resultControl()->corruptionHandlerIs([&](std::string_view) { ++rep.reports; });
  std::vector<std::uint64_t> last(keys + 1, 0);
  std::mt19937 rng(seed);
  auto check = [&](const IgpResult& r, std::uint32_t k) {
    if (r.key.value != k || !isWholeRecord(r)) {
      ++rep.torn;
      return;
    }
    ++rep.whole;
    if (r.metric.value() < last[k]) ++rep.regressions;
    last[k] = r.metric.value();
  };
  const auto end = Clock::now() + span;
  for (std::uint32_t round = 0; Clock::now() < end; ++round) {
    try {
      for (int i = 0; i < 2000; ++i) {
        std::uint32_t k = 1 + rng() % keys;
        if (std::optional<IgpResult> r = view->result(IgpResultId(k))) {
          check(*r, k);
        } else {
          ++rep.absent;
        }
      }
      if (round % 16 == 0) {
        view->resultForEach([&](const IgpResult& r) {
          ++rep.listed;
          if (r.key.value == 0 || r.key.value > keys || !isWholeRecord(r)) ++rep.torn;
        });
      }
    } catch (const Kelp::RangeException&) {  // bytes that are no record at all
      ++rep.torn;
    }
  }
  return rep;
}

// A writer rewrites records as fast as it can while two reader processes check every record they
// read for internal consistency for ten seconds.
TEST(ShelfProcess, ReadersNeverSeeTornRecordsUnderAFullSpeedWriter) {
  TempRoot root;
  constexpr std::uint32_t kKeys = 2000;
  Pipe go, reports;
  std::vector<pid_t> readers;
  for (std::uint32_t i = 0; i < 2; ++i) {
    readers.push_back(forkChild([&, i] {
      char g;
      if (!go.receive(g)) return 10;
      ReaderReport rep = verifyFor(root, "stress", kKeys, std::chrono::seconds(10), 100 + i);
      reports.send(rep);
      return 0;
    }));
  }
  go.closeRead();
  reports.closeWrite();

  auto em = manager(root);
  auto status = IgpResultStatus::createIgpResultStatusWriter("stress", em, kKeys);
  std::uint64_t version = 0;
  for (std::uint32_t k = 1; k <= kKeys; ++k) status->resultIs(versionedRecord(k, ++version));
  go.send('g');
  go.send('g');
  std::mt19937 rng(5);
  std::size_t running = readers.size();
  while (running > 0) {
    for (int i = 0; i < 4096; ++i) {
      std::uint32_t k = 1 + rng() % kKeys;
      status->resultIs(versionedRecord(k, ++version));
    }
    running = 0;
    for (pid_t p : readers) running += waitpid(p, nullptr, WNOHANG) == 0 ? 1 : 0;
  }
  for (std::size_t i = 0; i < readers.size(); ++i) {
    ReaderReport rep;
    ASSERT_TRUE(reports.receive(rep)) << "reader " << i << " did not report";
    EXPECT_EQ(rep.torn, 0u) << "reader " << i;
    EXPECT_EQ(rep.regressions, 0u) << "reader " << i;
    EXPECT_EQ(rep.reports, 0u) << "reader " << i;
    EXPECT_GT(rep.whole, 0u) << "reader " << i;
    EXPECT_GT(rep.listed, 0u) << "reader " << i;
    std::printf("reader %zu: %lu whole, %lu absent, %lu listed\n", i, static_cast<unsigned long>(rep.whole),
                static_cast<unsigned long>(rep.absent), static_cast<unsigned long>(rep.listed));
  }
  std::printf("writer: %lu writes\n", static_cast<unsigned long>(version));
}

// The kill campaign. Writers are killed with SIGKILL at random moments, one after another on one
// table, while two reader processes look up records all along. Keys share four buckets, so chains
// are long and every change relinks some record in the middle of one. Each writer stores the
// stable keys first, says so, and from then on only changes their values, while it adds and
// removes other keys among them. After each kill every stable key must read whole: a torn record
// or a stable key that reads as absent without a report is a fault. BGPCOMMON_KILLS sets the
// number of kills (300 by default, 100 under a sanitizer; thousands by hand).
namespace campaign {

constexpr std::uint32_t kStable = 24;
constexpr std::uint32_t kChurn = 40;
const Shelf::Labels kLabels{"Test::Campaign", "entries", "campaign"};

struct Value {
  std::uint64_t key, version, check;
};
std::uint64_t checkOf(std::uint64_t key, std::uint64_t version) { return (key * 0x9E3779B97F4A7C15ull) ^ ~version; }
Shelf::Bytes keyBytes(const std::uint64_t& key) { return {reinterpret_cast<const std::uint8_t*>(&key), 8}; }
std::uint32_t hashOf(std::uint64_t key) { return static_cast<std::uint32_t>(key % 4); }

// What a reader made of one lookup: absent, whole or torn.
enum class Read { absent, whole, torn };
Read lookUp(const Shelf::Reader& r, std::uint64_t key) {
  Value v{};
  const std::optional<std::uint32_t> n = r.find(keyBytes(key), hashOf(key), reinterpret_cast<std::uint8_t*>(&v), sizeof v);
  if (!n) return Read::absent;
  return *n == sizeof v && v.key == key && v.check == checkOf(key, v.version) ? Read::whole : Read::torn;
}
std::uint64_t randomKey(std::mt19937& rng) { return rng() % 2 ? 1 + rng() % kStable : 100 + rng() % kChurn; }

[[noreturn]] void writeUntilKilled(const Shelf::Location& where, Pipe& ready, std::uint32_t seed) {
  auto w = Shelf::Writer::create(where, kLabels, {kStable + kChurn, 8, sizeof(Value), 0});
  std::uint64_t version = 0;
  auto put = [&](std::uint64_t key) {
    const Value v{key, ++version, checkOf(key, version)};
    w->put(keyBytes(key), hashOf(key), {reinterpret_cast<const std::uint8_t*>(&v), sizeof v});
  };
  for (std::uint64_t k = 1; k <= kStable; ++k) put(k);
  ready.send('r');
  std::mt19937 rng(seed);
  while (true) {
    const std::uint64_t key = randomKey(rng);
    if (key > kStable && rng() % 2 == 0) {
      w->erase(keyBytes(key), hashOf(key));
    } else {
      put(key);
    }
  }
}

}  // namespace campaign

TEST(ShelfProcess, KillCampaignLeavesEveryReachableRecordReadable) {
  using namespace campaign;
  TempRoot root;
  const Shelf::Location where(root.path(), "campaign/table");
  const char* env = std::getenv("BGPCOMMON_KILLS");
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  const std::uint32_t byDefault = 100;
#else
  const std::uint32_t byDefault = 300;
#endif
  const std::uint32_t kills = env != nullptr ? static_cast<std::uint32_t>(std::atoi(env)) : byDefault;

  struct Counts {
    std::uint64_t whole = 0, torn = 0, silentlyAbsent = 0, reports = 0;
  };
  Pipe stop, counts;
  std::vector<pid_t> readers;
  for (std::uint32_t i = 0; i < 2; ++i) {
    readers.push_back(forkChild([&, i] {
      stop.closeWrite();
      Counts c;
      Shelf::Reader r(where, kLabels, 8, sizeof(Value), [&](std::string_view) { ++c.reports; });
      std::mt19937 rng(i);
      pollfd done{stop.fd[0], POLLIN, 0};
      while (::poll(&done, 1, 0) == 0) {
        for (int n = 0; n < 200; ++n) {
          const Read got = lookUp(r, randomKey(rng));
          c.whole += got == Read::whole;
          c.torn += got == Read::torn;
        }
      }
      counts.send(c);
      return 0;
    }));
  }
  stop.closeRead();
  counts.closeWrite();

  Counts after;
  std::vector<std::string> reports;
  Shelf::Reader r(where, kLabels, 8, sizeof(Value), [&](std::string_view m) { reports.emplace_back(m); });
  std::mt19937 rng(99);
  const auto start = Clock::now();
  for (std::uint32_t kill = 0; kill < kills; ++kill) {
    Pipe ready;
    const pid_t writer = forkChild([&] {
      writeUntilKilled(where, ready, kill);
      return 0;
    });
    char c;
    ASSERT_TRUE(ready.receive(c));
    const auto at = Clock::now() + std::chrono::microseconds(rng() % 3000);
    while (Clock::now() < at) {
    }
    ::kill(writer, SIGKILL);
    ASSERT_EQ(exitCodeOf(writer), 128 + SIGKILL);
    for (std::uint64_t k = 1; k <= kStable + kChurn; ++k) {
      const std::size_t before = reports.size();
      const Read got = lookUp(r, k <= kStable ? k : 100 + k - kStable - 1);
      after.whole += got == Read::whole;
      after.torn += got == Read::torn;
      after.silentlyAbsent += k <= kStable && got == Read::absent && reports.size() == before;
    }
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  stop.closeWrite();
  Counts beside;
  for (pid_t p : readers) {
    Counts c;
    ASSERT_TRUE(counts.receive(c));
    EXPECT_EQ(exitCodeOf(p), 0);
    beside.whole += c.whole, beside.torn += c.torn, beside.reports += c.reports;
  }
  std::printf("%u kills in %.1f s; after each kill: %lu whole, %lu torn, %lu silently absent, %zu reports; "
              "readers beside: %lu whole, %lu torn, %lu reports\n",
              kills, seconds, static_cast<unsigned long>(after.whole), static_cast<unsigned long>(after.torn),
              static_cast<unsigned long>(after.silentlyAbsent), reports.size(), static_cast<unsigned long>(beside.whole),
              static_cast<unsigned long>(beside.torn), static_cast<unsigned long>(beside.reports));
  EXPECT_EQ(after.torn, 0u);
  EXPECT_EQ(after.silentlyAbsent, 0u);
  EXPECT_EQ(reports, std::vector<std::string>{});
  EXPECT_GE(after.whole, std::uint64_t{kills} * kStable);
  EXPECT_EQ(beside.torn, 0u);
  EXPECT_EQ(beside.reports, 0u);
  EXPECT_GT(beside.whole, 0u);
}

// Writers started together, a hundred times, on a new table and on one that exists: exactly one
// becomes the writer, and the other is told who holds the table.
TEST(ShelfProcess, OfTwoWritersStartedTogetherExactlyOneWins) {
  TempRoot root;
  const Shelf::Labels labels{"Test::Race", "entries", "race"};
  { Shelf::Writer::create(Shelf::Location(root.path(), "race/existing"), labels, {8, 8, 8, 0}); }
  int oneWinner = 0;
  for (int trial = 0; trial < 100; ++trial) {
    const Shelf::Location where(root.path(), trial % 2 ? "race/existing" : fmt::format("race/new{}", trial));
    Pipe go, results, release;
    pid_t racers[2];
    for (pid_t& racer : racers) {
      racer = forkChild([&] {
        go.closeWrite();
        release.closeWrite();
        char c;
        (void)go.receive(c);  // the end of the pipe: both start at once
        try {
          auto w = Shelf::Writer::create(where, labels, {8, 8, 8, 0});
          results.send('W');
          (void)release.receive(c);  // hold the table until the other one has tried
        } catch (const Shelf::Exception& e) {
          const bool told = std::string_view(e.what()).find(": another writer (pid ") != std::string_view::npos;
          if (!told) std::fprintf(stderr, "%s\n", e.what());
          results.send(told ? 'L' : 'E');
        }
        return 0;
      });
    }
    go.closeWrite();
    std::string outcome(2, ' ');
    ASSERT_TRUE(results.receive(outcome[0]) && results.receive(outcome[1]));
    std::sort(outcome.begin(), outcome.end());
    EXPECT_EQ(outcome, "LW") << "trial " << trial;
    oneWinner += outcome == "LW";
    release.closeWrite();
    for (pid_t racer : racers) EXPECT_EQ(exitCodeOf(racer), 0);
  }
  EXPECT_EQ(oneWinner, 100);
}

// A reader attached while its writer dies and restarts, again and again: it hears of each death
// once (the writer could not say so itself), follows every new file, and maps at most two files
// of the table at any time, whatever the number of restarts.
TEST(ShelfProcess, AReaderHearsOfDeadWritersAndMapsAtMostTwoFiles) {
  TempRoot root;
  const Shelf::Location where(root.path(), "restarts/table");
  const Shelf::Labels labels{"Test::Restarts", "entries", "restarts"};
  Shelf::Reader reader(where, labels, 8, 8);
  auto mappedFiles = [&] {
    std::ifstream maps("/proc/self/maps");
    std::set<std::string> files;
    for (std::string line; std::getline(maps, line);) {
      if (line.find(where.fullPath()) != std::string::npos) files.insert(line.substr(0, line.find(' ')));
    }
    return files.size();
  };
  for (std::uint64_t restart = 1; restart <= 15; ++restart) {
    Pipe ready;
    const pid_t writer = forkChild([&] {
      auto w = Shelf::Writer::create(where, labels, {4096, 8, 8, 0});
      w->put(campaign::keyBytes(restart), 0, campaign::keyBytes(restart));
      ready.send('r');
      pause();
      return 0;
    });
    char c;
    ASSERT_TRUE(ready.receive(c));
    std::uint64_t value = 0;
    ASSERT_EQ(reader.find(campaign::keyBytes(restart), 0, reinterpret_cast<std::uint8_t*>(&value), 8), 8u);
    EXPECT_EQ(value, restart);
    EXPECT_TRUE(reader.writerOpen());
    std::vector<Shelf::Change::Kind> kinds;
    reader.poll([&](const Shelf::Change& ch) { kinds.push_back(ch.kind); });
    ::kill(writer, SIGKILL);
    ASSERT_EQ(exitCodeOf(writer), 128 + SIGKILL);
    EXPECT_FALSE(reader.writerOpen());
    kinds.clear();
    EXPECT_TRUE(reader.wait(5));
    for (int i = 0; i < 3; ++i) reader.poll([&](const Shelf::Change& ch) { kinds.push_back(ch.kind); });
    EXPECT_EQ(kinds, std::vector<Shelf::Change::Kind>{Shelf::Change::Kind::writerClosed}) << restart;
    EXPECT_LE(mappedFiles(), 2u) << restart;
  }
}

TEST(ShelfProcess, AReaderProcessSurvivesADamagedTable) {
  TempRoot root;
  auto em = manager(root);
  auto status = IgpResultStatus::createIgpResultStatusWriter("damaged", em, 64);
  for (std::uint32_t k = 1; k <= 10; ++k) status->resultIs(versionedRecord(k, k));
  const std::string path = root.path() + "/routing/rib/igpResultStatus/damaged";
  {
    // Find record 5 by its domain id, which no other record shares, and change one of its bytes.
    FILE* f = std::fopen(path.c_str(), "r+b");
    ASSERT_NE(f, nullptr);
    std::string bytes(1 << 20, '\0');
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), f));
    std::uint64_t domain = versionedRecord(5, 5).ospfDomainId;
    std::size_t at = bytes.find(std::string(reinterpret_cast<const char*>(&domain), 8));
    ASSERT_NE(at, std::string::npos);
    std::fseek(f, static_cast<long>(at), SEEK_SET);
    std::fputc(bytes[at] ^ 1, f);
    std::fclose(f);
  }
  // A reader in this process reads the other records and reports the damaged one, absent.
  auto readerEm = manager(root);
  auto view = IgpResultStatus::createIgpResultStatusReader("damaged", readerEm);
  std::vector<std::string> reports;
  view->resultControl()->corruptionHandlerIs([&](std::string_view m) { reports.emplace_back(m); });
  for (std::uint32_t k = 1; k <= 10; ++k) {
    std::optional<IgpResult> r = view->result(IgpResultId(k));
    EXPECT_EQ(r.has_value(), k != 5) << k;
    if (r) EXPECT_EQ(*r, versionedRecord(k, k));
  }
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_NE(reports[0].find("checksum mismatch in slot"), std::string::npos) << reports[0];
  auto out = testing_support::runTool("igp-results show damaged --root " + root.path());
  EXPECT_EQ(out.status, 1);
  EXPECT_NE(out.out.find("corruption: Shelf " + path + ": checksum mismatch in slot"), std::string::npos) << out.out;
  for (std::uint32_t k = 1; k <= 10; ++k) {
    bool listed = out.out.find(Kelp::valueToStrep(versionedRecord(k, k))) != std::string::npos;
    EXPECT_EQ(listed, k != 5) << k;
  }
}

TEST(ShelfProcess, TheToolWatchesChangesAsTheyArrive) {
  TempRoot root;
  Pipe output;
  pid_t watcher = fork();
  if (watcher == 0) {
    dup2(output.fd[1], 1);
    output.closeRead();
    std::string bin = std::string(BGPCOMMON_BIN_DIR) + "/bgpcommon";
    execl(bin.c_str(), bin.c_str(), "igp-results", "watch", "live", "--root", root.path().c_str(), "--count", "4",
          "--timeout", "30", static_cast<char*>(nullptr));
    _exit(127);
  }
  output.closeWrite();
  auto em = manager(root);
  auto status = IgpResultStatus::createIgpResultStatusWriter("live", em, 1000);
  std::uint32_t k = 0;
  while (waitpid(watcher, nullptr, WNOHANG) == 0 && k < 1000) {
    ++k;
    status->resultIs(versionedRecord(k, k));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::string text;
  char buf[4096];
  ssize_t n;
  while ((n = read(output.fd[0], buf, sizeof buf)) > 0) text.append(buf, static_cast<std::size_t>(n));
  std::istringstream lines(text);
  std::string line;
  std::vector<std::string> changes;
  while (std::getline(lines, line)) {
    if (!line.starts_with("writer ")) changes.push_back(line);
  }
  ASSERT_GE(changes.size(), 4u) << text;
  EXPECT_TRUE(changes[0].starts_with("resync ")) << text;
  for (std::size_t i = 1; i < changes.size(); ++i) {
    std::uint32_t key = std::stoul(changes[i]);
    EXPECT_EQ(changes[i], std::to_string(key) + " " + Kelp::valueToStrep(versionedRecord(key, key)));
  }
}

// The tool beside a live writer: a second writer is refused with the holder named; show prints
// every record it can decode and reports the one it cannot; watch's timeout is wall-clock time
// however busy the writer is.
TEST(ShelfProcess, TheToolBesideALiveWriter) {
  TempRoot root;
  auto em = manager(root);
  auto status = IgpResultStatus::createIgpResultStatusWriter("tool", em, 64);
  for (std::uint32_t k = 1; k <= 5; ++k) status->resultIs(versionedRecord(k, k));
  const std::string at = " --root " + root.path();

  const testing_support::ToolResult second = testing_support::runTool("igp-results write tool --records 1" + at);
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.out.find(fmt::format("another writer (pid {}) has this table open", getpid())), std::string::npos)
      << second.out;

  const std::uint32_t id = 99;
  const std::uint8_t junk[3] = {0xFF, 0xFF, 0xFF};
  status->resultControl()->writer()->put({reinterpret_cast<const std::uint8_t*>(&id), 4}, 0, {junk, 3});
  const testing_support::ToolResult show = testing_support::runTool("igp-results show tool" + at, true);
  EXPECT_EQ(show.status, 1);
  for (std::uint32_t k = 1; k <= 5; ++k) {
    EXPECT_NE(show.out.find(Kelp::valueToStrep(versionedRecord(k, k))), std::string::npos) << show.out;
  }
  EXPECT_TRUE(show.err.starts_with("corruption: Shelf ")) << show.err;
  EXPECT_NE(show.err.find(": the record of key 63000000 does not decode: "), std::string::npos) << show.err;
  EXPECT_EQ(std::count(show.err.begin(), show.err.end(), '\n'), 1) << show.err;

  std::atomic<bool> done = false;
  std::thread busy([&] {
    for (std::uint64_t v = 1; !done; ++v) status->resultIs(versionedRecord(1 + v % 5, v));
  });
  const auto start = Clock::now();
  const testing_support::ToolResult watch = testing_support::runTool("igp-results watch tool --timeout 1" + at);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  done = true;
  busy.join();
  EXPECT_EQ(watch.status, 0);
  EXPECT_GE(seconds, 1.0);
  EXPECT_LT(seconds, 10.0);
}

}  // namespace
}  // namespace Routing::BgpRedistribute
