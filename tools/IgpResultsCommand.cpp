// bgpcommon igp-results show | watch | write: the shared-memory IGP result table from the shell.
//
//   bgpcommon igp-results show vrf1 [--root DIR] [--json]     every record, sorted by key
//   bgpcommon igp-results watch vrf1 [--count N] [--timeout S|inf] [--json]
//                                                          each change as it arrives, until
//                                                          interrupted (SIGINT, SIGTERM: exit 0)
//   bgpcommon igp-results write vrf1 --records N [--size N] [--hold S]
//                                                          fill a table with sample records
#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <thread>
#include <vector>

#include "BgpCommon/FilteredRtStatus.h"
#include "platform/Kelp/Json.h"
#include "tools/Command.h"
#include "tools/JsonSupport.h"
#include "tools/Progress.h"

namespace {

using Routing::BgpRedistribute::IgpResult;
using Routing::BgpRedistribute::IgpResultId;
using Routing::BgpRedistribute::IgpResultStatus;

struct Options {
  std::string name;
  std::string root;
  bool json = false;
  std::uint32_t count = 0;
  double timeout = HUGE_VAL;  // seconds; infinite: until interrupted
  std::uint32_t records = 0;
  std::uint32_t size = 1024;
  std::uint32_t first = 1;
  double hold = 0;
};

// Corruption reports seen while reading; each is printed on stderr as it comes.
std::uint32_t damaged = 0;

// Attaches as a reader; corruption found while reading is reported on stderr.
Kelp::Ptr<IgpResultStatus> attach(const Options& opt) {
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(opt.root);
  Kelp::Ptr<IgpResultStatus> status = IgpResultStatus::createIgpResultStatusReader(opt.name, em);
  if (!status) {
    std::fprintf(stderr, "%s holds no IGP result table\n", IgpResultStatus::mountPath(opt.name).c_str());
    tools::exitWith(tools::exitFailure);
  }
  status->resultControl()->corruptionHandlerIs(
      [](std::string_view m) {
        ++damaged;
        std::fprintf(stderr, "corruption: %.*s\n", static_cast<int>(m.size()), m.data());
      });
  return status;
}

std::string rootOf(const Options& opt) { return opt.root.empty() ? Shelf::Location::defaultRoot() : opt.root; }

void show(const Options& opt) {
  Kelp::Ptr<IgpResultStatus> status = attach(opt);
  if (!status->resultControl()->reader()->attached()) {
    std::fprintf(stderr, "no table at %s/%s\n", rootOf(opt).c_str(), IgpResultStatus::mountPath(opt.name).c_str());
    tools::exitWith(tools::exitFailure);
  }
  std::vector<IgpResult> records;
  status->resultForEach([&](const IgpResult& r) { records.push_back(r); });
  std::sort(records.begin(), records.end(), [](const IgpResult& a, const IgpResult& b) { return a.key.value < b.key.value; });
  if (opt.json) {
    std::printf("%s\n", Kelp::valueToJson(tools::JsonList<IgpResult>{std::move(records)}).c_str());
  } else {
    for (const IgpResult& r : records) std::printf("%s\n", Kelp::valueToStrep(r).c_str());
  }
  // Every record that could be read was printed; those that could not were reported one by one.
  if (damaged != 0) tools::exitWith(tools::exitFailure);
}

// One change as watch --json prints it, a JSON object a line:
//   {"event":"result","key":7,"result":{...}}    record 7 written; "result":null: deleted
//   {"event":"resync","count":50}               read the whole table again (first attach, new
//                                               writer, clear, or a lost change)
//   {"event":"writer","open":false}             the writer closed (true: one opened)
struct ResultEvent {
  Kelp::String event = "result";
  std::uint32_t key = 0;
  tools::JsonMaybe<IgpResult> result;
  friend constexpr auto kelpType(Kelp::Tag<ResultEvent>) {
    return Kelp::valueType<ResultEvent>("tools::ResultEvent", Kelp::field("event", &ResultEvent::event),
                                        Kelp::field("key", &ResultEvent::key),
                                        Kelp::field("result", &ResultEvent::result));
  }
};
struct ResyncEvent {
  Kelp::String event = "resync";
  std::uint32_t count = 0;
  friend constexpr auto kelpType(Kelp::Tag<ResyncEvent>) {
    return Kelp::valueType<ResyncEvent>("tools::ResyncEvent", Kelp::field("event", &ResyncEvent::event),
                                        Kelp::field("count", &ResyncEvent::count));
  }
};
struct WriterEvent {
  Kelp::String event = "writer";
  bool open = false;
  friend constexpr auto kelpType(Kelp::Tag<WriterEvent>) {
    return Kelp::valueType<WriterEvent>("tools::WriterEvent", Kelp::field("event", &WriterEvent::event),
                                        Kelp::field("open", &WriterEvent::open));
  }
};

// Prints one line per change: "KEY <long form>" or "KEY deleted", and "resync N" when the whole
// table must be read again; with --json the objects above.
class Printer : public IgpResultStatus::Notifiee {
 public:
  Printer(IgpResultStatus* s, bool json) : status_(s), json_(json) {}
  void onResult(IgpResultId key) override {
    if (full()) return;
    std::optional<IgpResult> r = status_->result(key);
    if (json_) {
      std::printf("%s\n", Kelp::valueToJson(ResultEvent{.key = key.value, .result = {r}}).c_str());
    } else {
      std::printf("%u %s\n", key.value, r ? Kelp::valueToStrep(*r).c_str() : "deleted");
    }
    ++lines;
  }
  void onResultMountStatus() override {
    if (full()) return;
    if (json_) {
      std::printf("%s\n", Kelp::valueToJson(ResyncEvent{.count = status_->resultCount()}).c_str());
    } else {
      std::printf("resync %u\n", status_->resultCount());
    }
    ++lines;
  }
  void onResultQuiesced(bool quiesced) override {
    if (full()) return;
    if (json_) {
      std::printf("%s\n", Kelp::valueToJson(WriterEvent{.open = !quiesced}).c_str());
    } else {
      std::printf("writer %s\n", quiesced ? "closed" : "open");
    }
    ++lines;
  }
  // Lines printed: every line counts, for --count (changes that arrive after the last are dropped).
  std::uint32_t lines = 0;
  std::uint32_t limit = 0;  // 0: none
  bool full() const { return limit != 0 && lines >= limit; }

 private:
  IgpResultStatus* status_;
  bool json_;
};

// Set by SIGINT and SIGTERM while watch runs: it ends at the next poll, flushing what it printed.
volatile std::sig_atomic_t interrupted = 0;

void watch(const Options& opt) {
  Kelp::Ptr<IgpResultStatus> status = attach(opt);
  Printer printer(status.get(), opt.json);
  printer.limit = opt.count;
  struct sigaction stop {};
  stop.sa_handler = [](int) { interrupted = 1; };
  sigaction(SIGINT, &stop, nullptr);
  sigaction(SIGTERM, &stop, nullptr);
  status->notifieeIs(&printer);
  auto control = status->resultControl();
  // A table that is not there yet is waited for (a watch may start before its writer), but not
  // silently, and a watch that never saw one has failed.
  const std::string path = rootOf(opt) + "/" + IgpResultStatus::mountPath(opt.name);
  bool attached = control->reader()->attached();
  if (!attached) std::fprintf(stderr, "no table at %s yet: waiting for a writer\n", path.c_str());
  // The timeout is wall-clock time: a wait returns early whenever changes arrive. Beyond a century
  // it is no limit (and would overflow the clock).
  using Clock = std::chrono::steady_clock;
  const bool forever = opt.timeout > 3.2e9;
  const auto end = forever ? Clock::time_point::max()
                           : Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                std::chrono::duration<double>(opt.timeout));
  for (auto now = Clock::now(); !printer.full() && now < end && !interrupted; now = Clock::now()) {
    control->waitForChanges(std::min(0.05, std::chrono::duration<double>(end - now).count()));
    control->poll();
    attached = attached || control->reader()->attached();
    std::fflush(stdout);
  }
  std::fflush(stdout);
  status->notifieeDel(&printer);
  if (interrupted) return;
  if (!attached) {
    std::fprintf(stderr, "no table appeared at %s within --timeout\n", path.c_str());
    tools::exitWith(tools::exitFailure);
  }
  if (opt.count != 0 && printer.lines < opt.count) tools::exitWith(tools::exitTimedOut);
}

// Sample record `key`, every field derived from the key so that readers can check it.
IgpResult sample(std::uint32_t key) {
  IgpResult r{IgpResultId(key)};
  r.preference = static_cast<std::uint8_t>(key % 200 + 1);
  r.tag = key * 10;
  r.metric.valueIs(key * 3);
  r.ospfDomainId = key;
  for (std::uint32_t i = 0; i < key % 5; ++i) {
    r.communityIs(Routing::BgpRedistribute::CommunityIndex(i), (65000u << 16) + key + i);
  }
  return r;
}

void write(const Options& opt) {
  if (opt.records != 0 && opt.first > UINT32_MAX - (opt.records - 1)) {
    std::fprintf(stderr, "--first %u --records %u: keys beyond %u\n", opt.first, opt.records, UINT32_MAX);
    tools::exitWith(tools::exitUsage);
  }
  if (opt.records > opt.size) {
    std::fprintf(stderr, "--records %u do not fit a table of --size %u\n", opt.records, opt.size);
    tools::exitWith(tools::exitFailure);
  }
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(opt.root);
  Kelp::Ptr<IgpResultStatus> status = IgpResultStatus::createIgpResultStatusWriter(opt.name, em, opt.size);
  {
    tools::Progress progress("records written", opt.records);
    for (std::uint32_t i = 0; i < opt.records; ++i) {
      status->resultIs(sample(opt.first + i));
      progress.update(i + 1);
    }
  }
  std::printf("wrote %u records to %s\n", opt.records, IgpResultStatus::mountPath(opt.name).c_str());
  std::fflush(stdout);
  if (opt.hold > 0) std::this_thread::sleep_for(std::chrono::duration<double>(opt.hold));
}

tools::CommandRegistration reg("igp-results", [](CLI::App& app) {
  auto* cmd = app.add_subcommand("igp-results", "Show, watch or fill a shared-memory IGP result table");
  cmd->require_subcommand(1);
  static Options opt;
  auto common = [](CLI::App* c) {
    c->add_option("NAME", opt.name, "Table name (the last component of routing/rib/igpResultStatus/NAME)")->required();
    c->add_option("--root", opt.root,
                  "Root directory of the tables (default $BGPCOMMON_SHM_ROOT or /dev/shm/bgpcommon)")
        ->type_name("DIR")
        ->check(tools::nonEmpty);
  };
  auto run = [](void (*fn)(const Options&)) {
    return [fn] {
      try {
        fn(opt);
      } catch (const CLI::RuntimeError&) {
        throw;
      } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        tools::exitWith(tools::exitFailure);
      }
    };
  };

  auto* s = cmd->add_subcommand("show", "Print every record (long text form, or JSON)");
  common(s);
  s->add_flag("--json", opt.json, "Print a JSON array");
  s->callback(run(show));

  auto* w = cmd->add_subcommand("watch",
                                "Print each change as it arrives (exit 3 when --timeout passes before --count changes)");
  common(w);
  w->add_option("--count", opt.count,
                "Stop after this many lines (every line counts: records, deletions, resyncs, writer open/close)");
  w->add_option("--timeout", opt.timeout, "Stop after this many seconds, or inf (default: until interrupted)")
      ->type_name("S|inf")
      ->check(tools::seconds);
  w->add_flag("--json", opt.json, "Print each change as a JSON object, one a line");
  w->callback(run(watch));

  auto* f = cmd->add_subcommand("write", "Create the table (empty) and store sample records 1..N");
  common(f);
  f->add_option("--records", opt.records, "How many sample records")->required();
  f->add_option("--size", opt.size, "Capacity of the table (default 1024)")->check(CLI::Range(1u, Shelf::kMaxCapacity));
  f->add_option("--first", opt.first, "Key of the first record (default 1)")->check(CLI::Range(1u, UINT32_MAX));
  f->add_option("--hold", opt.hold, "Keep the table open this many seconds after writing (default 0)")
      ->check(tools::seconds);
  f->callback(run(write));
});

}  // namespace
