// bgpcommon igp-results list | show | watch | write, and filtered-routes show | watch: the
// shared-memory status tables of redistribution from the shell.
//
//   bgpcommon igp-results list [--root DIR] [--json]          every table under the root
//   bgpcommon igp-results show vrf1 [KEY...] [--long | --json] the records as an aligned table
//   bgpcommon igp-results watch vrf1 [--current] [--count N] [--timeout S|inf] [--json]
//                                                             each change as it arrives, until
//                                                             interrupted (SIGINT, SIGTERM: exit 0)
//   bgpcommon igp-results write vrf1 --records N [--size N] [--hold S]
//                                                             fill a table with sample records
//   bgpcommon filtered-routes show|watch static ...           the same for the filtered routes
//
// IGP result tables live at routing/rib/igpResultStatus/NAME below the root, filtered-route tables
// at routing/rib/filteredRtStatus/NAME (where the demo and the agents put them).
#include <dirent.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "BgpCommon/FilteredRtStatus.h"
#include "platform/Kelp/Json.h"
#include "platform/Pico/Format.h"
#include "tools/Command.h"
#include "tools/JsonSupport.h"
#include "tools/Progress.h"

namespace {

using Routing::BgpRedistribute::FilteredRtStatus;
using Routing::BgpRedistribute::IgpResultId;
using Routing::BgpRedistribute::IgpResultStatus;

// What the commands know of a kind of table beyond what every table entity offers: its command,
// and how an operator writes a key.
struct IgpResults {
  using Status = IgpResultStatus;
  static constexpr const char* kCommand = "igp-results";
  static IgpResultId keyOf(const std::string& text) { return Kelp::strepToValue<IgpResultId>(text); }
  static std::string keyText(IgpResultId k) { return std::to_string(k.value); }
};

struct FilteredRoutes {
  using Status = FilteredRtStatus;
  static constexpr const char* kCommand = "filtered-routes";
  static Netzo::IpGenPrefix keyOf(const std::string& text) { return Netzo::IpGenPrefix::fromString(text); }
  static std::string keyText(const Netzo::IpGenPrefix& k) { return k.stringValue(); }
};

template <typename K>
using KeyOf = typename K::Status::KeyType;
template <typename K>
using RecordOf = typename K::Status::RecordType;
template <typename K>
constexpr std::string_view kPrefixOf = K::Status::kMountPrefix;

struct Options {
  std::string name;
  std::string root;
  std::vector<std::string> keys;
  bool json = false;
  bool longForm = false;
  bool current = false;
  std::uint32_t count = 0;
  double timeout = HUGE_VAL;  // seconds; infinite: until interrupted
  std::uint32_t records = 0;
  std::uint32_t size = 1024;
  std::uint32_t first = 1;
  double hold = 0;
};

// What the reader reported, each printed on stderr as it came: damage found in an attached table,
// and tables refused before one was attached (a file of another user, or writable by others, or
// not a table at all). A refused table is there but unread: it is not "no table".
std::uint32_t damaged = 0;
std::uint32_t refused = 0;
// Whether the table being read has been attached; until then, what the reader reports is why it
// would not attach the file at the path.
bool tableAttached = false;

std::string rootOf(const Options& opt) { return opt.root.empty() ? Shelf::Location::defaultRoot() : opt.root; }

// Mounts table `name` of kind K for reading; corruption found while reading is reported on stderr.
template <typename K>
Kelp::Ptr<typename K::Status> mount(const Kelp::Ptr<KelpSharedMem::EntityManager>& em, const std::string& name) {
  const Kelp::String path = K::Status::mountPath(name);
  em->mount(path, K::Status::kTypeName, {KelpSharedMem::MountMode::reader, {}});
  auto status = Kelp::ptrDynamicCast<typename K::Status>(em->entity(path));
  if (!status) Pico::fmthrow<Kelp::RangeException>("{} holds no {} table", path, K::kCommand);
  tableAttached = false;
  status->recordControl()->corruptionHandlerIs([](std::string_view m) {
    ++(tableAttached ? damaged : refused);
    std::fprintf(stderr, "%s: %.*s\n", tableAttached ? "corruption" : "refused", static_cast<int>(m.size()), m.data());
  });
  return status;
}

// Whether the table is attached, trying to attach it if not (a refusal is reported then).
template <typename Status>
bool attachedNow(Status& status) {
  tableAttached = tableAttached || status.recordControl()->reader()->attached();
  return tableAttached;
}

template <typename K>
Kelp::Ptr<typename K::Status> attach(const Options& opt) {
  return mount<K>(Kelp::makePtr<KelpSharedMem::EntityManager>(opt.root), opt.name);
}

// ---- Tables for the terminal ---------------------------------------------------------------

// Rows aligned in columns, each as wide as its widest cell, two blanks apart; the first row is
// the header.
void printAligned(const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> width;
  for (const auto& row : rows) {
    width.resize(std::max(width.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) width[i] = std::max(width[i], row[i].size());
  }
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += i + 1 < row.size() ? fmt::format("{:<{}}  ", row[i], width[i]) : row[i];
    }
    std::printf("%s\n", line.c_str());
  }
}

// A field as a table cell: its JSON without the quotes and brackets JSON needs (communities as
// "65000:1,65000:2", "-" for null or an empty list). Text holding an escape keeps its JSON form,
// so that no control byte reaches the terminal.
std::string cellOf(const Kelp::String& json) {
  if (json == "null" || json == "[]") return "-";
  if (json.find('\\') != Kelp::String::npos) return json;
  std::string cell;
  for (char c : json) {
    if (c != '"') cell += c;
  }
  return cell.front() == '[' ? cell.substr(1, cell.size() - 2) : cell;
}

// A header of the record type's field names, then a row of its fields for each record.
template <typename R>
std::vector<std::vector<std::string>> recordRows(const std::vector<R>& records) {
  std::vector<std::vector<std::string>> rows(1);
  Kelp::forEachField(Kelp::typeDescOf<R>, [&](const auto& f) { rows[0].push_back(f.name); });
  for (const R& r : records) {
    rows.emplace_back();
    Kelp::forEachField(Kelp::typeDescOf<R>,
                       [&](const auto& f) { rows.back().push_back(cellOf(Kelp::valueToJson(r.*(f.member)))); });
  }
  return rows;
}

std::string plural(std::size_t n, const char* word) { return fmt::format("{} {}{}", n, word, n == 1 ? "" : "s"); }

// ---- list ----------------------------------------------------------------------------------

// A table as list shows it.
struct TableShown {
  Kelp::String kind;  // the command that shows it
  Kelp::String name;
  std::uint32_t records = 0;
  std::uint32_t capacity = 0;
  std::uint32_t version = 0;  // of the file's format
  bool writerOpen = false;
  std::uint32_t writerPid = 0;  // of the writer that created the file, open or not
  std::uint64_t changes = 0;    // published by that writer
  tools::JsonStamp created;     // when that writer created the file
  tools::JsonStamp lastChange;  // when it last published a change (its creation, until the first)
  friend constexpr auto kelpType(Kelp::Tag<TableShown>) {
    return Kelp::valueType<TableShown>(
        "tools::TableShown", Kelp::field("kind", &TableShown::kind), Kelp::field("name", &TableShown::name),
        Kelp::field("records", &TableShown::records), Kelp::field("capacity", &TableShown::capacity),
        Kelp::field("version", &TableShown::version), Kelp::field("writerOpen", &TableShown::writerOpen),
        Kelp::field("writerPid", &TableShown::writerPid), Kelp::field("changes", &TableShown::changes),
        Kelp::field("created", &TableShown::created), Kelp::field("lastChange", &TableShown::lastChange));
  }
};

// The names of the table files in `dir` (a directory below the root), sorted; none when it is
// not there, or cannot be read (which is said, as a refusal). Names starting with a dot are the
// writers' lock and work files.
std::vector<std::string> tableFiles(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (const dirent* e = readdir(d)) {
      if (e->d_name[0] != '.' && (e->d_type == DT_REG || e->d_type == DT_UNKNOWN)) names.emplace_back(e->d_name);
    }
    closedir(d);
  } else if (errno != ENOENT) {
    ++refused;
    std::fprintf(stderr, "refused: cannot list %s: %s\n", dir.c_str(), std::strerror(errno));
  }
  std::sort(names.begin(), names.end());
  return names;
}

template <typename K>
void listKind(const Kelp::Ptr<KelpSharedMem::EntityManager>& em, tools::JsonList<TableShown>& out) {
  for (const std::string& name : tableFiles(em->root() + "/" + std::string(kPrefixOf<K>))) {
    Kelp::Ptr<typename K::Status> status;
    try {
      status = mount<K>(em, name);
    } catch (const Kelp::RangeException& e) {  // a name no table has (a control character): the others still list
      ++refused;
      std::fprintf(stderr, "%s\n", e.what());
      continue;
    }
    const Shelf::Reader* r = status->recordControl()->reader();
    if (!attachedNow(*status)) continue;  // refused: the reason went to stderr
    out.items.push_back({K::kCommand,
                         name,
                         status->recordCount(),
                         r->capacity(),
                         r->formatVersion(),
                         r->writerOpen(),
                         r->writerPid(),
                         r->changeCount(),
                         {r->createdAt()},
                         {r->lastChangeAt()}});
  }
}

void list(const Options& opt) {
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(opt.root);
  (void)Shelf::Location(em->root(), "routing");  // refuses a root no table is under (a relative one)
  tools::JsonList<TableShown> tables;
  listKind<IgpResults>(em, tables);
  listKind<FilteredRoutes>(em, tables);
  if (opt.json) {
    std::printf("%s\n", Kelp::valueToJson(tables).c_str());
  } else if (tables.items.empty()) {
    if (refused == 0) std::printf("no tables under %s\n", em->root().c_str());
  } else {
    std::vector<std::vector<std::string>> rows = {
        {"kind", "name", "records", "capacity", "version", "writer", "changes", "created", "last change"}};
    auto local = [](const tools::JsonStamp& s) {
      const Kelp::LocalTime c = Kelp::localTime(static_cast<std::int64_t>(s.seconds));
      return fmt::format("{}-{:02}-{:02} {:02}:{:02}:{:02}", c.year, c.month, c.day, c.hour, c.minute, c.second);
    };
    for (const TableShown& t : tables.items) {
      rows.push_back({t.kind, t.name, std::to_string(t.records), std::to_string(t.capacity),
                      std::to_string(t.version), t.writerOpen ? fmt::format("pid {}", t.writerPid) : "closed",
                      std::to_string(t.changes), local(t.created), local(t.lastChange)});
    }
    printAligned(rows);
  }
  if (damaged != 0 || refused != 0) tools::exitWith(tools::exitFailure);
}

// ---- show ----------------------------------------------------------------------------------

template <typename K>
void show(const Options& opt) {
  Kelp::Ptr<typename K::Status> status = attach<K>(opt);
  if (!attachedNow(*status)) {
    if (refused == 0) {
      std::fprintf(stderr, "no table at %s/%.*s%s\n", rootOf(opt).c_str(), static_cast<int>(kPrefixOf<K>.size()),
                   kPrefixOf<K>.data(), opt.name.c_str());
    }
    tools::exitWith(tools::exitFailure);
  }
  std::vector<RecordOf<K>> records;
  bool absent = false;
  for (const std::string& text : opt.keys) {
    std::optional<RecordOf<K>> r;
    try {
      r = status->recordFind(K::keyOf(text));
    } catch (const Kelp::RangeException& e) {
      std::fprintf(stderr, "KEY \"%s\": %s\n", Kelp::quoteExcerpt(text, 64).c_str(), e.what());
      tools::exitWith(tools::exitFailure);
    }
    if (r) {
      records.push_back(*r);
    } else {
      std::fprintf(stderr, "no record with key %s\n", Kelp::quoteExcerpt(text, 64).c_str());
      absent = true;
    }
  }
  if (opt.keys.empty()) records = status->recordsByKey();
  if (opt.json) {
    std::printf("%s\n", Kelp::valueToJson(tools::JsonList<RecordOf<K>>{std::move(records)}).c_str());
  } else if (opt.longForm) {
    for (const auto& r : records) std::printf("%s\n", Kelp::valueToStrep(r).c_str());
  } else if (records.empty() && opt.keys.empty()) {
    std::printf("no records: the table is empty\n");
  } else {
    printAligned(recordRows(records));
    std::printf("%s\n", plural(records.size(), "record").c_str());
  }
  // Every record that could be read was printed; those that could not were reported one by one.
  if (damaged != 0 || absent) tools::exitWith(tools::exitFailure);
}

// ---- watch ---------------------------------------------------------------------------------

// One change as watch --json prints it, a JSON object a line, its "event" a change's name
// (Shelf::changeKindName):
//   {"event":"key","key":7,"record":{...}}    record 7 written; "record":null: deleted
//   {"event":"resync","count":50}             read the whole table again (first attach, new
//                                             writer, clear, or a lost change)
//   {"event":"writer closed"}                 the writer closed or died ("writer open": one opened)
template <typename K>
struct KeyEvent {
  Kelp::String event;
  KeyOf<K> key;
  tools::JsonMaybe<RecordOf<K>> record;
  friend constexpr auto kelpType(Kelp::Tag<KeyEvent>) {
    return Kelp::valueType<KeyEvent>("tools::KeyEvent", Kelp::field("event", &KeyEvent::event),
                                     Kelp::field("key", &KeyEvent::key), Kelp::field("record", &KeyEvent::record));
  }
};
struct ResyncEvent {
  Kelp::String event;
  std::uint32_t count = 0;
  friend constexpr auto kelpType(Kelp::Tag<ResyncEvent>) {
    return Kelp::valueType<ResyncEvent>("tools::ResyncEvent", Kelp::field("event", &ResyncEvent::event),
                                        Kelp::field("count", &ResyncEvent::count));
  }
};
// An object like the others, though of one field: described, it would print as that field alone
// (the JSON of a one-field type such as an identifier).
struct WriterEvent {
  Kelp::String event;
};
void kelpJson(Kelp::String& out, const WriterEvent& e) {
  out += "{\"event\":";
  Kelp::jsonString(out, e.event);
  out += '}';
}

// Prints one line per change: "KEY <long form>" or "KEY deleted", "resync N" when the whole table
// must be read again (with --current followed by every record, as changes), and "writer
// open|closed"; with --json the objects above.
template <typename K>
class Printer : public KelpSharedMem::TableWatcher<KeyOf<K>> {
 public:
  Printer(typename K::Status* s, const Options& opt) : status_(s), opt_(opt) {}
  void onTableChange(const KelpSharedMem::TableChange<KeyOf<K>>& c) override {
    if (full()) return;
    const Kelp::String name(Shelf::changeKindName(c.kind));
    switch (c.kind) {
      case Shelf::Change::Kind::key:
        print(*c.key, status_->recordFind(*c.key));
        break;
      case Shelf::Change::Kind::resync: {
        const std::uint32_t n = status_->recordCount();
        line(opt_.json ? Kelp::valueToJson(ResyncEvent{name, n}) : fmt::format("{} {}", name, n));
        if (!opt_.current) break;
        for (const auto& r : status_->recordsByKey()) {
          if (!full()) print(r.key, r);
        }
        break;
      }
      default:
        line(opt_.json ? Kelp::valueToJson(WriterEvent{name}) : name);
        break;
    }
  }
  // Lines printed: every line counts, for --count (changes that arrive after the last are dropped).
  std::uint32_t lines = 0;
  bool full() const { return opt_.count != 0 && lines >= opt_.count; }

 private:
  void print(const KeyOf<K>& key, const std::optional<RecordOf<K>>& r) {
    const Kelp::String name(Shelf::changeKindName(Shelf::Change::Kind::key));
    line(opt_.json ? Kelp::valueToJson(KeyEvent<K>{name, key, {r}})
                   : K::keyText(key) + " " + (r ? Kelp::valueToStrep(*r) : "deleted"));
  }
  void line(const std::string& text) {
    std::printf("%s\n", text.c_str());
    ++lines;
  }
  typename K::Status* status_;
  const Options& opt_;
};

using Clock = std::chrono::steady_clock;

// The instant `seconds` (0 or more) from now; none beyond a century (inf), which would overflow
// the clock.
Clock::time_point deadlineAfter(double seconds) {
  return seconds > 3.2e9 ? Clock::time_point::max()
                         : Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// Set by SIGINT and SIGTERM while watch runs (it ends at the next poll, flushing what it printed)
// or write does (to the signal's number).
volatile std::sig_atomic_t interrupted = 0;

template <typename K>
void watch(const Options& opt) {
  Kelp::Ptr<typename K::Status> status = attach<K>(opt);
  Printer<K> printer(status.get(), opt);
  struct sigaction stop {};
  stop.sa_handler = [](int) { interrupted = 1; };
  sigaction(SIGINT, &stop, nullptr);
  sigaction(SIGTERM, &stop, nullptr);
  status->watcherIs(&printer);
  auto control = status->recordControl();
  // A table that is not there yet is waited for (a watch may start before its writer), but not
  // silently, and a watch that never saw one has failed. A file there that the reader refuses is
  // not waited on: the refusal was said, and the watch fails.
  const std::string path = rootOf(opt) + "/" + std::string(kPrefixOf<K>) + opt.name;
  if (!attachedNow(*status) && refused == 0) {
    std::fprintf(stderr, "no table at %s yet: waiting for a writer\n", path.c_str());
  }
  // The timeout is wall-clock time: a wait returns early whenever changes arrive.
  const Clock::time_point end = deadlineAfter(opt.timeout);
  for (auto now = Clock::now(); !printer.full() && now < end && !interrupted && (tableAttached || refused == 0);
       now = Clock::now()) {
    control->waitForChanges(std::min(0.05, std::chrono::duration<double>(end - now).count()));
    control->poll();
    attachedNow(*status);
    std::fflush(stdout);
  }
  std::fflush(stdout);
  status->watcherDel(&printer);
  if (interrupted) return;
  if (!tableAttached) {
    if (refused == 0) std::fprintf(stderr, "no table appeared at %s within --timeout\n", path.c_str());
    tools::exitWith(tools::exitFailure);
  }
  if (opt.count != 0 && printer.lines < opt.count) tools::exitWith(tools::exitTimedOut);
}

// ---- write ---------------------------------------------------------------------------------

void write(const Options& opt) {
  if (opt.records != 0 && opt.first > UINT32_MAX - (opt.records - 1)) {
    std::fprintf(stderr, "--first %u --records %u: keys beyond %u\n", opt.first, opt.records, UINT32_MAX);
    tools::exitWith(tools::exitUsage);
  }
  if (opt.records > opt.size) {
    std::fprintf(stderr, "--records %u do not fit a table of --size %u\n", opt.records, opt.size);
    tools::exitWith(tools::exitUsage);  // arguments that do not go together, as --first and --records above
  }
  // A writer ended while it builds its file leaves that file behind (.NAME.new, as large as the
  // table) until the next writer of the name. So SIGINT and SIGTERM only ask it to stop: it does
  // once its table is published, then ends by that signal. A second signal ends it at once.
  struct sigaction stop {};
  stop.sa_handler = [](int sig) { interrupted = sig; };
  stop.sa_flags = SA_RESETHAND;
  sigaction(SIGINT, &stop, nullptr);
  sigaction(SIGTERM, &stop, nullptr);
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(opt.root);
  Kelp::Ptr<IgpResultStatus> status = IgpResultStatus::createIgpResultStatusWriter(opt.name, em, opt.size);
  std::uint32_t written = 0;
  {
    tools::Progress progress("records written", opt.records);
    for (; written < opt.records && !interrupted; progress.update(++written)) {
      status->resultIs(Routing::BgpRedistribute::sampleIgpResult(opt.first + written));
    }
  }
  if (!interrupted) {
    std::printf("wrote %u records to %s\n", written, IgpResultStatus::mountPath(opt.name).c_str());
    std::fflush(stdout);
  }
  // Held in short sleeps, so that a signal ends the hold (inf: only a signal does).
  const Clock::time_point end = deadlineAfter(opt.hold);
  while (!interrupted && Clock::now() < end) {
    std::this_thread::sleep_for(std::min<Clock::duration>(std::chrono::milliseconds(50), end - Clock::now()));
  }
  if (interrupted) raise(interrupted);  // the handler is reset: the signal ends the process
}

// ---- The command line ----------------------------------------------------------------------

Options opt;

void rootOption(CLI::App* c) {
  c->add_option("--root", opt.root, "Root directory of the tables (default $BGPCOMMON_SHM_ROOT or /dev/shm/bgpcommon)")
      ->type_name("DIR")
      ->check(tools::tableRoot);
}

// Runs a command; what it throws is its failure (exit 1), said on stderr.
std::function<void()> guarded(void (*fn)(const Options&)) {
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
}

template <typename K>
CLI::App* tableCommand(CLI::App* parent, const char* name, const char* what, void (*fn)(const Options&)) {
  auto* c = parent->add_subcommand(name, what);
  c->add_option("NAME", opt.name, fmt::format("Table name (the last component of {}NAME)", kPrefixOf<K>))
      ->required()
      ->check(tools::tableName);
  rootOption(c);
  c->callback(guarded(fn));
  return c;
}

// show and watch, for either kind of table.
template <typename K>
void readCommands(CLI::App* cmd, const char* keyName) {
  auto* s = tableCommand<K>(cmd, "show",
                            "Print the records as a table (or one long form a line, or JSON); "
                            "exit 1 if a record was damaged or a KEY has none",
                            show<K>);
  s->add_option("KEY", opt.keys, fmt::format("Show only the records of these keys ({})", keyName));
  auto* longForm = s->add_flag("--long", opt.longForm, "One record a line, in its long text form");
  s->add_flag("--json", opt.json, "Print a JSON array")->excludes(longForm);

  auto* w = tableCommand<K>(cmd, "watch",
                            "Print each change as it arrives, until interrupted (exit 3 when "
                            "--timeout passes before --count lines)",
                            watch<K>);
  w->add_flag("--current", opt.current,
              "Print every record as it stands first (and again after each resync), then the changes");
  w->add_option("--count", opt.count,
                "Stop after this many lines (every line counts: records, deletions, resyncs, writer open/close)");
  w->add_option("--timeout", opt.timeout, "Stop after this many seconds, or inf (default: until interrupted)")
      ->type_name("S|inf")
      ->check(tools::seconds);
  w->add_flag("--json", opt.json, "Print each change as a JSON object, one a line");
}

tools::CommandRegistration igpResults("igp-results", [](CLI::App& app) {
  auto* cmd =
      app.add_subcommand("igp-results", "List the tables; show, watch or fill a shared-memory IGP result table");
  cmd->require_subcommand(1);

  auto* l = cmd->add_subcommand("list", "List every table under the root (IGP results and filtered routes)");
  rootOption(l);
  l->add_flag("--json", opt.json, "Print a JSON array");
  l->callback(guarded(list));

  readCommands<IgpResults>(cmd, "result identifiers: 7");

  auto* f = tableCommand<IgpResults>(cmd, "write", "Create the table (empty) and store sample records 1..N", write);
  f->add_option("--records", opt.records, "How many sample records")->required();
  f->add_option("--size", opt.size, "Capacity of the table (default 1024)")->check(CLI::Range(1u, Shelf::kMaxCapacity));
  f->add_option("--first", opt.first, "Key of the first record (default 1)")->check(CLI::Range(1u, UINT32_MAX));
  f->add_option("--hold", opt.hold, "Keep the table open this many seconds after writing (default 0)")
      ->check(tools::seconds);
});

tools::CommandRegistration filteredRoutes("filtered-routes", [](CLI::App& app) {
  auto* cmd = app.add_subcommand("filtered-routes",
                                 "Show or watch a shared-memory filtered-route table (listed by igp-results list)");
  cmd->require_subcommand(1);
  readCommands<FilteredRoutes>(cmd, "prefixes: 10.0.0.0/24");
});

}  // namespace
