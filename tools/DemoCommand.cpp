// bgpcommon demo: static routes redistributed into BGP, across two processes.
//
//   bgpcommon demo [--routes N] [--root DIR]   the redistribution flow (default 100000 routes)
//   bgpcommon demo --values                    a short tour of the configuration value types
//
// This process plays the configuring agent: it evaluates a redistribution policy over generated
// static routes, interns the results (IgpResultTable), which publishes one record per distinct
// outcome in the shared IGP result table, and publishes each route with the identifier of its
// result in a filtered-route table. A reader process (this tool again, under the hidden
// subcommand demo-reader) looks every route up by its identifier as redistribution does
// (IgpResultStatusReaderHelper::lookup) and reports what it found. Then some outcomes are released
// (their records withdrawn, their identifiers freed) and new ones take the freed identifiers.
//
// The demo checks the reader's answers and exits 1 if they disagree with what was published. Every
// wait on the reader is bounded.
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BgpCommon/BgpTypesImpl.h"
#include "BgpCommon/FilteredRtStatus.h"
#include "BgpCommon/IgpResultDedupTable.h"
#include "BgpCommon/IgpResultStatusReaderHelper.h"
#include "platform/Kelp/Registry.h"
#include "tools/Command.h"

namespace {

using Routing::Bgp::IgpResult_;
using Routing::Bgp::IgpResultTable;
using Routing::BgpRedistribute::CommunityIndex;
using Routing::BgpRedistribute::FilteredRoute;
using Routing::BgpRedistribute::FilteredRtStatus;
using Routing::BgpRedistribute::IgpResult;
using Routing::BgpRedistribute::IgpResultId;
using Routing::BgpRedistribute::IgpResultLookup;
using Routing::BgpRedistribute::IgpResultReturnType;
using Routing::BgpRedistribute::IgpResultStatus;
using Clock = std::chrono::steady_clock;

constexpr const char* kTableName = "static";
constexpr const char* kFilteredRtPrefix = "routing/rib/filteredRtStatus/";
constexpr std::uint32_t kClauses = 36;          // distinct outcomes of the policy
constexpr std::uint32_t kUnmatchedEvery = 25;   // one route in 25 matches no clause
constexpr std::uint32_t kReplaced[] = {5, 12, 30};  // clauses the operator later replaces
constexpr double kReaderTimeoutSeconds = 30;

double msSince(Clock::time_point t0) { return std::chrono::duration<double, std::milli>(Clock::now() - t0).count(); }

// ---- The value tour (--values) -------------------------------------------------------------

template <typename T>
void show(const char* what, const T& v) {
  Kelp::String text = Kelp::valueToStrep(v);
  T back = Kelp::strepToValue<T>(text);
  std::printf("%s\n  long:  %s\n  short: %s\n  parsed back equal: %s\n", what, text.c_str(), v.toStrep().c_str(),
              back == v ? "yes" : "NO");
}

void valueTour() {
  using namespace Routing::Bgp;
  std::printf("Configuration value types print a long text form that parses back exactly,\n"
              "and a short form for display.\n\n");
  show("A neighbour's route limit", MaxRoutes(1000, 800, true));
  show("Accepted-route limit", MaxAcceptedRoutes(5, 4));
  show("Advertised-route limit", MaxAdvRoutes(20000, 18000));
  show("Advertisement delay", OutDelay(30, Routing::OutDelayApplyType::applyChanged));

  std::printf("\nBad text is refused with a message naming the field at fault:\n");
  const char* bad = "Value('Routing::Bgp::MaxRoutes', ** {'routes': 1000, 'warningThreshold': -1, "
                    "'warningOnly': True})";
  try {
    Kelp::strepToValue<MaxRoutes>(bad);
  } catch (const Kelp::RangeException& e) {
    std::printf("  %s\n", e.what());
  }
  std::printf("\n%zu types are registered (bgpcommon value list).\n", Kelp::registeredTypes().size());
}

// ---- The policy --------------------------------------------------------------------------

// Static route i: 10.0.0.0/24 onwards, one /24 after the other.
Netzo::IpGenPrefix routePrefix(std::uint32_t i) {
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

struct ReaderCounts {
  std::uint64_t routes = 0;
  std::map<std::string, std::uint64_t> byType;
  std::map<std::uint32_t, std::string> probes;  // id -> return type
};

// Parses the reader's lines: "looked up N routes ...: resultFound a, resultDefault b, ..." and
// "id N: TYPE ...".
void parseReaderLine(const std::string& line, ReaderCounts& counts) {
  unsigned long long n = 0;
  if (std::sscanf(line.c_str(), "looked up %llu routes", &n) == 1) {
    counts.routes = n;
    std::size_t colon = line.find("): ");
    std::istringstream rest(colon == std::string::npos ? "" : line.substr(colon + 3));
    std::string name, number;
    while (rest >> name >> number) counts.byType[name] = std::strtoull(number.c_str(), nullptr, 10);
    return;
  }
  unsigned id = 0;
  char type[32] = {};
  if (std::sscanf(line.c_str(), "id %u: %31s", &id, type) == 2) counts.probes[id] = type;
}

std::string selfExecutable() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) throw std::runtime_error("cannot find this program's executable");
  return std::string(buf, static_cast<std::size_t>(n));
}

// Starts `bgpcommon demo-reader ARGS` and relays its output, indented, with a bounded wait.
// Returns what it reported, or nothing when it failed or timed out.
std::optional<ReaderCounts> runReader(const std::vector<std::string>& args) {
  const std::string exe = selfExecutable();
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::fflush(stdout);
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    dup2(fds[1], STDOUT_FILENO);
    dup2(fds[1], STDERR_FILENO);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(exe.c_str()));
    static char sub[] = "demo-reader";
    argv.push_back(sub);
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(exe.c_str(), argv.data());
    _exit(127);
  }
  close(fds[1]);
  ReaderCounts counts;
  std::string pending;
  const auto deadline = Clock::now() + std::chrono::duration<double>(kReaderTimeoutSeconds);
  bool timedOut = false;
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      timedOut = true;
      break;
    }
    pollfd p{fds[0], POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(std::min<long long>(left, 200))) <= 0) continue;
    char buf[4096];
    ssize_t n = read(fds[0], buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    pending.append(buf, static_cast<std::size_t>(n));
    for (std::size_t eol; (eol = pending.find('\n')) != std::string::npos; pending.erase(0, eol + 1)) {
      std::string line = pending.substr(0, eol);
      std::printf("    | %s\n", line.c_str());
      parseReaderLine(line, counts);
    }
  }
  close(fds[0]);
  if (timedOut) kill(pid, SIGKILL);
  int status = 0;
  // The reader has closed its output (or been killed): it is exiting; still, wait no longer than 5 s.
  const auto exitDeadline = Clock::now() + std::chrono::seconds(5);
  pid_t done = 0;
  while ((done = waitpid(pid, &status, WNOHANG)) == 0 && Clock::now() < exitDeadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (done == 0) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    timedOut = true;
  }
  if (timedOut) {
    std::printf("    reader did not finish within %.0f s: stopped\n", kReaderTimeoutSeconds);
    return std::nullopt;
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::printf("    reader failed (status %d)\n", WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    return std::nullopt;
  }
  return counts;
}

// ---- The demo ----------------------------------------------------------------------------

struct Options {
  std::uint32_t routes = 100000;
  std::string root;
  bool values = false;
};

// A directory for the tables: the one given, or a fresh one removed afterwards.
class DemoRoot {
 public:
  explicit DemoRoot(const std::string& given) : path_(given) {
    if (!path_.empty()) return;
    char shm[] = "/dev/shm/bgpcommon-demo-XXXXXX";
    char tmp[] = "/tmp/bgpcommon-demo-XXXXXX";
    const char* made = mkdtemp(shm);
    if (made == nullptr) made = mkdtemp(tmp);
    if (made == nullptr) throw std::runtime_error("cannot create a temporary directory");
    path_ = made;
    temporary_ = true;
  }
  ~DemoRoot() {
    if (temporary_) {
      nftw(
          path_.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
          FTW_DEPTH | FTW_PHYS);
    }
  }
  DemoRoot(const DemoRoot&) = delete;
  DemoRoot& operator=(const DemoRoot&) = delete;
  const std::string& path() const { return path_; }
  bool temporary() const { return temporary_; }

 private:
  std::string path_;
  bool temporary_ = false;
};

std::string joinIds(const std::vector<std::uint32_t>& ids) {
  std::string s;
  for (std::uint32_t id : ids) s += (s.empty() ? "" : ",") + std::to_string(id);
  return s;
}

class Demo {
 public:
  Demo(const Options& opt, const DemoRoot& root) : opt_(opt), root_(root) {}

  int run() {
    const auto start = Clock::now();
    std::printf("Redistributing %u static routes into BGP, across two processes.\n", opt_.routes);
    std::printf("Tables under %s%s\n", root_.path().c_str(), root_.temporary() ? " (temporary)" : "");
    if (!root_.temporary()) {
      std::printf("(watch the records come and go: bgpcommon igp-results watch %s --root %s)\n", kTableName,
                  root_.path().c_str());
    }
    std::printf("\n");
    {
      setUp();
      evaluateAndPublish();
      readAll("2. A reader process looks every route up by its identifier", {});
      releaseOutcomes();
      reuseIdentifiers();
      tearDown();
    }
    std::printf("Summary: %u routes; %u distinct outcomes published as records 1..%u; %zu released (records\n"
                "withdrawn, identifiers %s freed) and their identifiers taken by %zu new outcomes; the reader\n"
                "agreed in %u of %u passes. Total %.0f ms.\n",
                opt_.routes, distinctOutcomes_, distinctOutcomes_, releasedIds_.size(), joinIds(freedOrder_).c_str(),
                releasedIds_.size(), agreed_, passes_, msSince(start));
    if (root_.temporary()) {
      std::printf("Temporary tables removed.\n");
    } else {
      std::printf("Tables left under %s.\n", root_.path().c_str());
    }
    return agreed_ == passes_ && checksFailed_ == 0 ? 0 : 1;
  }

 private:
  void setUp() {
    em_ = Kelp::makePtr<KelpSharedMem::EntityManager>(root_.path());
    status_ = IgpResultStatus::createIgpResultStatusWriter(kTableName, em_, 4096);
    const std::string routesPath = std::string(kFilteredRtPrefix) + kTableName;
    em_->mount(routesPath, FilteredRtStatus::kTypeName,
               {KelpSharedMem::MountMode::writer, {{Kelp::String(FilteredRtStatus::kCollection), opt_.routes + 64}}});
    routes_ = Kelp::ptrDynamicCast<FilteredRtStatus>(em_->entity(routesPath));
    routes_->filteredRouteDelAll();
    table_ = Routing::Bgp::igpResultTableFactory(status_);
    handles_.assign(opt_.routes, nullptr);
  }

  void tearDown() {
    handles_.clear();
    std::printf("5. Shutting down: the routes let go of their results; %u records left in the table\n\n",
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
    std::printf("1. Policy over %u static routes (%u clauses; one route in %u matches none)\n", opt_.routes, kClauses,
                kUnmatchedEvery);
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
    std::printf("   %u results interned into %u distinct outcomes in %.1f ms (%.1f M results/s)\n", results,
                distinctOutcomes_, dedupMs, results / dedupMs / 1e3);
    std::printf("   %u records published under identifiers %u..%u in %s\n", status_->resultCount(), 1u,
                table_->idAllocator()->largestAllocatedId(), IgpResultStatus::mountPath(kTableName).c_str());

    t0 = Clock::now();
    for (std::uint32_t i = 0; i < opt_.routes; ++i) publishRoute(i);
    routes_->routesProcessedIs(true);
    std::printf("   %u routes published with their identifiers in %s%s in %.1f ms\n\n", opt_.routes, kFilteredRtPrefix,
                kTableName, msSince(t0));
  }

  // Runs the reader over every route (and the identifiers in `probe`) and checks its counts.
  void readAll(const char* title, const std::map<std::uint32_t, IgpResultReturnType>& probe) {
    std::printf("%s\n", title);
    std::vector<std::string> args = {"--root", root_.path(), "--name", kTableName, "--routes"};
    std::vector<std::uint32_t> ids;
    for (const auto& [id, type] : probe) ids.push_back(id);
    if (!ids.empty()) {
      args.push_back("--ids");
      args.push_back(joinIds(ids));
    }
    ++passes_;
    std::optional<ReaderCounts> counts = runReader(args);
    if (!counts) return;
    std::uint64_t sum = 0;
    for (const auto& [type, n] : counts->byType) sum += n;
    // The expected answers: with static-route communities off, every lookup is tag-only.
    std::map<std::string, std::uint64_t> want;
    if (counts->byType["resultTagOnly"] == opt_.routes) {
      want["resultTagOnly"] = opt_.routes;
    } else {
      want["resultFound"] = expectedFound_;
      want["resultDefault"] = opt_.routes - expectedFound_;
    }
    bool ok = counts->routes == opt_.routes && sum == opt_.routes;
    for (const auto& [type, n] : want) ok = ok && counts->byType[type] == n;
    if (want.count("resultFound") != 0) {
      for (const auto& [id, type] : probe) ok = ok && counts->probes[id] == stringValue(type);
    }
    std::printf("   %s\n\n", ok ? "the reader's answers match what was published"
                                  : "MISMATCH: the reader's answers differ from what was published");
    if (ok) ++agreed_;
  }

  void releaseOutcomes() {
    std::printf("3. The operator deletes clauses");
    for (std::uint32_t c : kReplaced) std::printf(" %u", c);
    std::printf(": their routes now match no clause\n");
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
    std::printf("   %u routes let go of their results (and were republished without one) in %.1f ms\n", released,
                msSince(t0));
    std::printf("   %zu outcomes left the table: records withdrawn and identifiers freed, in this order: %s;\n"
                "   %u records remain\n\n",
                releasedIds_.size(), joinIds(freedOrder_).c_str(), status_->resultCount());
    std::map<std::uint32_t, IgpResultReturnType> probe;
    for (std::uint32_t id : releasedIds_) probe[id] = IgpResultReturnType::resultNotFound;
    readAll("   The reader again, also asking for the withdrawn identifiers:", probe);
  }

  void reuseIdentifiers() {
    std::printf("4. New clauses replace them (new tags), matched by the same routes\n");
    std::set<std::uint32_t> replaced(std::begin(kReplaced), std::end(kReplaced));
    std::vector<std::uint32_t> newIds;
    for (std::uint32_t i = 0; i < opt_.routes; ++i) {
      std::optional<std::uint32_t> c = clauseOf(i);
      if (!c || replaced.count(*c) == 0) continue;
      IgpResult_ r = clauseResult(*c, 1);
      handles_[i] = table_->dedup(r);
      if (std::find(newIds.begin(), newIds.end(), handles_[i]->id()) == newIds.end()) newIds.push_back(handles_[i]->id());
      publishRoute(i);
      ++expectedFound_;
    }
    const bool reused = newIds == freedOrder_;
    std::printf("   the new outcomes received identifiers %s: %s\n", joinIds(newIds).c_str(),
                reused ? "the freed ones, freed first reused first" : "NOT the freed ones");
    std::printf("   largest identifier ever allocated is still %u; %u records in the table\n\n",
                table_->idAllocator()->largestAllocatedId(), status_->resultCount());
    std::map<std::uint32_t, IgpResultReturnType> probe;
    for (std::uint32_t id : newIds) probe[id] = IgpResultReturnType::resultFound;
    readAll("   The reader once more: the reused identifiers name the new records", probe);
    if (!reused) ++checksFailed_;
  }

  const Options& opt_;
  const DemoRoot& root_;
  Kelp::Ptr<KelpSharedMem::EntityManager> em_;
  Kelp::Ptr<IgpResultStatus> status_;
  Kelp::Ptr<FilteredRtStatus> routes_;
  Kelp::Ptr<IgpResultTable> table_;
  std::vector<Kelp::Ptr<const Routing::Bgp::DedupIgpResult>> handles_;  // per route; null: no result
  std::uint32_t distinctOutcomes_ = 0;
  std::uint64_t expectedFound_ = 0;
  std::set<std::uint32_t> releasedIds_;
  std::vector<std::uint32_t> freedOrder_;
  std::uint32_t passes_ = 0;
  std::uint32_t agreed_ = 0;
  std::uint32_t checksFailed_ = 0;  // checks of this process's own (identifier reuse)
};

void runDemo(const Options& opt) {
  if (opt.values) {
    valueTour();
    return;
  }
  int code = 0;
  try {
    DemoRoot root(opt.root);
    code = Demo(opt, root).run();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "demo failed: %s\n", e.what());
    code = 1;
  }
  std::fflush(stdout);
  if (code != 0) throw CLI::RuntimeError(code);
}

// ---- The reader process (demo-reader) ----------------------------------------------------

struct ReaderOptions {
  std::string root;
  std::string name = kTableName;
  bool routes = false;
  std::vector<std::uint32_t> ids;
};

void readerMain(const ReaderOptions& opt) {
  using Routing::BgpRedistribute::igpResultStatusReaderHelperFactory;
  using Routing::Rib::RouteKey;
  using Routing::Rib::RoutingProtocol;
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(opt.root);
  Kelp::Ptr<IgpResultStatus> status = IgpResultStatus::createIgpResultStatusReader(opt.name, em);
  if (!status || !status->resultControl()->reader()->attached()) {
    std::printf("no IGP result table %s under %s\n", IgpResultStatus::mountPath(opt.name).c_str(), em->root().c_str());
    throw CLI::RuntimeError(2);
  }
  status->resultControl()->corruptionHandlerIs(
      [](std::string_view m) { std::printf("corruption: %.*s\n", static_cast<int>(m.size()), m.data()); });
  auto helper = igpResultStatusReaderHelperFactory(status);

  if (opt.routes) {
    const std::string path = std::string(kFilteredRtPrefix) + opt.name;
    em->mount(path, FilteredRtStatus::kTypeName, {KelpSharedMem::MountMode::reader, {}});
    auto routes = Kelp::ptrDynamicCast<FilteredRtStatus>(em->entity(path));
    // The writer marks the table once every route is in; wait for that, but not for ever.
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (!routes->routesProcessed() && Clock::now() < deadline) {
      routes->filteredRouteControl()->waitForChanges(0.05);
      routes->filteredRouteControl()->poll();
    }
    if (!routes->routesProcessed()) {
      std::printf("the routes were not all published within 10 s\n");
      throw CLI::RuntimeError(3);
    }
    // The toggle is read once per process, on the first static lookup; read it before timing.
    std::printf("reader pid %d, static-route communities %s\n", static_cast<int>(getpid()),
                Routing::BgpRedistribute::IgpResultStatusReaderHelper::staticRouteCommunities() ? "on" : "off");
    std::vector<FilteredRoute> all;
    all.reserve(routes->filteredRouteCount());
    routes->filteredRouteForEach([&](const FilteredRoute& r) { all.push_back(r); });

    std::uint64_t counts[4] = {};
    std::set<std::uint32_t> ids;
    const auto t0 = Clock::now();
    for (const FilteredRoute& r : all) {
      IgpResultLookup l = helper->lookup(RouteKey(r.key), RoutingProtocol::protocolStatic, r.igpResultId.value);
      ++counts[static_cast<unsigned>(l.returnType) & 3];
      if (l.returnType == IgpResultReturnType::resultFound) ids.insert(l.igpResult.key.value);
    }
    const double ms = msSince(t0);
    std::printf("looked up %zu routes in %.2f ms (%.1f M lookups/s): resultFound %llu, resultDefault %llu, "
                "resultNotFound %llu, resultTagOnly %llu\n",
                all.size(), ms, all.size() / ms / 1e3, static_cast<unsigned long long>(counts[1]),
                static_cast<unsigned long long>(counts[0]), static_cast<unsigned long long>(counts[2]),
                static_cast<unsigned long long>(counts[3]));
    std::printf("%zu distinct records found, %u in the table\n", ids.size(), status->resultCount());
  }
  for (std::uint32_t id : opt.ids) {
    IgpResultLookup l = helper->lookup(RouteKey(), RoutingProtocol::protocolStatic, id);
    std::printf("id %u: %s%s%s\n", id, stringValue(l.returnType).c_str(),
                l.returnType == IgpResultReturnType::resultFound ? " " : "",
                l.returnType == IgpResultReturnType::resultFound ? Kelp::valueToStrep(l.igpResult).c_str() : "");
  }
}

tools::CommandRegistration reg("demo", [](CLI::App& app) {
  static Options opt;
  auto* demo = app.add_subcommand("demo", "Redistribute static routes into BGP across two processes");
  demo->add_option("--routes", opt.routes, "How many static routes (default 100000)")->check(CLI::Range(1u, 1000000u));
  demo->add_option("--root", opt.root, "Directory for the tables (default: a temporary one, removed afterwards)");
  demo->add_flag("--values", opt.values, "Show the configuration value types instead");
  demo->footer(
      "This process evaluates a policy over generated static routes, interns the results (one record and\n"
      "identifier per distinct outcome, published in a shared-memory table) and publishes every route with\n"
      "its identifier. A separate reader process looks every route up as redistribution does and reports\n"
      "what it found. Then some outcomes are released and new ones take their identifiers. Exits 1 when\n"
      "the reader's answers differ from what was published. The toggle StaticRouteCommunities in\n"
      "$BGPCOMMON_TOGGLE_DIR/Ira.json switches static-route lookups to tag-only.");
  demo->callback([] { runDemo(opt); });

  static ReaderOptions reader;
  auto* r = app.add_subcommand("demo-reader", "The demo's reader process");
  r->group("");  // hidden: started by the demo
  r->add_option("--root", reader.root, "Directory of the tables");
  r->add_option("--name", reader.name, "Table name");
  r->add_flag("--routes", reader.routes, "Look every published route up");
  r->add_option("--ids", reader.ids, "Identifiers to look up")->delimiter(',');
  r->callback([] {
    try {
      readerMain(reader);
    } catch (const CLI::RuntimeError&) {
      throw;
    } catch (const std::exception& e) {
      std::printf("reader failed: %s\n", e.what());
      throw CLI::RuntimeError(1);
    }
    std::fflush(stdout);
  });
});

}  // namespace
