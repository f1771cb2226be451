// bgpcommon generate-docs man|bash-completion --output FILE (hidden): the manual page and the bash
// completion script, written from the tool's own command line at build time, so that both list
// exactly the commands and options the tool has, with the descriptions its --help shows.
//
// The manual page has a section per command (its synopsis, description, options and notes) and
// the exit statuses (tools/ExitStatus.h) and environment variables (tools/Command.h). The completion
// script completes command names, each command's options, directories after an option of type DIR
// and registered type names for `value parse TYPE`.
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "bgpcommon/version.h"
#include "tools/Command.h"

namespace {

// The commands a user sees (hidden ones, such as the demo's reader, have no group), depth first,
// each with its path of names: {"igp-results", "show"}.
struct Command {
  std::vector<std::string> path;
  const CLI::App* app;
};

void visibleCommands(const CLI::App* app, std::vector<std::string> path, std::vector<Command>& out) {
  for (const CLI::App* sub : app->get_subcommands([](const CLI::App* s) { return !s->get_group().empty(); })) {
    std::vector<std::string> subPath = path;
    subPath.push_back(sub->get_name());
    out.push_back({subPath, sub});
    visibleCommands(sub, subPath, out);
  }
}

std::vector<const CLI::Option*> visibleOptions(const CLI::App* app) {
  return app->get_options([](const CLI::Option* o) { return !o->get_group().empty(); });
}

std::string join(const std::vector<std::string>& words, const char* sep = " ") {
  std::string s;
  for (const std::string& w : words) s += (s.empty() ? "" : sep) + w;
  return s;
}

// An option's value as the synopsis shows it: its type name without the validator's text.
std::string valueName(const CLI::Option* o) {
  std::string type = o->get_type_name();
  type = type.substr(0, type.find(':'));
  if (o->get_positional()) type = o->get_name(true);
  std::string shown = type;
  for (int i = 1; i < o->get_expected_min(); ++i) shown += " " + type;
  if (o->get_items_expected_max() > std::max(o->get_expected_min(), 1)) shown += "...";
  return shown;
}

std::string synopsisOf(const Command& c) {
  std::string s = "bgpcommon " + join(c.path);
  const bool commands = !c.app->get_subcommands([](const CLI::App* x) { return !x->get_group().empty(); }).empty();
  if (commands) return s + " COMMAND";
  for (const CLI::Option* o : visibleOptions(c.app)) {
    if (o->get_positional()) continue;
    if (o->get_name() == "--help") continue;
    std::string part = o->get_name() + (o->get_expected_min() == 0 ? "" : " " + valueName(o));
    s += o->get_required() ? " " + part : " [" + part + "]";
  }
  for (const CLI::Option* o : visibleOptions(c.app)) {
    if (o->get_positional()) s += o->get_required() ? " " + valueName(o) : " [" + valueName(o) + "]";
  }
  return s;
}

// ---- The manual page (roff, man(7) macros) ----------------------------------------------------

// Text for roff: backslashes and hyphens escaped (an option's "--" must print as two minus signs),
// lines joined (roff fills paragraphs itself), and no line starting with a control character.
std::string roff(const std::string& text) {
  std::string out;
  for (char ch : text) {
    if (ch == '\\') {
      out += "\\e";
    } else if (ch == '-') {
      out += "\\-";
    } else if (ch == '\n') {
      out += ' ';
    } else {
      out += ch;
    }
  }
  if (!out.empty() && (out[0] == '.' || out[0] == '\'')) out = "\\&" + out;
  return out;
}

std::string manPage(const CLI::App& app) {
  std::string m = std::string(".TH BGPCOMMON 1 \"\" \"bgpcommon ") + BGPCOMMON_VERSION + "\" \"User Commands\"\n";
  m += ".SH NAME\nbgpcommon \\- " + roff(app.get_description().substr(app.get_description().find(": ") + 2)) + "\n";
  m += ".SH SYNOPSIS\n"
       ".B bgpcommon\n.I command\n.RI [ options ]\n.br\n"
       ".B bgpcommon\n.RB [ \\-\\-help | \\-\\-version ]\n";
  m += ".SH DESCRIPTION\n"
       "The command\\-line tool of the bgpcommon library: values of its registered types printed and parsed, "
       "route targets taken apart, the shared\\-memory IGP result and filtered\\-route tables listed, shown, "
       "watched and filled, and two "
       "demonstrations of the library at work. Every command also takes \\fB\\-\\-help\\fR.\n";
  m += ".SH COMMANDS\n";
  std::vector<Command> commands;
  visibleCommands(&app, {}, commands);
  for (const Command& c : commands) {
    m += ".SS \"" + roff(synopsisOf(c)) + "\"\n" + roff(c.app->get_description()) + "\n";
    for (const CLI::Option* o : visibleOptions(c.app)) {
      if (o->get_name() == "--help") continue;
      const std::string value =
          o->get_positional() || o->get_expected_min() == 0 ? "" : " \\fI" + roff(valueName(o)) + "\\fR";
      m += ".TP\n\\fB" + roff(o->get_name(true, true)) + "\\fR" + value + "\n" + roff(o->get_description()) + "\n";
    }
    // Notes of the command's own; subcommands inherit the top-level footer, shown once below.
    if (!c.app->get_footer().empty() && c.app->get_footer() != app.get_footer()) {
      m += ".PP\n" + roff(c.app->get_footer()) + "\n";
    }
  }
  m += ".SH \"EXIT STATUS\"\n";
  for (const tools::ExitStatusMeaning& e : tools::kExitStatuses) {
    m += ".TP\n.B " + std::to_string(e.status) + "\n" + roff(e.text) + "\n";
  }
  m += ".SH ENVIRONMENT\n";
  for (const tools::Documented& d : tools::kEnvironment) m += ".TP\n.B " + roff(d.name) + "\n" + roff(d.text) + "\n";
  m += ".SH FILES\n";
  for (const tools::Documented& d : tools::kFiles) m += ".TP\n.I " + roff(d.name) + "\n" + roff(d.text) + "\n";
  m += ".SH EXAMPLES\n.nf\n"
       "bgpcommon route\\-target 100:5 1.4464:5 10.0.0.1:7\n"
       "bgpcommon value parse \\-\\-json Routing::Bgp::OutDelay \\e\n"
       "  \"Value('Routing::Bgp::OutDelay', ** {'delay': 30, 'apply': applyChanged})\"\n"
       "bgpcommon igp\\-results list\n"
       "bgpcommon igp\\-results show vrf1 7 12\n"
       "bgpcommon igp\\-results watch vrf1 \\-\\-current \\-\\-json\n"
       ".fi\n";
  return m;
}

// ---- The bash completion script ---------------------------------------------------------------

// A case pattern matching any of `items`, each quoted for bash.
std::string pattern(const std::vector<std::string>& items) {
  std::string s;
  for (const std::string& i : items) s += (s.empty() ? "" : "|") + ("'" + i + "'");
  return s;
}

std::string bashCompletion(const CLI::App& app) {
  std::vector<Command> commands;
  commands.push_back({{}, &app});
  visibleCommands(&app, {}, commands);
  std::vector<std::string> commandPaths, dirs;
  std::map<int, std::vector<std::string>> valued;  // options by the number of values they take
  std::string candidates;
  for (const Command& c : commands) {
    const std::string path = c.path.empty() ? "" : "/" + join(c.path, "/");
    if (!c.path.empty()) commandPaths.push_back(path);
    std::vector<std::string> words;
    for (const CLI::App* sub : c.app->get_subcommands([](const CLI::App* s) { return !s->get_group().empty(); })) {
      words.push_back(sub->get_name());
    }
    for (const CLI::Option* o : visibleOptions(c.app)) {
      if (o->get_positional()) continue;
      for (const std::string& n : o->get_lnames()) words.push_back("--" + n);
      for (const std::string& n : o->get_snames()) words.push_back("-" + n);
      if (o->get_expected_min() == 0) continue;
      for (const std::string& n : o->get_lnames()) {
        if (o->get_type_name() == "DIR") {
          dirs.push_back(path + "/--" + n);
        } else {
          valued[o->get_expected_min()].push_back(path + "/--" + n);
        }
      }
    }
    candidates += "    '" + path + "') candidates='" + join(words) + "' ;;\n";
  }
  std::string valuedCases;
  for (const auto& [count, options] : valued) {
    valuedCases += "      " + pattern(options) + ") skip=" + std::to_string(count) + "; continue ;;\n";
  }
  std::string s = R"(# bash completion for bgpcommon, written from its command line by the tool itself.
_bgpcommon() {
  # The words before the cursor, split at blanks only: a type name's colons stay in its word.
  local line=${COMP_LINE:0:COMP_POINT}
  local cur=${line##*[[:space:]]}
  local -a words
  read -ra words <<< "${line:0:${#line}-${#cur}}"
  # Which command the words name, whether the cursor is at an option's value, and how many
  # arguments the command has been given.
  local path='' w skip=0 dir=0 args=0
  for w in "${words[@]:1}"; do
    if ((skip)); then skip=$((skip - 1)); continue; fi
    dir=0
    case "$path/$w" in
      @COMMANDS@) path+="/$w"; args=0; continue ;;
      @DIRS@) skip=1; dir=1; continue ;;
@VALUED@    esac
    [[ $w == -* ]] || args=$((args + 1))
  done
  COMPREPLY=()
  if ((skip)); then
    ((dir)) && mapfile -t COMPREPLY < <(compgen -d -- "$cur")
    return
  fi
  local candidates=''
  case "$path" in
@CANDIDATES@  esac
  if [[ $path == /value/parse && $args == 0 && $cur != -* ]]; then
    candidates=$("${words[0]}" value list 2>/dev/null)
  fi
  mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$cur")
  # Bash replaces the word after its last colon only: offer that part.
  if [[ $cur == *:* && $COMP_WORDBREAKS == *:* ]]; then
    local before=${cur%"${cur##*:}"}
    COMPREPLY=("${COMPREPLY[@]#"$before"}")
  fi
}
complete -F _bgpcommon bgpcommon
)";
  auto replace = [&](const std::string& key, const std::string& with) { s.replace(s.find(key), key.size(), with); };
  replace("@COMMANDS@", pattern(commandPaths));
  replace("@DIRS@", dirs.empty() ? "''" : pattern(dirs));
  replace("@VALUED@", valuedCases);
  replace("@CANDIDATES@", candidates);
  return s;
}

tools::CommandRegistration reg("generate-docs", [](CLI::App& app) {
  static std::string kind, output;
  auto* cmd = app.add_subcommand("generate-docs", "Write the manual page or the bash completion script");
  cmd->group("");  // hidden: run by the build
  cmd->add_option("KIND", kind, "man or bash-completion")->required()->check(CLI::IsMember({"man", "bash-completion"}));
  cmd->add_option("--output", output, "File to write")->required();
  const CLI::App* root = &app;
  cmd->callback([root] {
    std::ofstream out(output);
    out << (kind == "man" ? manPage(*root) : bashCompletion(*root));
    if (!out.flush()) {
      std::fprintf(stderr, "cannot write %s\n", output.c_str());
      tools::exitWith(tools::exitFailure);
    }
  });
});

}  // namespace
