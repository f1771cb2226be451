// The IGP result table across real processes: readers and writers forked from the test, writers
// killed at random moments.
//
// Children are forked before the parent opens a writer: a forked child would otherwise hold the
// writer's lock on the table file for as long as it lives.
#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <tuple>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "BgpCommon/FilteredRtStatus.h"
#include "platform/Shelf/TempRoot.h"

namespace Routing::BgpRedistribute {
namespace {

using Shelf::TempRoot;
using Clock = std::chrono::steady_clock;
using Kind = Shelf::Change::Kind;

struct Pipe {
  Pipe() { EXPECT_EQ(pipe(fd), 0); }
  ~Pipe() { closeRead(), closeWrite(); }
  void closeRead() { fd[0] >= 0 && close(std::exchange(fd[0], -1)); }
  void closeWrite() { fd[1] >= 0 && close(std::exchange(fd[1], -1)); }
  template <typename T>
  void send(const T& v) { EXPECT_EQ(write(fd[1], &v, sizeof v), static_cast<ssize_t>(sizeof v)); }
  template <typename T>
  bool receive(T& v) { return read(fd[0], &v, sizeof v) == static_cast<ssize_t>(sizeof v); }
  int fd[2] = {-1, -1};
};

// Forked children. Each runs `body` and exits with its result (99 when it threw). Those still
// running when the test ends, however it ends (a failed assertion, an exception), are killed and
// reaped: none is left behind to hold the test's output open until the test runner gives up.
struct Children {
  ~Children() { for (pid_t p : pids) waitpid(p, nullptr, WNOHANG) == 0 && (::kill(p, SIGKILL), waitpid(p, nullptr, 0)); }
  template <typename F>
  pid_t fork(F&& body) {
    const pid_t pid = ::fork();
    if (pid == 0) _exit([&] { try { return body(); } catch (...) { return 99; } }());
    pids.push_back(pid);
    return pid;
  }
  // How `pid` ended (its exit code, or 128 + its signal), waiting a minute at most: a child that
  // still runs by then is a failure, and is killed.
  int exitCode(pid_t pid) {
    int status = 0;
    const auto end = Clock::now() + std::chrono::seconds(60);
    pid_t ended;
    while ((ended = waitpid(pid, &status, WNOHANG)) == 0 && Clock::now() < end) usleep(5000);
    pids.erase(std::find(pids.begin(), pids.end(), pid));
    if (ended == 0) {
      ::kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
      ADD_FAILURE() << "child " << pid << " still ran after a minute";
      return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  std::vector<pid_t> pids;
};

auto manager(const TempRoot& root) { return Kelp::makePtr<KelpSharedMem::EntityManager>(root.path()); }

// The kill campaign. Writers are killed with SIGKILL at random moments, one after another on one
// near-full table (capacity 64, keys in four buckets, so chains are long and every change relinks
// some record in the middle of one, and freed slots are soon reused), while two reader processes
// look up records all along. Each writer stores the stable keys first, says so, and from then on
// only changes their values, while it adds and removes other keys among them; its versions start
// above every earlier writer's. Readers check every answer: whole (exactly what some write stored)
// and never older than one they read before (0 torn, 0 regressions). After each kill every stable
// key must read whole (0 silent absences), and once the next writer is ready the parent's reader
// reads its records (0 stranded readers). BGPCOMMON_KILLS sets the number of kills (300 by default,
// 100 under a sanitizer; thousands by hand).
namespace campaign {

constexpr std::uint32_t kStable = 24;
constexpr std::uint32_t kChurn = 40;
const Shelf::Labels kLabels{"Test::Campaign", "entries", "campaign"};

// Values fill most of a slot, so that a writer spends much of its time copying slots (mid-write).
struct Value { std::uint64_t key, version, check, fill[60]; };
std::uint64_t checkOf(std::uint64_t key, std::uint64_t version) { return (key * 0x9E3779B97F4A7C15ull) ^ ~version; }
Shelf::Bytes keyBytes(const std::uint64_t& key) { return {reinterpret_cast<const std::uint8_t*>(&key), 8}; }
std::uint32_t hashOf(std::uint64_t key) { return static_cast<std::uint32_t>(key % 4); }

// What a reader made of one lookup: absent, whole or torn; `version` receives a whole one's.
enum class Read { absent, whole, torn };
Read lookUp(const Shelf::Reader& r, std::uint64_t key, std::uint64_t* version = nullptr) {
  Value v{};
  const std::optional<std::uint32_t> n = r.find(keyBytes(key), hashOf(key), reinterpret_cast<std::uint8_t*>(&v), sizeof v);
  if (!n) return Read::absent;
  if (version != nullptr) *version = v.version;
  return *n == sizeof v && v.key == key && v.check == checkOf(key, v.version) ? Read::whole : Read::torn;
}
std::uint64_t randomKey(std::mt19937& rng) { return rng() % 2 ? 1 + rng() % kStable : 100 + rng() % kChurn; }

std::uint64_t baseOf(std::uint32_t writer) { return std::uint64_t{writer + 1} << 32; }

int writeUntilKilled(const Shelf::Location& where, Pipe& ready, std::uint32_t seed) {
  auto w = Shelf::Writer::create(where, kLabels, {kStable + kChurn, 8, sizeof(Value), 0});
  std::uint64_t version = baseOf(seed);
  auto put = [&](std::uint64_t key) {
    const Value v{key, ++version, checkOf(key, version)};
    w->put(keyBytes(key), hashOf(key), {reinterpret_cast<const std::uint8_t*>(&v), sizeof v});
  };
  for (std::uint64_t k = 1; k <= kStable; ++k) put(k);
  ready.send('r');
  for (std::mt19937 rng(seed);;) {
    const std::uint64_t key = randomKey(rng);
    key > kStable && rng() % 2 == 0 ? (void)w->erase(keyBytes(key), hashOf(key)) : put(key);
  }
}

}  // namespace campaign

TEST(ShelfProcess, KillCampaignLeavesEveryReachableRecordReadable) {
  using namespace campaign;
  TempRoot root;
  const Shelf::Location where(root.path(), "campaign/table");
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  std::uint32_t kills = 100;
#else
  std::uint32_t kills = 300;
#endif
  if (const char* env = std::getenv("BGPCOMMON_KILLS")) kills = static_cast<std::uint32_t>(std::atoi(env));
  using Counts = std::array<std::uint64_t, 5>;  // lookups by Read, corruption reports, regressions
  Pipe stop, counts;
  Children readers;
  for (std::uint32_t i = 0; i < 2; ++i) {
    readers.fork([&, i] {
      stop.closeWrite();
      Counts c{};
      Shelf::Reader r(where, kLabels, 8, sizeof(Value), [&](std::string_view) { ++c[3]; });
      std::mt19937 rng(i);
      std::map<std::uint64_t, std::uint64_t> last;  // the newest version read of each key
      for (pollfd done{stop.fd[0], POLLIN, 0}; ::poll(&done, 1, 0) == 0;) {
        for (int n = 0; n < 200; ++n) {
          const std::uint64_t key = randomKey(rng);
          std::uint64_t version = 0;
          const Read got = lookUp(r, key, &version);
          ++c[static_cast<int>(got)];
          if (got == Read::whole) {
            c[4] += version < last[key];
            last[key] = std::max(last[key], version);
          }
        }
      }
      counts.send(c);
      return 0;
    });
  }
  stop.closeRead(), counts.closeWrite();

  Counts after{};  // absent counts stable keys absent without a report only
  std::vector<std::string> reports;
  Shelf::Reader r(where, kLabels, 8, sizeof(Value), [&](std::string_view m) { reports.emplace_back(m); });
  std::mt19937 rng(99);
  for (std::uint32_t kill = 0; kill < kills; ++kill) {
    Pipe ready;
    Children writer;
    const pid_t pid = writer.fork([&] { return writeUntilKilled(where, ready, kill); });
    ready.closeWrite();
    char c;
    ASSERT_TRUE(ready.receive(c)) << "writer " << kill << " ended before it stored the stable keys";
    // The new writer's records reach the reader (at the latest within its liveness interval).
    std::uint64_t version = 0;
    for (int wait = 0; wait < 100 && (lookUp(r, 1, &version) != Read::whole || version < baseOf(kill)); ++wait) usleep(1000);
    ASSERT_GE(version, baseOf(kill)) << "the reader did not follow writer " << kill;
    for (const auto at = Clock::now() + std::chrono::microseconds(rng() % 3000); Clock::now() < at;) {
    }
    ::kill(pid, SIGKILL);
    ASSERT_EQ(writer.exitCode(pid), 128 + SIGKILL);
    for (std::uint64_t k = 1; k <= kStable + kChurn; ++k) {
      const std::size_t before = reports.size();
      const Read got = lookUp(r, k <= kStable ? k : 100 + k - kStable - 1);
      after[static_cast<int>(got)] += got != Read::absent || (k <= kStable && reports.size() == before);
    }
  }
  EXPECT_EQ(after[static_cast<int>(Read::torn)], 0u);
  EXPECT_EQ(after[static_cast<int>(Read::absent)], 0u) << "stable keys read as absent without a report";
  EXPECT_GE(after[static_cast<int>(Read::whole)], std::uint64_t{kills} * kStable);
  EXPECT_EQ(reports, std::vector<std::string>{});
  stop.closeWrite();
  for (std::size_t i = 0; i < 2; ++i) {
    Counts c;
    ASSERT_TRUE(counts.receive(c));
    EXPECT_EQ(std::make_tuple(c[static_cast<int>(Read::torn)], c[3], c[4]), std::make_tuple(0ul, 0ul, 0ul))
        << "torn, reports, regressions beside " << i;
    EXPECT_GT(c[static_cast<int>(Read::whole)], 0u) << "reader beside " << i;
  }
  for (pid_t p : std::vector<pid_t>(readers.pids)) EXPECT_EQ(readers.exitCode(p), 0);
}

// Writers started together, a hundred times, on a new table and on one that exists: exactly one
// becomes the writer, and the other is told who holds the table.
TEST(ShelfProcess, OfTwoWritersStartedTogetherExactlyOneWins) {
  TempRoot root;
  const Shelf::Labels labels{"Test::Race", "entries", "race"};
  Shelf::Writer::create(Shelf::Location(root.path(), "race/existing"), labels, {8, 8, 8, 0});
  for (int trial = 0; trial < 100; ++trial) {
    const Shelf::Location where(root.path(), trial % 2 ? "race/existing" : fmt::format("race/new{}", trial));
    Pipe go, results, release;
    Children racers;
    for (int i = 0; i < 2; ++i) {
      racers.fork([&] {
        go.closeWrite(), release.closeWrite();
        char c;
        (void)go.receive(c);  // the end of the pipe: both start at once
        try {
          auto w = Shelf::Writer::create(where, labels, {8, 8, 8, 0});
          results.send('W');
          (void)release.receive(c);  // hold the table until the other one has tried
        } catch (const Shelf::Exception& e) {  // told who holds the table, or some other error
          results.send(std::string_view(e.what()).find(": another writer (pid ") != std::string_view::npos ? 'L' : 'E');
        }
        return 0;
      });
    }
    go.closeWrite();
    results.closeWrite();
    std::string outcome(2, ' ');
    ASSERT_TRUE(results.receive(outcome[0]) && results.receive(outcome[1])) << "trial " << trial;
    std::sort(outcome.begin(), outcome.end());
    ASSERT_EQ(outcome, "LW") << "trial " << trial;
    release.closeWrite();
    for (pid_t p : std::vector<pid_t>(racers.pids)) EXPECT_EQ(racers.exitCode(p), 0);
  }
}

// A reader attached while its writer, in another process, dies and restarts, again and again: it
// reads each new writer's records and not the last one's, hears of each death once (the writer
// could not say so itself), and maps at most two files of the table whatever the number of
// restarts, each read-only.
// Its address space stays bounded too: the ranges of replaced files are reused.
TEST(ShelfProcess, AReaderFollowsRestartedWritersHearsOfTheirDeathsAndMapsAtMostTwoFiles) {
  TempRoot root;
  const Shelf::Location where(root.path(), "restarts/table");
  const Shelf::Labels labels{"Test::Restarts", "entries", "restarts"};
  Shelf::Reader reader(where, labels, 8, 8);
  auto mappedFiles = [&] {
    std::ifstream maps("/proc/self/maps");
    std::set<std::string> files;
    for (std::string line; std::getline(maps, line);) {
      if (line.find(where.fullPath()) == std::string::npos) continue;
      files.insert(line.substr(0, line.find(' ')));
      EXPECT_EQ(line.substr(line.find(' '), 6), " r--s ") << line;
    }
    return files.size();
  };
  auto valueOf = [&](std::uint64_t key) {
    std::uint64_t value = 0;
    return reader.find(campaign::keyBytes(key), 0, reinterpret_cast<std::uint8_t*>(&value), 8) ? value : 0;
  };
  auto addressSpaceKb = [] {
    std::ifstream status("/proc/self/status");
    std::size_t kb = 0;
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("VmSize:")) kb = std::stoul(line.substr(7));
    }
    return kb;
  };
  std::size_t spaceAfterThree = 0;
  std::uintmax_t fileKb = 0;
  for (std::uint64_t restart = 1; restart <= 15; ++restart) {
    Pipe ready;
    Children writer;
    const pid_t pid = writer.fork([&] {
      auto w = Shelf::Writer::create(where, labels, {65536, 8, 8, 0});
      w->put(campaign::keyBytes(restart), 0, campaign::keyBytes(restart));
      ready.send('r');
      return pause();
    });
    ready.closeWrite();
    char c;
    ASSERT_TRUE(ready.receive(c));
    EXPECT_EQ(valueOf(restart), restart);
    EXPECT_EQ(valueOf(restart - 1), 0u) << restart;
    EXPECT_TRUE(reader.writerOpen());
    reader.poll([&](const Shelf::Change&) {});
    ::kill(pid, SIGKILL);
    ASSERT_EQ(writer.exitCode(pid), 128 + SIGKILL);
    EXPECT_FALSE(reader.writerOpen());
    EXPECT_TRUE(reader.wait(5));
    std::vector<Kind> kinds;
    for (int i = 0; i < 3; ++i) reader.poll([&](const Shelf::Change& ch) { kinds.push_back(ch.kind); });
    EXPECT_EQ(kinds, std::vector<Kind>{Kind::writerClosed}) << restart;
    EXPECT_LE(mappedFiles(), 2u) << restart;
    fileKb = std::filesystem::file_size(where.fullPath()) / 1024;
    if (restart == 3) spaceAfterThree = addressSpaceKb();
  }
  EXPECT_LT(addressSpaceKb(), spaceAfterThree + 2 * fileKb) << "a table file is " << fileKb << " kB";
}

}  // namespace
}  // namespace Routing::BgpRedistribute

namespace Routing::BgpRedistribute {
namespace {

// Another local user (nobody, in children that switch to it) beside a table of root's: it cannot
// take the writer's lock file, nor block a writer or pass for a live one with a read lock on the
// table file, nor get a table of its own read by root (in a folder it owns, or in a folder anyone
// may write), nor have root's writer build under a root it created.
TEST(ShelfProcess, AnotherLocalUserCanNeitherBlockNorFakeNorPlantATable) {
  const passwd* nobody = getpwnam("nobody");
  if (geteuid() != 0 || nobody == nullptr) GTEST_SKIP() << "needs root and a user 'nobody' to play another user";
  const uid_t uid = nobody->pw_uid;
  const gid_t gid = nobody->pw_gid;
  TempRoot root;
  ASSERT_EQ(chmod(root.path().c_str(), 0755), 0);
  const Shelf::Labels labels{"Test::Users", "entries", "users"};
  const Shelf::Location where(root.path(), "users/table");
  auto k = [](const char* s) { return Shelf::Bytes(reinterpret_cast<const std::uint8_t*>(s), std::strlen(s)); };
  Pipe go, locked;
  Children children;
  // Forked before any writer, as nobody: what it manages, as bits (0: all refused as they must be).
  const pid_t other = children.fork([&] {
    go.closeWrite(), locked.closeRead();
    if (setgid(gid) != 0 || setuid(uid) != 0) return 98;
    char c;
    int wrong = 0;
    if (!go.receive(c)) return 97;  // the writer is up
    const std::string dir = root.path() + "/users/";
    wrong |= open((dir + ".table.lock").c_str(), O_RDONLY) >= 0 ? 1 : 0;
    const int fd = open((dir + "table").c_str(), O_RDONLY);
    if (fd < 0) return 96;
    struct flock lock {};
    lock.l_type = F_RDLCK;
    wrong |= fcntl(fd, F_OFD_SETLK, &lock) == 0 ? 2 : 0;  // beside the live writer's lock
    try {
      Shelf::Writer::create(where, labels, {8, 8, 8, 0});
      wrong |= 4;
    } catch (const Shelf::Exception&) {
    }
    // Plants: a table in a folder of its own, and one in a folder anyone may write.
    Shelf::Writer::create(Shelf::Location(root.path(), "mine/table"), labels, {8, 8, 8, 0})->put(k("k"), 0, k("forged"));
    const int planted = open((root.path() + "/open/table").c_str(), O_RDWR | O_CREAT | O_EXCL, 0644);
    wrong |= planted < 0 ? 8 : 0;
    locked.send('p');
    if (!go.receive(c)) return 95;  // the next writer was killed
    close(fd);
    const int dead = open((dir + "table").c_str(), O_RDONLY);
    wrong |= fcntl(dead, F_OFD_SETLK, &lock) != 0 ? 16 : 0;  // now it may take a read lock
    locked.send('l');
    go.receive(c);  // held until the parent has looked
    return wrong;
  });
  go.closeRead(), locked.closeWrite();
  ASSERT_EQ(mkdir((root.path() + "/mine").c_str(), 0755), 0);
  ASSERT_EQ(chown((root.path() + "/mine").c_str(), uid, gid), 0);
  ASSERT_EQ(mkdir((root.path() + "/open").c_str(), 0777), 0);
  ASSERT_EQ(chmod((root.path() + "/open").c_str(), 0777), 0);

  auto w = Shelf::Writer::create(where, labels, {8, 8, 8, 0});
  w->put(k("k"), 0, k("root's"));
  std::vector<std::string> reports;
  Shelf::Reader r(where, labels, 8, 8, [&](std::string_view m) { reports.emplace_back(m); });
  ASSERT_TRUE(r.writerOpen());
  go.send('g');
  char c;
  ASSERT_TRUE(locked.receive(c));
  for (const char* planted : {"mine/table", "open/table"}) {
    std::vector<std::string> refused;
    Shelf::Reader p(Shelf::Location(root.path(), planted), labels, 8, 8, [&](std::string_view m) { refused.emplace_back(m); });
    EXPECT_FALSE(p.attached()) << planted;
    ASSERT_EQ(refused.size(), 1u) << planted;
    EXPECT_NE(refused[0].find(planted[0] == 'm' ? "belongs to user " + std::to_string(uid) : "(mode 0777) is writable by users other than its owner"),
              std::string::npos) << refused[0];
  }
  // Trusting that user by number reads its table under its own folder; a name that is no user's
  // trusts no more than before.
  for (const std::string owner : {std::to_string(uid), std::string("no-such-user")}) {
    setenv("BGPCOMMON_SHM_OWNER", owner.c_str(), 1);
    std::vector<std::string> refused;
    Shelf::Reader p(Shelf::Location(root.path() + "/mine", "table"), labels, 8, 8, [&](std::string_view m) { refused.emplace_back(m); });
    std::uint8_t value[8];
    EXPECT_EQ(p.find(k("k"), 0, value, sizeof value), owner[0] == 'n' ? std::nullopt : std::optional<std::uint32_t>(6));
    EXPECT_EQ(refused.size(), owner[0] == 'n' ? 1u : 0u) << (refused.empty() ? "" : refused[0]);
    if (owner[0] == 'n') EXPECT_THAT(refused, testing::Contains(testing::HasSubstr("BGPCOMMON_SHM_OWNER \"no-such-user\" names no user")));
  }
  unsetenv("BGPCOMMON_SHM_OWNER");
  // A root made by another user is refused to a writer, naming it and its owner.
  EXPECT_THAT([&] { Shelf::Writer::create(Shelf::Location(root.path() + "/mine", "t"), labels, {8, 8, 8, 0}); },
              testing::ThrowsMessage<Shelf::Exception>(
                  testing::HasSubstr(root.path() + "/mine belongs to user " + std::to_string(uid))));
  // A writer killed (its file still says open), and the other user's read lock on its file.
  w.reset();
  Pipe up;
  Children writers;
  const pid_t killed = writers.fork([&] {
    auto dying = Shelf::Writer::create(where, labels, {8, 8, 8, 0});
    dying->put(k("k"), 0, k("dead"));
    up.send('u');
    return pause();
  });
  up.closeWrite();
  ASSERT_TRUE(up.receive(c));
  ::kill(killed, SIGKILL);
  ASSERT_EQ(writers.exitCode(killed), 128 + SIGKILL);
  go.send('g');
  ASSERT_TRUE(locked.receive(c));
  std::uint8_t out[8];
  ASSERT_EQ(r.find(k("k"), 0, out, sizeof out), 4u);  // the dead writer's file
  EXPECT_FALSE(r.writerOpen()) << "another user's read lock passed for the writer";
  w = Shelf::Writer::create(where, labels, {8, 8, 8, 0});  // not blocked by it
  w->put(k("k"), 0, k("again"));
  EXPECT_EQ(r.find(k("k"), 0, out, sizeof out), 5u);
  EXPECT_TRUE(r.writerOpen());
  go.send('g');
  EXPECT_EQ(children.exitCode(other), 0) << "bits of what the other user managed";
  EXPECT_EQ(reports, std::vector<std::string>{});
}

}  // namespace
}  // namespace Routing::BgpRedistribute
