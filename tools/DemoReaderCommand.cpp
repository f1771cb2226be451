// bgpcommon demo-reader (hidden): the demo's reader process (tools/DemoCommand.cpp starts it).
//
//   bgpcommon demo-reader --root DIR [--name NAME] [--routes] [--ids 3,17,...]
//
// It attaches to the demo's tables read-only, as a process that redistributes routes would: with
// --routes it waits until the writer has published every route, then looks each one up by the
// identifier it carries (IgpResultStatusReaderHelper::lookup) and prints a count line; with --ids
// it looks those identifiers up and prints a line for each. The lines are those of
// tools/ReaderReport.h, which the demo reads back.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "BgpCommon/FilteredRtStatus.h"
#include "BgpCommon/IgpResultStatusReaderHelper.h"
#include "tools/Command.h"
#include "tools/ReaderReport.h"

namespace {

using Routing::BgpRedistribute::FilteredRoute;
using Routing::BgpRedistribute::FilteredRtStatus;
using Routing::BgpRedistribute::IgpResultLookup;
using Routing::BgpRedistribute::IgpResultReturnType;
using Routing::BgpRedistribute::IgpResultStatus;
using Clock = std::chrono::steady_clock;

struct ReaderOptions {
  std::string root;
  std::string name = tools::kDemoTableName;
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
    tools::exitWith(tools::exitFailure);
  }
  status->resultControl()->corruptionHandlerIs(
      [](std::string_view m) { std::printf("corruption: %.*s\n", static_cast<int>(m.size()), m.data()); });
  auto helper = igpResultStatusReaderHelperFactory(status);

  if (opt.routes) {
    const std::string path = FilteredRtStatus::mountPath(opt.name);
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
      tools::exitWith(tools::exitFailure);
    }
    // The toggle is read once per process, on the first static lookup; read it before timing.
    std::printf("reader pid %d, static-route communities %s\n", static_cast<int>(getpid()),
                Routing::BgpRedistribute::IgpResultStatusReaderHelper::staticRouteCommunities() ? "on" : "off");
    std::vector<FilteredRoute> all;
    all.reserve(routes->filteredRouteCount());
    routes->filteredRouteForEach([&](const FilteredRoute& r) { all.push_back(r); });

    std::map<IgpResultReturnType, std::uint64_t> counts;
    std::set<std::uint32_t> ids;
    const auto t0 = Clock::now();
    for (const FilteredRoute& r : all) {
      IgpResultLookup l = helper->lookup(RouteKey(r.key), RoutingProtocol::protocolStatic, r.igpResultId.value);
      ++counts[l.returnType];
      if (l.returnType == IgpResultReturnType::resultFound) ids.insert(l.igpResult.key.value);
    }
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    std::printf("%s\n", tools::ReaderReport::countLine(all.size(), ms, counts).c_str());
    std::printf("%zu distinct records found, %u in the table\n", ids.size(), status->resultCount());
  }
  for (std::uint32_t id : opt.ids) {
    IgpResultLookup l = helper->lookup(RouteKey(), RoutingProtocol::protocolStatic, id);
    const bool found = l.returnType == IgpResultReturnType::resultFound;
    std::printf("%s\n",
                tools::ReaderReport::probeLine(id, l.returnType, found ? Kelp::valueToStrep(l.igpResult) : "").c_str());
  }
}

tools::CommandRegistration reg("demo-reader", [](CLI::App& app) {
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
      tools::exitWith(tools::exitFailure);
    }
    std::fflush(stdout);
  });
});

}  // namespace
