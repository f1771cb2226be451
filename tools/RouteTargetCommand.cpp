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
// A text that does not parse prints its error on standard error, after the text itself (so that
// among many the operator sees which one); the exit status is then 1. So does a text the library
// accepts but cannot hold as written: it keeps the local administrator of the two-octet form in 32
// bits and the halves of a dotted AS in 16 bits each without a check, so 100:4294967296 would
// become 100:0 and 65536.0:1 would become 0L:1. The tool says so instead of showing a route target
// the operator did not write.
#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string_view>

#include <fmt/format.h>

#include "BgpCommon/RouteTarget.h"
#include "platform/Kelp/CharRange.h"
#include "platform/Kelp/TextForm.h"
#include "tools/Command.h"
#include "tools/JsonSupport.h"

namespace {

// Why the text, which the library accepted as `rt`, names numbers `rt` does not hold; none when it
// holds them all (the hex and IPv4 forms always do).
std::optional<std::string> numberLost(std::string_view text, const Routing::Bgp::RouteTarget& rt) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  std::string_view global = text.substr(0, colon);
  if (!global.empty() && global.back() == 'L') global.remove_suffix(1);
  if (Kelp::dectol(text.substr(colon + 1), "RouteTarget") != rt.localAdmin()) return "local administrator";
  const std::size_t dot = global.find('.');
  if (dot != std::string_view::npos && global.find('.', dot + 1) == std::string_view::npos) {
    if (Kelp::dectol(global.substr(0, dot), "RouteTarget") > UINT16_MAX ||
        Kelp::dectol(global.substr(dot + 1), "RouteTarget") > UINT16_MAX) {
      return "half of the dotted AS number";
    }
  }
  return std::nullopt;
}

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

// Says why `text` is refused, naming it (escaped: it may hold anything).
void refuse(const std::string& text, const std::string& why) {
  std::fprintf(stderr, "\"%s\": %s\n", Kelp::quoteExcerpt(text, 64).c_str(), why.c_str());
}

int showRouteTargets(const RouteTargetOptions& opt) {
  int status = 0;
  tools::JsonList<Shown> shown;
  for (const std::string& text : opt.texts) {
    Routing::Bgp::RouteTarget rt;
    try {
      rt.stringValueIs(text);
    } catch (const std::invalid_argument&) {  // the hex form's conversion, saying only "stoull"
      refuse(text, "RouteTarget: not 0x and 16 hex digits");
      status = 1;
      continue;
    } catch (const std::out_of_range&) {
      refuse(text, "RouteTarget: not 0x and 16 hex digits");
      status = 1;
      continue;
    } catch (const std::exception& e) {
      refuse(text, e.what());
      status = 1;
      continue;
    }
    if (auto lost = numberLost(text, rt)) {
      refuse(text, fmt::format("{} out of range; the library would store {}", *lost, rt.toStrep(opt.asDot)));
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
