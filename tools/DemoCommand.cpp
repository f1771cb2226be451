// bgpcommon demo: static routes redistributed into BGP, across two processes.
//
//   bgpcommon demo [--routes N] [--rib FILE] [--root DIR]   the redistribution flow (default 100000
//                                                            routes; --rib: the prefixes of a RIB dump)
//
// This process plays the configuring agent: it evaluates a redistribution policy over generated
// static routes, interns the results (IgpResultTable), which publishes one record per distinct
// outcome in the shared IGP result table, and publishes each route with the identifier of its
// result in a filtered-route table. A reader process (this tool again, under the hidden
// subcommand demo-reader, tools/DemoReaderCommand.cpp) looks every route up by its identifier as
// redistribution does (IgpResultStatusReaderHelper::lookup) and reports what it found. Then some
// outcomes are released (their records withdrawn, their identifiers freed) and new ones take the
// freed identifiers.
//
// The demo checks the reader's answers (tools/ReaderReport.h) against what it published and what
// the feature toggle, read here too, makes a lookup answer; it exits 1 if they disagree. Every wait
// on the reader is bounded.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "BgpCommon/FilteredRtStatus.h"
#include "BgpCommon/IgpResultDedupTable.h"
#include "BgpCommon/IgpResultStatusReaderHelper.h"
#include "BgpCommon/MrtRib.h"
#include "tools/Command.h"
#include "tools/JsonSupport.h"
#include "tools/Progress.h"
#include "tools/ReaderReport.h"
#include "tools/Support.h"

namespace {

using Routing::Bgp::IgpResult_;
using Routing::Bgp::IgpResultTable;
using Routing::BgpRedistribute::CommunityIndex;
using Routing::BgpRedistribute::FilteredRoute;
using Routing::BgpRedistribute::FilteredRtStatus;
using Routing::BgpRedistribute::IgpResult;
using Routing::BgpRedistribute::IgpResultId;
using Routing::BgpRedistribute::IgpResultReturnType;
using Routing::BgpRedistribute::IgpResultStatus;
using Clock = std::chrono::steady_clock;

using tools::kDemoTableName;
constexpr std::uint32_t kClauses = 36;          // distinct outcomes of the policy
constexpr std::uint32_t kUnmatchedEvery = 25;   // one route in 25 matches no clause
constexpr std::uint32_t kReplaced[] = {5, 12, 30};  // clauses the operator later replaces
constexpr double kReaderTimeoutSeconds = 30;

double msSince(Clock::time_point t0) { return std::chrono::duration<double, std::milli>(Clock::now() - t0).count(); }

// Where the demo tells what it does: standard output, or standard error when standard output
// carries the summary as JSON.
FILE* narrative = stdout;

// ---- The policy --------------------------------------------------------------------------

// With --rib, the prefixes of a real table, each once, in the order of the dump.
std::vector<Netzo::IpGenPrefix> ribPrefixes;

// Static route i: the i-th prefix of the table given, else 10.0.0.0/24 onwards, one /24 after the
// other.
Netzo::IpGenPrefix routePrefix(std::uint32_t i) {
  if (!ribPrefixes.empty()) return ribPrefixes[i];
  return Netzo::IpGenPrefix(Netzo::IpAddr::fromHostOrder(0x0A000000u + (i << 8)), 24);
}

// The clause route i matches, or none. The spread is fixed (a multiplicative hash of i), so that
// every run and both processes agree.
std::optional<std::uint32_t> clauseOf(std::uint32_t i) {
  if (i % kUnmatchedEvery == kUnmatchedEvery - 1) return std::nullopt;
  return ((i * 2654435761u) >> 12) % kClauses;
}

// What clause c sets: a preference, a metric (every third clause leaves it alone), a tag and up to
// four communities. `generation` tells the clauses that replace an older one apart (by their tag).
IgpResult_ clauseResult(std::uint32_t c, std::uint32_t generation) {
  static const std::uint8_t preferences[] = {1, 50, 110, 200};
  IgpResult_ r;
  r.preferenceIs(preferences[c % 4]);
  if (c % 3 != 0) r.metric.valueIs(10 * (c / 3 + 1));
  r.tagIs(100 * (generation + 1) + c);
  for (std::uint32_t j = 0; j < c % 5; ++j) r.communityIs(CommunityIndex(j), (65000u << 16) | (c * 10 + j));
  return r;
}

// ---- Running the reader process ----------------------------------------------------------

// Starts `bgpcommon demo-reader ARGS` and relays its output, indented. Returns its report, or
// nothing when it failed or did not finish in time.
std::optional<tools::ReaderReport> runReader(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"demo-reader"};
  argv.insert(argv.end(), args.begin(), args.end());
  tools::ReaderReport report;
  const tools::ChildResult r =
      tools::runChild(tools::selfExecutable(), argv, kReaderTimeoutSeconds, [&](const std::string& line) {
        std::fprintf(narrative, "    | %s\n", line.c_str());
        report.absorb(line);
      });
  if (r.timedOut) {
    std::fprintf(narrative, "    reader did not finish within %.0f s: stopped\n", kReaderTimeoutSeconds);
    return std::nullopt;
  }
  if (r.status != 0) {
    std::fprintf(narrative, "    reader failed (status %d)\n", r.status);
    return std::nullopt;
  }
  return report;
}

// ---- The demo ----------------------------------------------------------------------------

struct Options {
  std::uint32_t routes = 100000;
  bool routesGiven = false;
  std::string rib;  // a RIB dump whose prefixes the static routes take
  std::string root;
  bool json = false;
};

// The demo's summary as demo --json prints it: what was published and released, and each pass of
// the reader with its answers by return type.
struct PassShown {
  std::uint64_t resultFound = 0, resultDefault = 0, resultNotFound = 0, resultTagOnly = 0;
  bool agreed = false;
  friend constexpr auto kelpType(Kelp::Tag<PassShown>) {
    return Kelp::valueType<PassShown>("tools::PassShown", Kelp::field("resultFound", &PassShown::resultFound),
                                      Kelp::field("resultDefault", &PassShown::resultDefault),
                                      Kelp::field("resultNotFound", &PassShown::resultNotFound),
                                      Kelp::field("resultTagOnly", &PassShown::resultTagOnly),
                                      Kelp::field("agreed", &PassShown::agreed));
  }
};
struct DemoSummary {
  std::uint32_t routes = 0;
  std::uint32_t outcomes = 0;            // distinct, published as records 1..outcomes
  tools::JsonList<std::uint32_t> freed;  // identifiers of the released outcomes, in the order freed
  bool freedReused = false;              // the new outcomes took exactly those, first freed first
  tools::JsonList<PassShown> passes;     // the reader's, a route lookup each
  std::uint64_t milliseconds = 0;
  Kelp::String root;
  bool temporary = false;  // the root is the demo's own, removed at the end
  tools::JsonMaybe<Kelp::String> rib;  // the dump the prefixes came from
  friend constexpr auto kelpType(Kelp::Tag<DemoSummary>) {
    return Kelp::valueType<DemoSummary>(
        "tools::DemoSummary", Kelp::field("routes", &DemoSummary::routes),
        Kelp::field("outcomes", &DemoSummary::outcomes), Kelp::field("freed", &DemoSummary::freed),
        Kelp::field("freedReused", &DemoSummary::freedReused), Kelp::field("passes", &DemoSummary::passes),
        Kelp::field("milliseconds", &DemoSummary::milliseconds), Kelp::field("root", &DemoSummary::root),
        Kelp::field("temporary", &DemoSummary::temporary), Kelp::field("rib", &DemoSummary::rib));
  }
};

std::string joinIds(const std::vector<std::uint32_t>& ids) {
  std::string s;
  for (std::uint32_t id : ids) s += (s.empty() ? "" : ",") + std::to_string(id);
  return s;
}

class Demo {
 public:
  Demo(const Options& opt, const Shelf::TempRoot& root) : opt_(opt), root_(root) {}

  int run() {
    const auto start = Clock::now();
    std::fprintf(narrative, "Redistributing %u static routes into BGP, across two processes.\n", opt_.routes);
    if (!opt_.rib.empty()) std::fprintf(narrative, "Their prefixes are those of the RIB dump %s.\n", opt_.rib.c_str());
    std::fprintf(narrative, "Tables under %s%s\n", root_.path().c_str(), root_.temporary() ? " (temporary)" : "");
    if (!root_.temporary()) {
      std::fprintf(narrative, "(watch the records come and go: bgpcommon igp-results watch %s --root %s)\n",
                   kDemoTableName, root_.path().c_str());
    }
    std::fprintf(narrative, "\n");
    {
      setUp();
      evaluateAndPublish();
      readAll("2. A reader process looks every route up by its identifier", {});
      releaseOutcomes();
      reuseIdentifiers();
      tearDown();
    }
    std::fprintf(narrative,
                 "Summary: %u routes; %u distinct outcomes published as records 1..%u; %zu released (records\n"
                 "withdrawn, identifiers %s freed) and their identifiers taken by %zu new outcomes; the reader\n"
                 "agreed in %u of %zu passes. Total %.0f ms.\n",
                 opt_.routes, distinctOutcomes_, distinctOutcomes_, releasedIds_.size(), joinIds(freedOrder_).c_str(),
                 releasedIds_.size(), agreed_, passes_.items.size(), msSince(start));
    summary_ = {.routes = opt_.routes,
                .outcomes = distinctOutcomes_,
                .freed = {freedOrder_},
                .freedReused = reused_,
                .passes = passes_,
                .milliseconds = static_cast<std::uint64_t>(msSince(start)),
                .root = root_.path(),
                .temporary = root_.temporary(),
                .rib = {opt_.rib.empty() ? std::nullopt : std::optional<Kelp::String>(opt_.rib)}};
    if (root_.temporary()) {
      std::fprintf(narrative, "Temporary tables removed.\n");
    } else {
      std::fprintf(narrative, "Tables left under %s.\n", root_.path().c_str());
    }
    return agreed_ == passes_.items.size() && checksFailed_ == 0 ? 0 : 1;
  }
  const DemoSummary& summary() const { return summary_; }

 private:
  void setUp() {
    em_ = Kelp::makePtr<KelpSharedMem::EntityManager>(root_.path());
    status_ = IgpResultStatus::createIgpResultStatusWriter(kDemoTableName, em_, 4096);
    const std::string routesPath = FilteredRtStatus::mountPath(kDemoTableName);
    em_->mount(routesPath, FilteredRtStatus::kTypeName,
               {KelpSharedMem::MountMode::writer, {{Kelp::String(FilteredRtStatus::kCollection), opt_.routes + 64}}});
    routes_ = Kelp::ptrDynamicCast<FilteredRtStatus>(em_->entity(routesPath));
    routes_->filteredRouteDelAll();
    table_ = Routing::Bgp::igpResultTableFactory(status_);
    handles_.assign(opt_.routes, nullptr);
  }

  void tearDown() {
    handles_.clear();
    std::fprintf(narrative, "5. Shutting down: the routes let go of their results; %u records left in the table\n\n",
                 status_->resultCount());
    if (status_->resultCount() != 0) ++checksFailed_;
    table_ = nullptr;
    routes_ = nullptr;
    status_ = nullptr;
    em_ = nullptr;
  }

  void publishRoute(std::uint32_t i) {
    const std::uint32_t id = handles_[i] ? handles_[i]->id() : 0;
    routes_->filteredRouteIs(FilteredRoute(routePrefix(i), IgpResultId(id)));
  }

  void evaluateAndPublish() {
    std::fprintf(narrative, "1. Policy over %u static routes (%u clauses; one route in %u matches none)\n", opt_.routes,
                 kClauses, kUnmatchedEvery);
    auto t0 = Clock::now();
    std::uint32_t results = 0;
    for (std::uint32_t i = 0; i < opt_.routes; ++i) {
      std::optional<std::uint32_t> c = clauseOf(i);
      if (!c) continue;
      // Policy evaluation hands back a fresh result per route; equal results intern to one handle.
      IgpResult_ r = clauseResult(*c, 0);
      handles_[i] = table_->dedup(r);
      ++results;
    }
    const double dedupMs = msSince(t0);
    distinctOutcomes_ = static_cast<std::uint32_t>(table_->size());
    expectedFound_ = results;
    std::fprintf(narrative, "   %u results interned into %u distinct outcomes in %.1f ms (%.1f M results/s)\n", results,
                 distinctOutcomes_, dedupMs, results / dedupMs / 1e3);
    std::fprintf(narrative, "   %u records published under identifiers %u..%u in %s\n", status_->resultCount(), 1u,
                 table_->idAllocator()->largestAllocatedId(), IgpResultStatus::mountPath(kDemoTableName).c_str());

    t0 = Clock::now();
    {
      tools::Progress progress("routes published", opt_.routes);
      for (std::uint32_t i = 0; i < opt_.routes; ++i) {
        publishRoute(i);
        progress.update(i + 1);
      }
    }
    routes_->routesProcessedIs(true);
    std::fprintf(narrative, "   %u routes published with their identifiers in %s in %.1f ms\n\n", opt_.routes,
                 FilteredRtStatus::mountPath(kDemoTableName).c_str(), msSince(t0));
  }

  // Runs the reader over every route (and the identifiers in `probe`) and checks its counts.
  void readAll(const char* title, const std::map<std::uint32_t, IgpResultReturnType>& probe) {
    std::fprintf(narrative, "%s\n", title);
    std::vector<std::string> args = {"--root", root_.path(), "--name", kDemoTableName, "--routes"};
    std::vector<std::uint32_t> ids;
    for (const auto& [id, type] : probe) ids.push_back(id);
    if (!ids.empty()) {
      args.push_back("--ids");
      args.push_back(joinIds(ids));
    }
    passes_.items.emplace_back();
    std::optional<tools::ReaderReport> report = runReader(args);
    if (!report) return;
    // What every lookup must answer: with static-route communities off (the toggle, read here as
    // the reader reads it), only the tag; else the record for a route with an identifier, the
    // default for one without.
    using RT = IgpResultReturnType;
    const bool tagOnly = !Routing::BgpRedistribute::IgpResultStatusReaderHelper::staticRouteCommunities();
    std::map<RT, std::uint64_t> want = {{RT::resultFound, tagOnly ? 0 : expectedFound_},
                                        {RT::resultDefault, tagOnly ? 0 : opt_.routes - expectedFound_},
                                        {RT::resultNotFound, 0},
                                        {RT::resultTagOnly, tagOnly ? opt_.routes : 0}};
    bool ok = report->counted && report->routes == opt_.routes;
    for (const auto& [type, n] : want) ok = ok && report->count(type) == n;
    for (const auto& [id, type] : probe) {
      const auto it = report->probes.find(id);
      ok = ok && it != report->probes.end() && it->second == (tagOnly ? RT::resultTagOnly : type);
    }
    std::fprintf(narrative, "   %s\n\n",
                 ok ? "the reader's answers match what was published"
                    : "MISMATCH: the reader's answers differ from what was published");
    if (ok) ++agreed_;
    passes_.items.back() = {report->count(RT::resultFound), report->count(RT::resultDefault),
                            report->count(RT::resultNotFound), report->count(RT::resultTagOnly), ok};
  }

  void releaseOutcomes() {
    std::fprintf(narrative, "3. The operator deletes clauses");
    for (std::uint32_t c : kReplaced) std::fprintf(narrative, " %u", c);
    std::fprintf(narrative, ": their routes now match no clause\n");
    std::set<std::uint32_t> replaced(std::begin(kReplaced), std::end(kReplaced));
    auto t0 = Clock::now();
    std::uint32_t released = 0;
    for (std::uint32_t i = 0; i < opt_.routes; ++i) {
      std::optional<std::uint32_t> c = clauseOf(i);
      if (!c || replaced.count(*c) == 0) continue;
      releasedIds_.insert(handles_[i]->id());
      // The last route to let go of an outcome withdraws its record and frees its identifier.
      handles_[i] = nullptr;
      publishRoute(i);
      ++released;
      --expectedFound_;
    }
    freedOrder_.clear();
    for (const auto& e : table_->idAllocator()->freeId()) freedOrder_.push_back(e.value);
    std::fprintf(narrative, "   %u routes let go of their results (and were republished without one) in %.1f ms\n",
                 released, msSince(t0));
    std::fprintf(narrative,
                 "   %zu outcomes left the table: records withdrawn and identifiers freed, in this order: %s;\n"
                 "   %u records remain\n\n",
                 releasedIds_.size(), joinIds(freedOrder_).c_str(), status_->resultCount());
    std::map<std::uint32_t, IgpResultReturnType> probe;
    for (std::uint32_t id : releasedIds_) probe[id] = IgpResultReturnType::resultNotFound;
    readAll("   The reader again, also asking for the withdrawn identifiers:", probe);
  }

  void reuseIdentifiers() {
    std::fprintf(narrative, "4. New clauses replace them (new tags), matched by the same routes\n");
    std::set<std::uint32_t> replaced(std::begin(kReplaced), std::end(kReplaced));
    std::vector<std::uint32_t> newIds;
    for (std::uint32_t i = 0; i < opt_.routes; ++i) {
      std::optional<std::uint32_t> c = clauseOf(i);
      if (!c || replaced.count(*c) == 0) continue;
      IgpResult_ r = clauseResult(*c, 1);
      handles_[i] = table_->dedup(r);
      if (std::find(newIds.begin(), newIds.end(), handles_[i]->id()) == newIds.end())
        newIds.push_back(handles_[i]->id());
      publishRoute(i);
      ++expectedFound_;
    }
    reused_ = newIds == freedOrder_;
    const bool reused = reused_;
    std::fprintf(narrative, "   the new outcomes received identifiers %s: %s\n", joinIds(newIds).c_str(),
                 reused ? "the freed ones, freed first reused first" : "NOT the freed ones");
    std::fprintf(narrative, "   largest identifier ever allocated is still %u; %u records in the table\n\n",
                 table_->idAllocator()->largestAllocatedId(), status_->resultCount());
    std::map<std::uint32_t, IgpResultReturnType> probe;
    for (std::uint32_t id : newIds) probe[id] = IgpResultReturnType::resultFound;
    readAll("   The reader once more: the reused identifiers name the new records", probe);
    if (!reused) ++checksFailed_;
  }

  const Options& opt_;
  const Shelf::TempRoot& root_;
  Kelp::Ptr<KelpSharedMem::EntityManager> em_;
  Kelp::Ptr<IgpResultStatus> status_;
  Kelp::Ptr<FilteredRtStatus> routes_;
  Kelp::Ptr<IgpResultTable> table_;
  std::vector<Kelp::Ptr<const Routing::Bgp::DedupIgpResult>> handles_;  // per route; null: no result
  std::uint32_t distinctOutcomes_ = 0;
  std::uint64_t expectedFound_ = 0;
  std::set<std::uint32_t> releasedIds_;
  std::vector<std::uint32_t> freedOrder_;
  tools::JsonList<PassShown> passes_;
  std::uint32_t agreed_ = 0;
  bool reused_ = false;
  DemoSummary summary_;
  std::uint32_t checksFailed_ = 0;  // checks of this process's own (identifier reuse)
};

// The distinct prefixes of the dump, at most `limit` of them. A damaged record is named on standard
// error; the prefixes read around it are used.
std::vector<Netzo::IpGenPrefix> prefixesOf(const std::string& path, std::uint32_t limit) {
  Routing::Bgp::MrtRib rib;
  rib.onDamage = [&](const Routing::Bgp::MrtDamage& d) { std::fprintf(stderr, "%s: %s\n", path.c_str(), d.toStrep().c_str()); };
  Routing::Bgp::MrtFile file(path);
  rib.load(file);
  std::vector<Netzo::IpGenPrefix> prefixes = rib.distinctPrefixes();
  if (prefixes.size() > limit) prefixes.resize(limit);
  return prefixes;
}

void runDemo(Options opt) {
  int code = 0;
  std::optional<DemoSummary> summary;
  narrative = opt.json ? stderr : stdout;
  if (!opt.rib.empty()) {
    try {
      ribPrefixes = prefixesOf(opt.rib, opt.routesGiven ? opt.routes : UINT32_MAX);
    } catch (const Routing::Bgp::MrtOpenError& e) {
      std::fprintf(stderr, "demo failed: %s\n", e.what());
      tools::exitWith(tools::exitFailure);
    }
    if (ribPrefixes.empty()) {
      std::fprintf(stderr, "demo failed: %s holds no RIB entries\n", opt.rib.c_str());
      tools::exitWith(tools::exitFailure);
    }
    opt.routes = static_cast<std::uint32_t>(ribPrefixes.size());
  }
  try {
    Shelf::TempRoot root(opt.root, "bgpcommon-demo");
    tools::RemoveOnSignal removeOnSignal(root);  // interrupted (Ctrl-C, kill, a closed pipe): no tables left
    Demo demo(opt, root);
    code = demo.run();
    summary = demo.summary();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "demo failed: %s\n", e.what());
    code = 1;
  }
  if (opt.json && summary) std::printf("%s\n", Kelp::valueToJson(*summary).c_str());
  std::fflush(stdout);
  if (code != 0) tools::exitWith(tools::exitFailure);
}

tools::CommandRegistration reg("demo", [](CLI::App& app) {
  static Options opt;
  auto* demo = app.add_subcommand("demo", "Redistribute static routes into BGP across two processes");
  demo->add_option("--routes", opt.routes, "How many static routes (default 100000; with --rib, at most this many)")
      ->check(CLI::Range(1u, 1000000u))
      ->each([](const std::string&) { opt.routesGiven = true; });
  demo->add_option("--rib", opt.rib, "Take the routes' prefixes from this RIB dump (MRT), each once")
      ->type_name("FILE")
      ->check(tools::nonEmpty);
  demo->add_option("--root", opt.root, "Directory for the tables (default: a temporary one, removed afterwards)")
      ->type_name("DIR")
      ->check(tools::tableRoot);
  demo->add_flag("--json", opt.json, "Print the summary as one JSON object (the steps go to standard error)");
  demo->footer(
      "This process evaluates a policy over generated static routes (with --rib, routes to the prefixes of\n"
      "a real table), interns the results (one record and\n"
      "identifier per distinct outcome, published in a shared-memory table) and publishes every route with\n"
      "its identifier. A separate reader process looks every route up as redistribution does and reports\n"
      "what it found. Then some outcomes are released and new ones take their identifiers. Exits 1 when\n"
      "the reader's answers differ from what was published. The toggle StaticRouteCommunities in\n"
      "$BGPCOMMON_TOGGLE_DIR/Ira.json switches static-route lookups to tag-only.");
  demo->callback([] { runDemo(opt); });
});

}  // namespace
