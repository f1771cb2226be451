// bgpcommon route-target [--asdot] TEXT...: parses route targets as an operator writes them and
// shows what they hold, one line each:
//
//   $ bgpcommon route-target 100:5 1.4464:5 10.0.0.1:7
//   0x0002006400000005 twoOctetAs routeTarget global=100 local=5 100:5
//   0x0202000111700005 fourOctetAs routeTarget global=70000 local=5 70000:5
//   0x01020a0000010007 ipv4Address routeTarget global=167772161 local=7 10.0.0.1:7
//
// A text that does not parse prints its error on standard error; the exit status is then 1.
#include <cstdio>
#include <exception>

#include <fmt/format.h>

#include "BgpCommon/RouteTarget.h"
#include "tools/Command.h"

namespace {

struct RouteTargetOptions {
  std::vector<std::string> texts;
  bool asDot = false;
};

int showRouteTargets(const RouteTargetOptions& opt) {
  int status = 0;
  for (const std::string& text : opt.texts) {
    Routing::Bgp::RouteTarget rt;
    try {
      rt.stringValueIs(text);
    } catch (const std::exception& e) {  // RangeException, or the hex form's invalid_argument/out_of_range
      std::fprintf(stderr, "%s\n", e.what());
      status = 1;
      continue;
    }
    std::string line = fmt::format("0x{:016x} {} {} global={} local={} {}\n", rt.value, stringValue(rt.extCommType()),
                                   stringValue(rt.extCommSubtype()), rt.globalAdmin(), rt.localAdmin(),
                                   rt.toStrep(opt.asDot));
    std::fputs(line.c_str(), stdout);
  }
  return status;
}

tools::CommandRegistration reg("route-target", [](CLI::App& app) {
  static RouteTargetOptions opt;
  auto* cmd = app.add_subcommand("route-target",
                                 "Parse route targets (AS:N, ASL:N, high.low:N, A.B.C.D:N, 0x + 16 hex digits) and "
                                 "show value, type, subtype, administrators and canonical text");
  cmd->add_flag("--asdot", opt.asDot, "Print AS numbers of 65536 and above as high.low");
  cmd->add_option("TEXT", opt.texts, "Route targets as an operator writes them")->required();
  cmd->callback([] {
    if (int status = showRouteTargets(opt); status != 0) throw CLI::RuntimeError(status);
  });
});

}  // namespace
