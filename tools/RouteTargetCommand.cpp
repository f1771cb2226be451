// bgpcommon route-target [--asdot] [--json] TEXT...: parses route targets as an operator writes
// them and shows what they hold, one line each:
//
//   $ bgpcommon route-target 100:5 1.4464:5 10.0.0.1:7
//   0x0002006400000005 twoOctetAs routeTarget global=100 local=5 100:5
//   0x0202000111700005 fourOctetAs routeTarget global=70000 local=5 70000:5
//   0x01020a0000010007 ipv4Address routeTarget global=167772161 local=7 10.0.0.1:7
//
// or, with --json, one array of the same, each element naming the text it came from:
//
//   [{"input":"100:5","value":563379450150917,"type":"twoOctetAs","subtype":"routeTarget",
//     "global":100,"local":5,"text":"100:5"},...]
//
// Texts are read strictly (RouteTarget::fromOperatorText): a text that is not exactly one of the
// operator forms, or names a number its form cannot hold, is refused with the library's message,
// which names the text (escaped, cut to 64 bytes), on standard error; the exit status is then 1.
// The others are still shown, so among many texts the operator sees which ones failed.
#include <cstdint>
#include <cstdio>

#include <fmt/format.h>

#include "BgpCommon/RouteTarget.h"
#include "platform/Kelp/TextForm.h"
#include "tools/Command.h"
#include "tools/JsonSupport.h"

namespace {

struct RouteTargetOptions {
  std::vector<std::string> texts;
  bool asDot = false;
  bool json = false;
};

// One route target as --json shows it.
struct Shown {
  using RouteTarget = Routing::Bgp::RouteTarget;
  Kelp::String input;
  RouteTarget value;
  RouteTarget::ExtCommType type = RouteTarget::ExtCommType::invalidType;
  RouteTarget::ExtCommSubtype subtype = RouteTarget::ExtCommSubtype::invalidSubtype;
  std::uint32_t global = 0;
  std::uint32_t local = 0;
  Kelp::String text;

  friend constexpr auto kelpType(Kelp::Tag<Shown>) {
    return Kelp::valueType<Shown>("tools::RouteTargetShown", Kelp::field("input", &Shown::input),
                                  Kelp::field("value", &Shown::value), Kelp::field("type", &Shown::type),
                                  Kelp::field("subtype", &Shown::subtype), Kelp::field("global", &Shown::global),
                                  Kelp::field("local", &Shown::local), Kelp::field("text", &Shown::text));
  }
};

int showRouteTargets(const RouteTargetOptions& opt) {
  int status = 0;
  tools::JsonList<Shown> shown;
  for (const std::string& text : opt.texts) {
    Routing::Bgp::RouteTarget rt;
    try {
      rt = Routing::Bgp::RouteTarget::fromOperatorText(text);
    } catch (const Kelp::RangeException& e) {
      std::fprintf(stderr, "%s\n", e.what());
      status = 1;
      continue;
    }
    if (opt.json) {
      shown.items.push_back({text, rt, rt.extCommType(), rt.extCommSubtype(), rt.globalAdmin(), rt.localAdmin(),
                             rt.toStrep(opt.asDot)});
      continue;
    }
    std::string line = fmt::format("0x{:016x} {} {} global={} local={} {}\n", rt.value, stringValue(rt.extCommType()),
                                   stringValue(rt.extCommSubtype()), rt.globalAdmin(), rt.localAdmin(),
                                   rt.toStrep(opt.asDot));
    std::fputs(line.c_str(), stdout);
  }
  if (opt.json) std::printf("%s\n", Kelp::valueToJson(shown).c_str());
  return status;
}

tools::CommandRegistration reg("route-target", [](CLI::App& app) {
  static RouteTargetOptions opt;
  auto* cmd = app.add_subcommand("route-target",
                                 "Parse route targets (AS:N, ASL:N, high.low:N, A.B.C.D:N, 0x + 16 hex digits) and "
                                 "show value, type, subtype, administrators and canonical text");
  cmd->add_flag("--asdot", opt.asDot, "Print AS numbers of 65536 and above as high.low");
  cmd->add_flag("--json", opt.json,
                "Print one JSON array, an object per accepted text (refused texts go to standard error)");
  cmd->add_option("TEXT", opt.texts, "Route targets as an operator writes them")->required();
  cmd->callback([] {
    if (showRouteTargets(opt) != 0) tools::exitWith(tools::exitFailure);
  });
});

}  // namespace
