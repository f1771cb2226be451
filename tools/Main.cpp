// bgpcommon: shows the library at work from the shell.
#include <algorithm>
#include <cstdio>
#include <cerrno>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "bgpcommon/version.h"
#include "platform/Kelp/CharRange.h"
#include "tools/Command.h"

namespace tools {

std::vector<RegisteredCommand>& registeredCommands() {
  static std::vector<RegisteredCommand> commands;
  return commands;
}

CommandRegistration::CommandRegistration(std::string name, CommandSetup setup) {
  registeredCommands().push_back({std::move(name), std::move(setup)});
}

std::string helpFooter() {
  std::vector<Documented> statuses;
  std::vector<std::string> numbers;
  numbers.reserve(std::size(kExitStatuses));
  for (const ExitStatusMeaning& m : kExitStatuses) {
    statuses.push_back({numbers.emplace_back(std::to_string(m.status)).c_str(), m.text});
  }
  auto list = [](std::string title, std::span<const Documented> entries) {
    std::size_t width = 0;
    for (const Documented& d : entries) width = std::max(width, std::strlen(d.name));
    for (const Documented& d : entries) title += fmt::format("\n  {:<{}}  {}", d.name, width, d.text);
    return title;
  };
  return list("Exit status:", statuses) + "\n" + list("Environment:", kEnvironment);
}

namespace {

// The edit distance between two words (insertions, deletions, substitutions, transpositions).
std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
    }
  }
  return d[a.size()][b.size()];
}

}  // namespace

// Follows the words at the start of the command line down the subcommands; the first word that
// names none where one is needed is refused, with the nearest command when one is close (a typo
// of at most a third of the word, and at most 2).
bool refuseUnknownCommand(CLI::App& app, int argc, char** argv) {
  CLI::App* at = &app;
  for (int i = 1; i < argc && argv[i][0] != '-'; ++i) {
    const auto subs = at->get_subcommands([](CLI::App*) { return true; });
    if (subs.empty()) return false;
    const std::string_view word = argv[i];
    CLI::App* next = nullptr;
    const CLI::App* nearest = nullptr;
    std::size_t best = std::max<std::size_t>(1, std::min<std::size_t>(2, word.size() / 3)) + 1;
    for (CLI::App* sub : subs) {
      if (sub->check_name(std::string(word))) next = sub;
      if (const std::size_t d = distance(word, sub->get_name()); d < best) {
        best = d;
        nearest = sub;
      }
    }
    if (next == nullptr) {
      std::string path = at == &app ? "" : at->get_name() + " ";
      std::fprintf(stderr, "bgpcommon: unknown command \"%s%s\"", path.c_str(), Kelp::quoteExcerpt(word, 64).c_str());
      if (nearest != nullptr) std::fprintf(stderr, "; did you mean \"%s%s\"?", path.c_str(), nearest->get_name().c_str());
      std::fprintf(stderr, " (see bgpcommon %s--help)\n", path.c_str());
      return true;
    }
    at = next;
  }
  return false;
}

// What coreutils do at exit: output that could not be written (a full disk, a closed pipe where
// SIGPIPE is ignored) is an error, not a silent success.
int checkedStdout(int status) {
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    std::fprintf(stderr, "bgpcommon: write error on standard output: %s\n", std::strerror(errno));
    return status == exitOk ? exitFailure : status;
  }
  return status;
}

}  // namespace tools

int main(int argc, char** argv) {
  CLI::App app{"bgpcommon: data types of a BGP routing agent, from the shell"};
  app.name("bgpcommon");  // not the path it was started by
  app.set_version_flag("--version", std::string("bgpcommon ") + BGPCOMMON_VERSION);
  app.footer(tools::helpFooter());
  app.require_subcommand(1);
  auto& commands = tools::registeredCommands();
  std::sort(commands.begin(), commands.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
  for (const auto& c : commands) c.setup(app);
  if (tools::refuseUnknownCommand(app, argc, argv)) return tools::exitUsage;
  try {
    app.parse(argc, argv);
  } catch (const CLI::RuntimeError& e) {
    return tools::checkedStdout(e.get_exit_code());  // a subcommand's own status
  } catch (const CLI::ParseError& e) {
    // CLI11 gives each kind of bad command line its own status (105 and up); the tool has one for
    // all of them. Help and --version are no error.
    return tools::checkedStdout(app.exit(e) == 0 ? tools::exitOk : tools::exitUsage);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return tools::checkedStdout(tools::exitFailure);
  }
  return tools::checkedStdout(tools::exitOk);
}
