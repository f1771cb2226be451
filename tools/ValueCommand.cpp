// bgpcommon value list [--json] | parse TYPE TEXT [--json] | tour: every registered type, reachable
// through the registry.
#include <cstdio>

#include "platform/Kelp/Registry.h"
#include "tools/Command.h"
#include "tools/JsonSupport.h"
#include "tools/ValueTour.h"

namespace {

const char* kindName(Kelp::TypeKind k) {
  switch (k) {
    case Kelp::TypeKind::value: return "value";
    case Kelp::TypeKind::enumeration: return "enum";
    case Kelp::TypeKind::entity: return "entity";
  }
  return "?";
}

// A registered type as `value list --json` shows it.
struct TypeShown {
  Kelp::String name;
  Kelp::String kind;

  friend constexpr auto kelpType(Kelp::Tag<TypeShown>) {
    return Kelp::valueType<TypeShown>("tools::TypeShown", Kelp::field("name", &TypeShown::name),
                                      Kelp::field("kind", &TypeShown::kind));
  }
};

struct ValueOptions {
  std::string type;
  std::string text;
  bool verbose = false;
  bool json = false;
};

tools::CommandRegistration reg("value", [](CLI::App& app) {
  auto* value = app.add_subcommand("value", "Print and parse values of the registered types");
  value->require_subcommand(1);

  auto* list = value->add_subcommand("list", "List the registered type names");
  static bool withKind = false;
  static bool listJson = false;
  list->add_flag("--kind,-k", withKind, "Show each type's kind (value, enum, entity)");
  list->add_flag("--json", listJson, "Print a JSON array of {\"name\", \"kind\"} objects");
  list->callback([] {
    tools::JsonList<TypeShown> shown;
    for (const Kelp::TypeInfo* t : Kelp::registeredTypes()) {
      if (listJson) {
        shown.items.push_back({Kelp::String(t->name), kindName(t->kind)});
      } else if (withKind) {
        std::printf("%-60.*s %s\n", static_cast<int>(t->name.size()), t->name.data(), kindName(t->kind));
      } else {
        std::printf("%.*s\n", static_cast<int>(t->name.size()), t->name.data());
      }
    }
    if (listJson) std::printf("%s\n", Kelp::valueToJson(shown).c_str());
  });

  auto* tour = value->add_subcommand("tour", "A short tour of the configuration value types");
  static bool tourJson = false;
  tour->add_flag("--json", tourJson, "Print the tour as one JSON object");
  tour->callback([] {
    if (!tools::valueTour(tourJson)) tools::exitWith(tools::exitFailure);
  });

  static ValueOptions opt;
  auto* parse = value->add_subcommand(
      "parse", "Parse TEXT as a value of TYPE and print its long text form (exit 1 on bad text)");
  parse->add_option("TYPE", opt.type, "Qualified type name, as 'value list' shows it")->required();
  parse->add_option("TEXT", opt.text, "The value's long text form")->required();
  auto* attributes = parse->add_flag("--attributes,-a", opt.verbose, "Also list the type's reflective attributes");
  parse->add_flag("--json", opt.json, "Print the value as JSON instead of its long form")->excludes(attributes);
  parse->callback([] {
    const Kelp::TypeInfo* t = Kelp::findType(opt.type);
    if (t == nullptr) {
      // Shown as parse errors show text, so that control bytes in the name reach no terminal.
      std::fprintf(stderr, "unknown type \"%s\" (see 'bgpcommon value list')\n",
                   Kelp::quoteExcerpt(opt.type, 64).c_str());
      tools::exitWith(tools::exitFailure);
    }
    if (t->strepToValue == nullptr) {
      std::fprintf(stderr, "type '%s' cannot be built from text\n", opt.type.c_str());
      tools::exitWith(tools::exitFailure);
    }
    try {
      std::any v = t->strepToValue(opt.text);
      std::printf("%s\n", (opt.json ? t->valueToJson(v) : t->valueToStrep(v)).c_str());
    } catch (const Kelp::RangeException& e) {
      // The message gives the field and the offset in TEXT; say which argument that is.
      std::fprintf(stderr, "TEXT is not a %s: %s\n", opt.type.c_str(), e.what());
      tools::exitWith(tools::exitFailure);
    }
    if (opt.verbose) {
      for (const Kelp::AttrInfo& a : t->attributes) {
        std::printf("  %d %.*s\n", a.id, static_cast<int>(a.name.size()), a.name.data());
      }
    }
  });
});

}  // namespace
