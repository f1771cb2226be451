// The interleaving explorer. Built with the table's hooks compiled in (BGPCOMMON_SHELF_HOOKS), from
// the table's own sources: the reader calls readerStep before each load it makes of the shared
// file, the writer calls writerStore before each store. For every reader operation (a lookup of
// each key, the inline lookup, an iteration), every writer action (insert, update at home and
// away, erase at the head, in the middle and at home, slot reuse in the same bucket, a clear, a
// replacement of the file), every point of the reader k and every store j of the writer at which
// it may die, a fresh table is built, the reader is started, and at its k-th step the writer runs
// its action (dying at its j-th store, if so). The answer must be one the table held at some
// instant of the call: for a lookup, the key's value (or its absence) in one of the states the
// writer passed through; for an iteration, every key present throughout, no key twice, each with a
// value it held. After the call, with the writer quiet, the reader must read the last state: what
// it returned was never a value that the table went back from.
#include <gtest/gtest.h>

#include <fmt/format.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/Shelf/Shelf.h"

namespace Shelf::detail {
thread_local std::function<void(const char*)> readerHook;
thread_local std::function<void(const char*)> writerHook;
void readerStep(const char* what) {
  if (readerHook) readerHook(what);
}
void writerStore(const char* what) {
  if (writerHook) writerHook(what);
}
}  // namespace Shelf::detail

namespace {

using Shelf::Bytes;
using State = std::map<std::string, std::string>;
const Shelf::Labels kLabels{"Test::Table", "entries", "explore"};
constexpr Shelf::Geometry kGeometry{8, 8, 16, 0};  // 9 slots and buckets: near full, chains, reuse

Bytes bytes(const std::string& s) { return Bytes(reinterpret_cast<const std::uint8_t*>(s.data()), s.size()); }
// Keys "aN" share bucket 0, "bN" bucket 1, "cN" bucket 2 (9 buckets).
std::uint32_t hashOf(const std::string& key) { return static_cast<std::uint32_t>(key[0] - 'a'); }

struct Died {};

// The table the writer changes, and every state it passed through (its contents after each change
// it published).
struct World {
  Shelf::Location where;
  std::unique_ptr<Shelf::Writer> writer;
  State state;
  std::vector<State> states;

  explicit World(const std::string& root) : where(root, "explore") {
    writer = Shelf::Writer::create(where, kLabels, kGeometry);
    for (const char* k : {"a0", "a1", "a2", "a3", "b0", "b1"}) put(k, std::string(k) + "v0");
    states = {state};
  }
  void put(const std::string& k, const std::string& v) {
    state[k] = v;
    writer->put(bytes(k), hashOf(k), bytes(v));
  }
  void erase(const std::string& k) {
    state.erase(k);
    writer->erase(bytes(k), hashOf(k));
  }
  // Runs one change. If the writer dies within it, the state it leads to counts only if one of
  // its publishing stores (a link, or the rename of a new file) was made.
  bool published = false;
  template <typename F>
  void change(F&& f) {
    published = false;
    try {
      f();
    } catch (...) {
      if (published) states.push_back(state);
      throw;
    }
    states.push_back(state);
  }
};

// The writer actions, each from the initial state: a0 a1 a2 a3 in bucket 0 (a0 at home, the head;
// a3, a2, a1 behind it, newest first), b0 b1 in bucket 1.
struct Action {
  const char* name;
  std::function<void(World&)> run;
};
const std::vector<Action>& actions() {
  static const std::vector<Action> all = {
      {"insert into a chain", [](World& w) { w.change([&] { w.put("a4", "a4v1"); }); }},
      {"insert into an empty bucket", [](World& w) { w.change([&] { w.put("c0", "c0v1"); }); }},
      {"update at home", [](World& w) { w.change([&] { w.put("a0", "a0v1"); }); }},
      {"update in a chain", [](World& w) { w.change([&] { w.put("a2", "a2v1"); }); }},
      {"erase at home", [](World& w) { w.change([&] { w.erase("a0"); }); }},
      {"erase in a chain", [](World& w) { w.change([&] { w.erase("a2"); }); }},
      {"erase and insert again", [](World& w) {
         w.change([&] { w.erase("a1"); });
         w.change([&] { w.put("a1", "a1v1"); });
       }},
      {"slot reuse in the bucket", [](World& w) {
         // The key's slot is freed and, after enough changes, reused for another key of the same
         // chain: a reader still holding a link to it must not take it for the key's record.
         w.change([&] { w.put("a2", "a2v1"); });
         for (int i = 0; i < 24; ++i) w.change([&] { w.put("a3", fmt::format("a3v{}", i + 1)); });
       }},
      {"relink around", [](World& w) {
         w.change([&] { w.erase("a3"); });
         w.change([&] { w.put("a2", "a2v1"); });
         w.change([&] { w.erase("a1"); });
       }},
      {"clear", [](World& w) {
         w.change([&] { w.state.clear(); w.writer->clear(); });
       }},
      {"replace the file", [](World& w) {
         // The old writer closes (not one of the stores at which the new one may die).
         auto hook = std::exchange(Shelf::detail::writerHook, nullptr);
         w.writer.reset();
         Shelf::detail::writerHook = hook;
         w.change([&] {
           w.state.clear();
           w.writer = Shelf::Writer::create(w.where, kLabels, kGeometry);
         });
         w.change([&] { w.put("a2", "a2v9"); });
       }},
  };
  return all;
}

// What one reader operation answered.
struct Answer {
  bool finished = false;
  std::optional<std::string> value;  // a lookup
  std::vector<std::pair<std::string, std::string>> listed;  // an iteration
};

using ReaderOp = Answer (*)(const Shelf::Reader&, const std::string& key);

Answer lookup(const Shelf::Reader& r, const std::string& key) {
  Answer a;
  std::uint8_t out[64];
  if (auto n = r.find(bytes(key), hashOf(key), out, sizeof out)) a.value.emplace(reinterpret_cast<char*>(out), *n);
  return a;
}
// The typed fronts' lookup: inline at home, else find.
Answer inlineLookup(const Shelf::Reader& r, const std::string& key) {
  Shelf::Reader::ValueWords<8, 16> words{};
  std::uint64_t keyWord = 0;
  std::memcpy(&keyWord, key.data(), key.size());
  if (r.findAtHome<8, 16>(keyWord, static_cast<std::uint32_t>(key.size()), hashOf(key), words)) {
    Answer a;
    a.value.emplace(reinterpret_cast<const char*>(words.words), words.length);
    return a;
  }
  return lookup(r, key);
}
Answer iterate(const Shelf::Reader& r, const std::string&) {
  Answer a;
  r.forEach([&](Bytes k, Bytes v) { a.listed.emplace_back(std::string(k.begin(), k.end()), std::string(v.begin(), v.end())); });
  return a;
}

std::string legalLookup(const World& w, const std::string& key, const std::optional<std::string>& got) {
  for (const State& s : w.states) {
    auto it = s.find(key);
    if ((it == s.end() && !got) || (it != s.end() && got == it->second)) return {};
  }
  return fmt::format("{} read as {}, a value it never held", key, got ? *got : "absent");
}

std::string legalIteration(const World& w, const Answer& a) {
  std::set<std::string> listed;
  for (const auto& [k, v] : a.listed) {
    if (!listed.insert(k).second) return k + " listed twice";
    bool held = false;
    for (const State& s : w.states) held = held || (s.count(k) != 0 && s.at(k) == v);
    if (!held) return fmt::format("{} listed with {}, a value it never held", k, v);
  }
  for (const auto& [k, v] : w.states.front()) {
    bool throughout = true;
    for (const State& s : w.states) throughout = throughout && s.count(k) != 0;
    if (throughout && listed.count(k) == 0) return k + " present throughout but not listed";
  }
  return {};
}

struct Explorer {
  std::string root;
  std::size_t runs = 0;
  std::vector<std::string> wrong;

  Explorer() {
    char pattern[] = "/dev/shm/bgpcommon-explore-XXXXXX";
    root = mkdtemp(pattern);
  }
  ~Explorer() { std::filesystem::remove_all(root); }

  // Runs `op` for `key` with `action` at reader step k, the writer dying at store `death` (-1: it
  // does not). Returns false when the reader finished before step k; `storesSeen` receives the
  // number of stores the action made.
  bool runOnce(const char* opName, ReaderOp op, const std::string& key, const Action& action, int k, int death,
               int* storesSeen = nullptr) {
    World w(root);
    std::vector<std::string> reports;
    Shelf::Reader reader(w.where, kLabels, 8, 16, [&](std::string_view m) { reports.emplace_back(m); });
    if (!reader.attached()) {
      wrong.push_back("reader did not attach");
      return false;
    }
    int step = 0;
    int stores = 0;
    bool fired = false;
    Shelf::detail::readerHook = [&](const char*) {
      if (step++ != k || fired) return;
      fired = true;
      Shelf::detail::writerHook = [&](const char* what) {
        if (stores++ == death) throw Died{};
        w.published |= std::string_view(what).starts_with("link") || std::string_view(what) == "create: publish";
      };
      try {
        action.run(w);
      } catch (const Died&) {
      }
      Shelf::detail::writerHook = nullptr;
    };
    const Answer a = op(reader, key);
    Shelf::detail::readerHook = nullptr;
    if (storesSeen != nullptr) *storesSeen = stores;
    if (!fired) return false;
    ++runs;
    const std::string at =
        fmt::format("{} of {} with \"{}\" at step {}, the writer dying at store {}: ", opName, key, action.name, k, death);
    const std::string problem = op == &iterate ? legalIteration(w, a) : legalLookup(w, key, a.value);
    if (!problem.empty()) wrong.push_back(at + problem);
    if (!reports.empty()) wrong.push_back(at + "reported " + reports.front());
    if (death >= 0 && stores > death) {
      // The writer died: the next one must reach the reader, at the latest within its liveness
      // interval (when the dead one had retired the old file but not yet published its own).
      w.writer.reset();
      w.writer = Shelf::Writer::create(w.where, kLabels, kGeometry);
      w.state.clear();
      w.put("a2", "a2v9");
      if (lookup(reader, "a2").value != "a2v9") usleep(25'000);
    }
    // With the writer quiet, the reader reads the last state.
    for (const char* k2 : {"a0", "a1", "a2", "a3", "a4", "b0", "b1", "c0"}) {
      auto it = w.state.find(k2);
      const std::optional<std::string> want = it == w.state.end() ? std::nullopt : std::optional<std::string>(it->second);
      if (lookup(reader, k2).value != want) wrong.push_back(at + "afterwards " + k2 + " does not read " + want.value_or("absent"));
    }
    return true;
  }
};

TEST(ShelfExplorer, EveryReaderStepAgainstEveryWriterChangeAndDeath) {
  Explorer e;
  const std::pair<const char*, ReaderOp> ops[] = {{"lookup", &lookup}, {"inline lookup", &inlineLookup}, {"iteration", &iterate}};
  // Each key of interest: at home (a0), in the chain behind it (a3, a2, a1), new (a4), elsewhere (b0).
  const char* keys[] = {"a0", "a1", "a2", "a3", "a4", "b0"};
  for (const Action& action : actions()) {
    for (const auto& [opName, op] : ops) {
      for (const char* key : keys) {
        if (op == &iterate && key != std::string("a0")) continue;
        // The stores of the action, counted once, give the points of death to try.
        int stores = 0;
        e.runOnce(opName, op, key, action, 0, -1, &stores);
        for (int death = -1; death < stores; ++death) {
          for (int k = 0; e.runOnce(opName, op, key, action, k, death); ++k) {
          }
        }
      }
    }
  }
  std::printf("explored %zu interleavings, %zu wrong answers\n", e.runs, e.wrong.size());
  for (std::size_t i = 0; i < e.wrong.size() && i < 40; ++i) ADD_FAILURE() << e.wrong[i];
  EXPECT_GT(e.runs, 1000u);
}

}  // namespace
