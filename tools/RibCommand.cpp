// bgpcommon rib FILE: a RIB dump loaded into the library's interned structures (MrtRib), with what
// it costs:
//
//   $ bgpcommon rib rib.20140523.0600.bz2
//   rib.20140523.0600.bz2: 270005 routes, 9072 prefixes (9072 IPv4, 0 IPv6), 87310 attribute sets
//     memory: 9.1 MB resident, 35.2 bytes per route
//     load: 0.61 s (443000 routes/s, reading and decompressing included); release: 0.004 s
//   $ bgpcommon rib --publish /dev/shm/bgpcommon rib.bz2   # and a reader process checks it
//
// --publish ROOT publishes the table in the filtered-route table ROOT/routing/rib/filteredRtStatus/
// NAME (default "rib"): a record per prefix, carrying the identifier of the attribute set of the
// first path the dump lists for it (sets numbered from 1 as they are published). That is the
// table the agent keeps per prefix, with the attribute-set identifier a route carries, which
// `filtered-routes show` and the Python module read as they stand. A reader process (this tool
// again, under the hidden subcommand rib-reader) then reads the dump itself, looks a sample of its
// prefixes up in the table, and checks that each is there and that the identifiers follow the
// attribute octets: equal octets, one identifier; different octets, different identifiers.
//
// A damaged record is named on standard error with its offset; the counts are of what was read
// before and after it, and the exit status is 1.
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <fmt/format.h>

#include "BgpCommon/FilteredRtStatus.h"
#include "BgpCommon/MrtRib.h"
#include "tools/Command.h"
#include "tools/JsonSupport.h"
#include "tools/Support.h"

namespace {

using namespace Routing::Bgp;
using Routing::BgpRedistribute::FilteredRoute;
using Routing::BgpRedistribute::FilteredRtStatus;
using Routing::BgpRedistribute::IgpResultId;
using Clock = std::chrono::steady_clock;

constexpr double kReaderTimeoutSeconds = 60;

double secondsSince(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

// Resident memory of this process, in octets.
std::int64_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::int64_t size = 0, resident = 0;
  statm >> size >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}

struct RibOptions {
  std::string file;
  std::string publish;
  std::string name = "rib";
  std::uint32_t sample = 1000;
  bool json = false;
};

struct PublishShown {
  Kelp::String root;
  Kelp::String table;
  std::uint64_t records = 0;
  std::uint64_t identifiers = 0;  // distinct attribute sets among the records
  std::uint64_t sampled = 0;      // prefixes the reader looked up
  bool agreed = false;            // the reader found every one as published
  friend constexpr auto kelpType(Kelp::Tag<PublishShown>) {
    using S = PublishShown;
    return Kelp::valueType<S>("tools::RibPublished", Kelp::field("root", &S::root), Kelp::field("table", &S::table),
                              Kelp::field("records", &S::records), Kelp::field("identifiers", &S::identifiers),
                              Kelp::field("sampled", &S::sampled), Kelp::field("agreed", &S::agreed));
  }
};

struct RibShown {
  Kelp::String file;
  std::uint64_t routes = 0;
  std::uint64_t prefixes = 0;
  std::uint64_t ipv4Prefixes = 0;
  std::uint64_t ipv6Prefixes = 0;
  std::uint64_t attributeSets = 0;
  std::uint64_t ignored = 0;  // routes of update records, not RIB entries
  std::uint64_t damaged = 0;
  std::int64_t residentBytes = 0;  // resident memory the loaded table added
  tools::JsonReal bytesPerRoute;
  tools::JsonReal loadSeconds;
  tools::JsonReal routesPerSecond;
  tools::JsonReal releaseSeconds;
  tools::JsonMaybe<PublishShown> published;
  friend constexpr auto kelpType(Kelp::Tag<RibShown>) {
    using S = RibShown;
    return Kelp::valueType<S>(
        "tools::Rib", Kelp::field("file", &S::file), Kelp::field("routes", &S::routes),
        Kelp::field("prefixes", &S::prefixes), Kelp::field("ipv4Prefixes", &S::ipv4Prefixes),
        Kelp::field("ipv6Prefixes", &S::ipv6Prefixes), Kelp::field("attributeSets", &S::attributeSets),
        Kelp::field("ignored", &S::ignored), Kelp::field("damaged", &S::damaged),
        Kelp::field("residentBytes", &S::residentBytes), Kelp::field("bytesPerRoute", &S::bytesPerRoute),
        Kelp::field("loadSeconds", &S::loadSeconds), Kelp::field("routesPerSecond", &S::routesPerSecond),
        Kelp::field("releaseSeconds", &S::releaseSeconds), Kelp::field("published", &S::published));
  }
};

// ---- Publishing and the reader's check -----------------------------------------------------

// The first path of each prefix, in the order the dump lists them, through `fn(prefix, path)`.
template <typename F>
void forEachFirstPath(const MrtRib& rib, F&& fn) {
  absl::flat_hash_set<const void*> seen;
  for (const RibRun& run : rib.runs()) {
    if (seen.insert(run.key.get()).second) fn(run.key->prefix(), rib.pathsOf(run).front());
  }
}

PublishShown publish(const MrtRib& rib, const RibOptions& opt, FILE* narrative) {
  PublishShown shown{.root = opt.publish, .table = FilteredRtStatus::mountPath(opt.name)};
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(opt.publish);
  em->mount(shown.table, FilteredRtStatus::kTypeName,
            {KelpSharedMem::MountMode::writer,
             {{Kelp::String(FilteredRtStatus::kCollection), static_cast<std::uint32_t>(rib.prefixes() + 64)}}});
  auto table = Kelp::ptrDynamicCast<FilteredRtStatus>(em->entity(shown.table));
  table->filteredRouteDelAll();
  const auto t0 = Clock::now();
  // The table's set numbers say where a set lies; the identifiers count from 1 in publishing order.
  absl::flat_hash_map<PackedAttributeSets::Number, std::uint32_t> numbers;
  forEachFirstPath(rib, [&](const Netzo::IpGenPrefix& prefix, const RibPath& path) {
    const std::uint32_t id = numbers.try_emplace(path.set, static_cast<std::uint32_t>(numbers.size() + 1)).first->second;
    table->filteredRouteIs(FilteredRoute(prefix, IgpResultId(id)));
  });
  table->routesProcessedIs(true);
  shown.records = table->filteredRouteCount();
  shown.identifiers = numbers.size();
  std::fprintf(narrative, "  published %" PRIu64 " prefixes with %" PRIu64 " attribute-set identifiers in %s in %.2f s\n",
               shown.records, shown.identifiers, (opt.publish + "/" + shown.table).c_str(), secondsSince(t0));
  // The reader looks while the table's writer is still open, as a reader beside the agent would.
  std::vector<std::string> args = {"rib-reader", "--root", opt.publish, "--name", opt.name,
                                   "--sample", std::to_string(opt.sample), opt.file};
  const tools::ChildResult r =
      tools::runChild(tools::selfExecutable(), args, kReaderTimeoutSeconds, [&](const std::string& line) {
        std::fprintf(narrative, "    | %s\n", line.c_str());
        if (line.rfind("sampled ", 0) == 0) shown.sampled = std::stoull(line.substr(8));
        if (line == "agreed") shown.agreed = true;
      });
  if (!r.ok()) {
    std::fprintf(narrative, "  reader failed (%s)\n",
                 r.timedOut ? "did not finish in time" : ("status " + std::to_string(r.status)).c_str());
    shown.agreed = false;
  }
  return shown;
}

// The reader process: the dump read again, apart from the writer, against the published table.
int readerMain(const RibOptions& opt, const std::string& root) {
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root);
  const std::string path = FilteredRtStatus::mountPath(opt.name);
  em->mount(path, FilteredRtStatus::kTypeName, {KelpSharedMem::MountMode::reader, {}});
  auto table = Kelp::ptrDynamicCast<FilteredRtStatus>(em->entity(path));
  if (!table || !table->filteredRouteControl()->reader()->attached()) {
    std::printf("no filtered-route table %s under %s\n", path.c_str(), root.c_str());
    return tools::exitFailure;
  }
  table->filteredRouteControl()->corruptionHandlerIs(
      [](std::string_view m) { std::printf("corruption: %.*s\n", static_cast<int>(m.size()), m.data()); });
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (!table->routesProcessed() && Clock::now() < deadline) {
    table->filteredRouteControl()->waitForChanges(0.05);
    table->filteredRouteControl()->poll();
  }
  const std::uint32_t records = table->filteredRouteCount();
  // A sample spread by the prefixes' hash: about `sample` of them, whatever the dump's order.
  const std::uint32_t every = std::max<std::uint32_t>(1, records / std::max<std::uint32_t>(1, opt.sample));
  struct First : MrtVisitor {
    std::uint32_t every = 1;
    absl::flat_hash_set<Netzo::IpGenPrefix> prefixes;
    std::vector<std::pair<Netzo::IpGenPrefix, std::string>> sample;  // prefix, its first path's set
    std::vector<U8> scratch;
    void route(const MrtRoute& r) override {
      if (r.kind != MrtRoute::Kind::ribEntry || !prefixes.insert(r.prefix).second) return;
      if (r.prefix.hash(0) % every != 0) return;
      const std::span<const U8> octets = ribEntryAttributes(r.attributeOctets, *r.options, scratch);
      std::string set(octets.begin(), octets.end());
      set += fmt::format("|{}|{}", r.options->fourOctetAs, r.options->mrtAbbreviatedMpReach.value());
      sample.emplace_back(r.prefix, std::move(set));
    }
  } first;
  first.every = every;
  MrtFile file(opt.file);
  MrtDecoder decoder;
  readMrt(file, decoder, first);
  std::printf("reader pid %d: %u records published, %zu distinct prefixes in the dump\n", static_cast<int>(getpid()),
              records, first.prefixes.size());
  std::printf("sampled %zu prefixes\n", first.sample.size());
  std::size_t missing = 0, split = 0, merged = 0;
  std::map<std::string, std::uint32_t> idOfSet;
  std::map<std::uint32_t, std::string> setOfId;
  for (const auto& [prefix, set] : first.sample) {
    const std::optional<FilteredRoute> r = table->filteredRoute(prefix);
    if (!r || r->igpResultId.value == 0) {
      if (missing++ < 5) std::printf("missing: %s\n", prefix.stringValue().c_str());
      continue;
    }
    const auto [byId, newId] = setOfId.try_emplace(r->igpResultId.value, set);
    const auto [bySet, newSet] = idOfSet.try_emplace(set, r->igpResultId.value);
    if (byId->second != set) ++merged;           // one identifier for different sets
    if (bySet->second != r->igpResultId.value) ++split;  // one set under two identifiers
  }
  std::printf("%zu missing, %zu identifiers naming different sets, %zu sets under two identifiers\n", missing, merged,
              split);
  const bool agreed = records == first.prefixes.size() && missing == 0 && merged == 0 && split == 0;
  std::printf("%s\n", agreed ? "agreed" : "disagreed");
  return agreed ? tools::exitOk : tools::exitFailure;
}

// ---- The command ---------------------------------------------------------------------------

int runRib(const RibOptions& opt) {
  FILE* narrative = opt.json ? stderr : stdout;
  RibShown shown;
  shown.file = opt.file;
  const std::int64_t before = residentBytes();
  std::optional<MrtRib> rib(std::in_place);
  rib->onDamage = [&](const MrtDamage& d) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s\n", opt.file.c_str(), d.toStrep().c_str());
  };
  const auto t0 = Clock::now();
  try {
    MrtFile file(opt.file);
    shown.damaged = rib->load(file);
  } catch (const MrtOpenError& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return tools::exitFailure;
  }
  shown.loadSeconds.value = secondsSince(t0);
  shown.residentBytes = residentBytes() - before;
  shown.routes = rib->routes();
  shown.prefixes = rib->prefixes();
  shown.ipv4Prefixes = rib->ipv4Prefixes();
  shown.ipv6Prefixes = rib->ipv6Prefixes();
  shown.attributeSets = rib->attributeSets();
  shown.ignored = rib->ignored();
  shown.bytesPerRoute.value = shown.routes ? static_cast<double>(shown.residentBytes) / static_cast<double>(shown.routes) : 0;
  shown.routesPerSecond.value = shown.loadSeconds.value > 0 ? static_cast<double>(shown.routes) / shown.loadSeconds.value : 0;
  std::fprintf(narrative, "%s: %" PRIu64 " routes, %" PRIu64 " prefixes (%" PRIu64 " IPv4, %" PRIu64 " IPv6), %" PRIu64
               " attribute sets\n",
               opt.file.c_str(), shown.routes, shown.prefixes, shown.ipv4Prefixes, shown.ipv6Prefixes,
               shown.attributeSets);
  if (shown.ignored) std::fprintf(narrative, "  %" PRIu64 " routes of update records ignored\n", shown.ignored);
  std::fprintf(narrative, "  memory: %.1f MB resident, %.1f bytes per route\n", shown.residentBytes / 1e6,
               shown.bytesPerRoute.value);
  std::fprintf(narrative, "  load: %.3f s (%.0f routes/s, reading and decompressing included)\n", shown.loadSeconds.value,
               shown.routesPerSecond.value);
  int status = shown.damaged ? tools::exitFailure : tools::exitOk;
  if (!opt.publish.empty()) {
    try {
      shown.published.value = publish(*rib, opt, narrative);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "publish failed: %s\n", e.what());
      return tools::exitFailure;
    }
    if (!shown.published.value->agreed) status = tools::exitFailure;
  }
  const auto t1 = Clock::now();
  rib.reset();
  shown.releaseSeconds.value = secondsSince(t1);
  std::fprintf(narrative, "  release: %.3f s\n", shown.releaseSeconds.value);
  if (opt.json) std::printf("%s\n", Kelp::valueToJson(shown).c_str());
  if (std::fflush(stdout) != 0) return tools::exitFailure;
  return status;
}

tools::CommandRegistration reg("rib", [](CLI::App& app) {
  static RibOptions opt;
  auto* cmd = app.add_subcommand(
      "rib",
      "Load a RIB dump (MRT TABLE_DUMP or TABLE_DUMP_V2) into interned route keys and attribute sets and print "
      "its counts, memory per route and load rate");
  cmd->add_option("FILE", opt.file, "MRT RIB dump (bzip2, gzip or plain)")->required();
  cmd->add_flag("--json", opt.json, "Print the result as one JSON object (the steps go to standard error)");
  cmd->add_option("--publish", opt.publish,
                  "Publish a record per prefix in the filtered-route table ROOT/routing/rib/filteredRtStatus/NAME, "
                  "then check a sample of it from a reader process")
      ->type_name("ROOT")
      ->check(tools::tableRoot);
  cmd->add_option("--name", opt.name, "The table's name (default rib)")->check(tools::tableName);
  cmd->add_option("--sample", opt.sample, "About how many prefixes the reader checks (default 1000)")
      ->check(CLI::Range(1u, 100000000u));
  cmd->callback([] {
    if (const int status = runRib(opt); status != tools::exitOk) tools::exitWith(static_cast<tools::ExitStatus>(status));
  });

  static RibOptions reader;
  static std::string root;
  auto* r = app.add_subcommand("rib-reader", "The reader process of rib --publish");
  r->group("");  // hidden: started by rib --publish
  r->add_option("FILE", reader.file, "The dump")->required();
  r->add_option("--root", root, "Directory of the tables")->required();
  r->add_option("--name", reader.name, "Table name");
  r->add_option("--sample", reader.sample, "About how many prefixes to check");
  r->callback([] {
    int status = tools::exitFailure;
    try {
      status = readerMain(reader, root);
    } catch (const std::exception& e) {
      std::printf("reader failed: %s\n", e.what());
    }
    std::fflush(stdout);
    if (status != tools::exitOk) tools::exitWith(static_cast<tools::ExitStatus>(status));
  });
});

}  // namespace
